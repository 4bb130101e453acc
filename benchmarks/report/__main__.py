"""Measures ovra against its peers, compares and reports: called by tools/bench."""

import argparse
import datetime
import glob
import os
import platform
import re
import subprocess
import sys

import judge
import tables
from instructions import Callgrind, Emulator, count_instructions
from measure import measure, run_alone, say
from measurements import Measurements
from plans import Plans

EXACT = {"allocations", "bytes", "queued_bytes", "kept_bytes", "peak_kib"}
HERE = os.path.dirname(os.path.abspath(__file__))


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as info:
        cpu = next((line.split(":", 1)[1].strip() for line in info
                    if line.startswith("model name")), platform.machine())
    return f"{cpu}, {os.cpu_count()} cores"


def about():
    compiler = subprocess.run(["c++", "--version"], stdout=subprocess.PIPE, text=True,
                              check=True).stdout.splitlines()[0]
    build = subprocess.run(["git", "describe", "--always", "--dirty"], stdout=subprocess.PIPE,
                           stderr=subprocess.DEVNULL, text=True, check=False).stdout.strip()
    return {"machine": machine(), "build": build or "an unknown commit",
            "system": f"{platform.system()} {platform.release()} ({platform.machine()}), {compiler}",
            "date": datetime.date.today().isoformat(),
            "load": ", ".join(f"{value:.1f}" for value in os.getloadavg())}


def record_of(directory, name):
    return os.path.join(directory, re.sub(r"\W+", "-", name.lower()).strip("-") + ".json")


def recorded(directory):
    """What was measured on each kind of machine, the newest last."""
    found = [Measurements.load(path) for path in glob.glob(os.path.join(directory, "*.json"))]
    return sorted(found, key=lambda record: record.about["date"])


def count_all(options, plans, rows, found):
    say("instructions ...")
    count_instructions(Callgrind(options.build), plans, rows, found)
    if options.arm:
        say("instructions on 32-bit ARM ...")
        count_instructions(Emulator(options.arm, options.build), plans, rows, found)


def report(found, plans, others, directory):
    judgement = judge.Judgement(plans, found, others)
    strategies = {"task_strict": "HighestPriority", "task_nostarve": "NoStarve"}
    answers = {key: tables.answer(judgement, "Warm burst", f"{name}, n = 10000, 1 worker",
                                  "QThreadPool") for key, name in strategies.items()}
    answers.update({key: tables.answer(judgement, group, what, peer) for key, group, what, peer in (
        ("line", "Logging,", "line to the file sink alone, flushed", "spdlog"),
        ("filtered", "Logging,", "filtered-out call", "spdlog"),
        ("components", "Paths", "all components of a path", "std::filesystem"),
        ("list", "Files", "list 5 000 entries", "std::filesystem"))})
    has_arm = any(figure == "arm_instructions" for _, figure in found.values)
    machines = [f"{record.about['machine']} ({record.about['date']}, {record.about['build']})"
                for record in [*others, found]]
    with open(os.path.join(HERE, "report.md"), encoding="utf-8") as template:
        text = template.read().format(
            **answers, machine=f"{found.about['machine']}, {found.about['system']}",
            date=found.about["date"], build=found.about["build"], load=found.about["load"],
            arm="Thumb-2, as Debian's armhf has it" if has_arm else "**left out here**",
            syslog="" if "syslog/ovra" in found.names() else
            "; **left out here**: no private mount namespace was permitted",
            rows=tables.all_rows(judgement), others=tables.other_rows(plans, found),
            goals=tables.goals(judgement), summary=judgement.summary(),
            machines="; ".join(machines))
    os.makedirs(directory, exist_ok=True)
    import pictures  # Takes a second, which only a report needs.
    pictures.draw_all(found, plans, judgement, directory)
    with open(os.path.join(directory, "README.md"), "w", encoding="utf-8") as out:
        out.write(text)
    print(tables.all_rows(judgement), tables.goals(judgement), sep="\n\n")
    print(f"\n{found.about['machine']}. {judgement.summary()} The report is in {directory}.")


def check(options, plans, found, records):
    """Exit status 1 if a ratio has grown by more than 15 % over the recorded one. What seems to
    have is measured twice more: a single run on a busy machine proves nothing."""
    if not records:
        sys.exit("Nothing is recorded to compare with: run tools/bench first.")
    same = [record for record in records if record.about["machine"] == machine()]
    record = (same or records)[-1]
    print(f"Compared with {record.about['machine']}, {record.about['date']}, "
          f"{record.about['build']}.")
    grown = judge.regressions(plans, found, record)
    for _ in range(2):
        if not grown:
            break
        say(f"{len(grown)} to measure again ...")
        suspects = {id(row.plan) for row, *_ in grown}
        rows = [plan for plan in plans.rows if id(plan) in suspects]
        found.update(measure(options.build, plans, rows, quick=False))
        count_all(options, plans, rows, found)
        grown = judge.regressions(plans, found, record)
    for row, what, before, now in grown:
        print(f"REGRESSION {row.plan.group}: {row.plan.what}: {what} was {before:.3g}, "
              f"is {now:.3g}")
    sys.exit("Slower than recorded." if grown else 0)


def main():
    arguments = argparse.ArgumentParser(prog="tools/bench")
    arguments.add_argument("build")
    arguments.add_argument("records", help="where the medians of each machine are recorded")
    arguments.add_argument("--arm", help="a build for 32-bit ARM, whose instructions are counted")
    arguments.add_argument("--quick", action="store_true", help="fewer repetitions")
    arguments.add_argument("--check", action="store_true",
                           help="fail if a ratio is more than 15 %% worse than recorded")
    arguments.add_argument("--instructions", nargs="?", const=".", metavar="PATTERN",
                           help="count instructions and bytes only, of the rows whose `name` matches")
    arguments.add_argument("--out", help="where the report goes")
    arguments.add_argument("--from", dest="kept", help="report on these, measure nothing")
    arguments.add_argument("--record", action="store_true",
                           help="record the medians for this kind of machine")
    options = arguments.parse_args()

    plans = Plans()
    rows = [row for row in plans.rows if not (options.quick or options.check) or not row.is_slow]
    if options.kept:
        found = Measurements.load(options.kept)
    elif options.instructions:
        found = Measurements()
        found.about = about()
        rows = [row for row in plans.rows if re.search(options.instructions, row.pattern)]
        for row in rows:
            if row.iterations:
                row.figure = "instructions"  # In the place of a time, which is not taken.
        exact = [row for row in rows if row.figure in EXACT]
        run_alone(os.path.join(options.build, "benchmarks"), plans, exact, 1, found)
        count_all(options, plans, rows, found)
    else:
        found = measure(options.build, plans, rows, options.quick or options.check)
        count_all(options, plans, rows, found)
        found.about = about()
    if not options.kept:
        found.save(os.path.join(options.build, "measurements.json"))

    records = recorded(options.records)
    if options.check:
        check(options, plans, found, records)
    elif options.instructions:
        print(tables.all_rows(judge.Judgement(plans, found, [])))
    else:
        if options.record:
            found.save(record_of(options.records, found.about["machine"]), medians_only=True)
        others = [record for record in records
                  if record.about["machine"] != found.about["machine"]]
        report(found, plans, others, options.out)


if __name__ == "__main__":
    main()
