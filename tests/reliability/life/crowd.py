"""Clients of every kind that ask without a pause, each in a thread, while the server is started,
stopped and killed under them. What they get must be whole answers, or the end of the connection.
"""

import os
import random
import socket
import threading
from dataclasses import dataclass, field

from host_program import Host_Program
from strict_client import LIMIT, Ended, Strict_Client, Wrong, tls_context
from strict_websocket import Strict_WebSocket

HELLO = b"Hello, World!"
LARGE = 1024 * 1024
HUGE = 8 * LARGE  # more than a connection's buffers hold
WARM = 3  # answers that each client has had before something is done to the server; slow ones: 1

HTTP = [
    {"uri": "/probe", "dll": "probe_plugin", "init": "_make_Probe"},
    {"uri": "/files", "dll": "httpd_files", "init": "_make_Files", "params": "--root {folder}/www"},
]
WEBSOCKET = [
    {"uri": "/loop", "dll": "httpd_ws_echo", "init": "_make_WS_Echo"},
    {"uri": "/thread", "dll": "httpd_ws_echo", "init": "_make_WS_Echo", "params": "--thread"},
]


def get(target, fields=""):
    return ("GET %s HTTP/1.1\r\nHost: test\r\n%s\r\n" % (target, fields)).encode()


def chunked_post(target, pieces):
    body = b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces)
    return (b"POST %s HTTP/1.1\r\nHost: test\r\nTransfer-Encoding: chunked\r\n\r\n%s0\r\n\r\n"
            % (target.encode(), body))


@dataclass
class Load:
    """One client: what it asks for again and again, and what it must get. websocket: the target
    of one; then `body` is what goes there and back. where: "tcp", "tls" or "unix". slow: takes
    little at a time, so that the server is mostly in the middle of an answer. at_once: requests that
    are sent together."""

    name: str
    request: bytes
    body: bytes
    where: str = "tcp"
    websocket: str = ""
    slow: bool = False
    at_once: int = 1


def loads(large, huge):
    """All kinds; `large`, `huge`: what the files of that name hold."""
    upload = b"u" * (100 * 1024)
    posted = b"%d" % (2 * len(upload))
    return [
        Load("keep-alive", get("/probe/hello"), HELLO),
        Load("pipelined", get("/probe/hello"), HELLO, at_once=30),
        Load("connection per request", get("/probe/hello", "Connection: close\r\n"), HELLO),
        Load("chunked answer", get("/probe/chunked"), HELLO),
        Load("worker thread", get("/probe/thread"), HELLO),
        Load("large answer", get("/probe/large"), b"x" * LARGE),
        Load("large file in a thread", get("/files/large"), large),
        Load("slow reader", get("/files/huge"), huge, slow=True),
        Load("slow reader by TLS", get("/files/huge"), huge, "tls", slow=True),
        Load("slow reader by UNIX-domain socket", get("/files/huge"), huge, "unix", slow=True),
        Load("chunked upload", chunked_post("/probe/count", [upload, upload]), posted),
        Load("chunked upload to a thread", chunked_post("/probe/thread/count", [upload, upload]),
             posted),
        Load("TLS", get("/probe/hello"), HELLO, "tls"),
        Load("TLS, large file in a thread", get("/files/large"), large, "tls"),
        Load("UNIX-domain socket", get("/probe/hello"), HELLO, "unix"),
        Load("WebSocket", b"", b"There and back. " * 100, "tcp", "/loop"),
        Load("WebSocket in a thread", b"", b"There and back. " * 10000, "tcp", "/thread"),
    ]


def make_files(folder):
    """The folder www. Returns what its files "large" and "huge" hold."""
    chance = random.Random(1)
    contents = []
    os.makedirs(os.path.join(folder, "www"), exist_ok=True)
    for name, size in (("large", LARGE), ("huge", HUGE)):
        contents.append(chance.randbytes(size))
        with open(os.path.join(folder, "www", name), "wb") as file:
            file.write(contents[-1])
    return contents


LISTEN = ("{address}:8080", "{address}:8443s", "{folder}/socket")


def make_host(**arguments):
    """A host that every load can ask, not started."""
    arguments.setdefault("listen", LISTEN)
    return Host_Program(http=HTTP, websocket=WEBSOCKET, tls=True, log_level="info", **arguments)


