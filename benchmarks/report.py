"""Runs the benchmarks, compares ovra with its peers and reports: called by tools/bench."""

import argparse
import datetime
import json
import os
import platform
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile

STRATEGIES = ["ovra HighestPriority", "ovra NoStarve"]
ORDERED = ["QThreadPool", "GThreadPool", "Poco PriorityNotificationQueue", "std::priority_queue"]
UNORDERED = ["Boost.Asio", "oneTBB"]
SIZES = [100, 1000, 10000, 100000]

LIBRARIES = {
    "Qt5Core": "libQt5Core.so.5",
    "GLib": "libglib-2.0.so.0",
    "PocoFoundation": "libPocoFoundation.so.80",
    "oneTBB": "libtbb.so.12",
    "spdlog": "libspdlog.so.1.10",
    "glog": "libglog.so.1",
}


# --- measuring

class Measurements:
    """The repetitions of every figure, by benchmark and by counter."""

    def __init__(self):
        self.values = {}

    def add(self, name, figure, value):
        self.values.setdefault((name, figure), []).append(value)

    def median(self, name, figure="ns"):
        values = self.values.get((name, figure))
        return statistics.median(values) if values else None

    def has(self, name, figure="ns"):
        return (name, figure) in self.values


def say(text):
    print(text, file=sys.stderr, flush=True)


NANOSECONDS = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
KNOWN = {"ns", "cpu_ns", "submit_ns", "all_cpu_ns", "allocations", "bytes", "kib"}


