"""What the programs of proof have in common: checks with names, figures and an exit status.

A program hands a list of Check to main(). Each is run by itself, with progress lines while it
works; at the end comes one line for each with its figures, and the exit status is 1 when any
failed. A check is a function of one argument, the Run:

    def slow_headers(run):
        clients = run.count(2000, quick=50)
        ...
        run.figure("answered", f"{answered} of {asked}")
        run.expect(answered == asked, "ordinary requests went unanswered")

    CHECKS = [Check("slow-headers", "2,000 clients that never end their header", slow_headers)]
"""

import argparse
import os
import sys
import time
import traceback
from dataclasses import dataclass, field
from typing import Callable

REPOSITORY = os.path.abspath(os.path.join(os.path.dirname(__file__), "..", "..", ".."))
OK, FAILED, SKIPPED = "ok", "FAILED", "skipped"
SKIPPED_STATUS = 77  # as ctest is told by SKIP_RETURN_CODE


class Failure(Exception):
    """A check cannot go on, and has failed."""


class Skipped(Exception):
    """What the check needs is not on this machine. Only --quick lets that pass."""


@dataclass
class Check:
    """name: for --only. summary: one line for --list. function: called with a Run."""

    name: str
    summary: str
    function: Callable


@dataclass
class Run:
    """One check while it runs: what it may know, and what it reports.

    quick: counts are to be small. seed: for random numbers, so that a run can be repeated.
    sanitized: the server is built with a sanitizer, and its memory and speed say nothing.
    arguments: the whole command line, with the program's own options.
    """

    name: str
    quick: bool
    seed: int
    sanitized: bool
    arguments: argparse.Namespace
    figures: list = field(default_factory=list)
    failures: list = field(default_factory=list)
    expectations: int = 0

    def count(self, full, quick):
        return quick if self.quick else full

    def progress(self, text):
        print(f"  {self.name}: {text}", flush=True)

    def figure(self, name, value):
        self.figures.append(f"{name} {value}")

    def expect(self, condition, failure):
        """Notes a failure, and goes on. Returns whether the condition held."""
        self.expectations += 1
        if not condition:
            self.failures.append(failure)
            self.progress(f"{FAILED}: {failure}")
        return bool(condition)


@dataclass
class Result:
    """How a check ended."""

    check: Check
    outcome: str
    seconds: float
    remarks: list

    def line(self, width):
        return (f"{self.outcome:8}{self.check.name:{width}}  {'; '.join(self.remarks)}"
                f"  ({self.seconds:.1f} s)")


def run_check(check, arguments):
    """Whatever a check does, this returns a Result; only an interrupt goes through."""
    run = Run(check.name, arguments.quick, arguments.seed, is_sanitized(arguments.build),
              arguments)
    run.progress(check.summary)
    begin = time.monotonic()
    outcome = None
    try:
        check.function(run)
    except Skipped as reason:
        outcome = SKIPPED
        run.figures.append(str(reason))
    except Failure as reason:
        run.expect(False, str(reason))
    except Exception as error:  # pylint: disable=broad-except
        traceback.print_exc()
        run.expect(False, f"{type(error).__name__}: {error}".splitlines()[0])
    if outcome is None:
        if run.expectations == 0:
            run.failures.append("the check expected nothing")
        outcome = FAILED if run.failures else OK
    return Result(check, outcome, time.monotonic() - begin, run.failures + run.figures)


def number(value):
    """1234567 -> "1,234,567"."""
    return f"{value:,}"


def mebibytes(size):
    return f"{size / (1 << 20):.1f} MiB"


def milliseconds(seconds):
    return f"{seconds * 1000:.1f} ms"


def quantile(values, share):
    """The value that `share` of the values (0 to 1) do not exceed."""
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))]


def parse(argv, program, description, checks, add_options):
    names = [check.name for check in checks]
    parser = argparse.ArgumentParser(prog=program, description=description)
    parser.add_argument("--list", action="store_true", help="name the checks and end")
    parser.add_argument("--only", action="append", default=[], metavar="NAME",
                        help="only this check; may repeat")
    parser.add_argument("--quick", action="store_true",
                        help="small counts: only to see that all works")
    parser.add_argument("--build", default=os.path.join(REPOSITORY, "build", "dev"),
                        metavar="DIRECTORY", help="what is tested (build/dev)")
    parser.add_argument("--seed", type=int, default=1, help="for what is random (1)")
    if add_options:
        add_options(parser)
    arguments = parser.parse_args(argv)
    unknown = [name for name in arguments.only if name not in names]
    if unknown:
        parser.error(f"no such check: {', '.join(unknown)}; --list names them")
    host = os.path.join(os.path.abspath(arguments.build), "bin", "httpd_host")
    if not arguments.list and not os.access(host, os.X_OK):
        parser.error(f"{arguments.build} holds no bin/httpd_host; build it, or give --build")
    return arguments


def use_build(directory):
    """Tells Host_Program which host and which plug-ins to take."""
    directory = os.path.abspath(directory)
    os.environ["HTTPD_TEST_HOST"] = os.path.join(directory, "bin", "httpd_host")
    os.environ["HTTPD_TEST_LIBRARY_DIR"] = os.path.join(directory, "lib")


def is_sanitized(directory):
    with open(os.path.join(directory, "bin", "httpd_host"), "rb") as file:
        program = file.read()
    return b"__asan_init" in program or b"__tsan_init" in program


def main(argv, program, description, checks, add_options=None):
    """The whole command. Returns its exit status: 0; 1 when a check failed, or was skipped without
    --quick; 77 when all were skipped with it; 130 when interrupted.

    add_options: called with the argparse parser; what they say is in Run.arguments.
    """
    arguments = parse(argv, program, description, checks, add_options)
    if arguments.list:
        for check in checks:
            print(f"{check.name:24}{check.summary}")
        return 0
    use_build(arguments.build)
    chosen = [check for check in checks if not arguments.only or check.name in arguments.only]
    results = []
    try:
        for place, check in enumerate(chosen):
            print(f"[{place + 1}/{len(chosen)}] {check.name}", flush=True)
            results.append(run_check(check, arguments))
            print("  " + results[-1].line(0), flush=True)
    except KeyboardInterrupt:
        print(f"\n{program}: interrupted", file=sys.stderr)
        return 130
    print()
    width = max(len(result.check.name) for result in results)
    for result in results:
        print(result.line(width))
    failed = sum(result.outcome == FAILED for result in results)
    skipped = sum(result.outcome == SKIPPED for result in results)
    print(f"\n{len(results) - failed - skipped} of {len(results)} checks passed"
          + (f", {failed} failed" if failed else "") + (f", {skipped} skipped" if skipped else ""))
    if failed or (skipped and not arguments.quick):
        return 1
    return SKIPPED_STATUS if skipped == len(results) else 0
