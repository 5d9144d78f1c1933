"""HAProxy (Debian) in front of a host: one connection to it serves the requests of many clients."""

import os
import shutil
import subprocess
import time

from attacks import raw
from common.checks import REPOSITORY, Failure, Skipped

PORT = 8090
CONFIGURATION = """global
    maxconn 1000
defaults
    mode http
    timeout connect 5s
    timeout client 20s
    timeout server 20s
    option http-keep-alive
frontend clients
    bind {address}:{port}
    default_backend servers
backend servers
    http-reuse always
    server attacked {address}:8080
"""


def find():
    unpacked = os.path.join(REPOSITORY, "build", "peers", "usr", "sbin", "haproxy")
    found = unpacked if os.access(unpacked, os.X_OK) else shutil.which("haproxy")
    if found is None:
        raise Skipped("no haproxy: scripts/install-dependencies --with-reliability gets it")
    return found


class Haproxy:
    """with Haproxy(host): clients then go to port PORT of the host's address."""

    def __init__(self, host):
        self.address = host.address
        configuration = os.path.join(host.folder, "haproxy.cfg")
        with open(configuration, "w", encoding="ascii") as file:
            file.write(CONFIGURATION.format(address=host.address, port=PORT))
        self._log = os.path.join(host.folder, "haproxy.log")
        self._words = [find(), "-db", "-q", "-f", configuration]

    def __enter__(self):
        with open(self._log, "wb") as log:
            self._process = subprocess.Popen(self._words, stdin=subprocess.DEVNULL, stdout=log,
                                             stderr=log)
        end = time.monotonic() + 10
        while time.monotonic() < end and self._process.poll() is None:
            try:
                raw.connect(self, PORT).close()
                return self
            except OSError:
                time.sleep(0.05)
        self.__exit__()
        with open(self._log, encoding="utf-8", errors="replace") as log:
            raise Failure(f"haproxy did not start: {log.read().strip()}")

    def __exit__(self, *_):
        if self._process.poll() is None:
            self._process.terminate()
        self._process.wait()
