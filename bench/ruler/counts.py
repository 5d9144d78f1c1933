"""Workloads that count: instructions, system calls, resident bytes, milliseconds to the first
answer. They repeat exactly, or nearly so; each contender is measured by itself."""

import os
import re
import time
from dataclasses import dataclass, replace

from ruler.figures import Spread, short
from ruler.load import Holder, run_load
from ruler.processes import Failure, descendants, resident_bytes
from ruler.servers import Server, connect
from ruler.setup import Missing


@dataclass
class Column:
    """One figure. measure(setup, options, contender) gives it for each of the contenders.

    connections: how many are to be held idle, which the title names; where only fewer can be, the
    report's title names those.
    """

    title: str
    measure: object
    contenders: list
    connections: int = 0

    def title_in(self, options):
        return self.title.replace(f"{self.connections:,}",
                                  f"{options.idle(self.connections):,}") \
            if self.connections else self.title


@dataclass
class Counts:
    """One such workload: a table of contenders and columns."""

    key: str
    title: str
    columns: list
    goals: list

    def measure(self, setup, options, say):
        cells, failures, names = {}, [], []
        titles = {column.title: column.title_in(options) for column in self.columns}
        for column in self.columns:
            title = titles[column.title]
            for contender in column.contenders:
                if contender.name not in names:
                    names.append(contender.name)
                try:
                    spread = column.measure(setup, options, contender)
                except Failure as reason:
                    missing = isinstance(reason, Missing)
                    failures.append({"contender": contender.name, "missing": missing,
                                     "reason": f"{title}: {reason}"})
                    say(f"    {contender.name} is left out, {title}: {reason}")
                    continue
                cells[contender.name, title] = spread
                say(f"  {self.key}  {title}: {contender.name} {short(spread.median)}")
        columns = list(dict.fromkeys(titles.values()))
        rows = [{"contender": name,
                 "values": {title: vars(cells[name, title]) for title in columns
                            if (name, title) in cells}}
                for name in names]
        goals = [replace(goal, column=titles[goal.column]) for goal in self.goals]
        verdicts = [goal.judge(cells.get((goal.contender, goal.column))) for goal in goals]
        return {"workload": self.key, "title": self.title, "kind": "counts", "columns": columns,
                "rows": rows, "goals": verdicts, "failures": failures}


def exactly(value):
    return Spread(value, value, value)


def instructions(load):
    """User-space instructions of the whole server per request: the difference of two run lengths,
    so that start and end do not count."""
    def measure(setup, _options, contender):
        counts = []
        lengths = (1000, 3000)
        for length in lengths:
            output = setup.new_name("callgrind.out")
            prefix = [setup.tool("valgrind"), "--tool=callgrind", f"--callgrind-out-file={output}"]
            server = Server(setup, contender, prefix=prefix)
            try:
                run_load(setup, [*load, "--connections", "1", "--requests", str(length)], server,
                         seconds=180)
            finally:
                ended = server.stop(server.process.pid)
            counts.append(_callgrind_total(output, ended))
        return exactly((counts[1] - counts[0]) / (lengths[1] - lengths[0]))
    return measure


def _callgrind_total(path, ended):
    if ended and os.path.exists(path):
        with open(path, encoding="ascii", errors="replace") as file:
            found = re.findall(r"^(?:summary|totals): (\d+)", file.read(), re.MULTILINE)
        if found:
            return int(found[-1])
    raise Failure("callgrind wrote no count")


def system_calls(load, lengths=(3200, 9600)):
    """System calls of the whole server per request, by the difference of two run lengths."""
    def measure(setup, _options, contender):
        counts = []
        for length in lengths:
            output = setup.new_name("strace.out")
            prefix = [setup.tool("strace"), "-c", "-f", "-o", output]
            server = Server(setup, contender, prefix=prefix)
            try:
                run_load(setup, [*load, "--requests", str(length)], server, seconds=120)
            finally:
                traced = server.pids()[1:]
                server.stop(traced[0] if traced else None)
            counts.append(_strace_total(output))
        return exactly((counts[1] - counts[0]) / (lengths[1] - lengths[0]))
    return measure


def _strace_total(path):
    try:
        with open(path, encoding="ascii", errors="replace") as file:
            total = [line.split() for line in file if line.rstrip().endswith(" total")]
        return int(total[-1][3])
    except (OSError, IndexError, ValueError) as error:
        raise Failure("strace wrote no count") from error


def idle_bytes(connections, words, warm):
    """Resident bytes per idle connection. warm: a load that runs before, so that what is made once
    is not counted."""
    def measure(setup, options, contender):
        count = min(options.idle(connections), int(setup.descriptors * contender.idle_share))
        server = Server(setup, contender)
        try:
            run_load(setup, [*warm, "--connections", "8", "--requests", "800"], server)
            before = _settled(server)
            holder = Holder(setup, server, [*words, "--connections", str(count)])
            try:
                after = _settled(server)
            finally:
                holder.stop()
        finally:
            server.stop()
        return exactly((after - before) / count)
    return measure


def _settled(server):
    """The resident size, once it does not move any more."""
    last = -1
    for _ in range(50):
        now = resident_bytes(server.pids())
        if now == last:
            break
        last = now
        time.sleep(0.1)
    return last


class Start:
    """Starting a server and asking it once, several times over."""

    def __init__(self, times, path):
        self._times = times
        self._path = path
        self._sizes = {}

    def milliseconds(self, setup, options, contender):
        spans, sizes = [], []
        for _ in range(min(self._times, options.rounds)):
            span, size = self._once(setup, contender)
            spans.append(span)
            sizes.append(size)
        self._sizes[contender.name] = Spread.of(sizes)
        return Spread.of(spans)

    def resident(self, _setup, _options, contender):
        """MiB, as found by the starts that milliseconds() made."""
        if contender.name not in self._sizes:
            raise Failure("it did not start")
        return self._sizes[contender.name]

    def _once(self, setup, contender):
        launch = contender.launch(setup)
        request = f"GET {self._path} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode()
        log = setup.new_name("start.log")
        begin = time.perf_counter()
        child = setup.processes.start(launch.argv, setup.server_cores, log)
        try:
            client = None
            while client is None:
                if child.poll() is not None or time.perf_counter() - begin > 10:
                    raise Failure("did not come up")
                client = connect(launch)
            with client:
                client.settimeout(10)
                client.sendall(request)
                answer = client.recv(4096)
                span = (time.perf_counter() - begin) * 1000
                if b" 200 " not in answer:
                    raise Failure(f"answered {answer[:40]!r}")
                size = resident_bytes(descendants(child.pid)) / (1 << 20)
        except OSError as error:
            raise Failure(str(error)) from error
        finally:
            setup.processes.stop(child)
        return span, size
