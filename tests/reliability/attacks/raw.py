"""Bytes to and from a server, below any HTTP library: attackers do not send what those allow."""

import socket
import ssl
import struct
from dataclasses import dataclass

LIMIT = 10  # seconds for whatever is waited for


@dataclass
class Answer:
    """status: 0 when the connection ended before an answer began. whole: its end was seen."""

    status: int
    fields: dict
    body: bytes
    whole: bool


def connect(host, port=8080, limit=LIMIT, receive_buffer=None):
    connection = socket.socket()
    try:
        if receive_buffer is not None:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.settimeout(limit)
        connection.connect((host.address, port))
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    except BaseException:
        connection.close()
        raise
    return connection


def connect_tls(host, port=8443, limit=LIMIT):
    return ssl_context().wrap_socket(connect(host, port, limit))


def ssl_context():
    """Trusts everybody: the certificate is made anew for each host."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


def reset(connection):
    """Closes with a reset instead of an orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def read_all(connection):
    """Everything up to the end, a reset or the connection's limit. Returns bytes and how it
    ended: "end", "reset" or "silence"."""
    pieces = []
    try:
        while True:
            piece = connection.recv(1 << 16)
            if not piece:
                return b"".join(pieces), "end"
            pieces.append(piece)
    except TimeoutError:
        return b"".join(pieces), "silence"
    except OSError:
        return b"".join(pieces), "reset"


class Answer_Reader:
    """Answers of one connection, one after the other."""

    def __init__(self, connection):
        self._connection = connection
        self._bytes = b""

    def _more(self):
        try:
            piece = self._connection.recv(1 << 16)
        except OSError:
            piece = b""
        self._bytes += piece
        return bool(piece)

    def _up_to(self, mark):
        while mark not in self._bytes:
            if not self._more():
                return None
        found, _, self._bytes = self._bytes.partition(mark)
        return found

    def _exactly(self, count):
        while len(self._bytes) < count and self._more():
            pass
        found, self._bytes = self._bytes[:count], self._bytes[count:]
        return found

    def left(self):
        """What came behind the last answer, so far."""
        return self._bytes

    def read(self, to_head=False):
        """The next final answer; 100 Continue is passed over."""
        while True:
            head = self._up_to(b"\r\n\r\n")
            if head is None:
                return Answer(0, {}, self._bytes, False)
            first, *lines = head.split(b"\r\n")
            words = first.split(b" ")
            if len(words) < 2 or not words[0].startswith(b"HTTP/1.") or not words[1].isdigit():
                return Answer(-1, {}, head, False)  # not an answer: bytes of something else
            status = int(words[1])
            if status != 100:
                break
        fields = {}
        for line in lines:
            name, _, value = line.partition(b":")
            fields[name.strip().lower().decode("latin-1")] = value.strip().decode("latin-1")
        body, whole = self._read_body(status, fields, to_head)
        return Answer(status, fields, body, whole)

    def _read_body(self, status, fields, to_head):
        if to_head or status in (101, 204, 304):
            return b"", True
        if fields.get("transfer-encoding", "").lower() == "chunked":
            return self._read_chunks()
        if "content-length" in fields:
            count = int(fields["content-length"])
            body = self._exactly(count)
            return body, len(body) == count
        while self._more():
            pass
        body, self._bytes = self._bytes, b""
        return body, True

    def _read_chunks(self):
        body = b""
        while True:
            line = self._up_to(b"\r\n")
            if line is None:
                return body, False
            count = int(line, 16)
            piece = self._exactly(count + 2)
            if len(piece) < count + 2:
                return body + piece, False
            body += piece[:count]
            if count == 0:
                return body, True


def ask(connection, request):
    """Sends the bytes of one request and reads one answer."""
    try:
        connection.sendall(request)
    except OSError:
        pass  # the answer may be there all the same
    return Answer_Reader(connection).read()