def run(program, pattern, repetitions, seconds, measurements):
    """Runs the matching benchmarks, their repetitions shuffled among one another."""
    with tempfile.NamedTemporaryFile(suffix=".json") as out:
        done = subprocess.run(
            [program, f"--benchmark_filter={pattern}",
             f"--benchmark_repetitions={repetitions}", f"--benchmark_min_time={seconds}",
             "--benchmark_enable_random_interleaving=true",
             f"--benchmark_out={out.name}", "--benchmark_out_format=json"],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
        if done.returncode != 0:
            sys.exit(f"{program} failed:\n{done.stdout}")
        results = json.load(open(out.name, encoding="utf-8"))
    for result in results["benchmarks"]:
        if result.get("error_occurred"):
            sys.exit(f"{result['name']}: {result['error_message']}")
        if result["run_type"] != "iteration":
            continue
        name = re.sub(r"/(manual_time|real_time|iterations:\d+|repeats:\d+)", "",
                      result["run_name"])
        name = name.replace("/threads:1", "")
        name = re.sub(r"(/threads:\d+)\1$", r"\1", name)
        found = {key: result[key] for key in KNOWN if key in result}
        found.setdefault("ns", result["real_time"] * NANOSECONDS[result["time_unit"]])
        if "manual_time" not in result["run_name"]:
            found.setdefault("cpu_ns", result["cpu_time"] * NANOSECONDS[result["time_unit"]])
        for figure, value in found.items():
            measurements.add(name, figure, value)


def alternate(contestants, rounds, measure):
    """Calls `measure` for each contestant in turn, in another order every round."""
    for _ in range(rounds):
        for contestant in random.sample(contestants, len(contestants)):
            measure(contestant)


def measure_library(build, quick, measurements):
    library = os.path.join(build, "libovra.so")
    candidates = {"ovra": library}
    known = subprocess.run(["/sbin/ldconfig", "-p"], stdout=subprocess.PIPE, text=True,
                           check=True).stdout
    for name, soname in LIBRARIES.items():
        found = re.search(rf"^\s*{re.escape(soname)} .*=> (\S+)$", known, re.MULTILINE)
        if found:
            candidates[name] = found.group(1)

    def load(name):
        out = subprocess.run([os.path.join(build, "benchmarks/benchmark-load"), candidates[name]],
                             stdout=subprocess.PIPE, text=True, check=True).stdout
        measurements.add(f"load/{name}", "ns", float(out))

    alternate(list(candidates), 7 if quick else 31, load)
    for name, path in candidates.items():
        relocations = subprocess.run(["readelf", "--relocs", "--wide", path],
                                     stdout=subprocess.PIPE, text=True, check=True).stdout
        measurements.add(f"relocations/{name}", "count",
                         len(re.findall(r"\bR_[A-Z0-9_]+", relocations)))
        with tempfile.TemporaryDirectory() as directory:
            stripped = os.path.join(directory, "stripped")
            subprocess.run(["strip", "-o", stripped, os.path.realpath(path)], check=True)
            measurements.add(f"size/{name}", "bytes", os.path.getsize(stripped))


def measure(build, quick):
    measurements = Measurements()
    here = os.path.join(build, "benchmarks")
    tasks = os.path.join(here, "benchmark-tasks")
    say("bursts ...")
    if quick:
        run(tasks, r"^burst/.*/n:(100|1000|10000)/", 3, 0.02, measurements)
        run(tasks, r"^burst/.*/n:100000/", 3, 0.02, measurements)
    else:
        run(tasks, "^burst/", 7, 0.03, measurements)
    say("steady state and round trips ...")
    run(tasks, "^(steady|roundtrip)/", 3 if quick else 9, 0.03 if quick else 0.06, measurements)
    say("priority changes and cancellations ...")
    run(tasks, "^(reprioritise|cancel)/", 3 if quick else 7, 0.02 if quick else 0.03, measurements)
    say("submissions ...")
    run(tasks, "^submission/", 3 if quick else 9, 0.01, measurements)
    run(os.path.join(here, "benchmark-heap"), "^submission/", 1, 0.01, measurements_of_heap :=
        Measurements())
    for (name, figure), values in measurements_of_heap.values.items():
        if figure in ("allocations", "bytes"):
            measurements.values[(name, figure)] = values
    say("idle memory ...")
    pools = [name.split("/", 1)[1] for name, figure in list(measurements.values)
             if name.startswith("submission/") and figure == "ns"]
    alternate(pools, 3 if quick else 7, lambda pool: run(
        tasks, "^idle/" + re.sub(r"\W", ".", pool) + "/", 1, 0.01, measurements))
    say("logging ...")
    run(os.path.join(here, "benchmark-log"), ".", 3 if quick else 11, 0.02 if quick else 0.05,
        measurements)
    run(os.path.join(here, "extra/benchmark-extra"), "^(logfile|recent)/", 3 if quick else 11,
        0.01 if quick else 0.02, measurements)
    say("paths and files ...")
    run(os.path.join(here, "benchmark-files"), ".", 3 if quick else 11, 0.02 if quick else 0.05,
        measurements)
    say("the library ...")
    measure_library(build, quick, measurements)
    return measurements


# --- comparing

class Row:
    """One measured thing: ovra's figure, the peers' and, where there is one, the goal."""

    def __init__(self, group, what, value, peers, unit="ns", goal=None, goal_peers=None,
                 goal_is_absolute=False):
        self.group = group
        self.what = what
        self.value = value
        self.unit = unit
        # Best first.
        self.peers = sorted(((name, peer) for name, peer in peers.items() if peer),
                            key=lambda item: item[1])
        self.goal = goal
        self.goal_peers = goal_peers
        self.goal_is_absolute = goal_is_absolute

    def ratios(self):
        return [(name, self.value / peer) for name, peer in self.peers]

    def judged(self):
        """The peer that the goal speaks of, and what is held against the goal."""
        if self.goal_is_absolute:
            return None, self.value
        for name, ratio in self.ratios():
            if self.goal_peers is None or name in self.goal_peers:
                return name, ratio
        return None, None

    def verdict(self):
        _, figure = self.judged()
        if self.goal is None or figure is None:
            return ""
        return "met" if figure <= self.goal else "missed"


def plural(workers):
    return "1 worker" if workers == 1 else f"{workers} workers"


def compare(found):
    rows = []

    def add(group, what, name, peers, figure="ns", **more):
        value = found.median(name, figure)
        if value is not None:
            rows.append(Row(group, what, value,
                            {peer: found.median(of, figure) for peer, of in peers.items()},
                            **more))

    for strategy in STRATEGIES:
        short = strategy.split()[1]
        for workers in (1, 2):
            names = {n: f"burst/{strategy}/n:{n}/workers:{workers}" for n in SIZES}
            if not all(found.has(name) for name in names.values()):
                continue
            rows.append(Row("Growth of a burst, processor time", f"{short}, {plural(workers)}: per task at "
                            "n = 100 000 over n = 1 000",
                            found.median(names[100000], "cpu_ns") /
                            found.median(names[1000], "cpu_ns"), {}, unit="",
                            goal=1.5, goal_is_absolute=True))
    for strategy in STRATEGIES:
        short = strategy.split()[1]
        for workers in (1, 2):
            for n in SIZES:
                suffix = f"/n:{n}/workers:{workers}"
                peers = {peer: f"burst/{peer}{suffix}" for peer in ORDERED + UNORDERED}
                add("Burst, all-in per task, processor time of all threads",
                    f"{short}, n = {n}, {plural(workers)}", f"burst/{strategy}{suffix}", peers,
                    figure="cpu_ns", goal=1.0, goal_peers=ORDERED)
    for figure, title in (("ns", "Burst, all-in per task, time"),
                          ("submit_ns", "Burst, submission per task, time")):
        for strategy in STRATEGIES:
            for n in (1000, 100000):
                suffix = f"/n:{n}/workers:1"
                add(title, f"{strategy.split()[1]}, n = {n}, 1 worker",
                    f"burst/{strategy}{suffix}",
                    {peer: f"burst/{peer}{suffix}" for peer in ORDERED + UNORDERED},
                    figure=figure)
    for group, title in (("steady", "Steady, 64 in flight, per task"),
                         ("roundtrip", "Round trip of one task")):
        for strategy in STRATEGIES:
            short = strategy.split()[1]
            for what, place, figure, goal in (
                    ("both on one core, processor time", "pinned", "cpu_ns", 1.0),
                    ("both on one core, time", "pinned", "ns", None),
                    ("free, time", "free", "ns", 1.0)):
                add(title, f"{short}, {what}", f"{group}/{strategy}/{place}",
                    {peer: f"{group}/{peer}/{place}" for peer in ORDERED + UNORDERED},
                    figure=figure, goal=goal, goal_peers=ORDERED)
    for group, what, all_of_them in (
            ("reprioritise", "one new priority", "new priorities"),
            ("cancel", "one cancellation", "cancellations")):
        for strategy in STRATEGIES:
            short = strategy.split()[1]
            peers = {peer: f"{group}/{peer}" for peer in ("QThreadPool", "std::priority_queue")}
            title = "2 500 changes among 10 000 queued, processor time"
            add(title, f"{short}, {what}", f"{group}/{strategy}", peers, figure="cpu_ns")
            add(title, f"{short}, {all_of_them} and running all, per task", f"{group}/{strategy}",
                peers, figure="all_cpu_ns")
    for strategy in STRATEGIES:
        short = strategy.split()[1]
        peers = {peer: f"submission/{peer}" for peer in ORDERED + UNORDERED}
        title = "Submission of one task, handle included"
        add(title, f"{short}, processor time", f"submission/{strategy}", peers, figure="cpu_ns")
        add(title, f"{short}, heap allocations", f"submission/{strategy}", peers,
            figure="allocations", unit="", goal=8, goal_is_absolute=True)
        add(title, f"{short}, heap bytes", f"submission/{strategy}", peers, figure="bytes",
            unit="bytes")

    logs = ("spdlog", "glog")
    title = "Logging, processor time of the thread that logs"
    add(title, "filtered-out call", "filtered/ovra", {p: f"filtered/{p}" for p in logs},
        figure="cpu_ns", goal=0.5, goal_peers=["spdlog"])
    for suffix, figure in (("", "cpu_ns"), ("/threads:4", "ns")):
        goal = None if suffix else 0.7
        add(title, "line to the file sink alone, flushed", f"sink/ovra{suffix}",
            {"spdlog": f"sink/spdlog{suffix}"}, figure=figure, goal=goal, goal_peers=["spdlog"])
        add(title, "line to system log and flushed file, both sides",
            f"file+syslog/ovra{suffix}", {p: f"file+syslog/{p}{suffix}" for p in logs},
            figure=figure, goal=goal, goal_peers=["spdlog"])
        add(title, "line to the system log", f"syslog/ovra{suffix}",
            {"spdlog": f"syslog/spdlog{suffix}"}, figure=figure)
        add(title, "line to system log and flushed file, peers to the file only",
            f"file+syslog/ovra{suffix}", {p: f"file/{p}{suffix}" for p in logs}, figure=figure)
        title = "Logging from 4 threads, time"

    title = "Log file for the field, processor time"
    for kind, what, goal in (("plain", "line", 1.1), ("stamped", "line with its time", 0.8)):
        add(title, f"{what}, no cap", f"logfile/{kind}/ovra", {"bare write": f"logfile/{kind}/write"},
            figure="cpu_ns", goal=1.2 if kind == "plain" else None)
        add(title, f"{what}, capped", f"logfile/{kind}/ovra capped",
            {"spdlog": f"logfile/{kind}/spdlog capped", "bare write": f"logfile/{kind}/write"},
            figure="cpu_ns", goal=goal, goal_peers=["spdlog"])
    add(title, "line kept in memory", "recent/ovra", {"bare write": "logfile/plain/write"},
        figure="cpu_ns")

    paths = ("std::filesystem", "Qt", "Poco")
    for group, what, goal in (("components", "all components of a path", 0.5),
                              ("resolve", "Resolve a relative path", None),
                              ("resolved", "Resolved", 1.0)):
        add("Paths, processor time", what, f"{group}/ovra", {p: f"{group}/{p}" for p in paths},
            figure="cpu_ns", goal=goal, goal_peers=["Qt"])
    files = paths + ("system calls",)
    for group, what, goal, peer in (
            ("status", "status query", 1.1, "system calls"),
            ("list", "list 5 000 entries", 1.1, "system calls"),
            ("remove", "remove a tree of 2 000 files", None, None),
            ("copy-large", "copy 8 MiB", 1.1, "std::filesystem"),
            ("copy-small", "copy 1 000 files of 2 000 bytes", None, None)):
        add("Files, processor time", what, f"{group}/ovra", {p: f"{group}/{p}" for p in files},
            figure="cpu_ns", goal=goal, goal_peers=[peer])

    for strategy in STRATEGIES[:1]:
        add("Library", "idle memory of an executor with one worker", f"idle/{strategy}",
            {p: f"idle/{p}" for p in ORDERED + UNORDERED}, figure="kib", unit="KiB")
    add("Library", "load", "load/ovra", {p: f"load/{p}" for p in LIBRARIES})
    add("Library", "relocations", "relocations/ovra",
        {p: f"relocations/{p}" for p in LIBRARIES}, figure="count", unit="")
    add("Library", "stripped size", "size/ovra", {p: f"size/{p}" for p in LIBRARIES},
        figure="bytes", unit="bytes")
    return rows


# --- telling

def figure_text(value, unit):
    if unit == "ns":
        for limit, name, scale in ((1e3, "ns", 1), (1e6, "µs", 1e3), (1e9, "ms", 1e6)):
            if value < limit:
                return f"{value / scale:.3g} {name}"
        return f"{value / 1e9:.3g} s"
    if unit == "bytes" and value >= 1e4:
        return f"{value / 1024:.0f} KiB"
    return f"{value:.3g} {unit}".strip()


def ratio_text(ratio):
    if ratio < 0.01:
        return f"{ratio:.1g}"
    return f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}"


