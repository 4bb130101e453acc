#!/usr/bin/env python3
"""The tests of a build, as ctest knows them.

   programs.py <build directory> <label>...    prints the programs of tests that have one of the labels,
                                               each as a path below <build directory>/tests
   programs.py --check <build directory>       whether each test has one label, and one that is known
"""

import json
import os
import subprocess
import sys

# The quick ones first.
LABELS = ("unit", "interposed", "stress", "example")


def tests_of(build):
    """Each test that is built: its name, its labels and its command."""
    listed = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"],
                            check=True, stdout=subprocess.PIPE, text=True).stdout
    for test in json.loads(listed)["tests"]:
        if not test["name"].endswith("_NOT_BUILT"):
            labels = [value for entry in test["properties"] if entry["name"] == "LABELS"
                      for value in entry["value"]]
            yield test["name"], labels, test.get("command", [])


def programs_of(build, wanted=LABELS):
    """The programs that have a test for each of their cases, with the names of their cases."""
    programs = {label: {} for label in wanted}
    top = os.path.join(os.path.realpath(build), "tests")
    for name, labels, command in tests_of(build):
        program, _, case = name.partition(".")
        for label in set(labels) & set(wanted):
            for word in command:
                if os.path.basename(word) == program and program.endswith("Tests"):
                    path = os.path.relpath(os.path.realpath(word), top)
                    programs[label].setdefault(path, []).append(case)
    return {path: cases for label in wanted for path, cases in sorted(programs[label].items())}


def check(build):
    """Prints each test whose labels are wrong, and returns how many there are."""
    count = failures = 0
    for name, labels, _ in tests_of(build):
        count += 1
        if len(labels) != 1 or labels[0] not in LABELS:
            failures += 1
            print(f"{name}: one label of {', '.join(LABELS)} is needed, not {labels}")
    print(f"{count} tests, {failures} failures")
    return failures if count else 1


if __name__ == "__main__":
    if sys.argv[1] == "--check":
        sys.exit(check(sys.argv[2]) > 0)
    print("\n".join(programs_of(sys.argv[1], sys.argv[2:])))
