#!/usr/bin/env python3
"""Tests of what the runner computes and writes; they start no server."""

import json
import os
import sys
import tempfile
import unittest
import xml.etree.ElementTree
from types import SimpleNamespace

sys.dont_write_bytecode = True
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

# pylint: disable=wrong-import-position
from ruler import picture, report
from ruler.counts import _callgrind_total, _strace_total
from ruler.figures import Goal, Spread, table
from ruler.processes import Failure
from ruler.rounds import Rounds, _Block
from ruler.workloads import all_workloads


def slice_of(requests, cpu_ns, seconds=1.0):
    return {"requests": requests, "seconds": seconds, "errors": 0, "bytes": 0,
            "server_cpu_ns": cpu_ns, "own_cpu_ns": 0.5e9, "p50_us": 1.0, "p90_us": 2.0,
            "p99_us": 3.0, "max_us": 4.0}


def block(slices, goals=()):
    """A block that has measured these slices: name -> {round: result}."""
    workload = Rounds("key", "Title", ["get"], [], list(goals))
    made = _Block(workload, None, SimpleNamespace(rounds=3), None)
    made.slices = slices
    return made


class Spread_Test(unittest.TestCase):
    def test_median_and_quartiles(self):
        self.assertEqual(Spread.of([5, 1, 3, 2, 4]), Spread(3, 2, 4))

    def test_one_value_has_no_spread(self):
        self.assertEqual(Spread.of([7]), Spread(7, 7, 7))


class Goal_Test(unittest.TestCase):
    def verdict(self, goal, spread):
        return goal.judge(spread)["verdict"]

    def test_met_at_the_limit(self):
        self.assertEqual(self.verdict(Goal("cpu", 1.1, "ceiling"), Spread(1.1, 1.0, 1.2)), "met")

    def test_missed_by_less_than_the_spread(self):
        self.assertEqual(self.verdict(Goal("cpu", 1.1, "ceiling"), Spread(1.15, 1.0, 1.2)),
                         "missed, within the spread")

    def test_missed(self):
        self.assertEqual(self.verdict(Goal("cpu", 1.1, "ceiling"), Spread(1.2, 1.15, 1.3)),
                         "missed")

    def test_at_least(self):
        goal = Goal("throughput", 1.0, "nginx", at_least=True)
        self.assertEqual(self.verdict(goal, Spread(1.2, 1.1, 1.3)), "met")
        self.assertEqual(self.verdict(goal, Spread(0.9, 0.8, 0.95)), "missed")
        self.assertEqual(self.verdict(goal, Spread(0.9, 0.8, 1.0)), "missed, within the spread")

    def test_nothing_measured_is_not_met(self):
        self.assertEqual(self.verdict(Goal("cpu", 1.1, "ceiling"), None), "not measured")


class Rounds_Test(unittest.TestCase):
    def test_ratios_are_taken_inside_a_round(self):
        # The machine is twice as slow in the second round; the ratio stays.
        made = block({"ceiling": {0: slice_of(100, 1e6), 1: slice_of(100, 2e6)},
                      "httpd": {0: slice_of(100, 1.5e6), 1: slice_of(100, 3e6)}},
                     [Goal("cpu", 1.6, "ceiling")])
        result = made._result()
        row = result["rows"][1]
        self.assertEqual(row["cpu_ratio"], {"median": 1.5, "first": 1.5, "third": 1.5})
        self.assertAlmostEqual(row["cpu_us"], 22.5)
        self.assertEqual(result["goals"][0]["verdict"], "met")

    def test_a_round_that_one_of_them_lacks_gives_no_ratio(self):
        made = block({"ceiling": {0: slice_of(100, 1e6)},
                      "httpd": {0: slice_of(100, 2e6), 1: slice_of(100, 9e6)}})
        self.assertEqual(made._result()["rows"][1]["cpu_ratio"]["median"], 2.0)

    def test_without_the_base_there_is_no_ratio(self):
        made = block({"ceiling": {}, "httpd": {0: slice_of(100, 2e6)}},
                     [Goal("cpu", 1.6, "ceiling")])
        result = made._result()
        self.assertIsNone(result["rows"][0]["cpu_ratio"])
        self.assertEqual(result["goals"][0]["verdict"], "not measured")

    def test_throughput_by_seconds(self):
        made = block({"ceiling": {0: slice_of(100, 1e6, 0.5)},
                      "httpd": {0: slice_of(100, 1e6, 1.0)}})
        self.assertEqual(made._result()["rows"][1]["throughput_ratio"]["median"], 0.5)


class Count_Test(unittest.TestCase):
    def file(self, text):
        with tempfile.NamedTemporaryFile("w", delete=False) as file:
            file.write(text)
        self.addCleanup(os.unlink, file.name)
        return file.name

    def test_strace_total(self):
        path = self.file("% time     seconds  usecs/call     calls    errors syscall\n"
                         " 60.00    0.001000           1      1000           recvfrom\n"
                         "100.00    0.002000           0      1234        10 total\n")
        self.assertEqual(_strace_total(path), 1234)

    def test_callgrind_total(self):
        path = self.file("version: 1\nevents: Ir\nsummary: 42\n\ntotals: 4711\n")
        self.assertEqual(_callgrind_total(path, True), 4711)

    def test_no_count_is_a_failure(self):
        with self.assertRaises(Failure):
            _strace_total(self.file(""))
        with self.assertRaises(Failure):
            _callgrind_total(self.file("version: 1\n"), True)


class Report_Test(unittest.TestCase):
    def result(self):
        return block({"ceiling": {0: slice_of(100, 0.95e9)},
                      "httpd": {0: slice_of(100, 1.9e9)},
                      "slow <&>": {0: slice_of(100, 9.5e9)}},
                     [Goal("cpu", 1.6, "ceiling")])._result()

    def test_the_picture_is_well_formed_and_shows_the_ratios(self):
        text = picture.draw([self.result()], "a < b & c")
        root = xml.etree.ElementTree.fromstring(text)
        shown = [element.text for element in root.iter("{http://www.w3.org/2000/svg}text")]
        for figure in ("1.00", "2.00", "10.00 (cut)", "slow <&>", "a < b & c"):
            self.assertIn(figure, shown)

    def test_the_text_names_ratio_and_verdict(self):
        text = "\n".join(report.as_text(self.result()))
        self.assertIn("goal CPU <= 1.6 x ceiling: 2.00, missed", text)

    def test_the_results_can_be_read_back(self):
        options = SimpleNamespace(rounds=1)
        text = report.as_json([self.result()], {"kernel": "6"}, options, [])
        self.assertEqual(json.loads(text)["results"][0]["rows"][1]["contender"], "httpd")

    def test_columns_line_up(self):
        self.assertEqual(table(["", "us"], [["a", "1"], ["long", "10"]]),
                         ["        us", "  a      1", "  long  10"])


class Workloads_Test(unittest.TestCase):
    def test_keys_are_unique(self):
        keys = [workload.key for workload in all_workloads()]
        self.assertEqual(len(keys), len(set(keys)))

    def test_goals_name_contenders_that_take_part(self):
        for workload in all_workloads():
            if not isinstance(workload, Rounds):
                continue
            names = {contender.name for contender in workload.contenders}
            for goal in workload.goals:
                self.assertLessEqual({goal.contender, goal.against}, names, workload.key)

    def test_the_browser_request_is_as_long_as_its_title_says(self):
        path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "requests", "browser.txt")
        self.assertEqual(os.path.getsize(path), 558)


if __name__ == "__main__":
    unittest.main()
