"""What a process uses, as Linux tells it in /proc."""

import os
import time
from dataclasses import dataclass

_TICKS = os.sysconf("SC_CLK_TCK")


@dataclass
class Figures:
    """descriptors, threads: how many. resident: bytes. processor: seconds since it started."""

    descriptors: int
    threads: int
    resident: int
    processor: float


def descriptors(pid):
    """How many descriptors the process has open."""
    return len(os.listdir(f"/proc/{pid}/fd"))


def descriptor_names(pid):
    """What each descriptor stands for, "socket:[123]" or a path: for messages."""
    names = []
    for number in os.listdir(f"/proc/{pid}/fd"):
        try:
            names.append(os.readlink(f"/proc/{pid}/fd/{number}"))
        except OSError:
            pass  # closed meanwhile
    return names


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def thread_names(pid):
    names = []
    for number in os.listdir(f"/proc/{pid}/task"):
        try:
            path = f"/proc/{pid}/task/{number}/comm"
            with open(path, encoding="ascii", errors="replace") as file:
                names.append(file.read().strip())
        except OSError:
            pass  # ended meanwhile
    return names


def _status_bytes(pid, name):
    with open(f"/proc/{pid}/status", encoding="ascii", errors="replace") as file:
        for line in file:
            if line.startswith(name + ":"):
                return int(line.split()[1]) * 1024
    raise ProcessLookupError(f"process {pid} has ended")  # a zombie has no memory


def resident(pid):
    """Resident size in bytes."""
    return _status_bytes(pid, "VmRSS")


def peak_resident(pid):
    """The largest resident size in bytes, since the start or since forget_peak()."""
    return _status_bytes(pid, "VmHWM")


def forget_peak(pid):
    """Begins peak_resident() anew."""
    with open(f"/proc/{pid}/clear_refs", "w", encoding="ascii") as file:
        file.write("5")


def processor_seconds(pid):
    """Processor time of all threads, of user and of kernel, in seconds."""
    with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as file:
        fields = file.read().rpartition(")")[2].split()  # a name may hold blanks
    return (int(fields[11]) + int(fields[12])) / _TICKS


def figures(pid):
    return Figures(descriptors(pid), threads(pid), resident(pid), processor_seconds(pid))


class Processor_Share:
    """How much of one core a process used: 0.5 is half of it, 2.0 is two whole ones."""

    def __init__(self, pid):
        self._pid = pid
        self._used = processor_seconds(pid)
        self._since = time.monotonic()

    def so_far(self):
        return ((processor_seconds(self._pid) - self._used)
                / max(time.monotonic() - self._since, 1e-9))


def wait_until(condition, seconds, pause=0.02):
    """Asks again and again until the condition holds. Returns the seconds that took, or None."""
    begin = time.monotonic()
    while True:
        if condition():
            return time.monotonic() - begin
        if time.monotonic() - begin >= seconds:
            return None
        time.sleep(pause)
