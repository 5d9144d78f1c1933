"""SIGTERM under load, a fresh host each time."""

import random
import time

from checks import milliseconds, number
from crowd import Crowd, Tally
from loads import loads, make_files, make_host

# What a stopping service waits for plug-ins in threads of their own, and a little for the rest.
DRAIN_SECONDS = 10
BAD_LINES = ("Sanitizer", "runtime error", "still in its worker thread")


def stop_under_load(run, host, kinds, pause):
    """One round. Returns (Tally, seconds from the signal to the end)."""
    host.start()
    crowd = Crowd(host, kinds)
    try:
        cold = crowd.wait_until_warm()
        run.expect(not cold, f"no answers for: {', '.join(cold)}")
        time.sleep(pause)
        begin = time.monotonic()
        status = host.end()
        seconds = time.monotonic() - begin
    finally:
        tally = crowd.leave()
    run.expect(status == 0, f"exit status {status}")
    run.expect(seconds <= DRAIN_SECONDS, f"{seconds:.1f} s from SIGTERM to the end")
    bad = [line for line in host.log() if any(text in line for text in BAD_LINES)]
    run.expect(not bad, "logged: " + "; ".join(bad[:3]))
    run.expect(not tally.wrong, "wrong bytes: " + "; ".join(tally.wrong[:3]))
    return tally, seconds


def terminations(run):
    rounds = run.count(200, quick=2)
    chance = random.Random(run.seed)
    total = Tally()
    longest = 0
    host = make_host(service=["-t", "2"])
    try:
        kinds = loads(*make_files(host.folder))
        for i in range(rounds):
            tally, seconds = stop_under_load(run, host, kinds, chance.uniform(0, 0.02))
            total.add(tally)
            longest = max(longest, seconds)
            if (i + 1) % 10 == 0:
                run.progress(f"{i + 1} of {rounds}: {number(total.answered)} answers, "
                             f"{total.cut} cut, longest stop {milliseconds(longest)}")
            if run.failures:
                break
    finally:
        host.close()
    run.figure("stops", rounds)
    run.figure("clients at each", len(kinds))
    run.figure("whole answers", number(total.answered))
    run.figure("cut by the end", number(total.cut))
    run.figure("not begun", number(total.lost))
    run.figure("wrong", len(total.wrong))
    run.figure("longest stop", milliseconds(longest))
