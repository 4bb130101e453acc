"""Reads what to measure, to compare and to hold against a goal: the rows.toml beside the benchmarks.
A new row is an entry there, and no code.

A measurement is named <shape>/<contestant>[/<argument>:<value>]... and has figures. A row compares
one figure of ovra's measurement with the same figure of its peers'. Whatever measurement of ovra no
row names is shown at the end of the table.

A file has groups of rows. A row's keys may also stand in its group, and in [default] for the whole
file; those nearer to the row go first.

    title    of a group: the heading above its rows
    what     the row's own text
    name     the measurement; {of} stands for the contestant
    each     a row for each combination of these values, written {thus} in what, name and figure
    ours     ovra's contestants, a list or the name of one of the [sets]; otherwise "ovra"
    peers    those compared with, likewise; needed with `program`, otherwise whoever was measured
    peer_name   the peers' measurement, where it is not of the same name
    figure   otherwise "cpu_ns"
      ns, cpu_ns, submit_ns, all_cpu_ns, p50_ns, p99_ns, p999_ns
                  time, and processor time (in tasks: that of all threads), per operation
      switches    of threads by the system, per task
      instructions, arm_instructions    in user space, per operation: here, and on 32-bit ARM
      bytes, allocations, queued_bytes, kept_bytes (per task), kib, peak_kib (in all)
      over_ideal, least_share, count
    over     the figure is divided by that of this measurement
    goal     the largest ratio to the best peer of `against` (a list or a set; otherwise: of all)
    limit    the largest figure of ovra's
    program  makes the measurement, in a process of its own:
             <program> <shape>/<contestant> [<argument>=<value>]...
             Without it, one of the `batches` does: Google Benchmark's programs, run once for all.
    counted  with `program`: the arguments that grow when instructions are counted. The program runs
             with half and with three halves of them; the difference belongs to as many operations as
             the first of them says. `with` adds arguments to both. With counted_from_none = true it
             runs with none and with all of them. With arm = true, 32-bit ARM is counted as well.
    iterations  without `program`: how many iterations' instructions are counted
    scheduler = true    the system's scheduler decides: reported, and left out of tools/bench --check
    slow = true         left out of quick runs
"""

import glob
import itertools
import os
import re
import tomllib

BENCHMARKS = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))


class Plan:
    """One row of the table: a contestant of ovra's, and those it is compared with."""

    def __init__(self, entry, sets, ours, variables):
        def fill(text):
            return text.format(of="{of}", **variables) if text else None

        def contestants(key):
            named = entry.get(key)
            return sets[named] if isinstance(named, str) else named

        what = f"{entry['what'].format(**variables)},".replace(" 1 workers,", " 1 worker,")[:-1]
        several = len(contestants("ours") or [ours]) > 1
        self.group = entry["title"]
        self.what = f"{ours.split()[-1]}, {what}" if several else what
        self.ours = ours
        self.peers = contestants("peers")
        self.against = contestants("against") or self.peers
        self.figure = fill(entry.get("figure", "cpu_ns"))
        self.pattern = fill(entry["name"])
        self.peer_pattern = fill(entry.get("peer_name")) or self.pattern
        self.over = fill(entry.get("over"))
        self.goal = entry.get("goal")
        self.limit = entry.get("limit")
        self.program = entry.get("program")
        self.counted = entry.get("counted")
        self.counted_with = entry.get("with", "").split()
        self.iterations = entry.get("iterations")
        self.is_counted_from_none = entry.get("counted_from_none", False)
        self.is_counted_on_arm = entry.get("arm", False)
        self.is_scheduled = entry.get("scheduler", False)
        self.is_slow = entry.get("slow", False)

    def name(self, contestant):
        pattern = self.pattern if contestant == self.ours else self.peer_pattern
        return pattern.format(of=contestant)

    def contestants_in(self, names):
        """Who made the row's measurement, of those that are named."""
        found = set()
        for pattern in {self.pattern, self.peer_pattern}:
            expression = re.escape(pattern).replace(re.escape("{of}"), "([^/]+)")
            found |= {match.group(1) for match in (re.fullmatch(expression, name)
                                                   for name in names) if match}
        return sorted(found)

    def peers_in(self, found):
        """Those compared with: if the row names none, whoever else was measured."""
        if self.peers is not None:
            return self.peers
        return [of for of in self.contestants_in(found.names()) if of != self.ours]

    def names(self):
        """All measurements that a row with a program needs."""
        for contestant in [self.ours, *self.peers]:
            yield self.name(contestant)
            if self.over:
                yield self.over.format(of=contestant)

    def shapes(self):
        return {pattern.split("/")[0] for pattern in (self.pattern, self.peer_pattern)}


class Plans:
    def __init__(self):
        self.batches = []
        self.sets = {"ovra": ["ovra"]}
        self.largest = {}
        self.rows = []
        entries = []
        for path in sorted(glob.glob(os.path.join(BENCHMARKS, "*", "rows.toml"))):
            with open(path, "rb") as file:
                read = tomllib.load(file)
            self.batches += read.get("batches", [])
            self.sets.update(read.get("sets", {}))
            self.largest.update(read.get("largest_n", {}))
            for group in read.get("group", []):
                common = {**read.get("default", {}), **group}
                entries += [{**common, **row} for row in common.pop("row")]
        for entry in entries:
            each = entry.get("each", {})
            ours = entry.get("ours", "ovra")
            for contestant in self.sets[ours] if isinstance(ours, str) else ours:
                for values in itertools.product(*each.values()):
                    self.rows.append(Plan(entry, self.sets, contestant, dict(zip(each, values))))

    def is_left_out(self, name):
        """Whether a contestant would take too long."""
        _, contestant, *arguments = name.split("/")
        return any(key == "n" and int(value) > self.largest.get(contestant, 1e9)
                   for key, value in (argument.split(":") for argument in arguments))
