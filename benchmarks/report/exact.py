"""Counts what no machine changes: user-space instructions, and bytes of the heap.

An instruction count is that of the whole process, at two sizes; their difference over the number of
tasks between them leaves out how the process starts and ends. Callgrind counts.
"""

import concurrent.futures
import os
import re
import subprocess

STRATEGIES = ["ovra HighestPriority", "ovra NoStarve"]
ORDERED = ["QThreadPool", "std::priority_queue", "GThreadPool", "Poco PriorityNotificationQueue"]
UNORDERED = ["Boost.Asio", "oneTBB"]
SECONDS = 300  # A count that takes longer is given up.


class Count:
    """Instructions per `per`, between a smaller and a larger run of one shape."""

    def __init__(self, shape, contestants, label, small, large, per):
        self.shape = shape
        self.contestants = contestants
        self.label = label
        self.small = small
        self.large = large
        self.per = per

    def name(self, contestant):
        return f"{self.shape}/{contestant}{self.label}"


BURST = ("n=5000", "n=15000", 10000)

COUNTS = [
    Count("queue", STRATEGIES, "/n:1000", "n=0", "n=1000", 1000),
    Count("queue", STRATEGIES, "/n:100000", "n=0", "n=100000", 100000),
    Count("queue-change-once", STRATEGIES, "/n:10000", "n=0", "n=10000 changes=2500", 10000),
    Count("queue-change-between", STRATEGIES, "/n:10000", "n=0", "n=10000 changes=2500", 10000),
    Count("queue-pick", STRATEGIES, "/n:1000", "n=1000", "n=1000 picks=300", 300),
    Count("queue-pick", STRATEGIES, "/n:1000000", "n=1000000", "n=1000000 picks=300", 300),
    Count("cold", STRATEGIES + ORDERED + UNORDERED, "/n:10000", *BURST),
    Count("captures-8", STRATEGIES + ORDERED[:2], "", *BURST),
    Count("captures-48", STRATEGIES + ORDERED[:2], "", *BURST),
    Count("captures-200", STRATEGIES + ORDERED[:2], "", *BURST),
]


def output(command, figure):
    """The values of a figure that a run prints. None if it takes too long."""
    try:
        done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              check=False, timeout=SECONDS,
                              env={**os.environ, "LD_BIND_NOW": "1"})
    except subprocess.TimeoutExpired:
        return None
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(command)} failed:\n{done.stderr}")
    return [float(value) for value in
            re.findall(rf"^(?:==\d+== )?{figure} *:? ([0-9.e+-]+)$", done.stdout + done.stderr,
                       re.MULTILINE)]


def instructions(program, name, arguments):
    found = output(["valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", program,
                    name, *arguments.split()], "Collected")
    return found[0] if found else None


def count_instructions(here, pattern, measurements):
    """Adds the figure `instructions` of every count whose name matches."""
    program = os.path.join(here, "run-tasks")
    known = subprocess.run([program], stdout=subprocess.PIPE, text=True, check=True).stdout
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        pending = []
        for count in COUNTS:
            for contestant in count.contestants:
                run = f"{count.shape}/{contestant}"
                if run in known.splitlines() and re.search(pattern, count.name(contestant)):
                    pending.append((count, contestant, [
                        pool.submit(instructions, program, run, arguments)
                        for arguments in (count.small, count.large)]))
        for count, contestant, sizes in pending:
            small, large = (size.result() for size in sizes)
            if small is not None and large is not None:
                measurements.add(count.name(contestant), "instructions",
                                 (large - small) / count.per)


def weigh(here, pattern, measurements):
    """Adds `queued_bytes` and `peak_kib` of bursts whose name matches."""
    for program, figure, sizes in (("run-tasks-heap", "queued_bytes", (1000, 100000)),
                                   ("run-tasks", "peak_kib", (100000, 1000000))):
        for n in sizes:
            for contestant in STRATEGIES + ORDERED + UNORDERED:
                name = f"cold/{contestant}/n:{n}"
                if contestant == "GThreadPool" and n > 10000 or not re.search(pattern, name):
                    continue
                found = output([os.path.join(here, program), f"cold/{contestant}", f"n={n}"],
                               figure)
                if found:
                    measurements.add(name, figure, found[0])


def table(measurements):
    """All exact figures, a line per shape and size, a column per contestant."""
    contestants = STRATEGIES + ORDERED + UNORDERED
    lines = [f"{'':40}" + "".join(f"{name.split()[-1][:18]:>20}" for name in contestants)]
    rows = {}
    for (name, figure), values in measurements.values.items():
        for contestant in contestants:
            if f"/{contestant}/" in name + "/":
                what = (name + "/").replace(f"/{contestant}/", " ").rstrip("/")
                rows.setdefault((figure, what), {})[contestant] = values[-1]
    for (figure, what), found in sorted(rows.items()):
        cells = "".join(f"{found[name]:20.0f}" if name in found else f"{'':20}"
                        for name in contestants)
        lines.append(f"{figure + ' ' + what:40}{cells}")
    return "\n".join(lines)
