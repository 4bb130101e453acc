"""Tests how the report compares and judges; tools/bench runs them before it measures."""

import os
import tempfile
import unittest

import judge
import tables
from instructions import sizes
from measure import command_of, run_batch
from measurements import Measurements
from plans import Plan, Plans

SETS = {"ovra": ["ovra"], "peers": ["fast", "slow"]}


class Table:
    """One row in the place of those in rows.toml."""

    def __init__(self, **entry):
        self.rows = [Plan({"title": "Group", "what": "a thing", "name": "thing/{of}",
                           "peers": "peers", **entry}, SETS, "ovra", {})]


def measured(machine="this one", figure="cpu_ns", **values):
    found = Measurements()
    found.about = {"machine": machine}
    for contestant, value in values.items():
        found.add(f"thing/{contestant}", figure, value)
    return found


def measured_by(output):
    """What is taken from a program that prints this and writes no file."""
    with tempfile.TemporaryDirectory() as scratch:
        program = os.path.join(scratch, "benchmark-stub")
        with open(program, "w", encoding="utf-8") as script:
            script.write(f"#!/bin/sh\ncat <<'END'\n{output}\nEND\n")
        os.chmod(program, 0o755)
        found = Measurements()
        run_batch(program, ".", 1, 0.01, found)
        return found


class BatchTest(unittest.TestCase):
    def test_results_come_from_the_standard_output(self):
        found = measured_by('{"benchmarks": [{"name": "a", "run_name": "thing/ovra", "run_type": '
                            '"iteration", "real_time": 2, "cpu_time": 1, "time_unit": "us"}]}')
        self.assertEqual((found.median("thing/ovra", "ns"), found.median("thing/ovra", "cpu_ns")),
                         (2000, 1000))

    def test_a_program_that_cannot_be_contained_has_no_results(self):
        self.assertEqual(measured_by("Skipped: no mount namespace").names(), [])

    def test_anything_else_than_results_is_an_error(self):
        self.assertRaises(ValueError, measured_by, "Segmentation fault")


class JudgeTest(unittest.TestCase):
    def verdict(self, table, found, *others):
        judgement = judge.Judgement(table, found, others)
        return judgement.verdict(judgement.rows[0])

    def test_a_goal_is_held_against_the_best_peer_that_it_names(self):
        found = measured(ovra=10, fast=5, slow=20)
        self.assertEqual(self.verdict(Table(goal=1.0), found), "missed")
        self.assertEqual(self.verdict(Table(goal=1.0, against=["slow"]), found), "met")

    def test_a_limit_is_held_against_the_figure_and_both_have_to_hold(self):
        found = measured(ovra=10, fast=20)
        self.assertEqual(self.verdict(Table(limit=10), found), "met")
        self.assertEqual(self.verdict(Table(limit=9, goal=1.0), found), "missed")

    def test_a_row_without_peers_or_goal_has_no_verdict(self):
        self.assertEqual(self.verdict(Table(goal=1.0), measured(ovra=10)), "")
        self.assertEqual(self.verdict(Table(), measured(ovra=10, fast=1)), "")

    def test_a_goal_met_on_one_kind_of_machine_only_is_not_met(self):
        here, there = measured(ovra=10, fast=20), measured("that one", ovra=10, fast=5)
        self.assertEqual(self.verdict(Table(goal=1.0), here, there),
                         "met here, missed on that one")
        self.assertEqual(self.verdict(Table(goal=1.0), there, here),
                         "missed here, met on this one")
        self.assertEqual(self.verdict(Table(goal=1.0), here, here), "met")
        self.assertIn("0 are met; 1 more depend",
                      judge.Judgement(Table(goal=1.0), here, [there]).summary())

    def test_a_quotient_divides_every_contestant_by_its_own(self):
        found = measured(ovra=30, fast=10)
        for contestant, value in (("ovra", 10), ("fast", 10)):
            found.add(f"base/{contestant}", "cpu_ns", value)
        row = judge.rows_of(Table(over="base/{of}"), found)[0]
        self.assertEqual((row.value, row.judged()), (3, ("fast", 3)))

    def test_a_regression_is_a_ratio_that_grew_by_more_than_15_per_cent(self):
        before = measured(ovra=10, fast=10)
        self.assertFalse(judge.regressions(Table(), measured(ovra=114, fast=100), before))
        self.assertTrue(judge.regressions(Table(), measured(ovra=116, fast=100), before))
        self.assertFalse(judge.regressions(Table(scheduler=True), measured(ovra=50, fast=10),
                                           before))

    def test_instructions_are_compared_without_a_peer_too(self):
        before = measured(figure="instructions", ovra=100, fast=100)
        after = measured(figure="instructions", ovra=200, fast=200)
        self.assertTrue(judge.regressions(Table(figure="instructions"), after, before))
        self.assertFalse(judge.regressions(Table(), measured(ovra=200, fast=200),
                                           measured(ovra=100, fast=100)))


class TextTest(unittest.TestCase):
    def test_figures_have_their_unit(self):
        for value, figure, text in ((3.03, "allocations", "3.03"), (3529, "instructions", "3 529"),
                                    (1530, "cpu_ns", "1.53 µs"), (380, "queued_bytes", "380 bytes"),
                                    (20480, "bytes", "20 KiB"), (56, "kib", "56 KiB"),
                                    (0.25, "switches", "0.25"), (12, "p99_ns", "12 ns")):
            self.assertEqual(tables.figure_text(value, figure), text)


class NamesTest(unittest.TestCase):
    def test_a_name_holds_the_arguments(self):
        self.assertEqual(command_of("program", "burst/a pool/n:10/workers:2", ["n=15"]),
                         ["program", "burst/a pool", "n=15", "workers=2"])

    def test_counting_grows_what_the_row_names(self):
        row = Table(counted=["n", "changes"], **{"with": "rounds=0"}).rows[0]
        self.assertEqual(sizes(row, "thing/ovra/n:10/changes:4"),
                         ([["n=5", "changes=2", "rounds=0"], ["n=15", "changes=6", "rounds=0"]],
                          10))
        row = Table(counted=["picks"], counted_from_none=True).rows[0]
        self.assertEqual(sizes(row, "thing/ovra/picks:3"), ([["picks=0"], ["picks=3"]], 3))

    def test_measurements_survive_their_file(self):
        found = measured(ovra=1)
        found.add("thing/ovra", "cpu_ns", 4)
        with tempfile.TemporaryDirectory() as directory:
            path = os.path.join(directory, "kept.json")
            found.save(path)
            kept = Measurements.load(path)
            self.assertEqual((kept.values, kept.about), (found.values, found.about))
            found.save(path, medians_only=True)
            self.assertEqual(Measurements.load(path).values, {("thing/ovra", "cpu_ns"): [2.5]})

    def test_what_no_row_names_is_shown_too(self):
        plans = Plans()
        found = Measurements()
        found.add("novelty/ovra", "cpu_ns", 10)
        found.add("novelty/spdlog", "cpu_ns", 20)
        self.assertIn("| novelty/ovra, cpu_ns | 10 ns | spdlog 0.50 |",
                      tables.other_rows(plans, found))


if __name__ == "__main__":
    unittest.main()
