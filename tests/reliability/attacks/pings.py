"""Pings whose pongs nobody reads, and other answers that nobody reads."""

import select
import time

from attacks import raw
from attacks import websocket_raw as ws
from attacks.ordinary import Ordinary_Clients
from attacks.target import MEDIUM, Target
from common.checks import Check, mebibytes, number
from common.process_figures import forget_peak, peak_resident, resident

MOST_GROWTH = 16 << 20  # bytes
PAYLOAD = b"p" * 125    # the longest of a ping
BATCH = 1000            # pings in one write
STALLED = 0.5           # seconds without progress


def send_without_reading(connection, unit, times):
    """Sends `unit` so many times, or until the server has taken nothing for a while, or the
    connection has ended. Returns how many bytes went out, and how it ended."""
    connection.setblocking(False)
    sent = 0
    for _ in range(times):
        rest = memoryview(unit)
        while rest:
            if not select.select([], [connection], [], STALLED)[1]:
                return sent, "throttled"
            try:
                count = connection.send(rest)
            except BlockingIOError:
                continue
            except OSError:
                return sent, "cut"
            sent += count
            rest = rest[count:]
    return sent, "taken"


def read_all_pongs(connection, pings, rest_of_frame):
    """Completes the ping that was cut and reads what has been held back. Returns the pongs."""
    connection.settimeout(10)
    pongs, data = 0, b""
    connection.setblocking(False)
    to_send = memoryview(rest_of_frame)
    while pongs < pings:
        readable, writable, _ = select.select([connection], [connection] if to_send else [], [],
                                              10)
        if writable:
            to_send = to_send[connection.send(to_send):]
        if not readable:
            if not writable:
                return pongs
            continue
        piece = connection.recv(1 << 20)
        if not piece:
            return pongs
        frames, data = ws.split_frames(data + piece)
        for first, payload in frames:
            if (first, payload) != (0x80 | ws.PONG, PAYLOAD):
                return -1
            pongs += 1
    return pongs


def _ping_one(run, host, path, count):
    ping = ws.frame(0x80 | ws.PING, PAYLOAD)
    before = resident(host.pid)
    forget_peak(host.pid)
    with ws.connect(host, path) as connection:
        with Ordinary_Clients(host) as ordinary:
            sent, end = send_without_reading(connection, ping * BATCH, count // BATCH)
            time.sleep(run.count(3, quick=0.1))  # that long it holds what it has been given
        growth = peak_resident(host.pid) - before
        run.figure(path, f"{number(sent // len(ping))} pings {end}, memory "
                   f"+{mebibytes(growth)}")
        ordinary.service.report(run, f"beside {path}")
        run.expect(run.sanitized or growth <= MOST_GROWTH,
                   f"{path}: grew by {mebibytes(growth)}")
        if end == "cut":
            return
        begun = -(-sent // len(ping))
        pongs = read_all_pongs(connection, begun, ping[sent % len(ping) or len(ping):])
        run.figure("then read", f"{number(pongs)} pongs")
        run.expect(pongs == begun, f"{path}: {pongs} pongs of {begun}")


def unread_pongs(run):
    count = run.count(1000000, quick=50000)
    with Target(service=("-t", "1")) as host:
        for path in ("/ws/echo", "/ws/thread", "/chat"):
            run.progress(f"{path}: {number(count)} pings")
            _ping_one(run, host, path, count)
        run.expect(host.lives(), "the host has ended")


REQUESTS = {
    "files": b"GET /medium HTTP/1.1\r\nHost: x\r\n\r\n",
    "echo": b"POST /echo HTTP/1.1\r\nHost: x\r\nContent-Length: 60000\r\n\r\n" + b"e" * 60000,
}
MOST_REQUESTS = 400


def unread_answers(run):
    """Requests one behind the other, by clients that read nothing: they wait, and no others."""
    with Target(service=("-t", "1")) as host:
        raw.ask(raw.connect(host), REQUESTS["files"])
        for name, request in REQUESTS.items():
            before = resident(host.pid)
            forget_peak(host.pid)
            clients = []
            try:
                with Ordinary_Clients(host) as ordinary:
                    for _ in range(run.count(50, quick=3)):
                        clients.append(raw.connect(host, receive_buffer=1))
                        clients[-1].setblocking(False)
                    for client in clients:
                        _send_some(client, request * MOST_REQUESTS)
                    time.sleep(run.count(5, quick=0.5))
                growth = peak_resident(host.pid) - before
                run.figure(f"{name}: {len(clients)} clients", f"memory +{mebibytes(growth)}")
                ordinary.service.report(run, f"beside {name}")
                run.expect(run.sanitized or growth <= MOST_GROWTH,
                           f"{name}: grew by {mebibytes(growth)}")
            finally:
                for client in clients:
                    client.close()
        _read_late(run, host)


def _send_some(client, data):
    try:
        client.send(data)
    except OSError:
        pass


def _read_late(run, host):
    """What was held back comes whole and in order once it is read."""
    count = run.count(100, quick=50)
    with raw.connect(host, receive_buffer=1) as client:
        client.sendall(REQUESTS["files"] * count)
        time.sleep(0.5)
        reader = raw.Answer_Reader(client)
        answers = [reader.read() for _ in range(count)]
        good = sum(answer.status == 200 and answer.body == b"m" * MEDIUM for answer in answers)
        run.figure("read late", f"{good} of {count} answers")
        run.expect(good == count, f"{count - good} of {count} answers were not right")


CHECKS = [
    Check("unread-pongs", "a million pings whose pongs nobody reads", unread_pongs),
    Check("unread-answers", "requests behind each other whose answers nobody reads",
          unread_answers),
]
