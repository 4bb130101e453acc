"""The faults that tools/test-memory plants, one at a time: a memory order weakened, a store and a
look swapped, a notification moved, a lock dropped."""

import dataclasses


@dataclasses.dataclass
class Fault:
    """What is wrong, where, and who notices: the first of `scenarios`, or nobody, for a reason."""
    name: str
    source: str
    edits: list
    scenarios: list
    unnoticed: str = ""
    weakened: tuple = ()


TASK = "ovra/concurrent/SubmittedTask.cpp"
HANDLE = "ovra/concurrent/TaskHandle.cpp"
QUEUE = "ovra/concurrent/SubmittedTasksQueue.cpp"
WORKER = "ovra/concurrent/TaskExecutorWorker.cpp"
EXECUTOR = "ovra/concurrent/TaskExecutorImpl.cpp"
RANKED = "ovra/concurrent/internal/RankedTasks.cpp"
RANKED_HEADER = "ovra/concurrent/internal/RankedTasks.h"
END = "ovra/concurrent/internal/TaskEnd.cpp"
WEAK = "ovra/concurrent/internal/WeakTask.h"
LOG = "ovra/log/Log.cpp"
SWITCH = "ovra/extra/SwitchLogHandler.cpp"
LOCK = "ovra/extra/internal/ForkSafeLock.cpp"
RING = "ovra/extra/internal/LineRing.cpp"
ASYNC = "ovra/extra/SubmitAsync.h"
GROUP = "ovra/extra/TaskGroup.cpp"
MONITOR = "ovra/extra/internal/TaskMonitor.cpp"

GUARD = "    std::lock_guard<std::mutex> const lock(mutex);\n"
ADDITION = "    if (!ranked->insert("
CLOSING_LOCK = "    std::unique_lock<std::mutex> lock(mutex);\n    RankedEntry"


def without_lock(source, head, *scenarios):
    """The lock of the function whose first line is `head` left out."""
    name = head.split("(")[0].split()[-1]
    return Fault(f"`{name}()` takes no lock", source, [(f"{head}\n{GUARD}", f"{head}\n")],
                 scenarios)


def weakened(source, before, order, name, *scenarios, unnoticed=""):
    """The order in the text `before`, which follows the last comma or bracket, made relaxed."""
    return Fault(f"{name} relaxed", source,
                 [(before, before.replace(f"std::memory_order_{order}",
                                          "std::memory_order_relaxed", 1))], scenarios, unnoticed)


RANKS = ["RankAgainstInsert", "RankAgainstPick", "RankOfThePicked", "RankAgainstClose",
         "RankAgainstDestruction"]
ONE_LOCK = "one critical section: nobody sees it half done"

