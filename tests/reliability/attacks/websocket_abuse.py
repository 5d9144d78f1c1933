"""WebSocket clients that break the rules of the protocol, or keep them without measure."""

from attacks import raw
from attacks import websocket_raw as ws
from attacks.ordinary import Ordinary_Clients
from attacks.pings import send_without_reading
from attacks.target import Target
from common.checks import Check, mebibytes, number
from common.process_figures import forget_peak, peak_resident, resident, wait_until

FIN, RSV1 = 0x80, 0x40
MOST_GROWTH = 4 << 20  # bytes
MOST_TOLD = 5
PATHS = ("/ws/echo", "/ws/thread", "/chat")


def broken_frames():
    """What ends a connection, by name."""
    text = FIN | ws.TEXT
    return {
        "unmasked": ws.header(text, 5, mask=False) + b"hello",
        "compressed bit": ws.frame(text | RSV1, b"hello"),
        "second reserved bit": ws.frame(text | 0x20, b"hello"),
        "third reserved bit": ws.frame(text | 0x10, b"hello"),
        "compressed ping": ws.frame(FIN | RSV1 | ws.PING, b"hello"),
        "fragmented ping": ws.frame(ws.PING, b"hello"),
        "fragmented close": ws.frame(ws.CLOSE, b"\x03\xe8"),
        "long ping": ws.header(FIN | ws.PING, 126) + ws.KEY + bytes(126),
        "long close": ws.header(FIN | ws.CLOSE, 1000) + ws.KEY + bytes(1000),
        "ping of 2^62 bytes": ws.header(FIN | ws.PING, 1 << 62) + ws.KEY + bytes(1000),
        "top bit of a length": ws.header(text, 1 << 63, form=64) + ws.KEY + bytes(1000),
        "length not in its shortest form": ws.header(text, 5, form=16) + ws.KEY + bytes(5),
        "length not in its shorter form": ws.header(text, 300, form=64) + ws.KEY + bytes(300),
        "text that is not UTF-8": ws.frame(text, b"\xff\xfe"),
        "UTF-8 of a surrogate": ws.frame(text, b"\xed\xa0\x80"),
        "message within a message": ws.frame(ws.TEXT, b"a") + ws.frame(text, b"b"),
        "close": ws.frame(FIN | ws.CLOSE, b"\x03\xe8"),
        "close with a byte": ws.frame(FIN | ws.CLOSE, b"\x03"),
        "close with code 0": ws.frame(FIN | ws.CLOSE, b"\0\0"),
        "close with code 65535": ws.frame(FIN | ws.CLOSE, b"\xff\xff"),
        "1,000 closes": ws.frame(FIN | ws.CLOSE, b"\x03\xe8") * 1000,
        "plain HTTP": b"GET /small HTTP/1.1\r\nHost: x\r\n\r\n",
    }


def _broken_rows(rounds):
    for _ in range(rounds):
        for name, data in broken_frames().items():
            for path in PATHS:
                yield name, data, path


def broken(run):
    rounds = run.count(100, quick=2)
    with Target(service=("-i", "60")) as host:
        for path in PATHS:
            ws.connect(host, path).close()
        before, sockets = resident(host.pid), host.sockets()
        forget_peak(host.pid)
        asked, open_still = 0, set()
        with Ordinary_Clients(host) as ordinary:
            for name, data, path in _broken_rows(rounds):
                with ws.connect(host, path, limit=3) as connection:
                    connection.sendall(data)
                    if raw.read_all(connection)[1] == "silence":
                        open_still.add(f"{name} to {path}")
                asked += 1
                if len(open_still) >= MOST_TOLD:
                    break
        run.figure("broken frames", f"{number(asked)} of {len(broken_frames())} kinds")
        run.expect(not open_still, "not closed after: " + ", ".join(sorted(open_still)))
        _nothing_left(run, host, before, sockets, ordinary)


def _endless_fragments():
    """One message that never ends."""
    yield ws.frame(ws.BINARY, b"first")
    while True:
        yield ws.frame(0, b"x" * 1000) * 1000


