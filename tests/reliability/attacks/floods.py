"""Headers that are too long, too many or no headers at all."""

import random

from attacks import raw
from attacks.ordinary import Ordinary_Clients
from attacks.target import Target
from common.checks import Check, mebibytes, number
from common.process_figures import forget_peak, peak_resident, resident, wait_until

MOST_GROWTH = 8 << 20  # bytes
REFUSED = {0, 400, 405, 408, 411, 413, 414, 417, 431, 501, 505}
GOOD = b"GET /small HTTP/1.1\r\nHost: x\r\n"


def kinds(numbers):
    """What is sent, by name: the bytes, the statuses that are right (0: closed, no answer)."""
    return {
        "a header of 1 MiB": (GOOD + b"X: " + b"a" * (1 << 20) + b"\r\n\r\n", REFUSED),
        "a header line without end": (GOOD + b"X: " + b"a" * (4 << 20), REFUSED),
        "10,000 headers": (GOOD + b"".join(b"X-%d: y\r\n" % i for i in range(10000)) + b"\r\n",
                           REFUSED),
        "200 short headers": (GOOD + b"".join(b"A%d:b\r\n" % i for i in range(200)) + b"\r\n",
                              REFUSED),
        "a name of 100 KiB": (GOOD + b"X" * 100000 + b": y\r\n\r\n", REFUSED),
        "an URI of 1 MiB": (b"GET /" + b"a" * (1 << 20) + b" HTTP/1.1\r\nHost: x\r\n\r\n",
                            REFUSED),
        "a method of 100 KiB": (b"G" * 100000 + b" / HTTP/1.1\r\nHost: x\r\n\r\n", REFUSED),
        "random bytes": (numbers.randbytes(5000), REFUSED),
        "a line of NUL": (bytes(100) + b"\r\n\r\n", REFUSED),
        "CR LF without end": (b"\r\n" * 100000, REFUSED),
        "LF without end": (b"\n" * 100000, REFUSED),
        "a TLS hello": (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03" + bytes(506), REFUSED),
        "HTTP/0.9": (b"GET /small\r\n", REFUSED),
        "HTTP/0.9 with a version": (b"GET /small HTTP/0.9\r\n\r\n", REFUSED),
        "HTTP/2's preface": (b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + b"\0\0\0\4\0\0\0\0\0", REFUSED),
        "PRI * HTTP/1.1": (b"PRI * HTTP/1.1\r\nHost: x\r\n\r\n", REFUSED | {404}),
        "HTTP/3.0": (b"GET /small HTTP/3.0\r\nHost: x\r\n\r\n", REFUSED),
        "HTTP/1.1 in small letters": (b"GET /small http/1.1\r\nHost: x\r\n\r\n", REFUSED),
        "no version": (b"GET /small \r\nHost: x\r\n\r\n", REFUSED),
        "two versions": (b"GET /small HTTP/1.1 HTTP/1.1\r\nHost: x\r\n\r\n", REFUSED),
        "CONNECT": (b"CONNECT example.org:80 HTTP/1.1\r\nHost: example.org:80\r\n\r\n",
                    REFUSED | {404}),
        "TRACE": (b"TRACE / HTTP/1.1\r\nHost: x\r\n\r\n", REFUSED),
        "an unknown expectation": (b"GET /small HTTP/1.1\r\nHost: x\r\nExpect: wonders\r\n\r\n",
                                   REFUSED | {200}),
        "an unknown upgrade": (b"GET /small HTTP/1.1\r\nHost: x\r\nConnection: upgrade\r\n"
                               b"Upgrade: h2c\r\n\r\n", REFUSED | {200}),
        "many ranges": (b"GET /large HTTP/1.1\r\nHost: x\r\nRange: bytes=" +
                        b",".join(b"%d-" % i for i in range(1000)) + b"\r\n\r\n",
                        {200, 206, 400, 416}),
    }


def _ask(host, data):
    """The status of the answer, 0 when there was none, None when the server still waits."""
    with raw.connect(host, limit=3) as connection:
        try:
            connection.sendall(data)
        except OSError:
            pass
        try:
            answered = connection.recv(4096)
        except TimeoutError:
            return None
        except OSError:
            answered = b""
    if not answered:
        return 0
    words = answered.split(b" ")
    return int(words[1]) if words[0].startswith(b"HTTP/1.") and words[1].isdigit() else -1


def floods(run):
    rounds = run.count(200, quick=2)
    with Target(service=("-i", "1")) as host:
        _ask(host, GOOD + b"Connection: close\r\n\r\n")
        before, sockets = resident(host.pid), host.sockets()
        forget_peak(host.pid)
        statuses = {}
        with Ordinary_Clients(host) as ordinary:
            for turn in range(rounds):
                for name, (data, allowed) in kinds(random.Random(run.seed + turn)).items():
                    statuses[name] = status = _ask(host, data)
                    if status not in allowed:
                        run.expect(False, f"{name}: status {status}")
                if turn % 50 == 49:
                    run.progress(f"{turn + 1} of {rounds} rounds")
        growth = peak_resident(host.pid) - before
        answered = sorted({status for status in statuses.values() if status})
        closed = sum(status == 0 for status in statuses.values())
        run.figure("requests", number(rounds * len(statuses)))
        run.figure(f"{len(statuses)} kinds", f"{closed} closed, {len(statuses) - closed} answered "
                   f"({', '.join(map(str, answered))})")
        run.figure("memory", f"+{mebibytes(growth)}")
        ordinary.service.report(run)
        run.expect(run.sanitized or growth <= MOST_GROWTH, f"grew by {mebibytes(growth)}")
        back = wait_until(lambda: host.sockets() <= sockets, 10)
        run.expect(back is not None, "sockets are left")
        run.expect(host.end() == 0, "the host did not end with status 0")


CHECKS = [Check("floods", "oversized, endless and meaningless headers", floods)]
