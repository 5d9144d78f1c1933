"""What all workloads of a run share: programs, files, ports, cores."""

import os
import shutil
import socket
import subprocess

from ruler.processes import Failure, choose_cores, raise_descriptor_limit

REPOSITORY = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
BENCH = os.path.join(REPOSITORY, "bench")
PEERS = os.path.join(REPOSITORY, "build", "peers")

FILES = {"1k.bin": 1024, "100k.bin": 100 * 1024, "10m.bin": 10 * 1024 * 1024}
TEXT = b"Hello, World!"


class Missing(Failure):
    """A contender cannot take part, because its program is not there."""


class Setup:
    """
    build: directory of the release build; directory: the run's own temporary one.
    """

    def __init__(self, processes, build, directory, first_port):
        self.processes = processes
        self.build = build
        self.directory = directory
        self.descriptors = raise_descriptor_limit()
        server_core, load_core = choose_cores()
        self.server_cores = {server_core}
        self.load_cores = {load_core}
        self.all_cores = {server_core, load_core}
        os.sched_setaffinity(0, self.load_cores)  # the runner itself stays off the servers' core
        self.www = os.path.join(directory, "www")
        self.certificate = os.path.join(directory, "certificate.pem")
        self.key = os.path.join(directory, "private-key.pem")
        self._next_port = first_port
        self._names = 0
        self._make_files()
        self._make_certificate()

    def program(self, name):
        """A program of the release build."""
        path = os.path.join(self.build, "bin", name)
        if not os.access(path, os.X_OK):
            raise Missing(f"{name} is not built")
        return path

    def plugin(self, name):
        return os.path.join(self.build, "lib", f"lib{name}.so")

    def peer_program(self, name):
        """A server program: as installed, or as it was unpacked into build/peers."""
        for directory in ("/usr/sbin", "/usr/bin", f"{PEERS}/usr/sbin", f"{PEERS}/usr/bin"):
            path = os.path.join(directory, name)
            if os.access(path, os.X_OK):
                return path
        raise Missing(f"{name} is not installed")

    def tool(self, name):
        path = shutil.which(name)
        if path is None:
            raise Missing(f"{name} is not installed")
        return path

    def new_port(self):
        """A free port of 127.0.0.1. Below those that the system gives to clients by itself."""
        while self._next_port < 32768:
            port = self._next_port
            self._next_port += 1
            with socket.socket() as probe:
                probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
                try:
                    probe.bind(("127.0.0.1", port))
                    return port
                except OSError:
                    continue
        raise Failure("no free port")

    def new_name(self, what):
        """A path in the temporary directory that nothing has used."""
        self._names += 1
        return os.path.join(self.directory, f"{self._names}-{what}")

    def new_directory(self, what):
        path = self.new_name(what)
        os.mkdir(path)
        return path

    def write(self, what, text):
        path = self.new_name(what)
        with open(path, "w", encoding="ascii") as file:
            file.write(text)
        return path

    def template(self, name):
        with open(os.path.join(BENCH, "peers", name), encoding="ascii") as file:
            return file.read()

    def _make_files(self):
        os.makedirs(os.path.join(self.www, "files"))
        with open(os.path.join(self.www, "hello.txt"), "wb") as file:
            file.write(TEXT)
        for name, size in FILES.items():
            with open(os.path.join(self.www, "files", name), "wb") as file:
                file.write(bytes(range(256)) * (size // 256))

    def _make_certificate(self):
        command = ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                   "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj", "/CN=localhost",
                   "-addext", "subjectAltName=DNS:localhost,IP:127.0.0.1",
                   "-keyout", self.key, "-out", self.certificate]
        try:
            subprocess.run(command, check=True, stdin=subprocess.DEVNULL, capture_output=True)
        except (OSError, subprocess.CalledProcessError) as error:
            raise Failure(f"openssl made no certificate: {error}") from error
