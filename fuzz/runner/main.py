"""The command line of fuzz/run."""

import argparse
import sys

from . import campaign
from .minimise import minimise
from .targets import all_targets, build, size_of

DEFAULT_SECONDS = 30

DESCRIPTION = """\
Builds the fuzz targets (installing what is missing) and runs one after the other, each for 30
seconds unless told otherwise. Prints how far each is, and a table at the end. What a run adds to
the corpus and what it finds go to build/fuzz-work. The tree changes only with --minimise.

Exit status: 0; 1 when a target crashed, leaked, violated a property or took more than a second for
one run; 2 for bad arguments."""


def positive(text):
    """A whole number above 0."""
    number = int(text)
    if number < 1:
        raise argparse.ArgumentTypeError("must be at least 1")
    return number


def parse(words):
    """@return the options."""
    parser = argparse.ArgumentParser(prog="fuzz/run", description=DESCRIPTION,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seconds", type=positive, metavar="N",
                        help=f"time of each target (default {DEFAULT_SECONDS}; with --runs: none)")
    parser.add_argument("--runs", type=positive, metavar="N",
                        help="stop each target after so many runs")
    parser.add_argument("--target", action="append", metavar="NAME", default=[],
                        help="only this one; may be repeated")
    parser.add_argument("--list", action="store_true", help="print the targets' names and stop")
    parser.add_argument("--minimise", action="store_true",
                        help="do not run; merge what earlier runs have added into fuzz/corpus")
    parser.add_argument("--no-build", action="store_true", help="run what was built before")
    options = parser.parse_args(words)
    unknown = set(options.target) - {target.name for target in all_targets()}
    if unknown:
        parser.error(f"no such target: {', '.join(sorted(unknown))} (--list names them)")
    if options.seconds is None and options.runs is None:
        options.seconds = DEFAULT_SECONDS
    return options


def say(line):
    """Prints at once, also into a pipe."""
    print(line, flush=True)


def print_table(outcomes):
    """One line for each target, and the sum."""
    say(f"\n{'target':<18}{'runs':>12}{'runs/s':>9}{'slowest':>9}{'corpus':>8}  result")
    for target, outcome in outcomes:
        files, _ = size_of(target.grown)
        result = "ok" if outcome.good() else "FAILED"
        slowest = f"{outcome.slowest} s" if outcome.slowest else "< 1 s"
        say(f"{target.name:<18}{outcome.runs:>12}{outcome.per_second():>9}{slowest:>9}"
            f"{files:>8}  {result}")
    failed = sum(not outcome.good() for _, outcome in outcomes)
    say(f"{'all':<18}{sum(outcome.runs for _, outcome in outcomes):>12}{'':>26}  "
        + (f"{failed} FAILED" if failed else "ok"))


def explain_failure(target, outcome):
    """What was found, and how to see it again."""
    say(f"{target.name}: FAILED, exit status {outcome.status}")
    for line in outcome.last_lines:
        say(f"    {line}")
    for path in outcome.findings:
        say(f"  again: {target.program} {path}")


def main(words):
    """@return the exit status."""
    options = parse(words)
    targets = [target for target in all_targets()
               if not options.target or target.name in options.target]
    if options.list:
        for target in targets:
            say(target.name)
        return 0
    if not options.no_build:
        build()
    if options.minimise:
        return 0 if all([minimise(target, say) for target in targets]) else 1
    outcomes = []
    try:
        for target in targets:
            say(f"{target.name}: starts with {size_of(target.corpus)[0]} stored inputs")
            outcome = campaign.run(target, options.seconds, options.runs, say)
            outcomes.append((target, outcome))
            if not outcome.good():
                explain_failure(target, outcome)
    except KeyboardInterrupt:
        say("interrupted")
        print_table(outcomes)
        return 1
    print_table(outcomes)
    return 0 if all(outcome.good() for _, outcome in outcomes) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