def table(rows):
    lines = ["| measured | ovra | ratio: ovra / peer, the fastest peer first | goal | |",
             "|---|---:|---|---|---|"]
    group = None
    for row in rows:
        if row.group != group:
            group = row.group
            lines.append(f"| **{group}** | | | | |")
        judged, _ = row.judged()
        ratios = []
        for name, ratio in row.ratios():
            text = f"{name} {ratio_text(ratio)}"
            goes_for = row.goal is not None and not row.goal_is_absolute and name == judged
            ratios.append(f"**{text}**" if goes_for else text)
        goal = f"≤ {row.goal:g}" if row.goal is not None else ""
        verdict = {"met": "met", "missed": "**missed**", "": ""}[row.verdict()]
        lines.append(f"| {row.what} | {figure_text(row.value, row.unit)} | "
                     f"{' · '.join(ratios)} | {goal} | {verdict} |")
    return "\n".join(lines)


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        cpu = next((line.split(":", 1)[1].strip() for line in info
                    if line.startswith("model name")), platform.machine())
    compiler = subprocess.run(["c++", "--version"], stdout=subprocess.PIPE, text=True,
                              check=True).stdout.splitlines()[0]
    return (f"{cpu}, {os.cpu_count()} cores, {platform.system()} {platform.release()} "
            f"({platform.machine()}), {compiler}")


