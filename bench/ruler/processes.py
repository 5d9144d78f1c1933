"""Starting, pinning and ending the processes of a run."""

import os
import resource
import signal
import subprocess
import time

STOP_SECONDS = 2.0  # h2o waits for its connections to end
SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Failure(Exception):
    """A server or the generator did not do what it was started for."""


def raise_descriptor_limit():
    """Children inherit it. Returns the number of descriptors that each of them may have."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    return hard if hard != resource.RLIM_INFINITY else 1 << 20


def choose_cores():
    """Returns the core for the servers and the one for the generator, the same where there is
    only one."""
    allowed = sorted(os.sched_getaffinity(0))
    return allowed[0], allowed[-1] if len(allowed) < 2 else allowed[1]


class Processes:
    """All that this run started. Whatever way the run ends, stop_all() ends them.

    Each child leads a session of its own: a Ctrl-C of the terminal reaches the runner only, which
    then ends the children, with all that they started, in order.
    """

    def __init__(self):
        self._children = []
        self._starting = False
        self._interrupted = False

    def handle_signals(self):
        for number in SIGNALS:
            signal.signal(number, self._on_signal)

    def _on_signal(self, _number, _frame):
        self._interrupted = True
        for number in SIGNALS:  # a second one must not interrupt the ending of the children
            signal.signal(number, signal.SIG_IGN)
        if not self._starting:  # else start() raises, once the child is known
            raise KeyboardInterrupt

    def start(self, argv, cores, output, stdout=None):
        """Starts a program on the given cores.

        output: path of a file that gets what it writes; stdout=subprocess.PIPE leaves only
        standard error to that file.
        """
        own_cores = os.sched_getaffinity(0)
        self._starting = True
        try:
            with open(output, "ab") as log:
                # Inherited, which saves code between fork and exec: that would slow the start.
                os.sched_setaffinity(0, cores)
                child = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=stdout or log,
                                         stderr=log, start_new_session=True)
            self._children.append(child)
        except OSError as error:
            raise Failure(f"{argv[0]}: {error.strerror}") from error
        finally:
            os.sched_setaffinity(0, own_cores)
            self._starting = False
        if self._interrupted:
            raise KeyboardInterrupt
        return child

    def stop(self, child, first=None):
        """Ends a child: SIGTERM to it (or to the process `first`), and SIGKILL to its whole
        session when that does not do. Returns whether it ended by itself in time."""
        if child not in self._children:
            return True
        self._signal(first or child.pid, signal.SIGTERM)
        in_time = self._wait_unreaped(child, STOP_SECONDS if first is None else 60)
        # The child is not reaped yet, so its number still names its session.
        self._signal(-child.pid, signal.SIGKILL)
        child.wait()
        if child.stdout is not None:
            child.stdout.close()
        self._children.remove(child)
        return in_time

    def stop_all(self):
        for child in list(reversed(self._children)):
            self._signal(child.pid, signal.SIGTERM)
        for child in list(reversed(self._children)):
            self.stop(child)

    def finish(self, child, seconds):
        """Waits for a child that ends by itself. Returns its standard output and exit status."""
        try:
            output, _ = child.communicate(timeout=seconds)
        except subprocess.TimeoutExpired as error:
            self.stop(child)
            raise Failure(f"no result within {seconds:.0f} s") from error
        self._children.remove(child)
        return output.decode(errors="replace"), child.returncode

    @staticmethod
    def _signal(target, number):
        try:
            if target < 0:
                os.killpg(-target, number)
            else:
                os.kill(target, number)
        except ProcessLookupError:
            pass

    @staticmethod
    def _wait_unreaped(child, seconds):
        if child.returncode is not None:
            return True
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            if os.waitid(os.P_PID, child.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None:
                return True
            time.sleep(0.005)
        return False


def descendants(pid):
    """The process and all that it started, the process first."""
    found = [pid]
    for parent in found:
        try:
            for thread in os.listdir(f"/proc/{parent}/task"):
                with open(f"/proc/{parent}/task/{thread}/children", encoding="ascii") as file:
                    found.extend(int(child) for child in file.read().split())
        except OSError:
            pass
    return found


def resident_bytes(pids):
    """Resident size of the processes together."""
    total = 0
    for pid in pids:
        try:
            with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as file:
                for line in file:
                    if line.startswith("VmRSS:"):
                        total += int(line.split()[1]) * 1024
        except OSError:
            pass  # it has just ended
    return total


def read_tail(path, size=400):
    """The end of what a process wrote, for messages; on one line."""
    try:
        with open(path, "rb") as file:
            text = file.read()[-size:].decode(errors="replace")
    except OSError:
        return ""
    return " | ".join(line for line in text.splitlines() if line.strip())
