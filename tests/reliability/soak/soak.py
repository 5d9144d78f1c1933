"""The host under a mixed load for minutes: nothing may be lost, and nothing may grow."""

import json
import os
import random
import statistics
import subprocess
import sys
import threading
import time
from collections import Counter
from dataclasses import dataclass

import process_figures
import shared_memory
from access_log import Access_Log
from checks import mebibytes, number
from host_program import Host_Program
from http_kinds import KINDS, ORDER

GROWTH = 1 << 20        # bytes of resident size that may be added
SECOND_MINUTE = 120     # where the resident size begins to count, or at a third of a shorter run
WINDOW = 0.03           # share of the time over which the median of a figure is taken
ROTATE_KIBIBYTES = 256
SETTLING = 10           # seconds within which everything is back when the load has gone
PROCESSES = 2

HTTP = [
    {"uri": "/probe", "dll": "probe_plugin", "init": "_make_Probe"},
    {"uri": "/files", "dll": "httpd_files", "init": "_make_Files", "params": "--root {folder}/www"},
]
WEBSOCKET = [
    {"uri": "/loop", "dll": "httpd_ws_echo", "init": "_make_WS_Echo"},
    {"uri": "/thread", "dll": "httpd_ws_echo", "init": "_make_WS_Echo", "params": "--thread"},
]


@dataclass
class Sample:
    """The server at one moment; `seconds` since the load began."""

    seconds: float
    figures: process_figures.Figures