def connect(host, load):
    """A socket that is connected, or None where nobody listens."""
    connection = socket.socket(socket.AF_UNIX if load.where == "unix" else socket.AF_INET)
    try:
        connection.settimeout(LIMIT)
        if load.slow:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16 * 1024)
        if load.where == "unix":
            connection.connect(os.path.join(host.folder, "socket"))
            return connection
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        connection.connect((host.address, 8443 if load.where == "tls" else 8080))
        return _CONTEXT.wrap_socket(connection) if load.where == "tls" else connection
    except OSError:
        connection.close()
        return None


_CONTEXT = tls_context()


@dataclass
class Tally:
    """answered: whole answers. cut: the connection ended within one. lost: before its first byte.
    wrong: what should not have been, told."""

    answered: int = 0
    cut: int = 0
    lost: int = 0
    wrong: list = field(default_factory=list)

    def add(self, other):
        self.answered += other.answered
        self.cut += other.cut
        self.lost += other.lost
        self.wrong += other.wrong


class Client(threading.Thread):
    """Asks until the crowd leaves."""

    def __init__(self, crowd, load):
        super().__init__()
        self.tally = Tally()
        self._crowd = crowd
        self._load = load

    def run(self):
        try:
            while not self._crowd.leaving:
                connection = connect(self._crowd.host, self._load)
                if connection is None:
                    self._crowd.wait_for_server()
                else:
                    self._use(connection)
        except Exception as error:  # pylint: disable=broad-except
            self._note("%s: %s" % (type(error).__name__, error))

    def _note(self, text):
        self.tally.wrong.append("%s: %s" % (self._load.name, text))

    def _use(self, connection):
        client = None
        try:
            if self._load.websocket:
                client = Strict_WebSocket(connection, self._load.websocket)
            else:
                client = Strict_Client(connection, piece=8192 if self._load.slow else 256 * 1024)
            while not self._crowd.leaving:
                self._ask(client)
                self._crowd.answered(self._load.name)
        except Ended as end:
            if not (isinstance(client, Strict_Client) and client.ends):
                self.tally.cut += end.begun
                self.tally.lost += not end.begun
            if isinstance(client, Strict_Client) and not self._load.body.startswith(client.body):
                self._note("a cut answer holds something else")
        except Wrong as problem:
            self._note(str(problem))
        finally:
            connection.close()

    def _ask(self, client):
        if self._load.websocket:
            client.echo(self._load.body)
            self.tally.answered += 1
            return
        client.ask(self._load.request * self._load.at_once)
        for _ in range(self._load.at_once):
            status, body = client.answer()
            if status != 200 or body != self._load.body:
                raise Wrong("status %d, %d bytes" % (status, len(body)))
            self.tally.answered += 1


class Crowd:
    """One client for each load, until leave(). A context manager that leaves at its end."""

    def __init__(self, host, kinds):
        self.host = host
        self.leaving = False
        self._changed = threading.Condition()
        self._open = True
        self._answers = dict.fromkeys((load.name for load in kinds), 0)
        self._wanted = {load.name: 1 if load.slow else WARM for load in kinds}
        self._clients = [Client(self, load) for load in kinds]
        for client in self._clients:
            client.start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.leave()

    def answered(self, name):
        with self._changed:
            self._answers[name] += 1
            self._changed.notify_all()

    def wait_until_warm(self, seconds=LIMIT):
        """Until each client has had some answers since the last call. Returns those that have
        not."""
        with self._changed:
            def cold():
                return [name for name, count in self._answers.items()
                        if count < self._wanted[name]]
            self._changed.wait_for(lambda: not cold(), seconds)
            missing = cold()
            self._answers = dict.fromkeys(self._answers, 0)
            return missing

    def server_is(self, is_open):
        """Clients that are refused wait while it is not open."""
        with self._changed:
            self._open = is_open
            self._changed.notify_all()

    def wait_for_server(self):
        with self._changed:
            # A little while also where it is open: a listener opens after another.
            self._changed.wait_for(lambda: self.leaving, 0.002)
            self._changed.wait_for(lambda: self._open or self.leaving)

    def leave(self):
        """Ends the clients. Returns the Tally of all. May be called again."""
        with self._changed:
            self.leaving = True
            self._changed.notify_all()
        tally = Tally()
        for client in self._clients:
            client.join()
            tally.add(client.tally)
        return tally
