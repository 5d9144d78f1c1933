"""Chunk extensions without end, and other ways to make a chunked body all framing."""

import threading

from attacks import raw
from attacks.ordinary import Ordinary_Clients
from attacks.target import Target
from common.checks import Check, mebibytes
from common.process_figures import forget_peak, peak_resident, resident

MOST_GROWTH = 4 << 20  # bytes
HEAD = b"POST /echo HTTP/1.1\r\nHost: x\r\nTransfer-Encoding: chunked\r\n\r\n"
PIECE = 1 << 20


def one_extension(size):
    yield HEAD + b"5;a="
    for _ in range(size // PIECE):
        yield b"x" * PIECE
    yield b"\r\nhello\r\n0\r\n\r\n"


def many_extensions(size):
    """One chunk of one byte for each 200 bytes of extension."""
    yield HEAD
    chunk = b"1;" + b"name=value;" * 18 + b"\r\nh\r\n"
    for _ in range(size // PIECE):
        yield chunk * (PIECE // len(chunk))
    yield b"0\r\n\r\n"


def extension_of_the_last(size):
    yield HEAD + b"5\r\nhello\r\n0;"
    for _ in range(size // PIECE):
        yield b"x" * PIECE
    yield b"\r\n\r\n"


def endless_size(size):
    yield HEAD
    for _ in range(size // PIECE):
        yield b"0" * PIECE
    yield b"5\r\nhello\r\n0\r\n\r\n"


KINDS = {"in one": (one_extension, b"hello"), "in many": (many_extensions, None),
         "in the last": (extension_of_the_last, b"hello"), "zeros in a size": (endless_size, b"hello")}


def _send(connection, pieces):
    try:
        for piece in pieces:
            connection.sendall(piece)
    except OSError:
        pass  # refused meanwhile, which is well


def _attack(host, pieces):
    """Sends and reads at the same time, as the answer may come early."""
    with raw.connect(host, limit=60) as connection:
        sender = threading.Thread(target=_send, args=(connection, pieces))
        sender.start()
        try:
            return raw.Answer_Reader(connection).read()
        finally:
            sender.join()


def chunk_extensions(run):
    size = run.count(100, quick=4) << 20
    with Target() as host:
        _attack(host, one_extension(PIECE))  # what the first one needs is there then
        for name, (make, body) in KINDS.items():
            before = resident(host.pid)
            forget_peak(host.pid)
            with Ordinary_Clients(host) as ordinary:
                answer = _attack(host, make(size))
            growth = peak_resident(host.pid) - before
            outcome = f"status {answer.status}" if answer.status else "closed"
            run.figure(f"{mebibytes(size)} {name}", f"{outcome}, memory +{mebibytes(growth)}")
            run.expect(run.sanitized or growth <= MOST_GROWTH,
                       f"{name}: memory grew by {mebibytes(growth)}")
            run.expect(answer.status in (0, 200, 400, 413), f"{name}: status {answer.status}")
            if answer.status == 200:
                echoed = answer.body.partition(b"\n\n")[2]
                right = echoed == body if body is not None else set(echoed) <= set(b"h")
                run.expect(right and answer.whole, f"{name}: another body than was sent")
            ordinary.service.report(run, f"beside {name}")
        run.expect(host.lives(), "the host has ended")


CHECKS = [Check("chunk-extensions", "100 MiB of chunk extensions in one body", chunk_extensions)]