COLOURS = {
    "ovra HighestPriority": "#c1121f", "ovra NoStarve": "#f48c06",
    "QThreadPool": "#2b9348", "GThreadPool": "#0077b6",
    "Poco PriorityNotificationQueue": "#7b2cbf", "std::priority_queue": "#495057",
    "Boost.Asio": "#8d99ae", "oneTBB": "#bc8a5f",
}


def save(figure, path):
    """Writes an SVG whose text does not depend on the day."""
    figure.savefig(path, metadata={"Date": None, "Creator": None})


def draw_growth(found, path):
    import matplotlib
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "ovra", "svg.fonttype": "path",
                                "font.family": "DejaVu Sans", "font.size": 10})
    from matplotlib import pyplot
    from matplotlib.ticker import FuncFormatter, NullFormatter

    figure, axes = pyplot.subplots(1, 2, figsize=(11.5, 5.2), sharey=True)
    for axis, workers in zip(axes, (1, 2)):
        for pool in UNORDERED + ORDERED + STRATEGIES[::-1]:
            points = [(n, found.median(f"burst/{pool}/n:{n}/workers:{workers}", "cpu_ns"))
                      for n in SIZES]
            points = [(n, value / 1e3) for n, value in points if value]
            if not points:
                continue
            ours = pool in STRATEGIES
            style = "-" if ours or pool in ORDERED else (0, (4, 2))
            axis.plot(*zip(*points), label=pool, color=COLOURS[pool], linestyle=style,
                      linewidth=2.6 if ours else 1.4, marker="o", markersize=6 if ours else 4,
                      zorder=3 if ours else 2)
        axis.set_xscale("log")
        axis.set_yscale("log")
        axis.set_title(f"{workers} worker{'s' if workers > 1 else ''}", fontsize=11)
        axis.set_xlabel("tasks in the burst")
        axis.xaxis.set_major_formatter(FuncFormatter(lambda n, _: f"{n:,.0f}".replace(",", " ")))
        axis.set_yticks([0.5, 1, 2, 5, 10, 20])
        axis.yaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
        axis.yaxis.set_minor_formatter(NullFormatter())
        axis.grid(True, which="major", color="#d8d8d8", linewidth=0.8)
        axis.grid(True, which="minor", axis="y", color="#eeeeee", linewidth=0.5)
        axis.set_axisbelow(True)
        for side in ("top", "right"):
            axis.spines[side].set_visible(False)
    axes[0].set_ylabel("µs of processor time per task")
    handles, labels = axes[0].get_legend_handles_labels()
    figure.suptitle("A burst of tasks at three priorities (lower is better; flat is good)",
                    fontsize=13)
    figure.legend(handles[::-1], labels[::-1], loc="lower center", ncol=4, frameon=False)
    figure.subplots_adjust(left=0.075, right=0.985, top=0.86, bottom=0.25, wspace=0.08)
    save(figure, path)
    pyplot.close(figure)


