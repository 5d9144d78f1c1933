"""The contenders: how each of them is started."""

import json
import os
import select
import socket
import string
import subprocess
import time
from dataclasses import dataclass

from ruler.processes import Failure, descendants, read_tail
from ruler.setup import Missing

START_SECONDS = 10.0

OURS = "httpd"
CEILING = "ceiling"


@dataclass
class Launch:
    """A program ready to be started as a server."""

    argv: list
    port: int = 0
    unix: str = ""          # path; then there is no port
    says_ready: bool = False  # prints a line once it listens

    def target(self):
        """The generator's options for it."""
        return ["--unix", self.unix] if self.unix else ["--port", str(self.port)]


@dataclass
class Contender:
    """One row of a workload. launch(setup) gives its Launch, or raises Missing.

    idle_share: how many connections it can hold, as a part of its descriptors.
    """

    name: str
    launch: object
    idle_share: float = 1.0


class Server:
    """A contender that runs."""

    def __init__(self, setup, contender, cores=None, prefix=()):
        """prefix: words in front of its command line (a tracer)."""
        self.name = contender.name
        self._processes = setup.processes
        self._log = setup.new_name(contender.name.replace(" ", "-") + ".log")
        self.launch = contender.launch(setup)
        pipe = subprocess.PIPE if self.launch.says_ready else None
        self.process = setup.processes.start([*prefix, *self.launch.argv],
                                             cores or setup.server_cores, self._log, stdout=pipe)
        try:
            self._wait_until_up(START_SECONDS * (6 if prefix else 1))
            self._wait_until_settled()
        except BaseException:
            self.stop()
            raise

    def pids(self):
        return descendants(self.process.pid)

    def stop(self, first=None):
        return self._processes.stop(self.process, first)

    def alive(self):
        return self.process.poll() is None

    def log_tail(self):
        return read_tail(self._log)

    def _wait_until_up(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if not self.alive():
                raise Failure(f"ended at its start: {self.log_tail()}")
            if self.launch.says_ready:
                if select.select([self.process.stdout], [], [], 0.05)[0]:
                    if self.process.stdout.readline().strip() == b"ready":
                        return
            elif can_connect(self.launch):
                return
            else:
                time.sleep(0.01)
        raise Failure(f"did not listen within {seconds:.0f} s: {self.log_tail()}")

    def _wait_until_settled(self):
        """Some fork at their start: their worker, or a helper that ends at once."""
        seen, same = set(), 0
        for _ in range(100):
            now = set(self.pids())
            same = same + 1 if now == seen else 0
            if same == 4:
                return
            seen = now
            time.sleep(0.02)


def connect(launch):
    """A connected socket, or None."""
    family = socket.AF_UNIX if launch.unix else socket.AF_INET
    client = socket.socket(family)
    try:
        client.connect(launch.unix or ("127.0.0.1", launch.port))
        return client
    except OSError:
        client.close()
        return None


def can_connect(launch):
    client = connect(launch)
    if client is not None:
        client.close()
    return client is not None


def request_bytes(setup, words):
    """How long a request is that the generator sends for these words."""
    return len(subprocess.run([setup.program("bench_load"), *words, "--print-request"], check=True,
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=10).stdout)


def ceiling(kind, *options, name=CEILING, unix=False, tls=False, request=None):
    """A bare server. request: the generator's words for the requests whose length it must know."""
    def launch(setup):
        argv = [setup.program("bench_ceiling"), kind]
        port, path = (0, setup.new_name("socket")) if unix else (setup.new_port(), "")
        argv += ["--unix", path] if unix else ["--port", str(port)]
        if tls:
            argv += ["--cert", setup.certificate, "--key", setup.key]
        argv += [word.replace("@www", setup.www) for word in options]
        if request is not None:
            argv += ["--request-bytes", str(request_bytes(setup, request))]
        return Launch(argv, port, path, says_ready=True)
    return Contender(name, launch)


def ours(*options, name=OURS, unix=False, tls=False, thread=False, loops=1, log=False):
    """This project's server; options: further words for its service."""
    def launch(setup):
        port, path = (0, setup.new_name("socket")) if unix else (setup.new_port(), "")
        address = path if unix else f"127.0.0.1:{port}{'s' if tls else ''}"
        bench = setup.plugin("bench_plugins")
        hello = "_make_Hello_Thread" if thread else "_make_Hello"
        handlers = [
            {"uri": "/hello.txt", "dll": bench, "init": hello},
            {"uri": "/upload", "dll": bench, "init": "_make_Sink"},
            {"uri": "/files", "dll": setup.plugin("httpd_files"), "init": "_make_Files",
             "params": f"--root '{setup.www}/files'"},
        ]
        sockets = [{"uri": "/ws", "dll": setup.plugin("httpd_ws_echo"), "init": "_make_WS_Echo"}]
        argv = [setup.program("httpd_host"), "--log-level", "error"]
        if tls:
            argv += ["--tls-certificate", setup.certificate, "--tls-private-key", setup.key]
        argv += ["--", "-t", str(loops), "-p", address,
                 "-f", setup.write("http.json", json.dumps(handlers)),
                 "-w", setup.write("websocket.json", json.dumps(sockets)), *options]
        if log:
            argv += ["-l", setup.new_name("httpd-access.log")]
        return Launch(argv, port, path)
    return Contender(name, launch)


def nginx(name="nginx", unix=False, tls=False, workers=1, log=False, connections=1024,
          sendfile=True, file_cache=False, master=True):
    def launch(setup):
        program = setup.peer_program("nginx")
        directory = setup.new_directory("nginx")
        port, path = (0, os.path.join(directory, "socket")) if unix else (setup.new_port(), "")
        listen = f"unix:{path}" if unix else f"127.0.0.1:{port}{' ssl' if tls else ''}"
        cache = "open_file_cache max=1000 inactive=60s;"
        text = string.Template(setup.template("nginx.conf.in")).substitute(
            user="user root;" if os.geteuid() == 0 else "",
            master="on" if master else "off",
            workers=workers, directory=directory, connections=connections,
            access_log=os.path.join(directory, "access.log") if log else "off",
            sendfile="on; tcp_nopush on" if sendfile else "off", file_cache=cache if file_cache else "",
            certificate=setup.certificate, key=setup.key,
            listen=f"listen {listen};", root=setup.www)
        return Launch([program, "-e", "stderr", "-p", directory, "-c",
                       setup.write("nginx.conf", text)], port, path)
    return Contender(name, launch)


def h2o(name="h2o", tls=False, connections=4096):
    def launch(setup):
        program = setup.peer_program("h2o")
        port = setup.new_port()
        ssl = (f"  ssl:\n    certificate-file: {setup.certificate}\n    key-file: {setup.key}\n"
               "    minimum-version: TLSv1.2\n    ocsp-update-interval: 0\n")
        text = string.Template(setup.template("h2o.conf.in")).substitute(
            connections=connections, directory=setup.new_directory("h2o"), port=port,
            user="user: root" if os.geteuid() == 0 else "",
            tls=ssl if tls else "", root=setup.www)
        return Launch([program, "-m", "worker", "-c", setup.write("h2o.conf", text)], port)
    return Contender(name, launch)


def lighttpd(name="lighttpd", tls=False, connections=4096):
    def launch(setup):
        program = setup.peer_program("lighttpd")
        root = program[:-len("/usr/sbin/lighttpd")]
        modules = os.path.join(root or "/", "usr/lib/lighttpd")
        if tls and not os.path.exists(os.path.join(modules, "mod_openssl.so")):
            raise Missing("lighttpd's mod_openssl is not installed")
        port = setup.new_port()
        ssl = ('server.modules = ( "mod_openssl" )\nssl.engine = "enable"\n'
               f'ssl.pemfile = "{setup.certificate}"\nssl.privkey = "{setup.key}"\n')
        text = string.Template(setup.template("lighttpd.conf.in")).substitute(
            root=setup.www, port=port, connections=connections, descriptors=min(setup.descriptors, 65535),
            tls=ssl if tls else "")
        return Launch([program, "-D", "-m", modules, "-f",
                       setup.write("lighttpd.conf", text)], port)
    # It takes no more connections than half of its descriptors.
    return Contender(name, launch, idle_share=0.49)


def peer(name, *options):
    """A server of bench/peers: a small program on another library."""
    def launch(setup):
        port = setup.new_port()
        words = [word.replace("@www", setup.www) for word in options]
        return Launch([setup.program(f"bench_peer_{name}"), str(port), *words], port,
                      says_ready=True)
    return Contender(name, launch)
