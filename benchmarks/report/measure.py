"""Runs the benchmarks."""

import json
import os
import random
import re
import subprocess
import sys
import tempfile

from measurements import Measurements

LIBRARIES = {
    "Qt5Core": "libQt5Core.so.5",
    "GLib": "libglib-2.0.so.0",
    "PocoFoundation": "libPocoFoundation.so.80",
    "oneTBB": "libtbb.so.12",
    "spdlog": "libspdlog.so.1.10",
    "glog": "libglog.so.1",
}
LIBRARY_SHAPES = {"load", "relocations", "size"}
NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
# What Google Benchmark says of every result. The rest are counters of the benchmark's own.
STANDARD = {"name", "family_index", "per_family_instance_index", "run_name", "run_type",
            "repetitions", "repetition_index", "threads", "iterations", "real_time", "cpu_time",
            "time_unit", "items_per_second", "bytes_per_second", "label"}
SECONDS = 60  # A run that takes longer is given up.


def say(text):
    print(text, file=sys.stderr, flush=True)


def command_of(program, name, changed=()):
    """The command that makes a measurement: its name holds the arguments."""
    shape, contestant, *arguments = name.split("/")
    given = dict(argument.split(":") for argument in arguments)
    given.update(argument.split("=") for argument in changed)
    if given.get("workers") == "cores":
        given["workers"] = os.cpu_count()
    return [program, f"{shape}/{contestant}", *(f"{key}={value}" for key, value in given.items())]


def known(command):
    """What the program of a command can measure."""
    out = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                         stderr=subprocess.DEVNULL, text=True, check=True).stdout
    return set(out.splitlines())


def can_run(plans, program_knows, name):
    return "/".join(name.split("/")[:2]) in program_knows and not plans.is_left_out(name)


def run_alone(here, plans, rows, repetitions, measurements):
    """Each measurement in a process of its own, in another order every round."""
    wanted = {}
    for row in rows:
        if row.program and not row.figure.endswith("instructions"):
            for name in row.names():
                wanted.setdefault((row.program, name), set()).add(row.figure)
    programs = {program: known([os.path.join(here, program)]) for program, _ in wanted}
    runs = [run for run in wanted if can_run(plans, programs[run[0]], run[1])]
    for _ in range(repetitions):
        for run in random.sample(runs, len(runs)):
            program, name = run
            command = command_of(os.path.join(here, program), name)
            try:
                done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                      text=True, check=False, timeout=SECONDS)
            except subprocess.TimeoutExpired:
                say(f"given up after {SECONDS} s: {name}")
                runs.remove(run)
                continue
            if done.returncode != 0:
                sys.exit(f"{' '.join(command)} failed:\n{done.stderr}")
            for line in done.stdout.splitlines():
                figure, value = line.split()
                if figure in wanted[run]:
                    measurements.add(name, figure, float(value))


def plain_name(name):
    """The name of a measurement, without what Google Benchmark adds to it."""
    name = re.sub(r"/(manual_time|real_time|iterations:\d+|repeats:\d+)", "", name)
    name = name.replace("/threads:1", "")
    return re.sub(r"(/threads:\d+)\1$", r"\1", name)


def run_batch(program, pattern, repetitions, seconds, measurements):
    """A program of Google Benchmark's; the repetitions are shuffled among one another."""
    # To standard output: a contained program has a /tmp of its own.
    done = subprocess.run(
        [program, f"--benchmark_filter={pattern}",
         f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={seconds}",
         "--benchmark_enable_random_interleaving=true", "--benchmark_format=json"],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    if done.returncode != 0:
        sys.exit(f"{program} failed:\n{done.stdout}{done.stderr}")
    if done.stdout.startswith("Skipped: "):
        say(f"{program}: {done.stdout}")
        return
    results = json.loads(done.stdout or '{"benchmarks": []}')  # Nothing matched.
    for result in results["benchmarks"]:
        if result.get("error_occurred"):
            sys.exit(f"{result['name']}: {result['error_message']}")
        if result["run_type"] != "iteration":
            continue
        name = plain_name(result["run_name"])
        # What the benchmark itself counts goes before the times that Google Benchmark takes.
        found = {key: value for key, value in result.items() if key not in STANDARD}
        found.setdefault("ns", result["real_time"] * NANOSECONDS[result["time_unit"]])
        if "manual_time" not in result["run_name"]:
            found.setdefault("cpu_ns", result["cpu_time"] * NANOSECONDS[result["time_unit"]])
        for figure, value in found.items():
            if isinstance(value, (int, float)):
                measurements.add(name, figure, value)


def measure_library(build, repetitions, measurements):
    candidates = {"ovra": os.path.join(build, "libovra.so")}
    cached = subprocess.run(["/sbin/ldconfig", "-p"], stdout=subprocess.PIPE, text=True,
                            check=True).stdout
    for name, soname in LIBRARIES.items():
        found = re.search(rf"^\s*{re.escape(soname)} .*=> (\S+)$", cached, re.MULTILINE)
        if found:
            candidates[name] = found.group(1)
    for _ in range(repetitions):
        for name in random.sample(list(candidates), len(candidates)):
            out = subprocess.run(
                [os.path.join(build, "benchmarks/benchmark-load"), candidates[name]],
                stdout=subprocess.PIPE, text=True, check=True).stdout
            measurements.add(f"load/{name}", "ns", float(out))
    for name, path in candidates.items():
        relocations = subprocess.run(["readelf", "--relocs", "--wide", path],
                                     stdout=subprocess.PIPE, text=True, check=True).stdout
        measurements.add(f"relocations/{name}", "count",
                         len(re.findall(r"\bR_[A-Z0-9_]+", relocations)))
        with tempfile.TemporaryDirectory() as directory:
            stripped = os.path.join(directory, "stripped")
            subprocess.run(["strip", "-o", stripped, os.path.realpath(path)], check=True)
            measurements.add(f"size/{name}", "bytes", os.path.getsize(stripped))


def shapes_of(rows):
    """What the batches and the library as a whole have to measure for the rows."""
    return {shape for row in rows if not row.program for shape in row.shapes()}


def measure(build, plans, rows, quick):
    """All times and bytes that the rows need. Instructions: see `instructions`."""
    found = Measurements()
    here = os.path.join(build, "benchmarks")
    say("tasks ...")
    for is_slow, repetitions in ((False, 3 if quick else 9), (True, 3)):
        run_alone(here, plans, [row for row in rows if row.is_slow == is_slow], repetitions, found)
    batched = shapes_of(rows) - LIBRARY_SHAPES
    # A run of all rows also measures what no row names.
    pattern = "." if batched == shapes_of(plans.rows) - LIBRARY_SHAPES else (
        f"^({'|'.join(map(re.escape, sorted(batched)))})/")
    for program in plans.batches if batched else []:
        say(f"{program} ...")
        run_batch(os.path.join(here, program), pattern, 3 if quick else 11,
                  0.02 if quick else 0.05, found)
    if shapes_of(rows) & LIBRARY_SHAPES:
        say("the library ...")
        measure_library(build, 7 if quick else 31, found)
    return found
