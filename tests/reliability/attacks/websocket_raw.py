"""A WebSocket client that sends what it should not."""

import base64
import os
import struct

from attacks import raw

TEXT, BINARY, CLOSE, PING, PONG = 1, 2, 8, 9, 10
KEY = b"\x01\x02\x03\x04"


def masked(payload, key=KEY):
    if not payload:
        return b""
    length = len(payload)
    mask = (key * (length // 4 + 1))[:length]
    return (int.from_bytes(payload, "big") ^ int.from_bytes(mask, "big")).to_bytes(length, "big")


def header(first, length, mask=True, form=None):
    """first: FIN, reserved bits and opcode. form: 7, 16 or 64 bits of length; None: shortest."""
    bit = 0x80 if mask else 0
    if form is None:
        form = 7 if length < 126 else 16 if length < 1 << 16 else 64
    if form == 7:
        return bytes([first, bit | length])
    if form == 16:
        return bytes([first, bit | 126]) + struct.pack("!H", length)
    return bytes([first, bit | 127]) + struct.pack("!Q", length)


def frame(first, payload=b"", key=KEY):
    """One masked frame, as a client has to send it."""
    return header(first, len(payload)) + key + masked(payload, key)


def handshake(connection, path="/ws/echo", further=b""):
    """Returns whether the server has switched protocols."""
    key = base64.b64encode(os.urandom(16))
    connection.sendall(b"GET " + path.encode() + b" HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\n"
                       b"Connection: Upgrade\r\nSec-WebSocket-Version: 13\r\n"
                       b"Sec-WebSocket-Key: " + key + b"\r\n" + further + b"\r\n")
    head = b""
    while not head.endswith(b"\r\n\r\n"):
        byte = connection.recv(1)
        if not byte:
            return False
        head += byte
    return head.startswith(b"HTTP/1.1 101 ")


def connect(host, path="/ws/echo", **options):
    connection = raw.connect(host, **options)
    try:
        if not handshake(connection, path):
            raise ConnectionError(f"no WebSocket on {path}")
    except BaseException:
        connection.close()
        raise
    return connection


def split_frames(data):
    """The complete frames of a server at the front of `data`: [(first byte, payload)], and what
    is left behind them."""
    frames = []
    at = 0
    while len(data) - at >= 2:
        length, begin = data[at + 1] & 0x7F, at + 2
        if length == 126:
            if len(data) < at + 4:
                break
            length, begin = struct.unpack_from("!H", data, at + 2)[0], at + 4
        elif length == 127:
            if len(data) < at + 10:
                break
            length, begin = struct.unpack_from("!Q", data, at + 2)[0], at + 10
        if len(data) < begin + length:
            break
        frames.append((data[at], data[begin:begin + length]))
        at = begin + length
    return frames, data[at:]
