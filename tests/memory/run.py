"""See tools/test-memory."""

import concurrent.futures
import pathlib
import subprocess
import sys
import tempfile
import time

import faults
import sources

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
HARNESS = ["main.cpp", "Model.cpp", "LogSink.cpp"]
COMPILE = ["g++", "-std=c++17", "-O1", "-w", "-fpermissive", "-ffunction-sections",
           "-fno-strict-aliasing"]
WORKERS = 2
LONGEST_RUN_S = 120
ALL = "0"
IN_PLACE_OF_ALL = "20000"
# What is said of a run in which the checker says nothing.
NO_END = "no end"
ENDED = "ended by"


def compile_source(scratch, source, result, before=()):
    """Compiles one source; what is in `before` goes ahead of what all share."""
    command = COMPILE + [f"-I{place}" for place in (*before, scratch)] + ["-c", "-o", result, source]
    done = subprocess.run([str(word) for word in command], capture_output=True, text=True)
    return done.stderr if done.returncode != 0 else ""


def link(objects, program):
    """Links a program. What refers to names that nobody has is left out, being used by nobody."""
    subprocess.run(["g++", "-Wl,--gc-sections", "-o", program, *objects], check=True)


def object_of(scratch, source):
    return scratch / "objects" / (str(source).replace("/", "_") + ".o")


def build(scratch, pool):
    """Builds the program from the sources as they are. Its path."""
    (scratch / "objects").mkdir()
    jobs = [pool.submit(compile_source, scratch, scratch / source, object_of(scratch, source))
            for source in HARNESS + sources.COMPILED]
    errors = "".join(job.result() for job in jobs)
    if errors:
        raise SystemExit(errors)
    program = scratch / "memoryModel"
    link([object_of(scratch, source) for source in HARNESS + sources.COMPILED], program)
    return program


def run_scenario(program, scenario, executions, *options):
    """Whether it holds, and what the checker says."""
    try:
        done = subprocess.run([program, scenario, str(executions), *options],
                              capture_output=True, text=True, timeout=LONGEST_RUN_S)
    except subprocess.TimeoutExpired:
        return False, f"{NO_END}\n"
    if done.returncode not in (0, 1):
        return False, f"{ENDED} {done.returncode} {done.stderr}\n"
    return done.returncode == 0, done.stdout


def users_of(scratch, header):
    """The compiled sources that a changed header reaches."""
    found = []
    for source in sources.COMPILED:
        names = subprocess.run(["g++", "-std=c++17", f"-I{scratch}", "-MM", scratch / source],
                               capture_output=True, text=True, check=True).stdout
        if str(scratch / header) in names:
            found.append(source)
    return found


def plant(scratch, number, fault):
    """Builds a program with one fault. Its path, or why there is none."""
    place = scratch / f"fault{number}"
    changed = place / fault.source
    changed.parent.mkdir(parents=True)
    text = (ROOT / fault.source).read_text()
    changed.write_text(sources.model_text(fault.source, text, fault.edits))
    recompiled = [fault.source] if fault.source.endswith(".cpp") else users_of(scratch, fault.source)
    objects = {source: object_of(scratch, source) for source in HARNESS + sources.COMPILED}
    for source in recompiled:
        objects[source] = place / (source.replace("/", "_") + ".o")
        path = changed if source == fault.source else scratch / source
        errors = compile_source(scratch, path, objects[source], [place])
        if errors:
            return None, errors
    program = place / "memoryModel"
    link(objects.values(), program)
    return program, ""


def try_fault(scratch, number, fault, executions):
    """What the checker says of a planted fault: (is it as expected, line)."""
    if fault.weakened:
        name, order = fault.weakened
        program, options = scratch / "memoryModel", [str(1 + sources.UNNAMED.index(name)), order]
    else:
        program, errors = plant(scratch, number, fault)
        options = []
        if program is None:
            return False, f"UNBUILT {fault.name}\n{errors}"
    for scenario in fault.scenarios:
        # The checker's full search ends by a crash where a scenario does not hold: at random, then.
        count = executions[scenario]
        if count == ALL and not fault.unnoticed:
            count = IN_PLACE_OF_ALL
        holds, said = run_scenario(program, scenario, count, *options)
        if not holds and said.startswith((NO_END, ENDED)):
            return False, f"UNCLEAR {fault.name}: {scenario}: {said.strip()}"
        if not holds:
            verdict = "NOTICED" if fault.unnoticed else "found  "
            return not fault.unnoticed, f"{verdict} {fault.name}: {scenario}: {said.strip()}"
    if fault.unnoticed:
        return True, f"passes  {fault.name}: {fault.unnoticed}"
    return False, f"MISSED  {fault.name}"


def table():
    """The page docs/evidence/memory.md."""
    lines = ["# Faults that the memory model is to find", "",
             "`tools/test-memory` plants each of these and checks which scenario finds it. This page "
             "is what `tools/test-memory --table` prints.", "",
             "| in | fault | found by |",
             "| --- | --- | --- |"]
    for fault in faults.FAULTS:
        by = f"nobody can: {fault.unnoticed}" if fault.unnoticed else f"`{fault.scenarios[0]}`"
        lines.append(f"| `{pathlib.Path(fault.source).name}` | {fault.name} | {by} |")
    return "\n".join(lines) + "\n"


def main(arguments):
    if "--table" in arguments:
        print(table(), end="")
        return 0
    started = time.monotonic()
    wrong = 0
    with tempfile.TemporaryDirectory() as directory, \
            concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        scratch = pathlib.Path(directory)
        sources.copy_sources(ROOT, scratch)
        program = build(scratch, pool)
        listed = subprocess.run([program, "list"], capture_output=True, text=True, check=True)
        executions = dict(line.split() for line in listed.stdout.splitlines())

        runs = {scenario: pool.submit(run_scenario, program, scenario, count)
                for scenario, count in executions.items()}
        for scenario, run in runs.items():
            holds, said = run.result()
            print(f"{'holds  ' if holds else 'BROKEN '} {scenario}: {said.strip()}", flush=True)
            wrong += not holds
            if not holds and "-v" in arguments:
                print(run_scenario(program, scenario, executions[scenario], "-v")[1])

        tries = [pool.submit(try_fault, scratch, number, fault, executions)
                 for number, fault in enumerate(faults.FAULTS)]
        for done in tries:
            is_expected, line = done.result()
            print(line, flush=True)
            wrong += not is_expected
    idle = set(executions) - {fault.scenarios[0] for fault in faults.FAULTS
                              if not fault.unnoticed}
    for scenario in sorted(idle):
        print(f"IDLE    {scenario} finds no fault")
    wrong += len(idle)
    if (ROOT / "docs/evidence/memory.md").read_text() != table():
        print("STALE   docs/evidence/memory.md: tools/test-memory --table prints another")
        wrong += 1
    print(f"{len(faults.FAULTS)} faults planted, {len(executions)} scenarios, "
          f"{time.monotonic() - started:.0f} s")
    if wrong:
        print(f"{wrong} of the above are wrong.")
        return 1
    print("All scenarios hold; all faults were found, but for those that nobody can notice.")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
