"""Copies the sources under test, with the standard library's primitives replaced by the model's."""

import re
import shutil

COMPILED = [
    "ovra/concurrent/Executable.cpp",
    "ovra/concurrent/SubmittedTask.cpp",
    "ovra/concurrent/SubmittedTasksQueue.cpp",
    "ovra/concurrent/Task.cpp",
    "ovra/concurrent/TaskExecutor.cpp",
    "ovra/concurrent/TaskExecutorImpl.cpp",
    "ovra/concurrent/TaskExecutorWorker.cpp",
    "ovra/concurrent/TaskHandle.cpp",
    "ovra/concurrent/TaskRankingStrategy.cpp",
    "ovra/concurrent/internal/RankedEntry.cpp",
    "ovra/concurrent/internal/RankedTasks.cpp",
    "ovra/concurrent/internal/TaskEnd.cpp",
    "ovra/extra/MonitoredExecutor.cpp",
    "ovra/extra/RecentLinesLogHandler.cpp",
    "ovra/extra/SwitchLogHandler.cpp",
    "ovra/extra/TaskGroup.cpp",
    "ovra/extra/internal/ForkCount.cpp",
    "ovra/extra/internal/ForkSafeLock.cpp",
    "ovra/extra/internal/LineRing.cpp",
    "ovra/extra/internal/TaskMonitor.cpp",
    "ovra/log/Log.cpp",
    "ovra/log/internal/VerbatimScope.cpp",
    "tests/memory/StoppableWork.cpp",
]

# They keep what the system gives them: the checker knows no fork.
UNCHANGED = {"ovra/extra/internal/ForkCount.cpp", "ovra/log/internal/VerbatimScope.cpp"}

# (pattern, replacement): in every source.
PRIMITIVES = [
    (r"\bstd::(atomic|mutex|condition_variable|thread|shared_ptr|weak_ptr|future|promise)\b"
     r"(?!_)", r"model::\1"),
    (r"\bstd::(atomic_thread_fence|make_shared|allocate_shared)\b", r"model::\1"),
    (r"\bstd::this_thread::yield\b", "model::yield"),
    (r"(?<![\w:])(sem_t|sem_init|sem_wait|sem_post)\b", r"model::\1"),
    (r"(?<!\w)::write\(", "model::write("),
    (r"syscall\(SYS_futex, &word, FUTEX_WAIT_PRIVATE, seen, [^;]*;", "word.waitWhile(seen);"),
    (r"syscall\(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, [^;]*;", "word.wakeOne();"),
]


# The atomics whose accesses name no order. Their place is their number, from 1 on.
UNNAMED = ["s_uniqueIndexCounter", "rank", "priority", "wasAdded", "owners", "parts", "state",
           "result", "waiting", "closed", "terminated", "isTaken",
           "priorityChanges"]


def unnamed(kind, name):
    """An atomic of `UNNAMED`."""
    return (f"std::atomic<{kind}> {name}",
            f"model::atomic<{kind}, {1 + UNNAMED.index(name)}> {name}")


def plain(kind, name, initial):
    """A member that is no atomic, and that the checker is to watch."""
    return (f"{kind} {name}" + (f" = {initial};" if initial else ";"),
            f"model::plain<{kind}> {name}" + (f"{{{initial}}};" if initial else ";"))


