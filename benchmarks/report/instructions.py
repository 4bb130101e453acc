"""Counts user-space instructions, which are the same on every machine of a kind.

The whole process is counted at two sizes: at half and at three halves of the arguments that a row
names as `counted`, or at none and all of them. The difference leaves out how the process starts and
ends.
"""

import concurrent.futures
import os
import re
import subprocess

from measure import can_run, command_of, known, say

SECONDS = 300  # A count that takes longer is given up.


class Callgrind:
    """Counts for the machine that this runs on."""

    figure = "instructions"
    printed = r"Collected : (\d+)"

    def __init__(self, build):
        self.here = os.path.join(build, "benchmarks")

    def rows(self, rows):
        return rows

    def command(self, command):
        return ["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", *command]


class Emulator:
    """Counts for 32-bit ARM, by a plug-in of the emulator's that belongs to the native build."""

    figure = "arm_instructions"
    printed = r"instructions: (\d+)"
    root = "/usr/arm-linux-gnueabihf"

    def __init__(self, build, native_build):
        self.here = os.path.join(build, "benchmarks")
        self.plugin = os.path.join(native_build, "benchmarks/libinstruction-count.so")

    def rows(self, rows):
        return [row for row in rows if row.is_counted_on_arm]

    def command(self, command):
        return ["qemu-arm", "-plugin", self.plugin, "-L", self.root,
                "-E", f"LD_LIBRARY_PATH={self.root}/lib", *command]


def count(command, printed):
    """None if it takes too long."""
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                              check=False, timeout=SECONDS,
                              env={**os.environ, "LD_BIND_NOW": "1"})
    except subprocess.TimeoutExpired:
        say(f"given up after {SECONDS} s: {' '.join(command)}")
        return None
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} failed:\n{done.stdout}")
    return int(re.search(printed, done.stdout).group(1))


def sizes(row, name):
    """What is changed for the smaller and for the larger run, and the operations between them."""
    given = dict(argument.split(":") for argument in name.split("/")[2:])
    return [[f"{key}={int(given[key]) * halves // 2}" for key in row.counted] + row.counted_with
            for halves in ((0, 2) if row.is_counted_from_none else (1, 3))], int(
                given[row.counted[0]])


def count_instructions(counter, specs, rows, measurements):
    """Adds the counter's figure for all that its programs know of the rows."""
    wanted = {}
    for row in counter.rows(rows):
        if row.counted:
            for name in row.names():
                wanted.setdefault((os.path.join(counter.here, row.program), name), row)
    programs = {program: known(counter.command([program])) for program, _ in wanted}

    def difference(run):
        (program, name), row = run
        (small, large), operations = sizes(row, name)
        counts = [count(counter.command(command_of(program, name, changed)), counter.printed)
                  for changed in (small, large)]
        return None if None in counts else (counts[1] - counts[0]) / operations

    runs = [run for run in wanted.items() if can_run(specs, programs[run[0][0]], run[0][1])]
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for ((_, name), _), value in zip(runs, pool.map(difference, runs)):
            if value is not None:
                measurements.add(name, counter.figure, value)
