"""The real host program, run as a child process for tests with clients that are not ours.

ctest sets HTTPD_TEST_HOST (path of the program) and HTTPD_TEST_LIBRARY_DIR (where the plug-ins
lie). A test file ends with `main()`, whose exit status tells; 77 means that the module
`websockets` (Debian: python3-websockets) is missing and nothing was tested.
"""

import asyncio
import functools
import itertools
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import unittest

try:
    import websockets
except ImportError:
    websockets = None

SKIPPED = 77
LIMIT = 30  # seconds for anything that a test waits for

_addresses = itertools.count()


def own_loopback_address():
    """An address of 127/8 that no other process of the suite uses."""
    number = (os.getpid() & 0x3FFFFF) | 0x400000
    number = (number + (next(_addresses) << 19)) & 0xFFFFFF
    return "127.%d.%d.%d" % (number >> 16, number >> 8 & 0xFF, number & 0xFF)


def library(name):
    return os.path.join(os.environ["HTTPD_TEST_LIBRARY_DIR"], "lib%s.so" % name)


ECHO = [
    {"uri": "/loop", "dll": "httpd_ws_echo", "init": "_make_WS_Echo"},
    {"uri": "/thread", "dll": "httpd_ws_echo", "init": "_make_WS_Echo", "params": "--thread"},
    {"uri": "/chosen", "dll": "httpd_ws_echo", "init": "_make_WS_Echo",
     "params": "--protocol chat,v2.chat"},
    {"uri": "/probe", "dll": "websocket_probe_plugin", "init": "_make_WS_Probe"},
]


class Host:
    """One host with the echo plug-ins, listening where `listen` says.

    listen: addresses in the service's syntax; "{address}" and "{folder}" are replaced.
    """

    def __init__(self, listen=("{address}:8080",), service=(), tls=False, log_level="debug"):
        self.address = own_loopback_address()
        self.folder = tempfile.mkdtemp(prefix="httpd-client-")
        self._lines = []
        self._changed = threading.Condition()
        try:
            self._start(listen, service, tls, log_level)
        except BaseException:
            self._discard()
            raise

    def _start(self, listen, service, tls, log_level):
        words = [os.environ["HTTPD_TEST_HOST"], "--log-level", log_level]
        if tls:
            words += self._make_certificate()
        words += ["--", "-t", "2"]
        for address in listen:
            words += ["-p", address.format(address=self.address, folder=self.folder)]
        words += ["-w", self._write("websocket.json", ECHO)]
        words += ["-f", self._write("http.json", [
            {"uri": "/echo", "dll": "httpd_echo", "init": "_make_Echo"}])]
        words += service
        # No client has a certificate: reading the system's authorities would take a while.
        environment = dict(os.environ, SSL_CERT_FILE="/dev/null", SSL_CERT_DIR="/dev/null")
        self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stderr=subprocess.PIPE,
                                        env=environment)
        self._reader = threading.Thread(target=self._read_log)
        self._reader.start()
        try:
            self.wait_for_log(" is listening.", len(listen))
        except AssertionError:
            self.process.kill()
            self.process.wait()
            self._reader.join()
            raise

    def _write(self, name, records):
        path = os.path.join(self.folder, name)
        with open(path, "w", encoding="ascii") as file:
            json.dump([dict(record, dll=library(record["dll"])) for record in records], file)
        return path

    def _make_certificate(self):
        self.certificate = os.path.join(self.folder, "certificate.pem")
        key = os.path.join(self.folder, "key.pem")
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
             "-nodes", "-days", "1", "-subj", "/CN=test", "-addext",
             "subjectAltName=IP:" + self.address, "-keyout", key, "-out", self.certificate],
            check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        return ["--tls-certificate", self.certificate, "--tls-private-key", key]

    def _read_log(self):
        with self.process.stderr as log:
            for line in log:
                with self._changed:
                    self._lines.append(line.decode("utf-8", "replace").rstrip("\n"))
                    self._changed.notify_all()
        with self._changed:
            self._lines.append(None)  # its end
            self._changed.notify_all()

    def _discard(self):
        shutil.rmtree(self.folder, ignore_errors=True)

    def log(self):
        with self._changed:
            return [line for line in self._lines if line is not None]

    def wait_for_log(self, text, times=1):
        """Waits until `times` lines hold `text`."""
        def enough():
            return sum(text in line for line in self._lines if line is not None) >= times

        with self._changed:
            self._changed.wait_for(lambda: enough() or None in self._lines, LIMIT)
            if not enough():
                raise AssertionError("not logged %d times: %s\n%s" % (
                    times, text, "\n".join(line or "(end)" for line in self._lines)))

    async def logs(self, text, times=1):
        """wait_for_log() that leaves the event loop free."""
        await asyncio.get_running_loop().run_in_executor(
            None, functools.partial(self.wait_for_log, text, times))

    def stop(self):
        """Ends the host. Returns its exit status."""
        self.process.send_signal(signal.SIGTERM)
        try:
            status = self.process.wait(60)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = self.process.wait()
        self._reader.join()
        self._discard()
        return status

    def url(self, target="/loop"):
        return "ws://%s:8080%s" % (self.address, target)

    def tcp(self):
        connection = socket.create_connection((self.address, 8080), LIMIT)
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        return connection


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
