"""kill -9 in the middle of everything, and a start at the same places at once."""

import os
import socket
import tempfile
import time

import process_figures
import shared_memory
from checks import milliseconds, number
from crowd import Crowd, Tally
from loads import HELLO, LISTEN, loads, make_files, make_host


class Killed_Host:
    """A host with all kinds of listeners and a PID file, and what it leaves."""

    def __init__(self):
        self._scratch = tempfile.TemporaryDirectory(prefix="httpd-life-")
        self.pid_file = os.path.join(self._scratch.name, "pid")
        self.pools = os.path.join(self._scratch.name, "pools")
        os.mkdir(self.pools)
        self.port = shared_memory.free_local_port()
        self.program = make_host(
            listen=(*LISTEN, f"{self.port}m"), service=["-t", "2"],
            host_options=["--pid-file", self.pid_file], environment={"TMPDIR": self.pools})
        self.socket_file = os.path.join(self.program.folder, "socket")

    def close(self):
        self.program.close()
        self._scratch.cleanup()

    @property
    def pid(self):
        return self.program.process.pid

    def written_pid(self):
        try:
            with open(self.pid_file, encoding="ascii") as file:
                return file.read()
        except OSError:
            return ""

    def expect_stale(self, run):
        """What the next start has to cope with is there."""
        run.expect(self.written_pid() == f"{self.pid}\n", "no stale PID file")
        run.expect(os.path.exists(self.socket_file), "no stale socket file")
        with socket.socket(socket.AF_UNIX) as trial:
            run.expect(trial.connect_ex(self.socket_file) != 0, "the socket file is not stale")


def live_and_die(run, host, kinds, end_client_too):
    """One life under load. Returns (Tally, seconds to the start, the pools that are left)."""
    begin = time.monotonic()
    host.program.start()  # and it listens everywhere
    seconds = time.monotonic() - begin
    memory = shared_memory.Memory_Client(host.port, "/probe/hello", HELLO.decode())
    with Crowd(host.program, kinds) as crowd:
        run.expect(memory.is_served(), "no answer by shared memory")
        cold = crowd.wait_until_warm()
        run.expect(not cold, f"no answers for: {', '.join(cold)}")
        written = process_figures.wait_until(
            lambda: host.written_pid() == f"{host.pid}\n", 5)
        run.expect(written is not None, f"PID file: {host.written_pid()!r}")
        bad = [line for line in host.program.log() if " ERROR " in line or "Sanitizer" in line]
        run.expect(not bad, "logged: " + "; ".join(bad[:3]))
        pools = shared_memory.pool_files(host.pools)
        run.expect(len(pools) == 1, f"not one pool for one client: {pools}")
        if end_client_too:
            memory.kill()
        host.program.kill()
    tally = crowd.leave()
    if not end_client_too:
        run.expect(memory.finish() is not None, "a wrong answer by shared memory")
    run.expect(not tally.wrong, "wrong bytes: " + "; ".join(tally.wrong[:3]))
    host.expect_stale(run)
    return tally, seconds, pools


def last_life(run, host, pools):
    """A start and an orderly end leave nothing, of this life and of those before."""
    host.program.start()
    status = host.program.end()
    run.expect(status == 0, f"exit status {status}")
    run.expect(not os.path.exists(host.pid_file), "the PID file is left")
    run.expect(not os.path.exists(host.socket_file), "the socket file is left")
    left = shared_memory.pool_files(host.pools)
    run.expect(not left, f"{len(left)} pools are left: {left[:2]}")
    semaphores = shared_memory.semaphores_of(pools)
    run.expect(not semaphores, f"{len(semaphores)} semaphores are left, of {semaphores[:2]}")
    run.figure("pools and semaphores left", f"{len(left)} and {len(semaphores)}")


def restarts(run):
    rounds = run.count(100, quick=2)
    objects = shared_memory.posix_objects()
    total, longest, pools = Tally(), 0, []
    host = Killed_Host()
    try:
        kinds = loads(*make_files(host.program.folder))
        for i in range(rounds):
            tally, seconds, made = live_and_die(run, host, kinds, end_client_too=i % 2 == 1)
            total.add(tally)
            longest = max(longest, seconds)
            pools += made
            if (i + 1) % 10 == 0:
                run.progress(f"{i + 1} of {rounds}: {number(total.answered)} answers, "
                             f"{total.cut} cut, longest start {milliseconds(longest)}")
            if run.failures:
                break
        last_life(run, host, pools)
    finally:
        host.close()
    new = sorted(shared_memory.posix_objects() - objects)
    run.expect(not new, f"left in /dev/shm: {', '.join(new)}")
    run.figure("kills", rounds)
    run.figure("whole answers", number(total.answered))
    run.figure("cut by the end", number(total.cut))
    run.figure("wrong", len(total.wrong))
    run.figure("longest start", milliseconds(longest))
