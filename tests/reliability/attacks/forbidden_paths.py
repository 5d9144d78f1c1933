"""Spellings of paths that nobody may read, against the files plug-in and the password."""

import base64
import random

from attacks import raw
from attacks.path_spellings import spellings
from attacks.target import OUTSIDE, PASSWORD, SECRET, USER, Target
from common.checks import Check, number

# {folder}: of the host, whose folder "site" is the root. Everything here is outside of it, hidden
# in it, or guarded by a password.
FORBIDDEN = (
    "/../outside.txt", "/../../etc/passwd", "/public/../../outside.txt", "/..", "/../users",
    "/../site-beside/outside.txt", "/public/../../../../../../../../etc/passwd",
    "/etc/../../outside.txt", "/.hidden/outside.txt", "/public/../.hidden/outside.txt",
    "/../../../../../../../../{folder}/outside.txt", "//{folder}/outside.txt",
    "/private/secret.txt", "/private/deep/secret.txt", "/private/", "/private",
    "/public/../private/secret.txt", "/x/../private/secret.txt", "/./private/secret.txt",
    "//private/secret.txt",
)
# No answer may hold one of these.
PROTECTED = {"the secret": SECRET, "a file outside": OUTSIDE, "the system's users": b"root:x:0:",
             "the users": USER.encode() + b":$6$"}
METHODS = ("GET", "GET", "GET", "HEAD", "POST")


def make_request(target, address, turn, numbers):
    """One of the ways to put a target into a request."""
    form = (target, target, target, f"http://{address}:8080{target}",
            f"hTTp://other.example{target}")[turn % 5]
    return (f"{numbers.choice(METHODS)} {form} HTTP/1.1\r\nHost: x\r\nContent-Length: 0\r\n"
            "Connection: keep-alive\r\n\r\n").encode("latin-1")


class _Client:
    """Keeps its connection as long as the server does."""

    def __init__(self, host):
        self._host = host
        self._connection = None

    def ask(self, request):
        """Everything that came back for one request, as bytes, and the status."""
        for _ in range(2):  # the server may have closed the kept connection meanwhile
            if self._connection is None:
                self._connection = raw.connect(self._host)
                self._reader = raw.Answer_Reader(self._connection)
                fresh = True
            else:
                fresh = False
            try:
                self._connection.sendall(request)
                answer = self._reader.read(to_head=request.startswith(b"HEAD "))
            except OSError:
                answer = raw.Answer(0, {}, b"", False)
            if not answer.whole or answer.fields.get("connection", "").lower() == "close" or \
                    "content-length" not in answer.fields:
                self.close()
            if answer.status != 0 or fresh:
                break
        return answer, repr(answer.fields).encode("latin-1") + answer.body

    def close(self):
        if self._connection is not None:
            self._connection.close()
        self._connection = None


def forbidden_paths(run):
    count = run.count(10000, quick=100)
    numbers = random.Random(run.seed)
    with Target() as host:
        client = _Client(host)
        leaks, statuses, asked = [], {}, 0
        for place, path in enumerate(FORBIDDEN):
            path = path.format(folder=host.folder.strip("/"))
            for spelling in spellings(path, count, numbers):
                request = make_request(spelling, host.address, asked, numbers)
                answer, seen = client.ask(request)
                asked += 1
                statuses[answer.status] = statuses.get(answer.status, 0) + 1
                leaks += [f"{name} for {request.splitlines()[0]!r}"
                          for name, mark in PROTECTED.items() if mark in seen]
            run.progress(f"{place + 1} of {len(FORBIDDEN)} paths, {number(asked)} requests")
        client.close()
        run.figure("spellings", number(asked))
        run.figure("statuses", ", ".join(f"{status or 'closed'}: {number(times)}" for status, times
                                         in sorted(statuses.items())))
        run.figure("leaks", len(leaks))
        run.expect(not leaks, f"{len(leaks)} leaks: " + "; ".join(leaks[:3]))
        _still_served(run, host)


def _still_served(run, host):
    """The same files are there for those who may have them: else the above would say nothing."""
    token = base64.b64encode(f"{USER}:{PASSWORD}".encode()).decode()
    for path, further, mark in (("/public/note.txt", "", b"public"),
                                ("/private/secret.txt", f"Authorization: Basic {token}\r\n",
                                 SECRET),
                                ("/private/deep/secret.txt", f"Authorization: Basic {token}\r\n",
                                 SECRET)):
        with raw.connect(host) as connection:
            answer = raw.ask(connection, f"GET {path} HTTP/1.1\r\nHost: x\r\n{further}\r\n"
                             .encode())
        run.expect(answer.status == 200 and mark in answer.body,
                   f"{path} is not served to those who may have it: {answer.status}")


CHECKS = [Check("forbidden-paths", "10,000 spellings of each of 20 forbidden paths", forbidden_paths)]