# (text, replacement): each stands there once.
WATCHED = {
    "ovra/concurrent/TaskHandle.h": [plain("std::exception_ptr", "exception", "")],
    "ovra/concurrent/SubmittedTask.h": [
        unnamed("Executable::State", "state"),
        unnamed("Executable::Result", "result"),
    ],
    "ovra/concurrent/SubmittedTask.cpp": [unnamed("std::int32_t", "s_uniqueIndexCounter")],
    "ovra/concurrent/SubmittedTasksQueue.h": [
        plain("std::uint64_t", "addedSoFar", "0"),
        unnamed("bool", "closed"),
    ],
    "ovra/concurrent/TaskExecutorWorker.h": [unnamed("std::int32_t", "terminated")],
    "ovra/concurrent/internal/TaskEnd.h": [unnamed("Waiter*", "waiting")],
    "ovra/concurrent/internal/UniqueIndex.h": [unnamed("std::int32_t", "s_uniqueIndexCounter")],
    "ovra/concurrent/internal/RankedEntry.h": [
        unnamed("unsigned int", "rank"),
        unnamed("TaskPriority", "priority"),
        unnamed("bool", "wasAdded"),
        unnamed("std::uint16_t", "priorityChanges"),
        plain("std::uint8_t", "list", "0"),
        plain("RankedTasks*", "home", "nullptr"),
        plain("std::uint64_t", "since", "0"),
        plain("std::uint64_t", "order", "0"),
        plain("RankedEntry*", "previous", "nullptr"),
        plain("RankedEntry*", "next", "nullptr"),
    ],
    "ovra/concurrent/internal/RankedTasks.h": [
        unnamed("unsigned int", "owners"),
        plain("std::uint64_t", "size", "0"),
        plain("std::uint64_t", "picks", "0"),
        plain("std::uint64_t", "to", "std::numeric_limits<std::uint64_t>::max()"),
        plain("RankedEntry*", "first", "nullptr"),
        plain("RankedEntry*", "last", "nullptr"),
        plain("RankedEntry*", "negative", "nullptr"),
    ],
    # The model's counts take more room than the library's.
    "ovra/concurrent/internal/SubmissionMemory.h": [
        # Whoever gives back a part has used it: the memory may go after that.
        ("    std::atomic<int> parts{0};", "    model::Race use;\n    std::atomic<int> parts{0};"),
        ("void deallocate(Block*, std::size_t) {",
         "void deallocate(Block*, std::size_t) {\n            memory->use.read();"),
        unnamed("int", "parts"),
        ("::operator delete(memory);", "memory->~SubmissionMemory(), ::operator delete(memory);"),
        ("24 + sizeof(Part)", "2 * sizeof(model::atomic<long>) + 64 + sizeof(Part)"),
        ("return alignof(SubmittedTask);", "return sizeof(SubmissionMemory);"),
    ],
    "ovra/extra/SubmitAsync.h": [
        unnamed("bool", "isTaken"),
        ("std::optional<std::promise<Value>> promise",
         "std::optional<model::BreakablePromise<Value>> promise"),
    ],
    "ovra/extra/TaskGroup.cpp": [
        plain("Pending*", "previous", "nullptr"),
        plain("Pending*", "next", "nullptr"),
        plain("Pending*", "first", "nullptr"),
        plain("std::size_t", "size", "0"),
        plain("bool", "isCounted", "false"),
    ],
    "ovra/extra/internal/LineRing.h": [plain("std::size_t", "length", "0")],
    "ovra/extra/internal/TaskMonitor.h": [
        plain("WatchedTask*", "head", "nullptr"),
        plain("WatchedTask*", "tail", "nullptr"),
        plain("std::uint64_t", "size", "0"),
        plain("Stage", "stage", "Stage::NEW"),
        plain("WatchedTask*", "previous", "nullptr"),
        plain("WatchedTask*", "next", "nullptr"),
    ],
}


def replace_once(text, old, new, where):
    """`text` with `new` in place of the one `old`."""
    if text.count(old) != 1:
        raise SystemExit(f"{where} has not once, but {text.count(old)} times: {old}")
    return text.replace(old, new)


def model_text(name, text, edits=()):
    """The text of a source as the checker sees it, with the `edits` of a fault made first."""
    for old, new in edits:
        text = replace_once(text, old, new, name)
    if name in UNCHANGED:
        return text
    for old, new in WATCHED.get(name, []):
        text = replace_once(text, old, new, name)
    for pattern, new in PRIMITIVES:
        text = re.sub(pattern, new, text)
    include = "#include <Model.h>\n"
    return text.replace("#pragma once\n", "#pragma once\n" + include, 1) if name.endswith(".h") \
        else include + text


def copy_sources(root, target):
    """Writes what the checker is to see of `root` under `target`."""
    names = [str(path.relative_to(root)) for path in sorted((root / "ovra").rglob("*.h"))]
    for name in names + COMPILED:
        place = target / name
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_text(model_text(name, (root / name).read_text()))
    for path in (root / "tests" / "memory").glob("*.h"):
        shutil.copy(path, target)
    for path in (root / "tests" / "memory").glob("*.cpp"):
        shutil.copy(path, target)
