"""The command bench/run."""

import argparse
import os
import shutil
import sys
import tempfile
from dataclasses import dataclass

from ruler import machine, picture, report
from ruler.load import run_load
from ruler.processes import Failure, Processes
from ruler.rounds import load_share, server_share
from ruler.servers import OURS, Server, ceiling, nginx
from ruler.setup import REPOSITORY, Setup
from ruler.workloads import GET, MANY, all_workloads


@dataclass
class Options:
    """What a workload has to know about the run."""

    rounds: int
    slice: float
    warm_up: float
    wrk_seconds: int
    idle_limit: int  # connections that may be held at once

    def idle(self, connections):
        return min(connections, self.idle_limit)


def parse(argv):
    parser = argparse.ArgumentParser(
        prog="bench/run", description="Measures httpd_host beside other servers and beside bare "
        "ceilings, in turns. Results go to the terminal and, as JSON, Markdown and SVG, to --out.")
    parser.add_argument("--list", action="store_true", help="name the workloads and end")
    parser.add_argument("--workload", action="append", nargs="+", default=[], metavar="NAME",
                        help="only these")
    parser.add_argument("--rounds", type=int, help="turns of each server (15)")
    parser.add_argument("--slice", type=float, default=0.18, metavar="SECONDS",
                        help="length of a turn (0.18)")
    parser.add_argument("--warm-up", type=float, default=0.04, metavar="SECONDS",
                        help="before each turn is measured (0.04)")
    parser.add_argument("--quick", action="store_true",
                        help="3 rounds and fewer idle connections: only to see that all works")
    parser.add_argument("--build", default=os.path.join(REPOSITORY, "build", "release"),
                        metavar="DIRECTORY", help="what is measured (build/release)")
    parser.add_argument("--out", default=os.path.join(REPOSITORY, "build", "bench"),
                        metavar="DIRECTORY", help="where results go (build/bench)")
    parser.add_argument("--port", type=int, default=18000, help="first port to use (18000)")
    arguments = parser.parse_args(argv)
    if arguments.rounds is None:
        arguments.rounds = 3 if arguments.quick else 15
    if arguments.rounds < 1 or arguments.slice <= 0 or arguments.warm_up < 0:
        parser.error("--rounds and --slice must be positive")
    return arguments, parser


def choose(names, parser):
    workloads = all_workloads()
    known = [workload.key for workload in workloads]
    unknown = [name for name in names if name not in known]
    if unknown:
        parser.error(f"no such workload: {', '.join(unknown)}; --list names them")
    return [workload for workload in workloads if not names or workload.key in names]


def say(text):
    print(text, flush=True)


def check_generator(setup, options):
    """Whether the generator can keep a server busy: what both use of their cores."""
    lines = []
    for contender in (ceiling("get"), nginx()):
        try:
            server = Server(setup, contender)
        except Failure as reason:
            lines.append(f"generator check against {contender.name}: not done, {reason}")
            continue
        try:
            result = run_load(setup, [*GET, "--connections", "64", "--warm-up", "0.1", "--seconds",
                                      str(max(0.5, options.slice))], server)
            used, own = server_share(result), load_share(result)
            verdict = _who_was_the_limit(used, own)
            lines.append(f"generator check, GET, 64 connections against {contender.name}: the "
                         f"server used {used * 100:.0f} % of its core, the generator "
                         f"{own * 100:.0f} % of its own: {verdict}")
        except Failure as reason:
            lines.append(f"generator check against {contender.name}: {reason}")
        finally:
            server.stop()
    return lines


def _who_was_the_limit(server, load):
    busy = report.LIMIT_SHARE
    if server >= busy:
        return "both were busy" if load >= busy else "the server was the limit"
    return "the generator was the limit" if load >= busy else "neither was: the machine is not idle"


def write_results(directory, results, description, options, check):
    """All of it again after each workload, so that an interrupted run leaves what it has."""
    os.makedirs(directory, exist_ok=True)
    caption = (f"{description['processor']}, Linux {description['kernel']}, "
               f"{description['date'][:10]}; median of {options.rounds} rounds; line: quartiles; "
               "red: goal")
    for name, text in (
            ("performance.json", report.as_json(results, description, options, check)),
            ("performance-figures.md", report.as_markdown(results, description, options, check)),
            ("performance.svg", picture.draw(results, caption))):
        path = os.path.join(directory, name)
        with open(path + ".new", "w", encoding="utf-8") as file:
            file.write(text)
        os.replace(path + ".new", path)


def ours_failed(results):
    return any(failure["contender"].startswith(OURS) for result in results
               for failure in result["failures"])


def run(workloads, arguments, setup):
    idle_limit = min(setup.descriptors - 500, 2000 if arguments.quick else MANY)
    options = Options(arguments.rounds, arguments.slice, arguments.warm_up,
                      1 if arguments.quick else 2, idle_limit)
    description = machine.describe(setup)
    for line in machine.lines(description):
        say(line)
    check = check_generator(setup, options)
    if idle_limit < MANY:
        check.append(f"no more than {idle_limit:,} idle connections in this run")
    for line in check:
        say(line)
    results = []
    for number, workload in enumerate(workloads):
        say(f"\n[{number + 1}/{len(workloads)}] {workload.key}: {workload.title}")
        result = workload.measure(setup, options, say)
        results.append(result)
        for line in report.as_text(result):
            say(line)
        write_results(arguments.out, results, description, options, check)
    say("\n".join(report.summary(results)))
    say(f"\nWritten to {arguments.out}: performance.json, performance-figures.md, "
        "performance.svg")
    return 1 if ours_failed(results) else 0


def main(argv):
    arguments, parser = parse(argv)
    workloads = choose([name for group in arguments.workload for name in group], parser)
    if arguments.list:
        for workload in workloads:
            print(f"{workload.key:24}{workload.title}")
        return 0
    processes = Processes()
    processes.handle_signals()
    directory = tempfile.mkdtemp(prefix="httpd-bench-")
    try:
        setup = Setup(processes, os.path.abspath(arguments.build), directory, arguments.port)
        return run(workloads, arguments, setup)
    except Failure as reason:
        print(f"bench/run: {reason}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:
        print("\nbench/run: interrupted", file=sys.stderr)
        return 130
    finally:
        processes.stop_all()
        shutil.rmtree(directory, ignore_errors=True)