def draw_ratios(rows, path):
    import matplotlib
    matplotlib.use("svg")
    from matplotlib import pyplot
    from matplotlib.ticker import FuncFormatter, NullFormatter

    judged = []
    for row in rows:
        name, ratio = row.judged()
        if row.goal is not None and not row.goal_is_absolute and ratio is not None:
            judged.append((f"{row.group.split(',')[0]}: {row.what}", name, ratio, row.goal))
    figure, axis = pyplot.subplots(figsize=(11.5, 0.27 * len(judged) + 1.3))
    for i, (_, name, ratio, goal) in enumerate(judged):
        colour = "#2b9348" if ratio <= goal else "#c1121f"
        axis.plot([min(ratio, goal), max(ratio, goal)], [i, i], color=colour, linewidth=1.2,
                  alpha=0.5, zorder=2)
        axis.plot([goal], [i], marker="|", markersize=11, color="#222222", zorder=3)
        axis.plot([ratio], [i], marker="o", markersize=6, color=colour, zorder=4)
        axis.annotate(f"{ratio_text(ratio)}  {name}", (1.01, i),
                      xycoords=("axes fraction", "data"), va="center", fontsize=8)
    axis.set_yticks(range(len(judged)), [label for label, *_ in judged], fontsize=8)
    axis.set_ylim(len(judged) - 0.4, -0.6)
    axis.set_xscale("log")
    axis.set_xticks([0.1, 0.2, 0.3, 0.5, 0.7, 1, 1.5, 2, 3, 5, 10])
    values = [value for _, _, ratio, goal in judged for value in (ratio, goal)]
    axis.set_xlim(min(values) * 0.92, max(values) * 1.08)
    axis.axvline(1, color="#999999", linewidth=0.8, linestyle=(0, (4, 3)))
    axis.xaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
    axis.xaxis.set_minor_formatter(NullFormatter())
    axis.set_xlabel("time of ovra over that of the peer (left is better); | marks the goal")
    axis.grid(True, axis="x", which="major", color="#d8d8d8", linewidth=0.8)
    axis.set_axisbelow(True)
    for side in ("top", "right", "left"):
        axis.spines[side].set_visible(False)
    axis.tick_params(axis="y", length=0)
    figure.tight_layout()
    save(figure, path)
    pyplot.close(figure)