FAULTS = [
    # What is pushed to a handle.
    weakened(HANDLE, "state.store(newState, std::memory_order_release)", "release",
             "the state pushed", "PushState"),
    weakened(HANDLE, "result.store(newResult, std::memory_order_release)", "release",
             "the result pushed", "PushResult"),
    weakened(HANDLE, "return state.load(std::memory_order_acquire)", "acquire",
             "the state read", "PushState"),
    weakened(HANDLE, "return result.load(std::memory_order_acquire)", "acquire",
             "the result read", "PushResult"),
    Fault("the state pushed before the result", TASK,
          [("        live->setResult(outcome);\n        live->setState(Executable::DONE);\n",
            "        live->setState(Executable::DONE);\n        live->setResult(outcome);\n")],
          ["PushState"]),
    Fault("the exception pushed after the state", TASK,
          [("            handleAndLogUnknownException(std::current_exception(), true);\n",
            "            finish(Executable::FAILURE);\n"
            "            handleAndLogUnknownException(std::current_exception(), true);\n")],
          ["PushException"]),
    Fault("`getException()` does not look at the state", HANDLE,
          [("    static_cast<void>(getState());\n    return exception;", "    return exception;")],
          ["PushException"], "whoever may read it has seen the end, and the exception with it"),
    without_lock(TASK, "void SubmittedTask::setState(Executable::State newState) {", "Cancel"),
    without_lock(TASK, "void SubmittedTask::setResult(Executable::Result newResult) {",
                 "PushTwice"),
    without_lock(TASK, "void SubmittedTask::setHandle(std::shared_ptr<TaskHandle> const& newHandle) {",
                 "HandleAgainstState"),
    without_lock(TASK, "std::weak_ptr<TaskHandle> SubmittedTask::getHandle() const {",
                 "HandleAgainstState"),
    Fault("`finish()` takes no lock", TASK,
          [(f"{GUARD}    result = outcome;", "    result = outcome;")], ["Cancel"]),
    Fault("the work repeats whether it is cancelled or not", TASK,
          [("while (outcome == Executable::REPEAT && state != Executable::CANCELLED)",
            "while (outcome == Executable::REPEAT)")], ["CancelOfRepeat"]),

    # The end of a task, and who waits for it.
    Fault("the promise fulfilled before the result is pushed", TASK,
          [("        finish(outcome);\n        logState", "        setPromiseValue();\n"
            "        finish(outcome);\n        logState"),
           ("    setPromiseValue();\n    return result;", "    return result;")], ["Wait"]),
    Fault("no fence when the task has ended", WEAK,
          [("std::atomic_thread_fence(std::memory_order_acquire);", "")], ["WaitForEndedByProxy"]),
    Fault("the fence relaxed when the task has ended", WEAK,
          [("std::atomic_thread_fence(std::memory_order_acquire);",
            "std::atomic_thread_fence(std::memory_order_relaxed);")], ["WaitForEndedByProxy"]),
    Fault("`waitForCompletion()` does not read the result", HANDLE,
          [("static_cast<void>(getResult());", "")], ["WaitForEnded", "Wait"],
          "the fence does the same; ThreadSanitizer needs the read"),
    Fault("neither a fence nor that read", HANDLE,
          [("static_cast<void>(getResult());", ""),
           ("concurrent::waitForCompletion(*task);",
            "if (auto const live = task->lock()) { live->waitForEnd(); }")], ["WaitForEnded"]),
    Fault("the end stored, not exchanged", END,
          [("} while (!waiting.compare_exchange_weak(\n"
            "        waiter, waiter == nullptr ? &Waiter::fulfilled : &Waiter::over));",
            "} while (false);\n"
            "    waiting = waiter == nullptr ? &Waiter::fulfilled : &Waiter::over;")],
          ["EndAgainstWait"]),
    Fault("the waiter stored, not exchanged", END,
          [("if (waiting.compare_exchange_strong(found, waiter)) {",
            "if ((found = waiting) == nullptr) {\n        waiting = waiter;")], ["EndAgainstWait"]),
    Fault("the late waiter's mark stored, not exchanged", END,
          [("found == &Waiter::fulfilled && waiting.compare_exchange_strong(found, &Waiter::over)",
            "found == &Waiter::fulfilled && (waiting = &Waiter::over)")], ["EndTwice"]),
    Fault("the semaphore is not posted", END, [("sem_post(&waiter->semaphore);", "")],
          ["EndAgainstWait"]),
    Fault("the waiter is left before the post", END,
          [("        while (sem_wait(&self.semaphore) != 0) {\n        }\n    } catch (...) {",
            "    } catch (...) {")], ["EndAgainstWait"]),
    Fault("the end exchanged relaxed", END,
          [("waiter, waiter == nullptr ? &Waiter::fulfilled : &Waiter::over)",
            "waiter, waiter == nullptr ? &Waiter::fulfilled : &Waiter::over,"
            " std::memory_order_relaxed)")], ["EndAgainstWait"]),
    Fault("the waiter exchanged relaxed", END,
          [("waiting.compare_exchange_strong(found, waiter)",
            "waiting.compare_exchange_strong(found, waiter, std::memory_order_relaxed)")],
          ["EndAgainstFuture"]),
    Fault("the late waiter's mark exchanged relaxed", END,
          [("compare_exchange_strong(found, &Waiter::over))",
            "compare_exchange_strong(found, &Waiter::over, std::memory_order_relaxed))"),
           ("waiting.compare_exchange_strong(found, waiter)",
            "waiting.compare_exchange_strong(found, waiter, std::memory_order_seq_cst,"
            " std::memory_order_relaxed)")], ["EndAgainstWait"]),

    # New ranks.
    Fault("a rank stored, not exchanged", TASK,
          [("rank.rank.compare_exchange_strong(stored, clampedRank(newRank, getPriority()))",
            "(rank.rank = clampedRank(newRank, getPriority()), true)")], ["RankAgainstInsert"]),
    Fault("a rank refused by the queue is given up", TASK,
          [("            if (rank.home->setRank(rank, newRank, newPriority)) {\n"
            "                return;\n            }\n            continue;\n",
            "            rank.home->setRank(rank, newRank, newPriority);\n            return;\n")],
          ["RankOfThePicked"]),
    Fault("the mark set before the home", RANKED,
          [("    entry.rank |= RankedEntry::COMPUTED;\n    if", "    if"),
           ("    entry.home = this;\n",
            "    entry.rank |= RankedEntry::COMPUTED;\n    entry.home = this;\n")],
          ["RankAgainstInsert"]),
    Fault("the mark set in two steps", RANKED,
          [("    entry.rank |= RankedEntry::COMPUTED;\n    if",
            "    entry.rank = entry.rank | RankedEntry::COMPUTED;\n    if")],
          ["RankAgainstInsert"]),
    Fault("the mark set relaxed", RANKED,
          [("    entry.rank |= RankedEntry::COMPUTED;\n    if",
            "    entry.rank.fetch_or(RankedEntry::COMPUTED, std::memory_order_relaxed);\n"
            "    if")], ["RankAgainstInsert"]),
    Fault("the mark looked at relaxed", TASK,
          [("        unsigned int stored = rank.rank;",
            "        unsigned int stored = rank.rank.load(std::memory_order_relaxed);")],
          ["RankAgainstInsert"]),
    Fault("the mark looked at relaxed by `getRank()`", TASK,
          [("    unsigned int const stored = rank.rank;",
            "    unsigned int const stored = rank.rank.load(std::memory_order_relaxed);")],
          ["RankAgainstInsert"]),
    Fault("`rankOf()` takes no lock", RANKED_HEADER,
          [(f"    {GUARD}        return entry.isComputed()", "        return entry.isComputed()")],
          ["RankAgainstPick"]),
    without_lock(RANKED, "bool RankedTasks::setRank(RankedEntry& entry, "
                 "unsigned int rank, TaskPriority const* priority) {", "RankAgainstPick"),
    without_lock(RANKED, "void RankedTasks::pick(SortKey const& scanned, "
                 "std::shared_ptr<SubmittedTask>& found) {", "RankAgainstPick"),
    Fault("`eraseAll()` takes no lock", RANKED_HEADER,
          [(f"    {GUARD}        size = 0;", "        size = 0;")], ["RankAgainstClose"]),
    Fault("`insert()` takes no lock", RANKED,
          [(f"{GUARD}    ++owners;", "    ++owners;")], ["RankAgainstInsert"]),
    Fault("no second look at the mark when a rank is set", RANKED,
          [("    if (!entry.isComputed()) {\n        return false;\n    }\n", "")],
          ["RankOfThePicked"]),
    Fault("no second look at the mark when a rank is read", RANKED_HEADER,
          [("return entry.isComputed() ? computeRank(entry, isUpdated(entry)) : entry.given();",
            "return computeRank(entry, isUpdated(entry));")],
          ["RankOfThePicked"]),
    Fault("the owners counted in two steps", RANKED_HEADER,
          [("if (--owners == 0) {", "owners = owners - 1;\n        if (owners == 0) {")],
          ["RankAgainstDestruction"]),
    Fault("the mark of an added object set in two steps", RANKED,
          [("entry.wasAdded.exchange(true)",
            "(entry.wasAdded || !(entry.wasAdded = true))")], ["AddToTwoQueues"]),

    # The queue and its workers.
    Fault("nobody is notified of a task", QUEUE, [("    condition.notify_one();\n", "")],
          ["AddAgainstWait"]),
    Fault("a worker is notified before the lock", QUEUE,
          [("    condition.notify_one();\n", ""),
           (f"{GUARD}{ADDITION}", f"    condition.notify_one();\n{GUARD}{ADDITION}")],
          ["AddAgainstWait"]),
    Fault("a worker is notified before the task is queued", QUEUE,
          [("    condition.notify_one();\n", ""),
           (ADDITION, f"    condition.notify_one();\n{ADDITION}")],
          ["AddAgainstWait"], ONE_LOCK),
    Fault("a worker is notified after the lock", QUEUE,
          [(f"{GUARD}{ADDITION}",
            f"    std::unique_lock<std::mutex> lock(mutex);\n{ADDITION}"),
           ("    condition.notify_one();\n", "    lock.unlock();\n    condition.notify_one();\n")],
          ["AddAgainstWait"], "the worker that sleeps is woken a little later"),
    Fault("a task added without the lock", QUEUE,
          [(f"{GUARD}{ADDITION}", ADDITION)], ["AddAgainstWait"]),
    Fault("a task picked without the lock", QUEUE,
          [(f"{GUARD}    SortKey best;", "    SortKey best;")], ["AddAgainstWait"]),
    without_lock(QUEUE, "bool SubmittedTasksQueue::isEmpty() {", "AddAgainstWait"),
    Fault("a close wakes one worker", QUEUE, [("notify_all", "notify_one")], ["CloseAgainstWait"]),
    Fault("a close wakes nobody", QUEUE, [("    condition.notify_all();\n", "")],
          ["CloseAgainstWait"]),
    Fault("a close wakes all before the lock", QUEUE,
          [("    condition.notify_all();\n", ""),
           (CLOSING_LOCK, f"    condition.notify_all();\n{CLOSING_LOCK}")],
          ["CloseAgainstWait"]),
    Fault("a close wakes all before it is marked", QUEUE,
          [("    closed = true;\n    condition.notify_all();\n",
            "    condition.notify_all();\n    closed = true;\n")], ["CloseAgainstWait"], ONE_LOCK),
    Fault("a close marked, and all woken, before the lock", QUEUE,
          [("    closed = true;\n    condition.notify_all();\n", ""),
           (CLOSING_LOCK, f"    closed = true;\n    condition.notify_all();\n{CLOSING_LOCK}")],
          ["CloseAgainstWait"]),
    Fault("a close marked before the lock", QUEUE,
          [("    closed = true;\n", ""), (CLOSING_LOCK, f"    closed = true;\n{CLOSING_LOCK}")],
          ["CloseAgainstWait"], "the lock that is taken before the wake-up orders it all the same"),
    Fault("no look at the queue before a worker sleeps", WORKER,
          [("if (!source->hasTasks()) {", "if (true) {")], ["AddAgainstWait"]),
    Fault("no look at the close before a worker sleeps", WORKER,
          [("    if (source->isClosed()) {\n        return false;\n    }\n", "")],
          ["CloseAgainstWait"]),
    Fault("the close looked at before the lock", WORKER,
          [("    std::unique_lock<std::mutex> lock(source->mutex);\n    if (source->isClosed()) {\n"
            "        return false;\n    }\n",
            "    if (source->isClosed()) {\n        return false;\n    }\n"
            "    std::unique_lock<std::mutex> lock(source->mutex);\n")], ["CloseAgainstWait"]),
    Fault("a worker joined before the close", EXECUTOR,
          [("    if (queue) {\n        queue->close();\n    }\n", ""),
           ("        worker->terminate();\n    }\n",
            "        worker->terminate();\n    }\n    if (queue) {\n        queue->close();\n"
            "    }\n")], ["SubmitAgainstDestruction"]),
    Fault("the parts of a submission counted in two steps",
          "ovra/concurrent/internal/SubmissionMemory.h",
          [("if (--memory->parts == 0) {",
            "memory->parts = memory->parts - 1;\n            if (memory->parts == 0) {")],
          ["ReleaseParts"]),

    # The log, and two sinks.
    Fault("the log level no atomic", LOG,
          [("std::atomic<LogLevel> globalLevel{ERROR};",
            "model::plain<LogLevel> globalLevel{ERROR};")], ["LogLevel"]),
    Fault("the debuggable flag no atomic", LOG,
          [("std::atomic<bool> depsDebuggable{false};",
            "model::plain<bool> depsDebuggable{false};")], ["LogLevel"]),
    Fault("the switch's target read without the lock", SWITCH,
          [("        std::lock_guard<ForkSafeLock> const guard(lock);\n        return targets",
            "        return targets")], ["SwitchOfTarget"]),
    Fault("the switch's target replaced without the lock", SWITCH,
          [("        std::lock_guard<ForkSafeLock> const guard(lock);\n        unsigned",
            "        unsigned")], ["SwitchOfTarget"]),
    Fault("the switch's level no atomic", SWITCH,
          [("std::atomic<log::LogLevel> level;", "model::plain<log::LogLevel> level;")],
          ["SwitchOfTarget"]),
    Fault("the switch's place stored relaxed", SWITCH,
          [("current.store(1 - before, std::memory_order_release)",
            "current.store(1 - before, std::memory_order_relaxed)")], ["SwitchOfTarget"],
          "no other thread reads it without the lock; the order is for a child of `fork`"),
    weakened(LOCK, "compare_exchange_strong(seen, here(LOCKED), std::memory_order_acquire)",
             "acquire", "the lock taken", "SwitchOfTarget"),
    weakened(LOCK, "word.exchange(here(OPEN), std::memory_order_release)", "release",
             "the lock opened", "SwitchOfTarget"),
    weakened(LOCK, "compare_exchange_weak(seen, here(AWAITED), std::memory_order_acquire)",
             "acquire", "the lock taken after a wait", "SwitchAwaited"),
    Fault("a waiter for the lock is not woken", LOCK,
          [("syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);", ";")],
          ["SwitchAwaited"]),
    Fault("a waiter for the lock woken before it is open", LOCK,
          [("    if (word.exchange(here(OPEN), std::memory_order_release) == here(AWAITED)) {",
            "    if (word.load(std::memory_order_relaxed) == here(AWAITED)) {"),
           ("FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);\n    }\n",
            "FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0);\n    }\n"
            "    word.exchange(here(OPEN), std::memory_order_release);\n")], ["SwitchAwaited"]),
    Fault("a waiter locks as if nobody else waited", LOCK,
          [("compare_exchange_weak(seen, here(AWAITED), std::memory_order_acquire)",
            "compare_exchange_weak(seen, isHeld ? here(AWAITED) : here(LOCKED), "
            "std::memory_order_acquire)")], ["SwitchAwaited"]),
    weakened(RING, "place.word.store(ticket * ONE_TICKET, std::memory_order_release)", "release",
             "a line shown", "RingOfOne"),
    weakened(RING, "seen, seen + ONE_READER, std::memory_order_acquire,", "acquire",
             "a line held", "RingOfOne"),
    weakened(RING, "word.fetch_sub(ONE_READER, std::memory_order_release)", "release",
             "a line released", "RingOfOne"),
    weakened(RING, "compare_exchange_weak(seen, beingFilled(), std::memory_order_acquire,",
             "acquire", "a place claimed", "RingOfOne"),
    weakened(RING, "Word const last = lastTicket.load(std::memory_order_acquire)", "acquire",
             "the last ticket read", "RingOfOne", "RingOfTwo",
             unnoticed="the place itself says which line it holds"),
    weakened(RING, "after(before), std::memory_order_acq_rel,", "acq_rel",
             "a ticket taken", "RingOfOne", "RingOfTwo",
             unnoticed="the place itself says which line it holds"),
    Fault("a line shown before it is filled in", RING,
          [("                place.fill(line, most);\n                place.word.store("
            "ticket * ONE_TICKET, std::memory_order_release);\n",
            "                place.word.store(ticket * ONE_TICKET, "
            "std::memory_order_release);\n                place.fill(line, most);\n")],
          ["RingOfOne"]),
    Fault("a line that is read is overwritten", RING,
          [("(seen & (BEING_FILLED | ALL_READERS)) != 0", "(seen & BEING_FILLED) != 0")],
          ["RingOfOne"]),
    Fault("a line read without being held", RING,
          [("seen, seen + ONE_READER, std::memory_order_acquire,",
            "seen, seen, std::memory_order_acquire,"),
           ("            word.fetch_sub(ONE_READER, std::memory_order_release);\n", "")],
          ["RingOfOne"]),
    Fault("a place that is filled is claimed again", RING,
          [("(seen & (BEING_FILLED | ALL_READERS)) != 0", "(seen & ALL_READERS) != 0")],
          ["RingOfTwo"]),
    Fault("a line takes the place of a later one", RING,
          [("seen != EMPTY && isLater(seen / ONE_TICKET, ticket)", "false")], ["RingOfLate"]),

    # Work with a value, groups, counts.
    weakened(ASYNC, "isRaised.store(true, std::memory_order_release)", "release",
             "the stop flag raised", "StopOfRunning"),
    weakened(ASYNC, "isRaised.load(std::memory_order_acquire)", "acquire",
             "the stop flag read", "StopOfRunning"),
    Fault("the work taken in two steps by the worker", ASYNC,
          [("        if (isTaken.exchange(true)) {\n            return",
            "        if (isTaken || !(isTaken = true)) {\n            return")],
          ["StopOfRunning"]),
    Fault("the work given up without a look at who has taken it", ASYNC,
          [("if (!isTaken.exchange(true)) {", "if (true) {")], ["StopOfRunning"]),
    Fault("the handle cancelled before the flag is raised", ASYNC,
          [("        stop.raise();\n", ""),
           ("        stop.abandonWork();\n", "        stop.raise();\n        stop.abandonWork();\n")],
          ["StopBeforeCancel"]),
    Fault("the end of a group's task counted without the lock", GROUP,
          [("    std::lock_guard<std::mutex> const lock(tasks->mutex);\n    if (!isCounted) {",
            "    if (!isCounted) {")], ["GroupAgainstWait"]),
    Fault("the wait for a group looks without the lock", GROUP,
          [("        std::unique_lock<std::mutex> lock(mutex);\n        while (size > 0) {\n"
            "            condition",
            "        while (size > 0) {\n            std::unique_lock<std::mutex> lock(mutex);\n"
            "            condition")], ["GroupAgainstWait"]),
    Fault("a waiter for a group is not woken", GROUP,
          [("        tasks->condition.notify_all();\n", "        ;\n")], ["GroupAgainstWait"]),
    Fault("a waiter for a group notified before the count", GROUP,
          [("    if (--tasks->size == 0) {", "    if (tasks->size == 1) {"),
           ("        tasks->condition.notify_all();\n    }\n",
            "        tasks->condition.notify_all();\n    }\n    --tasks->size;\n")],
          ["GroupAgainstWait"], ONE_LOCK),
    Fault("a waiter for a group notified before the lock", GROUP,
          [("    std::lock_guard<std::mutex> const lock(tasks->mutex);\n    if (!isCounted) {",
            "    if (isCounted) {\n        tasks->condition.notify_one();\n    }\n"
            "    std::lock_guard<std::mutex> const lock(tasks->mutex);\n    if (!isCounted) {"),
           ("        tasks->condition.notify_all();\n", "        ;\n")], ["GroupAgainstWait"]),
    Fault("a group's task counted down before its callback", GROUP,
          [("    } const atEnd{*this};\n", "    };\n    end();\n")], ["GroupAgainstWait"]),
    Fault("a group's task counted without the lock", GROUP,
          [("    std::lock_guard<std::mutex> const lock(tasks->mutex);\n    if (tasks->limit",
            "    if (tasks->limit")], ["GroupAtItsLimit"]),
    Fault("a group's handle kept without the lock", GROUP,
          [("    std::lock_guard<std::mutex> const lock(tasks->mutex);\n    if (isCounted) {",
            "    if (isCounted) {")], ["GroupAgainstCancel"]),
    Fault("a group's handles taken without the lock", GROUP,
          [("        std::lock_guard<std::mutex> const lock(mutex);\n        std::vector",
            "        std::vector")], ["GroupAgainstCancel"]),
    Fault("a group's size read without the lock", GROUP,
          [("        std::lock_guard<std::mutex> const lock(mutex);\n        return size;",
            "        return size;")], ["GroupAgainstCancel"]),
    without_lock(MONITOR, "void TaskMonitor::accepted(WatchedTask& task) {", "CountsOfOneMoment"),
    without_lock(MONITOR, "void TaskMonitor::begin(WatchedTask& task) {", "CountsOfOneMoment"),
    without_lock(MONITOR, "void TaskMonitor::end(WatchedTask& task) {", "CountsOfOneMoment"),
    without_lock(MONITOR, "TaskCounts TaskMonitor::read() {", "CountsOfOneMoment"),
    Fault("a task that begins left among the waiting", MONITOR,
          [("        waiting.remove(task);\n        if (task.hasRun) {\n            longestWait",
            "        if (task.hasRun) {\n            longestWait")], ["CountsOfOneMoment"]),
    Fault("a task that has begun counted as waiting", MONITOR,
          [("    if (task.stage == WatchedTask::Stage::NEW) {\n        ++counts.submitted;\n"
            "        task.stage",
            "    {\n        ++counts.submitted;\n        task.stage")], ["CountsOfOneMoment"]),
    Fault("a task counted as submitted only when its submission has returned", MONITOR,
          [("        ++counts.submitted;  // Begun before its submission has returned.\n", "")],
          ["CountsOfOneMoment"]),
]

