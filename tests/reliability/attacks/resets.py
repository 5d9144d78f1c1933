"""Clients that reset the connection in the middle of an answer."""

import random
import time

from attacks import raw
from attacks.ordinary import Ordinary_Clients
from attacks.target import TLS_PORT, Target
from common.checks import Check, mebibytes, number
from common.process_figures import resident, threads, wait_until

MOST_GROWTH = 2 << 20  # bytes, after the first rounds have filled the allocator's pools
PATHS = ("/small", "/medium", "/large", "/huge", "/echo")
TLS_SHARE = 10  # one of so many


def _reset_one(host, numbers, tls):
    connection = raw.connect_tls(host, TLS_PORT) if tls else raw.connect(host)
    try:
        path = numbers.choice(PATHS)
        head = "Host: x\r\nConnection: keep-alive\r\n"
        if path == "/echo":
            count = numbers.randrange(1, 200000)
            connection.sendall(f"POST {path} HTTP/1.1\r\n{head}Content-Length: {count}\r\n\r\n"
                               .encode() + bytes(count // 2))
        else:
            connection.sendall(f"GET {path} HTTP/1.1\r\n{head}\r\n".encode() *
                               numbers.randrange(1, 4))
        if numbers.randrange(2):
            connection.recv(numbers.randrange(1, 100000))
    except OSError:
        pass
    raw.reset(connection)


def _rest(host, before):
    """Waits until all that the clients left is gone."""
    def gone():
        return host.sockets() <= before.sockets and threads(host.pid) <= before.threads

    return wait_until(gone, 10)


class _Before:
    def __init__(self, host):
        self.sockets, self.threads = host.sockets(), threads(host.pid)


def resets(run):
    count = run.count(10000, quick=300)
    with Target(tls=True) as host:
        numbers = random.Random(run.seed)
        for path in PATHS:  # files that are kept open, threads' memory and so on are there then
            with raw.connect(host) as connection:
                raw.ask(connection, f"GET {path} HTTP/1.1\r\nHost: x\r\n"
                        "Connection: close\r\n\r\n".encode())
        before = _Before(host)
        for turn in range(count // 5):
            _reset_one(host, numbers, turn % TLS_SHARE == 0)
        _rest(host, before)
        warm = resident(host.pid)
        begin = time.monotonic()
        with Ordinary_Clients(host) as ordinary:
            for turn in range(count):
                _reset_one(host, numbers, turn % TLS_SHARE == 0)
                if turn % 2000 == 1999:
                    run.progress(f"{number(turn + 1)} resets")
        run.figure("resets", f"{number(count)} in {time.monotonic() - begin:.1f} s")
        ordinary.service.report(run)
        back = _rest(host, before)
        run.expect(back is not None, f"{host.sockets()} sockets and {threads(host.pid)} threads, "
                   f"{before.sockets} and {before.threads} before")
        growth = resident(host.pid) - warm
        run.figure("memory", f"{'+' if growth >= 0 else ''}{mebibytes(growth)}")
        run.expect(run.sanitized or growth <= MOST_GROWTH, f"grew by {mebibytes(growth)}")
        begin = time.monotonic()
        run.expect(host.end() == 0, "the host did not end with status 0")
        run.expect(run.sanitized or time.monotonic() - begin < 5, "the end took "
                   f"{time.monotonic() - begin:.1f} s: connections were left")


CHECKS = [Check("resets", "10,000 resets in the middle of answers", resets)]
