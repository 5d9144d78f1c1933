"""What the load asks for: kinds of request in fixed shares, each answer compared with what it must
be. One Asker is one client with a connection of its own for each kind.
"""

import asyncio
import re

# Of twenty requests: 12 GET on a connection that stays, 3 POST with a chunked body, 2 with a
# connection each, 2 by TLS, 1 answered in a worker thread.
ORDER = ("get get post get close get tls get get post get get thread get close get tls get post "
         "get").split()
KINDS = sorted(set(ORDER), key=ORDER.count, reverse=True)

# After so many requests a connection is made anew.
LIFETIMES = {"get": 1000, "post": 200, "close": 1, "tls": 20, "thread": 10}

# Or after so many seconds without a request: the server closes those that are idle for a minute.
IDLE = 20

HELLO = b"Hello, World!"
LIMIT = 60  # seconds for one answer
_LENGTH = re.compile(rb"\r\ncontent-length: *(\d+)\r\n", re.IGNORECASE)


class Bad_Answer(Exception):
    """Not what the server should have said."""


async def read_answer(reader):
    """(status, body) of a counted answer."""
    head = await reader.readuntil(b"\r\n\r\n")
    length = _LENGTH.search(head)
    if not head.startswith(b"HTTP/1.1 ") or not length:
        raise Bad_Answer("no counted answer: %r" % head[:80])
    return int(head[9:12]), await reader.readexactly(int(length[1]))


class Asker:
    """One client. `settings`: address, files (name to content, as served under /files/)."""

    def __init__(self, settings, tls, chance):
        self._address = settings["address"]
        self._files = settings["files"]
        self._tls = tls
        self._chance = chance
        self._connections = {}

    async def ask(self, kind):
        """One request and its answer. Raises Bad_Answer, OSError, EOFError, TimeoutError."""
        try:
            await asyncio.wait_for(self._exchange(kind), LIMIT)
        except BaseException:
            self._drop(kind)
            raise

    async def _exchange(self, kind):
        request, expected = self._request(kind)
        reader, writer = await self._connection(kind)
        writer.write(request)
        status, body = await read_answer(reader)
        if status != 200 or body != expected:
            raise Bad_Answer("%s: status %d, %d bytes" % (kind, status, len(body)))
        if kind == "close" and await reader.read(1):
            raise Bad_Answer("bytes behind the last answer")

    def _request(self, kind):
        if kind == "post":
            pieces = [self._chance.randbytes(self._chance.randrange(1, 4000)) for _ in range(3)]
            body = b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces)
            return (b"POST /probe/collect HTTP/1.1\r\nHost: soak\r\nTransfer-Encoding: chunked"
                    b"\r\n\r\n%s0\r\n\r\n" % body), b"".join(pieces)
        if kind == "close":
            return b"GET /probe/hello HTTP/1.1\r\nHost: soak\r\nConnection: close\r\n\r\n", HELLO
        if kind == "thread":
            return b"GET /probe/thread/hello HTTP/1.1\r\nHost: soak\r\n\r\n", HELLO
        name = self._chance.choice(("small", "small", "small", "middle", "hello"))
        if name == "hello":
            return b"GET /probe/hello HTTP/1.1\r\nHost: soak\r\n\r\n", HELLO
        return (b"GET /files/%s HTTP/1.1\r\nHost: soak\r\n\r\n" % name.encode(),
                self._files[name])

    async def _connection(self, kind):
        """The kind's connection, made anew when it has served its time."""
        now = asyncio.get_running_loop().time()
        left, used, reader, writer = self._connections.get(kind, (0, 0, None, None))
        if left == 0 or now - used > IDLE:
            self._drop(kind)
            secure = {"ssl": self._tls} if kind == "tls" else {}
            reader, writer = await asyncio.open_connection(
                self._address, 8443 if kind == "tls" else 8080, **secure)
            left = LIFETIMES[kind]
        self._connections[kind] = (left - 1, now, reader, writer)
        return reader, writer

    def _drop(self, kind):
        writer = self._connections.pop(kind, (None,))[-1]
        if writer is not None:
            writer.close()

    def close(self):
        for kind in list(self._connections):
            self._drop(kind)