NO_ORDER = "nothing rests on one order of all accesses"


def of_unnamed(name, source, scenarios, relaxed_scenarios, relaxed_reason="",
               acq_rel_reason=NO_ORDER):
    """The accesses to an atomic that name no order: weakened by one step, and by all."""
    return [Fault(f"all of `{name}` acquire and release", source, [], scenarios, acq_rel_reason,
                  (name, "acq_rel")),
            Fault(f"all of `{name}` relaxed", source, [], relaxed_scenarios, relaxed_reason,
                  (name, "relaxed"))]


IN_LOCK = "written under a lock; a read without the lock may be late anyway"
# Each of the two threads stores one of these and looks at the other.
FAULTS += of_unnamed("rank", TASK, ["PriorityAgainstInsert"], ["RankAgainstInsert"], "", "")
FAULTS += of_unnamed("priorityChanges", TASK, ["PriorityAgainstInsert"], ["PriorityAgainstInsert"],
                     "", "")
FAULTS.append(Fault(
    "`scanTo()` takes no lock", RANKED,
    [("    std::lock_guard<std::mutex> const lock(mutex);\n    if (order >= scan.to) {",
      "    if (order >= scan.to) {")], ["RankAgainstScan"]))
FAULTS.append(Fault(
    "a change of the priority looked for before the mark", RANKED,
    [("    entry.rank |= RankedEntry::COMPUTED;\n    if (entry.priorityChanges != 0 ||",
      "    bool const isChanging = entry.priorityChanges != 0;\n"
      "    entry.rank |= RankedEntry::COMPUTED;\n    if (isChanging ||")],
    ["PriorityAgainstInsert"]))
