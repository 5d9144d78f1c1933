"""A host with the echo plug-ins, and what tests with clients that are not ours share.

A test file ends with `main()`, whose exit status tells; 77 means that the module `websockets`
(Debian: python3-websockets) is missing and nothing was tested.
"""

import asyncio
import functools
import struct
import sys
import unittest

from host_program import LIMIT, Host_Program

try:
    import websockets
except ImportError:
    websockets = None

SKIPPED = 77

ECHO = [
    {"uri": "/loop", "dll": "httpd_ws_echo", "init": "_make_WS_Echo"},
    {"uri": "/thread", "dll": "httpd_ws_echo", "init": "_make_WS_Echo", "params": "--thread"},
    {"uri": "/chosen", "dll": "httpd_ws_echo", "init": "_make_WS_Echo",
     "params": "--protocol chat,v2.chat"},
    {"uri": "/probe", "dll": "websocket_probe_plugin", "init": "_make_WS_Probe"},
]

HTTP = [{"uri": "/echo", "dll": "httpd_echo", "init": "_make_Echo"}]


class Host(Host_Program):
    """A running host with the echo plug-ins; `listen` and so on are those of Host_Program."""

    def __init__(self, service=(), **arguments):
        super().__init__(http=HTTP, websocket=ECHO, service=["-t", "2", *service], **arguments)
        try:
            self.start()
        except BaseException:
            self.close()
            raise

    async def logs(self, text, times=1):
        """wait_for_log() that leaves the event loop free."""
        await asyncio.get_running_loop().run_in_executor(
            None, functools.partial(self.wait_for_log, text, times))

    def stop(self):
        """Ends the host for good. Returns its exit status."""
        status = self.end()
        self.close()
        return status

    def url(self, target="/loop"):
        return "ws://%s:8080%s" % (self.address, target)


class Host_Test(unittest.IsolatedAsyncioTestCase):
    """A host for all tests of a class. Errors in its log fail the class, unless expected."""

    host_arguments = {}
    expected_errors = ()

    @classmethod
    def setUpClass(cls):
        cls.host = Host(**cls.host_arguments)

    async def asyncSetUp(self):
        # unittest has it on, which costs more than the tests themselves.
        asyncio.get_running_loop().set_debug(False)

    @classmethod
    def tearDownClass(cls):
        status = cls.host.stop()
        errors = [line for line in cls.host.log() if " ERROR " in line and
                  not any(text in line for text in cls.expected_errors)]
        if status != 0 or errors:
            raise AssertionError("exit status %d, errors: %s" % (status, errors))


class Raw_WebSocket:
    """A client that sends what a proper one would not."""

    def __init__(self, host, target="/loop"):
        self.socket = host.tcp()
        self.file = self.socket.makefile("rb")
        self.socket.sendall((
            "GET %s HTTP/1.1\r\nHost: test\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n"
            % target).encode())
        status = self.file.readline()
        if not status.startswith(b"HTTP/1.1 101 "):
            raise AssertionError(status)
        while self.file.readline() != b"\r\n":
            pass

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.file.close()
        self.socket.close()

    def send(self, first_byte, payload=b"", key=b"\x37\xfa\x21\x3d"):
        """One masked frame. first_byte: FIN, reserved bits and opcode."""
        masked = bytes(byte ^ key[i % 4] for i, byte in enumerate(payload))
        if len(payload) < 126:
            head = struct.pack("!BB", first_byte, 0x80 | len(payload))
        elif len(payload) < 65536:
            head = struct.pack("!BBH", first_byte, 0xFE, len(payload))
        else:
            head = struct.pack("!BBQ", first_byte, 0xFF, len(payload))
        self.socket.sendall(head + key + masked)

    def read(self):
        """(first byte, payload) of the next frame, or None at the end."""
        try:
            head = self.file.read(2)
            if len(head) < 2:
                return None
            length = head[1]
            if length == 126:
                length, = struct.unpack("!H", self.file.read(2))
            elif length == 127:
                length, = struct.unpack("!Q", self.file.read(8))
            return head[0], self.file.read(length)
        except ConnectionResetError:
            return None


def limited(awaitable):
    return asyncio.wait_for(awaitable, LIMIT)


def main():
    if websockets is None:
        print("SKIPPED: %s has no module \"websockets\" (Debian: python3-websockets)" %
              sys.executable)
        sys.exit(SKIPPED)
    unittest.main(module="__main__", verbosity=2)
