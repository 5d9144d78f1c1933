"""The host of the build tree, serving examples/site on an address of this machine."""

import contextlib
import pathlib
import signal
import socket
import subprocess

from chromium import Failure, until


def free_port(address):
    with contextlib.closing(socket.socket()) as probe:
        probe.bind((address, 0))
        return probe.getsockname()[1]


def make_certificate(folder: pathlib.Path, address):
    subprocess.run(
        ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
         "-nodes", "-days", "2", "-subj", "/CN=localhost",
         "-addext", f"subjectAltName=DNS:localhost,IP:{address}",
         "-keyout", folder / "private-key.pem", "-out", folder / "certificate.pem"],
        check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


class Host:
    """Starts and stops the host; every start uses the same two ports."""

    def __init__(self, build: pathlib.Path, source: pathlib.Path, folder: pathlib.Path, address):
        self._program = build / "bin" / "httpd_host"
        self._source = source
        self._folder = folder
        self._process = None
        self._log_path = folder / "host.log"
        self._address = address
        self._port = free_port(address)
        self._tls_port = free_port(address)
        make_certificate(folder, address)

    @property
    def http(self):
        return f"http://{self._address}:{self._port}"

    @property
    def https(self):
        return f"https://{self._address}:{self._tls_port}"

    @property
    def log(self):
        return self._log_path.read_text(errors="replace") if self._log_path.exists() else ""

    async def start(self):
        pid_file = self._folder / "host.pid"
        conf = self._source / "examples" / "conf"
        with open(self._log_path, "ab") as log:
            # Relative paths in the configuration begin in the source tree.
            self._process = subprocess.Popen(
                [self._program, "--pid-file", pid_file,
                 "--tls-certificate", self._folder / "certificate.pem",
                 "--tls-private-key", self._folder / "private-key.pem", "--",
                 "-p", f"{self._address}:{self._port},{self._address}:{self._tls_port}s",
                 "-t", "2", "-i", "60", "--ping-interval", "20", "--ping-timeout", "10",
                 "-f", conf / "handlers.json", "-w", conf / "websockets.json"],
                cwd=self._source, stdin=subprocess.DEVNULL, stdout=log, stderr=log)

        def running():
            if self._process.poll() is not None:
                raise Failure(f"the host ended:\n{self.log}")
            return pid_file.exists() and pid_file.read_text().strip() == str(self._process.pid)

        await until(running, "the host to run", 30)

    async def stop(self):
        """Must end by itself, with status 0: a sanitizer's report would be another one."""
        if self._process is None:
            return
        process, self._process = self._process, None
        process.send_signal(signal.SIGTERM)
        try:
            await until(lambda: process.poll() is not None, "the host to end", 20)
        except Failure:
            process.kill()
            process.wait()
            raise
        if process.returncode != 0:
            raise Failure(f"the host ended with status {process.returncode}:\n{self.log}")

    def kill(self):
        if self._process is not None:
            self._process.kill()
            self._process.wait()
            self._process = None
