"""A blocking HTTP client that takes nothing for granted: what the server sends must be whole
answers, byte for byte, up to the point where the connection ends.
"""

import re
import socket
import ssl

LIMIT = 30  # seconds for anything that is waited for
_LARGEST_HEAD = 16 * 1024

_STATUS_LINE = re.compile(rb"HTTP/1\.1 ([1-5][0-9][0-9]) [ -~]*\Z")
_FIELD = re.compile(rb"([!#$%&'*+.^_`|~0-9A-Za-z-]+): ?([\t -~]*)\Z")
_CHUNK_SIZE = re.compile(rb"[0-9A-Fa-f]{1,8}\Z")


class Ended(Exception):
    """The connection ended. begun: some of an answer had come before."""

    def __init__(self, begun):
        super().__init__("the connection ended")
        self.begun = begun


class Wrong(Exception):
    """Bytes that no server may send at this point."""


def tls_context():
    """Trusts any certificate: who the server is is not in question here."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context


class Byte_Source:
    """Reads from a socket in units that a protocol has. `taken` counts the bytes of one message.

    piece: how many bytes are received at a time.
    """

    def __init__(self, connection, piece=256 * 1024):
        connection.settimeout(LIMIT)
        self.connection = connection
        self._piece = piece
        self._bytes = bytearray()
        self.taken = 0

    def _more(self):
        try:
            data = self.connection.recv(self._piece)
        except socket.timeout as error:
            raise Wrong("neither an answer nor an end for %d s" % LIMIT) from error
        except (ssl.SSLEOFError, ssl.SSLZeroReturnError):
            data = b""
        except ssl.SSLError as error:
            raise Wrong("no TLS: %s" % error) from error
        except OSError:
            data = b""
        if not data:
            raise Ended(self.taken > 0 or len(self._bytes) > 0)
        self._bytes += data

    def line(self):
        """Up to CR LF, without it."""
        while (end := self._bytes.find(b"\r\n")) < 0:
            if len(self._bytes) > _LARGEST_HEAD:
                raise Wrong("no line: %r" % bytes(self._bytes[:60]))
            self._more()
        line = bytes(self._bytes[:end])
        del self._bytes[:end + 2]
        self.taken += end + 2
        return line

    def take(self, length, into=None):
        """So many bytes; those that came before an end are left in `into`."""
        into = bytearray() if into is None else into
        while length > 0:
            if not self._bytes:
                self._more()
            part = self._bytes[:length]
            del self._bytes[:length]
            into += part
            length -= len(part)
            self.taken += len(part)
        return into

    def rest(self, into):
        """Everything up to the end."""
        try:
            while True:
                self.take(1 << 30, into)
        except Ended:
            pass

    def send(self, data):
        try:
            self.connection.sendall(data)
        except OSError:
            pass  # what the server said before it closed is still to be read

    def close(self):
        self.connection.close()


class Strict_Client(Byte_Source):
    """One connection. After Ended, `body` holds what had come of the answer's body."""

    def __init__(self, connection, **options):
        super().__init__(connection, **options)
        self.body = bytearray()
        self.ends = False

    def ask(self, request):
        """Sends a request, or several at once, when all earlier ones are answered."""
        if self._bytes:
            raise Wrong("bytes behind the answer: %r" % bytes(self._bytes[:60]))
        if self.ends:
            self.taken = 0
            raise Wrong("a byte behind the last answer: %r" % bytes(self.take(1)))  # or Ended
        self.send(request)

    def answer(self):
        """(status, body) of the next answer. Raises Ended or Wrong."""
        self.body = bytearray()
        self.taken = 0
        status, fields = self._head()
        if status != 204 and status != 304:
            self._body(fields)
        return status, self.body

    def exchange(self, request):
        self.ask(request)
        return self.answer()

    def _head(self):
        try:
            line = self.line()
        except Ended:
            if not b"HTTP/1.1 ".startswith(self._bytes[:9]):
                raise Wrong("no status line: %r" % bytes(self._bytes[:60])) from None
            raise
        match = _STATUS_LINE.match(line)
        if not match:
            raise Wrong("no status line: %r" % line[:60])
        fields = {}
        while line := self.line():
            field = _FIELD.match(line)
            if not field:
                raise Wrong("no header field: %r" % line[:60])
            fields[field[1].lower()] = field[2]
        self.ends = fields.get(b"connection", b"").lower() == b"close"
        return int(match[1]), fields

    def _body(self, fields):
        if b"transfer-encoding" in fields:
            while size := self._chunk_size():
                self.take(size, self.body)
                self._empty_line()
            self._empty_line()
        elif b"content-length" in fields:
            self.take(int(fields[b"content-length"]), self.body)
        else:
            self.rest(self.body)

    def _chunk_size(self):
        line = self.line()
        if not _CHUNK_SIZE.match(line):
            raise Wrong("no chunk size: %r" % line[:60])
        return int(line, 16)

    def _empty_line(self):
        line = self.line()
        if line:
            raise Wrong("no end of a chunk: %r" % line[:60])