class Load_Process:
    """A process of the load; see load.py. What it last said is in counts and problems."""

    def __init__(self, settings):
        program = os.path.join(os.path.dirname(os.path.abspath(__file__)), "load.py")
        self.counts = Counter()
        self.problems = []
        self._process = subprocess.Popen([sys.executable, "-B", program, json.dumps(settings)],
                                         stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        for line in self._process.stdout:
            report = json.loads(line)
            self.counts, self.problems = Counter(report["counts"]), report["problems"]

    def tell_to_end(self):
        self._process.stdin.close()

    def wait(self, seconds):
        """Returns the exit status, or None when it had to be killed."""
        try:
            status = self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
            status = None
        self._reader.join()
        self._process.stdout.close()
        return status


class Soak:
    """One host and its load."""

    def __init__(self, run, seconds, rate, websockets):
        self._run = run
        self._seconds = seconds
        self._rate = rate
        self._websockets = websockets
        self.samples = []
        self.counts = Counter()
        self.host = Host_Program(
            listen=("{address}:8080", "{address}:8443s"), http=HTTP, websocket=WEBSOCKET, tls=True,
            log_level="info",
            service=["-t", "2", "-i", "60", "--ping-interval", "15", "--ping-timeout", "10",
                     "-l", "{folder}/logs/access.log", "-m", str(ROTATE_KIBIBYTES), "-N", "1000000",
                     "-z"])
        os.mkdir(os.path.join(self.host.folder, "logs"))
        self._files = os.path.join(self.host.folder, "www")
        os.mkdir(self._files)
        for name, size in (("small", 1000), ("middle", 20_000)):
            with open(os.path.join(self._files, name), "wb") as file:
                file.write(random.Random(size).randbytes(size))

    @property
    def pid(self):
        return self.host.process.pid

    def _settings(self, place, rate, askers, websockets):
        return {"address": self.host.address, "files": self._files, "rate": rate / PROCESSES,
                "askers": askers // PROCESSES, "websockets": websockets // PROCESSES,
                "arrival": min(5, self._seconds / 6), "seed": self._run.seed * PROCESSES + place}

    def warm_up(self):
        """A second of everything; then the figures to come back to."""
        self._load(1, 200, 8, 10, report=False)
        time.sleep(0.2)  # for a thread that is on its way out
        return process_figures.figures(self.pid)

    def load(self):
        self._load(self._seconds, self._rate, self._run.count(60, quick=12), self._websockets,
                   report=True)

    def _load(self, seconds, rate, askers, websockets, report):
        processes = [Load_Process(self._settings(i, rate, askers, websockets))
                     for i in range(PROCESSES)]
        begin = time.monotonic()
        told = 0
        try:
            while (now := time.monotonic() - begin) < seconds and self.host.process.poll() is None:
                if report:
                    self.samples.append(Sample(now, process_figures.figures(self.pid)))
                    if now - told >= 5:
                        told = now
                        self._progress(processes)
                time.sleep(0.5)
        finally:
            for process in processes:
                process.tell_to_end()
            for process in processes:
                status = process.wait(90)
                self._run.expect(status == 0, f"a process of the load ended with {status}")
                self.counts += process.counts
                for problem in process.problems:
                    self._run.progress("error: " + problem)

    def _progress(self, processes):
        counts = sum((process.counts for process in processes), Counter())
        sample = self.samples[-1]
        self._run.progress(
            f"{clock(sample.seconds)} of {clock(self._seconds)}: "
            f"{number(sum(counts[kind] for kind in KINDS))} requests, "
            f"{number(counts['messages'])} messages, {counts['errors']} errors; "
            f"{sample.figures.descriptors} descriptors, {sample.figures.threads} threads, "
            f"{mebibytes(sample.figures.resident)}")

    def median_resident(self, at):
        """Of the samples around that second."""
        half = max(1.0, self._seconds * WINDOW / 2)
        at = min(at, self.samples[-1].seconds - half)
        return statistics.median(sample.figures.resident for sample in self.samples
                                 if abs(sample.seconds - at) <= half)


def clock(seconds):
    return f"{int(seconds) // 60}:{int(seconds) % 60:02d}"


def print_table(soak, before, settle, after):
    total = sum(soak.counts[kind] for kind in KINDS)
    print(f"\n  {'requests':12}{'number':>12}{'share':>9}{'wanted':>9}")
    for kind in KINDS:
        print(f"  {kind:12}{number(soak.counts[kind]):>12}{soak.counts[kind] / total:>9.1%}"
              f"{ORDER.count(kind) / len(ORDER):>9.0%}")
    print(f"  {'all':12}{number(total):>12}")
    print(f"  WebSocket: {number(soak.counts['upgrades'])} connections, "
          f"{number(soak.counts['messages'])} messages, {number(soak.counts['pings'])} pings")
    print(f"\n  {'server':16}{'descriptors':>12}{'threads':>9}{'resident':>12}")
    rows = [("before", before), ("after " + clock(settle), at(soak, settle)),
            ("end of load", soak.samples[-1].figures), ("load gone", after)]
    for name, figures in rows:
        print(f"  {name:16}{figures.descriptors:>12}{figures.threads:>9}"
              f"{mebibytes(figures.resident):>12}")
    print(flush=True)


def at(soak, seconds):
    return min(soak.samples, key=lambda sample: abs(sample.seconds - seconds)).figures


def check_settled(run, soak, before):
    """Descriptors and threads are back when the load has gone. Returns the figures then."""
    def back():
        now = process_figures.figures(soak.pid)
        return now.descriptors <= before.descriptors and now.threads <= before.threads

    process_figures.wait_until(back, SETTLING)
    after = process_figures.figures(soak.pid)
    run.expect(after.descriptors <= before.descriptors,
               f"descriptors: {before.descriptors} before, {after.descriptors} after: "
               + ", ".join(sorted(process_figures.descriptor_names(soak.pid))))
    run.expect(after.threads <= before.threads,
               f"threads: {before.threads} before, {after.threads} after: "
               + ", ".join(process_figures.thread_names(soak.pid)))
    return after


def check_resident(run, soak, settle, seconds):
    growth = soak.median_resident(seconds) - soak.median_resident(settle)
    run.figure(f"resident size from {clock(settle)} on", f"{growth / 1024:+.0f} KiB")
    # A run of seconds is over before every connection has been made; a sanitizer's allocator keeps
    # what is freed.
    if not run.quick and not run.sanitized:
        run.expect(growth <= GROWTH, f"resident size has grown by {mebibytes(growth)}")


def check_log(run, soak):
    log = Access_Log(os.path.join(soak.host.folder, "logs", "access.log"))
    # An upgrade to WebSocket is not an answer in the sense of the log.
    answers = sum(soak.counts[kind] for kind in KINDS)
    run.expect(log.lines == answers, f"{log.lines} lines in the access log for {answers} answers")
    run.expect(not log.torn, f"{len(log.torn)} lines are torn: {'; '.join(log.torn[:2])}")
    run.figure("answers", number(answers))
    run.figure("lines", number(log.lines))
    run.figure("rotations", len(log.copies))


def soak(run):
    """The check."""
    minutes = run.arguments.minutes
    seconds = run.count(180, quick=4) if minutes is None else 60 * minutes
    objects = shared_memory.posix_objects()
    settle = SECOND_MINUTE if seconds >= 1.5 * SECOND_MINUTE else seconds / 3
    it = Soak(run, seconds, run.arguments.rate, run.count(500, quick=60))
    try:
        it.host.start()
        before = it.warm_up()
        it.load()
        run.expect(it.host.process.poll() is None, "the server has ended")
        after = check_settled(run, it, before)
        mapped = shared_memory.mapped_by(it.pid)
        status = it.host.end()
        print_table(it, before, settle, after)
        run.expect(status == 0, f"exit status {status}")
        run.expect(it.counts["errors"] == 0, f"{it.counts['errors']} errors")
        bad = [line for line in it.host.log() if " ERROR " in line or "Sanitizer" in line]
        run.expect(not bad, f"{len(bad)} errors logged: " + "; ".join(bad[:3]))
        check_resident(run, it, settle, seconds)
        check_log(run, it)
    finally:
        it.host.close()
    left = mapped + sorted(shared_memory.posix_objects() - objects)
    run.expect(not left, f"left in shared memory: {', '.join(left)}")
    run.figure("errors", it.counts["errors"])
    run.figure("shared memory left", len(left))
