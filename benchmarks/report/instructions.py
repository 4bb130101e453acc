"""Counts user-space instructions, which are the same on every machine of a kind.

The whole process is counted at two sizes: at half and at three halves of the arguments that a row
names as `counted`, or at none and all of them; or at half and at three halves of `iterations`. The
difference leaves out how the process starts and ends.
"""

import concurrent.futures
import os
import re
import subprocess

from measure import can_run, command_of, known, plain_name, say

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
        # Nothing is kept: standard input is /dev/null, which a contained program does not have.
        return ["valgrind", "--tool=callgrind", "--callgrind-out-file=/proc/self/fd/0", *command]


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
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False, timeout=SECONDS,
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


def runs_alone(counter, plans, rows):
    """What programs that measure one thing can count, as (name, operations, the two commands)."""
    wanted = {}
    for row in counter.rows(rows):
        if row.counted:
            for name in row.names():
                wanted.setdefault((os.path.join(counter.here, row.program), name), row)
    programs = {program: known(counter.command([program])) for program, _ in wanted}
    for (program, name), row in wanted.items():
        if can_run(plans, programs[program], name):
            both, operations = sizes(row, name)
            yield name, operations, [counter.command(command_of(program, name, changed))
                                     for changed in both]


def runs_of_batches(counter, plans, rows):
    """The same of Google Benchmark's programs, restricted to one benchmark."""
    iterations = {row: row.iterations for row in counter.rows(rows) if row.iterations}
    for program in plans.batches if iterations else []:
        path = os.path.join(counter.here, program)
        listed = known([path, "--benchmark_list_tests=true"])
        names = {plain_name(name) for name in listed}
        wanted = {row.name(of): count for row, count in iterations.items()
                  for of in row.contestants_in(names)}
        for name, count in wanted.items():
            # Only the first part of the listed name: the number of iterations comes next.
            pattern = f"^{re.sub('[^A-Za-z0-9_/:-]', '.', name)}/iterations:"
            yield name, count, [
                ["env", f"OVRA_BENCH_ITERATIONS={count * halves // 2}",
                 *counter.command([path, f"--benchmark_filter={pattern}"])] for halves in (1, 3)]


def count_instructions(counter, plans, rows, measurements):
    """Adds the counter's figure for all that its programs can count of the rows."""
    runs = [*runs_alone(counter, plans, rows), *runs_of_batches(counter, plans, rows)]

    def difference(run):
        _, operations, commands = run
        counts = [count(command, counter.printed) for command in commands]
        return None if None in counts else (counts[1] - counts[0]) / operations

    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for (name, *_), value in zip(runs, pool.map(difference, runs)):
            if value is not None:
                measurements.add(name, counter.figure, value)
