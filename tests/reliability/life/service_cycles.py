"""The service is loaded and removed again and again in one process, under load from outside."""

import os
import subprocess
import threading
from dataclasses import dataclass

import process_figures
import shared_memory
from checks import Failure, mebibytes, number
from crowd import Crowd
from host_program import LIMIT, Host_Program
from loads import HELLO, HTTP, LISTEN, WEBSOCKET, loads, make_files

# Descriptors and threads are compared with those of the first rounds. Each thread's part of the
# allocator takes many rounds until it keeps as much free memory as it ever will, so memory counts
# from the middle on: the most of a tenth of the rounds there, against the most of the last tenth.
PART = 0.1
RESIDENT_GROWTH = 1 << 20
HEAP_GROWTH = 32 << 10  # bytes in use: a third of a KiB for each round would show


@dataclass
class State:
    """The process between two services. heap: bytes in use; resident: bytes."""

    descriptors: int
    threads: int
    resident: int
    heap: int


class Directive_Host(Host_Program):
    """The program of the tests that takes directives of the service configurator, instead of the
    real host. The service is loaded by load() and ended by remove()."""

    def __init__(self, port):
        super().__init__(listen=(*LISTEN, f"{port}m"), http=HTTP, websocket=WEBSOCKET, tls=True,
                         service=["-t", "2", "-l", "{folder}/access.log"])
        self.pools = os.path.join(self.folder, "pools")
        os.mkdir(self.pools)
        words = self._words
        self._service = " ".join(words[words.index("--") + 1:])
        self._words = [os.path.join(os.path.dirname(words[0]), "directive_host"),
                       self.certificate, os.path.join(self.folder, "key.pem")]
        self._environment["TMPDIR"] = self.pools

    def start(self):
        self.process = subprocess.Popen(self._words, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        env=self._environment)
        self._reader = threading.Thread(target=self._read_log)
        self._reader.start()

    def _directive(self, text):
        self.process.stdin.write(text.encode() + b"\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline().split()
        if len(answer) != 2 or answer[0] != b"done":
            raise Failure(f"directive \"{text[:40]}...\": {answer}\n"
                          + "\n".join(self.log()[-9:]))
        return int(answer[1])

    def load(self):
        self._directive("dynamic HTTP_Service Service_Object * httpd:_make_HTTP_Service() "
                        f"'{self._service}'")

    def remove(self):
        """Returns how many bytes of the heap are in use behind it."""
        return self._directive("remove HTTP_Service")

    def end(self, seconds=LIMIT):
        self.process.stdin.close()
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            status = self.process.wait()
        self._reader.join()
        self.process.stdout.close()
        return status


def cycle(run, host, crowd, port):
    """Loads the service, waits until every client is served, removes it. Returns the State behind
    that, and the answers of the client by shared memory."""
    host.load()
    crowd.server_is(True)
    memory = shared_memory.Memory_Client(port, "/probe/hello", HELLO.decode())
    run.expect(memory.is_served(), "no answer by shared memory")
    cold = crowd.wait_until_warm()
    run.expect(not cold, f"no answers for: {', '.join(cold)}")
    crowd.server_is(False)
    heap = host.remove()
    # A thread that has been waited for may need a moment until the system has forgotten it.
    process_figures.wait_until(lambda: process_figures.threads(host.process.pid) == 1, 5)
    answers = memory.finish()
    run.expect(answers is not None, "a wrong answer by shared memory")
    figures = process_figures.figures(host.process.pid)
    return State(figures.descriptors, figures.threads, figures.resident, heap), answers or 0


def compare(run, host, history):
    """What the last rounds have, against what the first ones left."""
    part = max(2, int(len(history) * PART))
    first, middle, last = history[part - 1], history[len(history) // 2 - part:], history[-1]
    pid = host.process.pid
    run.expect(last.descriptors == first.descriptors,
               f"descriptors: {first.descriptors}, then {last.descriptors}: "
               + ", ".join(sorted(process_figures.descriptor_names(pid))))
    run.expect(last.threads == first.threads,
               f"threads: {first.threads}, then {last.threads}: "
               + ", ".join(process_figures.thread_names(pid)))
    heap = max(s.heap for s in history[-part:]) - max(s.heap for s in middle[:part])
    growth = max(s.resident for s in history[-part:]) - max(s.resident for s in middle[:part])
    run.figure("descriptors", f"{first.descriptors} and {last.descriptors}")
    run.figure("threads", f"{first.threads} and {last.threads}")
    run.figure("heap in use", f"{last.heap / 1024:.0f} KiB ({heap / 1024:+.1f} KiB)")
    run.figure("resident", f"{mebibytes(last.resident)} ({growth / 1024:+.0f} KiB)")
    if run.sanitized:
        return  # the sanitizer's allocator keeps what is freed, and looks for leaks at the end
    if not run.quick:
        run.expect(heap <= HEAP_GROWTH, f"the heap has grown by {number(heap)} bytes")
        run.expect(growth <= RESIDENT_GROWTH, f"resident size has grown by {mebibytes(growth)}")


def service_cycles(run):
    rounds = run.count(200, quick=5)
    objects = shared_memory.posix_objects()
    port = shared_memory.free_local_port()
    host = Directive_Host(port)
    history = []
    in_memory = 0
    crowd = None
    try:
        kinds = loads(*make_files(host.folder))
        host.start()
        crowd = Crowd(host, kinds)
        for i in range(rounds):
            state, answers = cycle(run, host, crowd, port)
            history.append(state)
            in_memory += answers
            if (i + 1) % 10 == 0:
                run.progress(f"{i + 1} of {rounds}: {state.descriptors} descriptors, "
                             f"{state.threads} threads, {mebibytes(state.resident)}, "
                             f"heap {state.heap >> 10} KiB")
            if run.failures:
                break
        tally = crowd.leave()
        run.expect(not tally.wrong, "wrong bytes: " + "; ".join(tally.wrong[:3]))
        run.figure("rounds", len(history))
        run.figure("whole answers", number(tally.answered + in_memory))
        run.figure("cut", number(tally.cut))
        compare(run, host, history)
        left = shared_memory.mapped_by(host.process.pid)
        run.expect(not left, f"still mapped: {', '.join(left)}")
        status = host.end()
        said = [line for line in host.log() if "ERROR" in line or "Sanitizer" in line]
        run.expect(status == 0, f"exit status {status}: " + "; ".join(said[:3]))
    finally:
        if crowd is not None:
            crowd.leave()
        left = shared_memory.pool_files(host.pools)
        host.close()
    left += sorted(shared_memory.posix_objects() - objects)
    run.expect(not left, f"left in shared memory: {', '.join(left)}")
    run.figure("shared memory left", len(left))
