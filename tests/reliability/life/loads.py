"""What the clients of a crowd ask for, and the host that answers it."""

import os
import random
from dataclasses import dataclass

from host_program import Host_Program

HELLO = b"Hello, World!"
LARGE = 1024 * 1024
HUGE = 8 * LARGE  # more than a connection's buffers hold

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
    """One client: what it asks for again and again, and what it must get.

    websocket: the target of one; then `body` is what goes there and back. where: "tcp", "tls" or
    "unix". slow: takes little at a time, so that the server is mostly in the middle of an answer.
    at_once: requests that are sent together.
    """

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