FAULTS += of_unnamed("priority", TASK, RANKS, RANKS,
                     "read where the rank's own exchange or the lock orders it")
FAULTS += of_unnamed("owners", RANKED, RANKS, ["RankAgainstDestruction"])
FAULTS += of_unnamed("wasAdded", RANKED, ["AddToTwoQueues"], ["AddToTwoQueues"],
                     "one exchange is the first, in any order")
FAULTS += of_unnamed("parts", "ovra/concurrent/internal/SubmissionMemory.h", ["ReleaseParts"],
                     ["ReleaseParts"])
FAULTS += of_unnamed("state", TASK, ["Cancel", "CancelOfRepeat", "AddAgainstWait"],
                     ["Cancel", "CancelOfRepeat", "AddAgainstWait"], IN_LOCK)
FAULTS += of_unnamed("result", TASK, ["Cancel", "PushResult", "Wait"],
                     ["Cancel", "PushResult", "Wait"], IN_LOCK)
FAULTS += of_unnamed("waiting", END, ["EndAgainstWait", "EndAgainstFuture", "EndTwice", "Wait"],
                     ["EndAgainstWait"])
FAULTS += of_unnamed("closed", QUEUE, ["CloseAgainstWait", "SubmitAgainstDestruction"],
                     ["CloseAgainstWait", "SubmitAgainstDestruction"], IN_LOCK)
FAULTS += of_unnamed("terminated", WORKER, ["SubmitAgainstDestruction"],
                     ["SubmitAgainstDestruction"], "the join orders all")
FAULTS += of_unnamed("isTaken", ASYNC, ["StopOfRunning"], ["StopOfRunning"],
                     "whoever takes the work saw it before the exchange")
FAULTS += of_unnamed("s_uniqueIndexCounter", TASK, ["SubmitAgainstDestruction"],
                     ["SubmitAgainstDestruction"], "each number is given once, in any order")
