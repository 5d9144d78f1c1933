"""A blocking WebSocket client that checks each frame of the server."""

import os
import struct

from strict_client import Byte_Source, Wrong

TEXT, BINARY, CLOSE, PING, PONG = 1, 2, 8, 9, 10


def masked_frame(opcode, payload):
    """One whole frame of a client."""
    key = os.urandom(4)
    length = len(payload)
    if length < 126:
        head = struct.pack("!BB", 0x80 | opcode, 0x80 | length)
    elif length < 65536:
        head = struct.pack("!BBH", 0x80 | opcode, 0xFE, length)
    else:
        head = struct.pack("!BBQ", 0x80 | opcode, 0xFF, length)
    mask = int.from_bytes((key * (length // 4 + 1))[:length], "big")
    return head + key + (int.from_bytes(payload, "big") ^ mask).to_bytes(length, "big")


def upgrade_request(target, host="test"):
    return ("GET %s HTTP/1.1\r\nHost: %s\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n"
            % (target, host)).encode()


class Strict_WebSocket(Byte_Source):
    """One connection. Raises Ended when it ends, Wrong for what no server may send."""

    def __init__(self, connection, target):
        super().__init__(connection)
        self.send(upgrade_request(target))
        line = self.line()
        if not line.startswith(b"HTTP/1.1 101 "):
            raise Wrong("no upgrade: %r" % line[:60])
        while self.line():
            pass

    def frame(self):
        """(FIN, opcode, payload) of the next one."""
        self.taken = 0
        first, second = self.take(2)
        known = first & 0x0F in (0, TEXT, BINARY, CLOSE, PING, PONG)
        if first & 0x70 or second & 0x80 or not known:
            raise Wrong("no frame of a server: %02x %02x" % (first, second))
        length = second
        if second == 126:
            length, = struct.unpack("!H", self.take(2))
        elif second == 127:
            length, = struct.unpack("!Q", self.take(8))
        return bool(first & 0x80), first & 0x0F, bytes(self.take(length))

    def echo(self, payload):
        """Sends a message that must come back, in whatever frames."""
        self.send(masked_frame(TEXT, payload))
        received = bytearray()
        while True:
            final, opcode, part = self.frame()
            if opcode == PING:
                self.send(masked_frame(PONG, part))
                continue
            if opcode == CLOSE:
                self._expect_end()
            received += part
            if not payload.startswith(received) or (final and len(received) != len(payload)):
                raise Wrong("no echo: %r" % bytes(received[:60]))
            if final:
                return

    def _expect_end(self):
        """Behind a close frame comes nothing any more."""
        self.taken = 0
        self.send(masked_frame(CLOSE, b"\x03\xe8"))
        byte = self.take(1)  # raises Ended
        raise Wrong("a byte behind the close frame: %r" % bytes(byte))
