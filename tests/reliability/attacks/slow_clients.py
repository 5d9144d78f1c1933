"""Clients that take their time: slow headers, slow bodies, slow readers.

The attacker is slowhttptest (Debian), or where that is missing, or with --quick, our own.
"""

import shutil
import subprocess
import tempfile
import time

from attacks.own_slow_clients import Own_Slow_Clients
from attacks.ordinary import Ordinary_Clients
from attacks.target import PORT, Target
from common import process_figures
from common.checks import Check, mebibytes, number

IDLE = 8     # seconds of the server's option -i
PERIOD = 30  # seconds between two signs of life of a slow client
RATE = 2000  # new connections a second, as far as the tool gets
OWN = 3      # sockets of the ordinary clients, and of slowhttptest's own probe


class Slow_Http_Test:
    """slowhttptest as a child; it goes on until stop(), or until the server has cut all."""

    MODES = {"headers": ["-H", "-x", "24"],
             "bodies": ["-B", "-s", "8192", "-x", "10", "-t", "POST"],
             "readers": ["-X", "-w", "10", "-y", "20", "-n", str(PERIOD), "-z", "32"]}

    def __init__(self, mode, address, path, clients, seconds):
        self._output = tempfile.TemporaryFile()  # pylint: disable=consider-using-with
        self._process = subprocess.Popen(
            ["slowhttptest", *self.MODES[mode], "-c", str(clients), "-i", str(PERIOD), "-r",
             str(RATE), "-l", str(seconds), "-p", "10", "-v", "1",
             "-u", f"http://{address}:{PORT}{path}"],
            stdin=subprocess.DEVNULL, stdout=self._output, stderr=subprocess.STDOUT)

    def stop(self):
        if self._process.poll() is None:
            self._process.terminate()
        self._process.wait()
        self._output.close()


def start_attacker(run, mode, address, path, clients, seconds):
    if not run.quick and shutil.which("slowhttptest"):
        return Slow_Http_Test(mode, address, path, clients, seconds), "slowhttptest"
    if not run.quick:
        run.progress("slowhttptest is missing (scripts/install-dependencies --with-reliability); "
                     "using the own slow clients")
    return Own_Slow_Clients(mode, address, path, clients, PERIOD), "own clients"


def attack(run, mode, path, service, seconds, until_cut):
    """Holds slow clients against a host while ordinary ones ask, for `seconds` or until the server
    has cut them. Returns how many were left at the end, and what the ordinary ones got."""
    clients = run.count(2000, quick=30)
    with Target(service=service) as host:
        before = host.sockets()
        with Ordinary_Clients(host) as ordinary:
            attacker, tool = start_attacker(run, mode, host.address, path, clients, seconds)
            try:
                most = threads = 0
                begin = time.monotonic()
                while time.monotonic() - begin < seconds:
                    held = max(0, host.sockets() - before - OWN)
                    most = max(most, held)
                    threads = max(threads, process_figures.threads(host.pid))
                    if until_cut and most >= clients * 0.9 and held == 0:
                        break
                    time.sleep(0.05)
                duration = time.monotonic() - begin
                run.progress(f"{number(most)} slow clients at most ({tool}), {number(held)} after "
                             f"{duration:.0f} s, {threads} threads at most, "
                             f"{mebibytes(process_figures.peak_resident(host.pid))} at most")
            finally:
                attacker.stop()
        left = process_figures.wait_until(lambda: host.sockets() <= before, 10)
        run.expect(left is not None, "sockets are still open 10 s after the attack: "
                   f"{host.sockets()}, {before} before it")
        run.expect(most >= clients * 0.9, f"only {most} of {clients} slow clients were held")
        run.figure("slow clients", f"{number(most)} of {number(clients)} ({tool})")
        run.figure(f"left after {duration:.0f} s", number(held))
        return held, ordinary.service


def cut_when_idle(mode, path):
    """With -i slow clients are cut, and ordinary ones are served; without it, served as well."""

    def check(run):
        idle = run.count(IDLE, quick=1)
        options = ("-i", str(idle), "--socket-send-timeout", str(idle))
        held, service = attack(run, mode, path, options, seconds=60, until_cut=True)
        service.report(run, f"with -i {idle}: ordinary requests")
        run.expect(held == 0, f"{held} slow clients were not cut in 60 s")
        if not run.quick:
            _, service = attack(run, mode, path, (), seconds=15, until_cut=False)
            service.report(run, "without -i: ordinary requests")

    return check


CHECKS = [
    Check("slow-headers", "2,000 clients that never end their header",
          cut_when_idle("headers", "/small")),
    Check("slow-bodies", "2,000 clients that never end their body",
          cut_when_idle("bodies", "/echo")),
    Check("slow-readers", "2,000 clients that hardly read an answer of a worker thread",
          cut_when_idle("readers", "/huge")),
    Check("slow-readers-loop", "2,000 clients that hardly read an answer of the event loop",
          cut_when_idle("readers", "/medium")),
]