README = """# Performance

ovra against its peers, the same work on both sides, all in one run of `tools/bench`, whose medians
follow. {judgement}

![A burst of tasks at three priorities: processor microseconds per task over the size of the burst](growth.svg)

![Ratios with a goal: ovra over the peer named](ratios.svg)

[What the missed goals are made of](costs.md): instructions and system calls, counted.

## How to read it

Machine: {machine}. Run of {date}; load of the machine by others while it ran: {load}.

A ratio is ovra's median over the peer's; below 1 ovra is the faster, smaller or lighter. The
repetitions of all contestants are shuffled among one another, so that a busy moment of the machine
hits all alike; bare times hold for this machine only, and differences of a few per cent for none.

- **The same work.** Every task of every pool names its thread after itself, has a priority and
  leaves a result to wait for (a `std::promise` where the peer has none). In a burst, all tasks queue
  behind a closed gate at three priorities; the gate opens, and the caller waits for the last to run
  first, so that waiting costs no switch of threads per task. Tickets are let go within the time.
- **Order.** QThreadPool, GThreadPool with a sort function, Poco's queue and a plain
  `std::priority_queue` keep strict priorities. ovra's two strategies do more: they blend priority
  with age, and `NoStarve` raises the rank of every waiting task at each pick. Boost.Asio and oneTBB
  keep no order within an arena: an easier job, for which no goal is set. GThreadPool walks a list at every
  push; it is left out at n = 100 000.
- **Round trip, steady.** One worker; the caller waits for the oldest of 1 or 64 tasks and submits
  the next. Pinned: both threads on one core. Free: where the system puts them, so mostly the cost
  of waking a thread on the other core. With 64 in flight, pinned, most of the time goes into
  switches between the two threads: one for each task or one for many, as the order of the tasks and
  the scheduler will have it, so that one pool may take twice as long as itself a minute before.
- **Processor time and time.** Processor time, in tasks that of all threads of the process, says
  what a task costs, and others on the machine hardly disturb it; the goals are held against it. On
  an idle machine, with one worker or all on one core, it is about the time that passes. Time is
  shown beside it, and judged where threads run free. **On a machine as loaded as the figure above
  says (more than one thread per core), rows of time are worth little**, and no goal should be called
  missed for them.
- **Logging.** ovra's `log` always writes to the system log first, by design. Hence three
  comparisons: the file sinks alone, handed a finished line; `log` with a file sink against a logger
  with both a system-log and a file sink; and, not the same work, against the flushed file only. The
  system log is a socket of the benchmark's own, with a reader that takes in what comes{syslog}.
- **Files** lie in memory (`/dev/shm`), to see the library's cost and not the disk's. "system calls"
  is a bare loop around them: the limit.
- **Heap** figures are exact: the benchmark counts every allocation of the submitting thread.
- **Idle memory** is the private memory that a process gains by one executor, one task run.
- **Library**: what a peer's whole library weighs, for scale; each does more or other things.

## The table

The ratio in bold is the one that the goal is about.

{table}
"""


