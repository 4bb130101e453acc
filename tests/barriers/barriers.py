"""See tools/test-barriers."""

import concurrent.futures
import difflib
import pathlib
import re
import subprocess
import sys
import tempfile

ROOT = pathlib.Path(__file__).resolve().parent.parent.parent
RECORDS = pathlib.Path(__file__).resolve().parent
sys.path.append(str(ROOT / "tests" / "memory"))
import faults  # noqa: E402

WORKERS = 2
TOOLS = {"armhf": "arm-linux-gnueabihf-", "aarch64": "aarch64-linux-gnu-"}
COMPILE = ["-std=c++17", "-O2", "-DNDEBUG", "-w", "-fPIC", "-fvisibility=hidden",
           "-fvisibility-inlines-hidden", "-fno-semantic-interposition", "-fno-gnu-unique",
           "-D_FILE_OFFSET_BITS=64", "-D_TIME_BITS=64"]
SOURCES = [
    "ovra/concurrent/SubmittedTask.cpp",
    "ovra/concurrent/SubmittedTasksQueue.cpp",
    "ovra/concurrent/TaskExecutorImpl.cpp",
    "ovra/concurrent/TaskExecutorWorker.cpp",
    "ovra/concurrent/TaskHandle.cpp",
    "ovra/concurrent/internal/RankedEntry.cpp",
    "ovra/concurrent/internal/RankedTasks.cpp",
    "ovra/concurrent/internal/TaskEnd.cpp",
    "ovra/extra/internal/LineRing.cpp",
    "ovra/extra/internal/TaskMonitor.cpp",
    "ovra/extra/MonitoredExecutor.cpp",
    "ovra/extra/SwitchLogHandler.cpp",
    "ovra/extra/TaskGroup.cpp",
    "ovra/extra/internal/ForkSafeLock.cpp",
    "ovra/log/Log.cpp",
    "ovra/log/LogHandlers.cpp",
]

FUNCTION = re.compile(r"^[0-9a-f]+ <(.*)>:$")
# Of the standard library, only what is compiled for one atomic of ours.
FOREIGN = re.compile(r"std::(?!atomic<|__atomic_base<|_Function_handler<.*_M_invoke)|__|void std::")
INSTRUCTION = re.compile(r"^ *[0-9a-f]+:\t((?:dmb|dsb|ldar|stlr|ldapr|lda|stl|ldax|stlx|ldaex|stlex|"
                         r"cas[al]|swp[al]|ldadd[al]|ldset[al])\w*)\b(?:\t(ish\w*|sy)\b)?")
# On aarch64 the compiler calls helpers, named after their order, for what newer processors do in
# one instruction. Locks and semaphores order memory, too.
CALL = re.compile(r": R_\w+\t(?:__aarch64_(\w+)|pthread_(mutex_\w+)|(sem_(?:post|wait))|"
                  r"std::(mutex::lock)|std::(?:unique_lock|lock_guard)<std::mutex>::(~)|"
                  r"std::condition_variable::(wait|notify_\w+)|"
                  r"std::(?:atomic|__atomic_base)<.*?>::(\w+)\()")

RELAXED = "std::memory_order_relaxed"


def weakened(name, source, before, after):
    return faults.Fault(name, source, [(before, after)], [])


# Each is to change the barriers on each architecture. The first are among those that the memory
# model is to find: an order relaxed, or a fence left out when the task has ended. The stop flag is
# in a template, which the application compiles.
FAULTS = [fault for fault in faults.FAULTS
          if fault.edits and fault.source != "ovra/extra/SubmitAsync.h" and
          fault.name.endswith((" relaxed", " relaxed by `getRank()`",
                               " relaxed when the task has ended", "no fence when the task has ended"))] + [
    weakened("a task's state stored relaxed", "ovra/concurrent/SubmittedTask.cpp",
             "    state = newState;", f"    state.store(newState, {RELAXED});"),
    weakened("the close read relaxed", "ovra/concurrent/SubmittedTasksQueue.cpp",
             "    return closed;", f"    return closed.load({RELAXED});"),
    weakened("the close stored relaxed", "ovra/concurrent/SubmittedTasksQueue.cpp",
             "    closed = true;", f"    closed.store(true, {RELAXED});"),
    weakened("the owners counted released only", "ovra/concurrent/internal/RankedTasks.h",
             "--owners == 0", "owners.fetch_sub(1, std::memory_order_release) == 1"),
    weakened("the system log called without the lock", "ovra/log/LogHandlers.cpp",
             "    std::lock_guard<std::mutex> const lock(mutex);\n    if (VerbatimScope",
             "    if (VerbatimScope"),
]