def _fragments_of_nothing():
    yield ws.frame(ws.TEXT, b"")
    while True:
        yield ws.frame(0, b"") * 100000


def _one_endless_frame():
    yield ws.header(FIN | ws.BINARY, (1 << 63) - 1) + ws.KEY
    while True:
        yield bytes(1 << 20)


def _pongs():
    while True:
        yield ws.frame(FIN | ws.PONG, b"p" * 125) * 8000


def _reserved_opcodes():
    while True:
        yield b"".join(ws.frame(FIN | code, b"r" * 100) for code in (3, 4, 5, 6, 7)) * 2000


ENDLESS = {"fragments": _endless_fragments, "fragments without content": _fragments_of_nothing,
           "a frame of 2^63-1 bytes": _one_endless_frame, "pongs nobody asked for": _pongs,
           "reserved opcodes": _reserved_opcodes}


def endless(run):
    size = run.count(100, quick=6) << 20
    with Target() as host:
        for path in PATHS:
            ws.connect(host, path).close()
        before, sockets = resident(host.pid), host.sockets()
        forget_peak(host.pid)
        with Ordinary_Clients(host) as ordinary:
            for path in PATHS:
                ends = [f"{name}: {_flood(host, path, make(), size)}"
                        for name, make in ENDLESS.items()]
                run.progress(f"{path}: {', '.join(ends)}")
        run.figure(f"up to {mebibytes(size)} each", f"{len(ENDLESS)} kinds on {len(PATHS)} URIs")
        _nothing_left(run, host, before, sockets, ordinary)


def _flood(host, path, pieces, size):
    """Sends up to `size` bytes without reading. Returns how it ended."""
    with ws.connect(host, path) as connection:
        sent = 0
        while sent < size:
            count, end = send_without_reading(connection, next(pieces), 1)
            sent += count
            if end != "taken":
                return f"{end} after {number(sent)} bytes"
    return "taken"


def _nothing_left(run, host, before, sockets, ordinary):
    growth = peak_resident(host.pid) - before
    run.figure("memory", f"+{mebibytes(growth)}")
    ordinary.service.report(run)
    run.expect(run.sanitized or growth <= MOST_GROWTH, f"grew by {mebibytes(growth)}")
    back = wait_until(lambda: host.sockets() <= sockets, 10)
    run.expect(back is not None, f"{host.sockets()} sockets, {sockets} before")
    run.expect(host.end() == 0, "the host did not end with status 0")


def _bad_handshakes():
    key = b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n"
    start = b"GET /ws/echo HTTP/1.1\r\nHost: x\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n"
    version = b"Sec-WebSocket-Version: 13\r\n"
    return {
        "no key": start + version + b"\r\n",
        "no version": start + key + b"\r\n",
        "another version": start + key + b"Sec-WebSocket-Version: 8\r\n\r\n",
        "no such URI": (start + key + version + b"\r\n").replace(b"/ws/echo", b"/nothing"),
    }


def handshakes(run):
    """None of them may bring about a connection without the rules of RFC 6455, 4.2.1."""
    with Target() as host:
        statuses = {}
        for name, data in _bad_handshakes().items():
            with raw.connect(host, limit=5) as connection:
                connection.sendall(data)
                statuses[name] = raw.Answer_Reader(connection).read().status
        run.figure("statuses", ", ".join(f"{name} {status or 'closed'}"
                                         for name, status in statuses.items()))
        wrong = [name for name, status in statuses.items()
                 if status == 101 or not (status == 0 or 400 <= status < 600)]
        run.expect(not wrong, f"not refused: {', '.join(wrong)}")
        run.expect(host.lives(), "the host has ended")


CHECKS = [
    Check("websocket-broken", "frames that break the rules end the connection, in order", broken),
    Check("websocket-endless", "messages, frames and fragments without end", endless),
    Check("websocket-handshakes", "upgrades that break the rules", handshakes),
]