def main():
    arguments = argparse.ArgumentParser()
    arguments.add_argument("build")
    arguments.add_argument("--quick", action="store_true")
    arguments.add_argument("--out", required=True)
    arguments.add_argument("--keep", help="where to keep the measurements, as JSON")
    arguments.add_argument("--from", dest="kept", help="report on these, measure nothing")
    options = arguments.parse_args()

    if options.kept:
        found = Measurements()
        for name, figure, values in json.load(open(options.kept, encoding="utf-8")):
            found.values[(name, figure)] = values
    else:
        found = measure(options.build, options.quick)
    if options.keep:
        with open(options.keep, "w", encoding="utf-8") as out:
            json.dump([[name, figure, values] for (name, figure), values in found.values.items()],
                      out)

    rows = compare(found)
    goals = [row for row in rows if row.verdict()]
    met = sum(row.verdict() == "met" for row in goals)
    judgement = f"Of {len(goals)} goals, {met} are met."
    has_syslog = found.has("syslog/ovra")
    text = README.format(
        judgement=judgement, machine=machine(), table=table(rows),
        date=datetime.date.today().isoformat(),
        load=", ".join(f"{value:.1f}" for value in os.getloadavg()),
        syslog="" if has_syslog else "; **left out here**: no private mount namespace was permitted")
    os.makedirs(options.out, exist_ok=True)
    draw_growth(found, os.path.join(options.out, "growth.svg"))
    draw_ratios(rows, os.path.join(options.out, "ratios.svg"))
    with open(os.path.join(options.out, "README.md"), "w", encoding="utf-8") as out:
        out.write(text)
    print(table(rows))
    print(f"\n{machine()}")
    if not has_syslog:
        print("The system log is left out: no private mount namespace was permitted.")
    print(f"{judgement} The report is in {options.out}.")


if __name__ == "__main__":
    main()