def barriers_of(listing):
    """For each function that has any: its name, and in the next line what orders memory in it."""
    found = []
    for line in listing.splitlines():
        if start := FUNCTION.match(line):
            found.append((start[1], []))
        elif instruction := INSTRUCTION.match(line):
            found[-1][1].append("-".join(filter(None, instruction.groups())))
        elif call := CALL.search(line):
            found[-1][1].append(next(filter(None, call.groups())).replace("~", "unlock"))
    return [f"{name}\n    {' '.join(sequence)}" for name, sequence in found
            if sequence and not FOREIGN.match(name)]


def compiled(scratch, architecture, source, text="", before=()):
    """The barriers of a source, or of `text` in its place. `before` are directories of headers."""
    place = scratch / architecture / source.replace("/", "_")
    place.parent.mkdir(parents=True, exist_ok=True)
    path = ROOT / source
    if text:
        path = place.with_suffix(".cpp")
        path.write_text(text)
    result = place.with_suffix(".o")
    subprocess.run([f"{TOOLS[architecture]}g++", *COMPILE,
                    *(f"-I{directory}" for directory in (*before, ROOT)), "-c", path, "-o", result],
                   check=True)
    listing = subprocess.run([f"{TOOLS[architecture]}objdump", "-drC", "--no-show-raw-insn",
                              result], check=True, capture_output=True, text=True).stdout
    return barriers_of(listing)


def found_in(scratch, architecture):
    """The barriers of each source."""
    return {source: compiled(scratch, architecture, source) for source in SOURCES}


def text_of(found):
    """What is recorded."""
    return "\n".join("\n".join([f"# {source}", *functions]) + "\n"
                     for source, functions in found.items() if functions)


def is_noticed(scratch, fault, found):
    """Whether a planted fault changes what is recorded, on each architecture."""
    text = (ROOT / fault.source).read_text()
    for old, new in fault.edits:
        if text.count(old) != 1:
            raise SystemExit(f"{fault.source} has not once: {old}")
        text = text.replace(old, new)
    if fault.source.endswith(".cpp"):
        sources, before = [fault.source], ()
    else:
        changed = scratch / fault.source
        changed.parent.mkdir(parents=True)
        changed.write_text(text)
        sources = [source for source in SOURCES
                   if f"#include <{fault.source}>" in (ROOT / source).read_text()]
        text, before = "", [scratch]
    return all(any(compiled(scratch, architecture, source, text, before) !=
                   found[architecture][source] for source in sources)
               for architecture in TOOLS)


def main(arguments):
    wrong = 0
    with tempfile.TemporaryDirectory() as directory, \
            concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
        scratch = pathlib.Path(directory)
        found = dict(zip(TOOLS, pool.map(lambda name: found_in(scratch, name), TOOLS)))
        for architecture, functions in found.items():
            path = RECORDS / f"{architecture}.txt"
            if "--record" in arguments:
                path.write_text(text_of(functions))
            difference = list(difflib.unified_diff(
                path.read_text().splitlines(), text_of(functions).splitlines(),
                f"{architecture}, recorded", f"{architecture}, now", lineterm="", n=1))
            print("\n".join(difference) if difference else
                  f"{architecture}: unchanged, {sum(map(len, functions.values()))} functions")
            wrong += bool(difference)
        noticed = pool.map(lambda numbered: is_noticed(scratch / str(numbered[0]), numbered[1],
                                                       found), enumerate(FAULTS))
        for fault, is_found in zip(FAULTS, noticed):
            print(f"{'found  ' if is_found else 'MISSED '} {fault.name}", flush=True)
            wrong += not is_found
    print(f"{len(FAULTS)} orders weakened")
    if wrong:
        print("A barrier has changed, or a weakened order was missed. "
              "If the change is intended: tools/test-barriers --record")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
