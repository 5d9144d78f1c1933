"""The access log is rotated and compressed while eight threads of the server write to it."""

import os
import threading

from access_log import Access_Log
from checks import number
from host_program import Host_Program
from loads import HELLO, HTTP
from strict_client import Ended, Strict_Client, Wrong

WRITERS = 8         # half of them event loops, half threads of one connection
AT_ONCE = 40        # requests sent together
KIBIBYTES = 32      # of a log file
LONG_NAME = "-" * 1200  # a line that the server does not write in one piece


class Writer(threading.Thread):
    """One connection, and so one thread of the server, for `count` requests, each with a path of
    its own."""

    def __init__(self, host, index, count):
        super().__init__()
        self.paths = [self._path(index, i) for i in range(count)]
        self.answered = 0
        self.problem = None
        self._host = host

    @staticmethod
    def _path(index, i):
        middle = "thread/" if index % 2 else ""
        return f"/probe/{middle}{index}-{i}{LONG_NAME if i % 50 == 7 else ''}/hello"

    def run(self):
        client = Strict_Client(self._host.tcp())
        try:
            for i in range(0, len(self.paths), AT_ONCE):
                part = self.paths[i:i + AT_ONCE]
                client.ask("".join(f"GET {path} HTTP/1.1\r\nHost: test\r\n\r\n"
                                   for path in part).encode())
                for _ in part:
                    status, body = client.answer()
                    if (status, body) != (200, HELLO):
                        raise Wrong(f"status {status}, {body[:40]!r}")
                    self.answered += 1
        except (Ended, Wrong) as error:
            self.problem = str(error)
        finally:
            client.close()


def write(run, host, count):
    """Returns the paths that were answered."""
    writers = [Writer(host, i, count // WRITERS) for i in range(WRITERS)]
    for writer in writers:
        writer.start()
    for writer in writers:
        while writer.is_alive():
            writer.join(2)
            answered = sum(each.answered for each in writers)
            files = len(os.listdir(os.path.join(host.folder, "logs")))
            run.progress(f"{number(answered)} of {number(count)} answers, {files} files")
    for writer in writers:
        run.expect(writer.problem is None and writer.answered == len(writer.paths),
                   f"{writer.answered} answers, then: {writer.problem}")
    return [path.encode() for writer in writers for path in writer.paths]


def rotation(run):
    count = run.count(160_000, quick=4_000)
    host = Host_Program(http=HTTP[:1], log_level="info", service=[
        "-t", str(WRITERS // 2), "-l", "{folder}/logs/access.log", "-m", str(KIBIBYTES),
        "-N", "1000000", "-z"])
    try:
        os.mkdir(os.path.join(host.folder, "logs"))
        host.start()
        paths = write(run, host, count)
        status = host.end()
        run.expect(status == 0, f"exit status {status}")
        bad = [line for line in host.log() if " ERROR " in line or "Sanitizer" in line]
        run.expect(not bad, "logged: " + "; ".join(bad[:3]))
        log = Access_Log(os.path.join(host.folder, "logs", "access.log"))
    finally:
        host.close()
    lost = [path for path in paths if log.paths[path] == 0]
    twice = [path for path, times in log.paths.items() if times > 1]
    run.expect(not lost, f"{len(lost)} lines are lost, as that of {lost[:1]}")
    run.expect(not twice, f"{len(twice)} lines stand twice, as that of {twice[:1]}")
    run.expect(len(log.paths) == len(paths), f"{len(log.paths)} paths for {len(paths)} requests")
    run.expect(not log.torn, f"{len(log.torn)} lines are torn: {'; '.join(log.torn[:2])}")
    run.expect(log.copies == list(range(1, len(log.copies) + 1)), "numbers of copies are missing")
    run.expect(len(log.copies) > count // 1000, f"only {len(log.copies)} rotations")
    run.expect(not log.plain, f"copies that were not compressed: {log.plain[:5]}")
    run.expect(not log.strange, f"strange files: {log.strange[:5]}")
    # Others may each add a line until the one that was too much has been seen.
    most = KIBIBYTES * 1024 + (WRITERS + 1) * (len(LONG_NAME) + 120)
    run.expect(log.largest <= most, f"a file of {log.largest} bytes")
    run.figure("requests", number(len(paths)))
    run.figure("lines", number(log.lines))
    run.figure("rotations", number(len(log.copies)))
    run.figure("lost", len(lost))
    run.figure("twice", len(twice))
    run.figure("torn", len(log.torn))
    run.figure("largest file", f"{log.largest / 1024:.1f} KiB of {KIBIBYTES} KiB")
