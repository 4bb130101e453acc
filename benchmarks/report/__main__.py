"""Called by tools/bench."""
import argparse
import json
import os

import exact


class Measurements:
    def __init__(self):
        self.values = {}

    def add(self, name, figure, value):
        self.values.setdefault((name, figure), []).append(value)


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("build")
    arguments.add_argument("--instructions", nargs="?", const=".", metavar="PATTERN")
    options = arguments.parse_args()
    found = Measurements()
    here = os.path.join(options.build, "benchmarks")
    exact.count_instructions(here, options.instructions, found)
    exact.weigh(here, options.instructions, found)
    with open(os.path.join(options.build, "exact.json"), "w", encoding="utf-8") as out:
        json.dump([[name, figure, values] for (name, figure), values in found.values.items()],
                  out, indent=0)
    print(exact.table(found))


main()
