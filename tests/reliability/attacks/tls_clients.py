"""Clients of the TLS port that do not speak TLS, or do not speak at all."""

import random
import struct
import time

from attacks import raw
from attacks.ordinary import Ordinary_Clients
from attacks.target import TLS_PORT, Target
from common.checks import Check, mebibytes, milliseconds, number, quantile
from common.process_figures import resident, wait_until

HANDSHAKE, CLIENT_HELLO = 22, 1
MOST_GROWTH = 16 << 20  # bytes


def record(payload, kind=HANDSHAKE, length=None):
    return struct.pack("!BHH", kind, 0x0301, len(payload) if length is None else length) + payload


def client_hello(random_numbers, extension_bytes=0):
    """A handshake message that OpenSSL may take for a hello, with an unknown extension."""
    extension = struct.pack("!HH", 0xFDE8, extension_bytes) + bytes(extension_bytes)
    body = (b"\x03\x03" + random_numbers.randbytes(32) + b"\0" + b"\0\x02\xc0\x2b" + b"\x01\0"
            + struct.pack("!H", len(extension) & 0xFFFF) + extension)
    return bytes([CLIENT_HELLO]) + len(body).to_bytes(3, "big") + body


def in_records(message, size=1 << 14):
    return b"".join(record(message[at:at + size]) for at in range(0, len(message), size))


def _kinds(numbers):
    """What is sent, by name; each a function that makes one client's bytes."""
    hello = in_records(client_hello(numbers))
    return {
        "random bytes": lambda: numbers.randbytes(numbers.randrange(1, 4096)),
        "random bytes in a record": lambda: record(numbers.randbytes(200)),
        "truncated handshake": lambda: hello[:numbers.randrange(1, len(hello))],
        "plain HTTP": lambda: b"GET / HTTP/1.1\r\nHost: x\r\n\r\n",
        "record longer than allowed": lambda: record(bytes(1000), length=0xFFFF),
        "hello of 60,000 bytes": lambda: in_records(client_hello(numbers, 60000)),
        "hello that announces 16 MiB": lambda: record(b"\x01\xff\xff\xff" + bytes(16000)) * 8,
        "records without content": lambda: record(b"") * 1000,
        "alerts": lambda: record(b"\x01\x00", kind=21) * 1000,
        "a version of long ago": lambda: b"\x80\x2e\x01\x00\x02" + numbers.randbytes(44),
    }


def _one_client(host, payload, waits):
    try:
        with raw.connect(host, TLS_PORT, limit=5) as connection:
            connection.sendall(payload)
            if waits:
                connection.recv(4096)
    except OSError:
        pass  # it may be cut at any byte


def tls_garbage(run):
    rounds = run.count(100, quick=3)
    with Target(tls=True) as host:
        numbers = random.Random(run.seed)
        before = host.figures()
        sent = 0
        with Ordinary_Clients(host, port=TLS_PORT, tls=True) as ordinary:
            for turn in range(rounds):
                for make in _kinds(numbers).values():
                    # Some wait to be refused, others leave at once, with a hello half said.
                    _one_client(host, make(), waits=turn % 10 == 9)
                    sent += 1
                if turn % 20 == 19:
                    run.progress(f"{number(sent)} clients")
        ordinary.service.report(run, "ordinary TLS requests")
        run.figure("clients with garbage", number(sent))
        back = wait_until(lambda: host.descriptors() <= before.descriptors, 10)
        run.expect(back is not None, f"{host.descriptors()} descriptors, {before.descriptors} "
                   "before")
        growth = resident(host.pid) - before.resident
        run.figure("memory", f"+{mebibytes(growth)}")
        run.expect(run.sanitized or growth <= MOST_GROWTH, f"grew by {mebibytes(growth)}")
        run.expect(host.end() == 0, "the host did not end with status 0")


def _timed_request(host):
    begin = time.monotonic()
    try:
        with raw.connect_tls(host, TLS_PORT, limit=10) as connection:
            status = raw.ask(connection, b"GET /small HTTP/1.1\r\nHost: x\r\n\r\n").status
    except OSError:
        status = 0
    return status, time.monotonic() - begin


def silent_tls_clients(run):
    """Half of them say nothing, half stop within their hello."""
    count = run.count(500, quick=50)
    requests = run.count(50, quick=5)
    with Target(tls=True) as host:
        before = host.descriptors()
        hello = in_records(client_hello(random.Random(run.seed)))
        clients = []
        try:
            for turn in range(count):
                clients.append(raw.connect(host, TLS_PORT))
                if turn % 2:
                    clients[-1].sendall(hello[:20])
            answers = [_timed_request(host) for _ in range(requests)]
        finally:
            for client in clients:
                client.close()
        times = [seconds for _, seconds in answers]
        good = sum(status == 200 and seconds <= 1 for status, seconds in answers)
        run.figure("answered within 1 s", f"{good} of {requests}")
        run.figure("p50", milliseconds(quantile(times, 0.5)))
        run.figure("max", milliseconds(max(times)))
        run.expect(good == requests, f"beside {count} silent clients {requests - good} of "
                   f"{requests} TLS requests were not answered within a second")
        back = wait_until(lambda: host.descriptors() <= before, 10)
        run.expect(back is not None, f"{host.descriptors()} descriptors, {before} before")
        run.expect(host.end() == 0, "the host did not end with status 0")


CHECKS = [
    Check("tls-garbage", "random bytes, half handshakes, plain HTTP, huge hellos to the TLS port",
          tls_garbage),
    Check("tls-silent", "500 clients of the TLS port that say nothing", silent_tls_clients),
]
