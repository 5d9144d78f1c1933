"""What of shared memory a server may leave behind: pool files of its shared-memory listener, the
semaphores that guard them, POSIX objects in /dev/shm, System V segments.
"""

import os
import random
import socket
import subprocess
import zlib

# Others on the machine make files there at any time; these are known not to be the server's.
_FOREIGN = (".org.chromium.", ".com.google.", "sem.mp-", "pulse-shm-")


def posix_objects():
    """Names in /dev/shm."""
    return {name for name in os.listdir("/dev/shm") if not name.startswith(_FOREIGN)}


def pool_files(folder):
    """Names of pools in the folder that the server has as TMPDIR."""
    return sorted(name for name in os.listdir(folder) if name.startswith("MEM_Acceptor_"))


def semaphores_of(pools):
    """Which of the pools, given by name, have a semaphore in the system."""
    keys = set()
    with open("/proc/sysvipc/sem", encoding="ascii") as table:
        next(table)
        for line in table:
            keys.add(int(line.split()[0]) & 0xFFFFFFFF)
    return [name for name in pools if zlib.crc32(name.encode()) in keys]


def segments_of(pid):
    """System V segments that the process has made."""
    with open("/proc/sysvipc/shm", encoding="ascii") as table:
        next(table)
        return [line.split()[1] for line in table if line.split()[4] == str(pid)]


def mapped_by(pid):
    """Shared memory that the process has mapped: pools, and what lies in /dev/shm."""
    with open(f"/proc/{pid}/maps", encoding="utf-8", errors="replace") as table:
        return sorted({line.split(maxsplit=5)[5].strip() for line in table
                       if "MEM_Acceptor_" in line or " /dev/shm/" in line or "/SYSV" in line})


def free_local_port():
    """A TCP port of 127.0.0.1 below the ephemeral range that is free now."""
    chance = random.Random(os.getpid())
    while True:
        port = chance.randrange(20000, 32000)
        with socket.socket() as trial:
            try:
                trial.bind(("127.0.0.1", port))
                return port
            except OSError:
                pass


class Memory_Client:
    """A process that asks a shared-memory listener again and again, until its connection ends."""

    def __init__(self, port, target, body):
        program = os.path.join(os.path.dirname(os.environ["HTTPD_TEST_HOST"]), "mem_load")
        self._process = subprocess.Popen([program, str(port), target, body],
                                         stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                         stderr=subprocess.DEVNULL, text=True)

    def is_served(self):
        """Waits for its first answer."""
        return self._process.stdout.readline() == "warm\n"

    def finish(self):
        """Waits for its end. Returns how many answers it had, or None where one was wrong."""
        words = self._process.stdout.read().split()
        self._process.stdout.close()
        status = self._process.wait()
        if status != 0 or len(words) != 3 or words[0] != "end":
            return None
        return int(words[1])

    def kill(self):
        self._process.kill()
        self._process.stdout.close()
        self._process.wait()
