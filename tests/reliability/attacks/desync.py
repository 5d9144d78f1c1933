"""Bodies that look like requests: no answer may be taken for another request's.

Each row goes to a bundled plug-in in a manner that is answered before the body is read, or that
ends in an error, and is followed by a request with an id of its own, which must get its own answer:
on the same connection, and through a proxy whose connections to the server are everybody's.
"""

import itertools
from dataclasses import dataclass

from attacks import haproxy, raw
from attacks.target import PORT, Target
from common.checks import Check, number

SMUGGLED = b"URI: /echo/smuggled"  # in the answer to what is only a body
METHODS = ("GET", "POST", "PUT", "DELETE")
UPGRADE = ("Connection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
           "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n")
HALF_UPGRADE = "Connection: Upgrade\r\nUpgrade: websocket\r\n"
WRONG = "Authorization: Basic YW5uYTp3cm9uZw==\r\n"


@dataclass
class Row:
    """path and fields of the request. broken: the body's framing is wrong behind its beginning."""

    plug_in: str
    manner: str
    path: str
    fields: str = ""
    broken: bool = False


ROWS = (
    Row("files", "early", "/small"), Row("files", "error", "/nothing"),
    Row("echo", "early", "/echo/row"), Row("echo", "error", "/echo/row", broken=True),
    Row("basic_auth", "early", "/private/secret.txt"),
    Row("basic_auth", "error", "/private/secret.txt", WRONG),
    Row("ws_echo", "early", "/ws/echo"), Row("ws_echo", "error", "/ws/echo", HALF_UPGRADE),
    Row("ws_chat", "early", "/chat"), Row("ws_chat", "error", "/chat", HALF_UPGRADE),
    Row("ws_echo", "upgrade", "/ws/echo", UPGRADE), Row("ws_chat", "upgrade", "/chat", UPGRADE),
)


def smuggled(identity):
    return (f"GET /echo/smuggled?id={identity} HTTP/1.1\r\nHost: x\r\nX-Id: {identity}\r\n\r\n"
            .encode())


def request(row, method, chunked, identity):
    body = smuggled(identity) * 3
    head = (f"{method} {row.path} HTTP/1.1\r\nHost: x\r\nX-Id: {identity}\r\n{row.fields}")
    if not chunked:
        # More bytes than were announced are another request's in any case: not a broken one.
        return head.encode() + b"Content-Length: %d\r\n\r\n" % len(body) + body
    end = b"zz\r\n" if row.broken else b"0\r\n\r\n"
    return (head.encode() + b"Transfer-Encoding: chunked\r\n\r\n" +
            b"%x\r\n%s\r\n" % (len(body), body) + end)


def probe(identity):
    return (f"GET /echo/probe?id={identity} HTTP/1.1\r\nHost: x\r\nX-Id: {identity}\r\n\r\n"
            .encode())


def is_probes_own(answer, identity):
    return (answer.status == 200 and b"URI: /echo/probe\n" in answer.body
            and f"id={identity}\n".encode() in answer.body)


def is_rows_own(row, answer, identity):
    """Whether this can be the answer to the row itself."""
    if answer.status <= 0 or SMUGGLED in answer.body:
        return False
    if row.plug_in == "echo" and answer.status == 200:
        return f"X-Id: {identity}\n".encode().lower() in answer.body.lower()
    return True


class Client:
    """Sends rows and probes, each over the connection that was used before as long as it lives."""

    def __init__(self, host, port):
        self._host, self._port = host, port
        self._connection = None
        self._reader = None

    def _connect(self):
        self.close()
        self._connection = raw.connect(self._host, self._port)
        self._reader = raw.Answer_Reader(self._connection)

    def send(self, data):
        if self._connection is None:
            self._connect()
        try:
            self._connection.sendall(data)
        except OSError:
            pass  # closed: the answers that came before are still there

    def read(self):
        return self._reader.read()

    def probe(self, identity, tries=3):
        """The answer to a probe. A connection that the server closes in between is replaced."""
        answer = None
        for _ in range(tries):
            self.send(probe(identity))
            answer = self.read()
            if answer.status != 0:
                break
            self.close()
        return answer

    def close(self):
        if self._connection is not None:
            self._connection.close()
        self._connection = None


def _directly(client, row, data, identity):
    """The row and the probe in one piece. Returns what is wrong, or None."""
    client.send(data + probe(identity))
    answer = client.read()
    if answer.status == 101:
        # What follows are frames, or their end; never an answer of HTTP.
        client.close()
    elif answer.status == 0:
        client.close()
    elif not is_rows_own(row, answer, identity):
        return f"answered with {answer.status} {answer.body[:60]!r}"
    else:
        follow = client.read()
        if follow.status == 0:
            client.close()
        elif not is_probes_own(follow, identity):
            return f"then answered with {follow.status} {follow.body[:60]!r}"
    after = client.probe(identity + 1)
    if not is_probes_own(after, identity + 1):
        return f"another request got {after.status} {after.body[:60]!r}"
    return None


class _Through_A_Proxy:
    """The attacker has one connection to the proxy, and each victim one of its own."""

    def __init__(self, host):
        self._victims = [Client(host, haproxy.PORT) for _ in range(3)]

    def __call__(self, client, row, data, identity):
        client.send(data)
        answer = client.read()
        if answer.status == 101 or not answer.whole:
            client.close()
        elif SMUGGLED in answer.body or not is_rows_own(row, answer, identity):
            return f"answered with {answer.status} {answer.body[:60]!r}"
        for place, victim in enumerate(self._victims):
            after = victim.probe(identity + 1 + place)
            if not is_probes_own(after, identity + 1 + place):
                return f"another client got {after.status} {after.body[:60]!r}"
        return None


def _run_rows(run, host, port, exchange, rounds):
    client = Client(host, port)
    wrong, asked = [], 0
    combinations = list(itertools.product(ROWS, METHODS, (False, True)))
    for _ in range(rounds):
        for row, method, chunked in combinations:
            identity = asked * 10 + 1
            fault = exchange(client, row, request(row, method, chunked, identity), identity)
            asked += 1
            if fault is not None:
                wrong.append(f"{row.plug_in}, {row.manner}, {method}, "
                             f"{'chunked' if chunked else 'counted'}: {fault}")
                client.close()
    client.close()
    run.expect(not wrong, f"{len(wrong)} wrong answers: " + "; ".join(wrong[:3]))
    return asked, len(wrong)


def directly(run):
    rounds = run.count(21, quick=1)
    with Target() as host:
        asked, wrong = _run_rows(run, host, PORT, _directly, rounds)
        run.figure("wrong answers", f"{wrong} of {number(asked)}")


def through_haproxy(run):
    rounds = run.count(21, quick=1)
    haproxy.find()
    with Target() as host, haproxy.Haproxy(host):
        asked, wrong = _run_rows(run, host, haproxy.PORT, _Through_A_Proxy(host), rounds)
        run.figure("wrong answers", f"{wrong} of {number(asked)}")


CHECKS = [
    Check("desync", "bodies that look like requests, on one connection", directly),
    Check("desync-haproxy", "the same through HAProxy with connections that all share",
          through_haproxy),
]
