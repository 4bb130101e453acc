"""What was measured, and how it is kept.

A measurement has a name, <shape>/<contestant>[/<argument>:<value>]..., and figures ("cpu_ns",
"instructions", ...: plans.py lists them). Kept as JSON:

    {"machine": "...", "date": "2026-01-31", "build": "<commit>",
     "measurements": [[<name>, <figure>, [<value of each repetition>, ...]], ...]}
"""

import json
import statistics


class Measurements:
    """The repetitions of every figure, by measurement and figure."""

    def __init__(self):
        self.values = {}
        self.about = {}

    def add(self, name, figure, value):
        self.values.setdefault((name, figure), []).append(value)

    def median(self, name, figure):
        values = self.values.get((name, figure))
        return statistics.median(values) if values else None

    def names(self):
        return sorted({name for name, _ in self.values})

    def figures(self, name):
        return [figure for of, figure in self.values if of == name]

    def update(self, other):
        """Takes the other's figures in place of its own."""
        self.values.update(other.values)
        self.about.update(other.about)

    def save(self, path, medians_only=False):
        kept = [[name, figure, [self.median(name, figure)] if medians_only else values]
                for (name, figure), values in sorted(self.values.items())]
        with open(path, "w", encoding="utf-8") as out:
            head = "".join(f" {json.dumps(key)}: {json.dumps(value)},\n"
                           for key, value in self.about.items())
            body = ",\n".join(f"  {json.dumps(entry)}" for entry in kept)
            out.write(f'{{\n{head} "measurements": [\n{body}\n]}}\n')

    @classmethod
    def load(cls, path):
        found = cls()
        with open(path, encoding="utf-8") as kept:
            found.about = json.load(kept)
        for name, figure, values in found.about.pop("measurements"):
            found.values[(name, figure)] = values
        return found
