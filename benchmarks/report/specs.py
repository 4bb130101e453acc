"""Reads rows.toml: what to measure and to compare. The file says what its entries mean."""

import itertools
import os
import re
import tomllib


class Spec:
    """One row of the table: a contestant of ovra's, and those it is compared with."""

    def __init__(self, entry, sets, ours, variables):
        def fill(text):
            return text.format(of="{of}", **variables) if text else None

        def contestants(of):
            return sets[of] if isinstance(of, str) else of

        what = f"{entry['what'].format(**variables)},".replace(" 1 workers,", " 1 worker,")[:-1]
        several = len(contestants(entry.get("ours", "ovra"))) > 1
        self.group = entry["group"]
        self.what = f"{ours.split()[-1]}, {what}" if several else what
        self.ours = ours
        self.peers = contestants(entry["peers"]) if "peers" in entry else None
        self.against = contestants(entry["against"]) if "against" in entry else self.peers
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


class Specs:
    def __init__(self):
        with open(os.path.join(os.path.dirname(__file__), "rows.toml"), "rb") as table:
            read = tomllib.load(table)
        self.batches = read["batches"]
        self.sets = read["sets"]
        self.largest = read["largest_n"]
        self.rows = []
        for entry in read["row"]:
            each = entry.get("each", {})
            contestants = entry.get("ours", "ovra")
            for ours in self.sets.get(contestants, contestants) if isinstance(
                    contestants, str) else contestants:
                for values in itertools.product(*each.values()):
                    self.rows.append(Spec(entry, self.sets, ours, dict(zip(each, values))))

    def is_left_out(self, name):
        """Whether a contestant would take too long."""
        _, contestant, *arguments = name.split("/")
        return any(key == "n" and int(value) > self.largest.get(contestant, 1e9)
                   for key, value in (argument.split(":") for argument in arguments))
