"""Runs one target as a libFuzzer program, and tells how it went."""

import os
import re
import subprocess
import time

# Seconds that one run may take; more is a failure like a crash. On a busy machine a run may only
# have had to wait, so a slow input is tried again alone.
LONGEST_RUN = 1
TRIES = 3
HANGS = 20
REPORT_EVERY = 10

ASAN_OPTIONS = "detect_stack_use_after_return=1:strict_string_checks=1:malloc_context_size=8"
UBSAN_OPTIONS = "print_stacktrace=1"
SYMBOLIZER = "/usr/bin/llvm-symbolizer-14"


class Outcome:
    """Figures of one target's campaign."""

    def __init__(self):
        self.runs = 0
        self.seconds = 0.0
        self.slowest = 0
        self.findings = []
        self.status = None
        self.last_lines = []

    def per_second(self):
        """Runs per second."""
        return round(self.runs / self.seconds) if self.seconds > 0 else 0

    def good(self):
        """No crash, no leak, no run over the limit."""
        return self.status == 0 and not self.findings


def environment():
    """The sanitizers' options, unless the caller has set others."""
    result = dict(os.environ)
    result.setdefault("ASAN_OPTIONS", ASAN_OPTIONS)
    result.setdefault("UBSAN_OPTIONS", UBSAN_OPTIONS)
    if os.path.exists(SYMBOLIZER):
        for name in ("ASAN_SYMBOLIZER_PATH", "UBSAN_SYMBOLIZER_PATH"):
            result.setdefault(name, SYMBOLIZER)
    return result


def arguments(target, seconds, runs):
    """The command line; 0 seconds or runs: without that limit."""
    command = [target.program, f"-max_len={target.longest}", f"-timeout={HANGS}",
               f"-report_slow_units={LONGEST_RUN}", "-print_final_stats=1",
               f"-artifact_prefix={target.findings}/", "-reload=0",
               "-entropic=0"]  # the choice of inputs by entropy costs a quarter of the runs
    if seconds:
        command.append(f"-max_total_time={seconds}")
    if runs:
        command.append(f"-runs={runs}")
    if os.path.exists(target.dictionary):
        command.append(f"-dict={target.dictionary}")
    return command + [target.grown] + target.stored_folders()


def note_line(line, outcome):
    """Takes the figures out of a line of libFuzzer's."""
    outcome.last_lines = (outcome.last_lines + [line])[-40:]
    progress = re.match(r"#(\d+)\s", line)
    if progress:
        outcome.runs = max(outcome.runs, int(progress.group(1)))
    final = re.match(r"stat::(\w+):\s*(\d+)", line)
    if final and final.group(1) == "number_of_executed_units":
        outcome.runs = int(final.group(2))
    elif final and final.group(1) == "slowest_unit_time_sec":
        outcome.slowest = int(final.group(2))


def is_slow(target, path):
    """True when the input takes too long each time that it is run, the program's start included."""
    for _ in range(TRIES):
        start = time.monotonic()
        subprocess.run([target.program, path], env=environment(), check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        if time.monotonic() - start < LONGEST_RUN:
            return False
    return True


def findings_of(target, before, report):
    """The files that were written since, without inputs that are not slow after all."""
    found = []
    for name in sorted(set(os.listdir(target.findings)) - before):
        path = os.path.join(target.findings, name)
        if name.startswith("slow-unit-") and not is_slow(target, path):
            report(f"{target.name}: {name} only had to wait: quick when run alone")
            os.remove(path)
        else:
            found.append(path)
    return found


def run(target, seconds, runs, report):
    """
    Runs the target until its time or its number of runs is over, or it has found something.
    @param report  called with a line of text now and then
    @return an Outcome.
    """
    target.make_folders()
    before = set(os.listdir(target.findings))
    outcome = Outcome()
    start = time.monotonic()
    next_report = start + REPORT_EVERY
    with subprocess.Popen(arguments(target, seconds, runs), env=environment(), text=True,
                          errors="replace", stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE) as process:
        try:
            for line in process.stderr:
                note_line(line.rstrip("\n"), outcome)
                if time.monotonic() >= next_report:
                    next_report = time.monotonic() + REPORT_EVERY
                    report(f"{target.name}: {time.monotonic() - start:.0f} s, "
                           f"{outcome.runs} runs")
        except KeyboardInterrupt:
            process.terminate()
            raise
        outcome.status = process.wait()
    outcome.seconds = time.monotonic() - start
    outcome.findings = findings_of(target, before, report)
    return outcome
