/*
 * The protocol of SubmittedTasksQueue, TaskExecutorWorker, TaskExecutorImpl and the end of a
 * SubmittedTask: who wakes whom, in which order, under which lock. What work does, how tasks are
 * ranked and what is logged is left out: a pick takes any queued task.
 *
 * One step of a process stands for what the code does between two points at which another thread
 * could notice the difference: an unlock, an atomic variable, a wait. A section that holds a lock all
 * along, and touches only what that lock guards, is one step. The wait for work is not: it holds
 * the queue's lock over several, so that a close() that does without the lock would be noticed.
 *
 * Checked in every reachable state:
 *   - while a worker sleeps, no more tasks are queued than workers are on their way to the queue
 *     (so no wake-up is lost and no task waits beside an idle worker), until the queue is closed;
 *   - a promise is fulfilled once, with the result set, and before the callback;
 *   - of several waits for one task, one is not refused;
 *   - a task is taken at most once, and is never touched when nobody holds it;
 * and when nothing can move any more:
 *   - every worker has ended and been joined, if the executor was shut down;
 *   - every task that was accepted has been fulfilled, and no waiter is left, but for tasks that
 *     were queued when the queue was closed, or added behind it;
 *   - nobody holds a task but those waiters and the queue.
 *
 * A waiting thread may be cancelled, and then leaves its stack: once it has taken the address of its
 * semaphore back, or the semaphore was posted.
 *
 * Sizes (-D): WORKERS, TASKS, SUBMITTERS, WAITERS, CANCELLERS, SPURIOUS (how many wake-ups may come
 * from nowhere: a bound, so that they cannot make up for lost ones), SHUTDOWN (0 or 1),
 * CANCELLED_THREADS (how many waiters may be cancelled), SECOND_WAITS (of the first task).
 * Faults (-D, one at a time) break the protocol in the ways that tools/test-model lists.
 */

#ifndef WORKERS
#define WORKERS 2
#endif
#ifndef TASKS
#define TASKS 2
#endif
#ifndef SUBMITTERS
#define SUBMITTERS 2
#endif
#ifndef WAITERS
#define WAITERS 1
#endif
#ifndef CANCELLERS
#define CANCELLERS 1
#endif
#ifndef SPURIOUS
#define SPURIOUS 1
#endif
#ifndef SHUTDOWN
#define SHUTDOWN 1
#endif

#ifndef CANCELLED_THREADS
#define CANCELLED_THREADS 1
#endif

#ifndef SECOND_WAITS
#define SECOND_WAITS 0
#endif

#define NONE 255

/* SubmittedTasksQueue */
bool queueMutex;
bool closed;
bool queued[TASKS];

/* SubmittedTask */
mtype = { UNSCHEDULED, EXECUTING, CANCELLED, DONE };
mtype state[TASKS] = UNSCHEDULED;
bool hasResult[TASKS];
bool posted[TASKS];  /* The waiter's semaphore, on its stack. */
bool hasStack[TASKS];
byte cancelledThreads = CANCELLED_THREADS;

/* TaskEnd: the one word that says who waits, or one of its marks. */
#define NOBODY 0
#define WAITER 1
#define LEFT 2
#define FULFILLED 3
#define OVER 4
#define HAS_ENDED(t) (end[t] == FULFILLED || end[t] == OVER)
byte end[TASKS];

/* TaskExecutorWorker */
bool terminated[WORKERS];
bool ended[WORKERS];
byte currentTask[WORKERS] = NONE;
bool asleep[WORKERS];  /* In condition.wait, and not notified. */
byte wakeUpsFromNowhere = SPURIOUS;

/* What the properties need to know; the code has none of it. */
bool submitted[TASKS];   /* addTask has returned a handle. */
bool answered[TASKS];  /* addTask has returned, with a handle or without. */
byte holders[TASKS];     /* Strong references. */
bool taken[TASKS];       /* A worker has fetched it. */
bool dropped[TASKS];     /* By close(), or added behind it. */
bool waiting[TASKS];
byte waits[TASKS];       /* That were not refused. */
bool busy[WORKERS];
bool joined;

inline checkConservation() {
    d_step {
        byte sleepers = 0;
        byte onTheirWay = 0;
        byte queuedTasks = 0;
        byte n = 0;
        do
        :: n < WORKERS ->
            if
            :: asleep[n] -> sleepers++
            :: !asleep[n] && !busy[n] && !ended[n] -> onTheirWay++
            :: else
            fi;
            n++
        :: else -> break
        od;
        n = 0;
        do
        :: n < TASKS -> queuedTasks = queuedTasks + queued[n]; n++
        :: else -> break
        od;
        assert(closed || sleepers == 0 || queuedTasks <= onTheirWay);
        sleepers = 0;
        onTheirWay = 0;
        queuedTasks = 0;
        n = 0
    }
}

/* Up to four tasks and three workers. */
#define HAS_NO_TASKS \
    (!(queued[0] || queued[1 % TASKS] || queued[2 % TASKS] || queued[3 % TASKS]))
#define NOBODY_SLEEPS (!(asleep[0] || asleep[1 % WORKERS] || asleep[2 % WORKERS]))

inline notifyOne() {
    atomic {
        if
        :: asleep[0] -> asleep[0] = false
#if WORKERS > 1
        :: asleep[1] -> asleep[1] = false
#endif
#if WORKERS > 2
        :: asleep[2] -> asleep[2] = false
#endif
        :: NOBODY_SLEEPS -> skip
        fi
    }
}

inline notifyAll() {
    d_step {
        byte each = 0;
        do
        :: each < WORKERS -> asleep[each] = false; each++
        :: else -> break
        od;
        each = 0
    }
}

/* SubmittedTasksQueue::addTask */
inline addTask(t) {
    if
    :: atomic { closed -> answered[t] = true }
    :: atomic { !closed -> holders[t]++ };
#ifdef NOTIFY_BEFORE_PUSH
        notifyOne();
#endif
        atomic {
            !queueMutex ->
            queued[t] = true;
            dropped[t] = closed;
#if !defined(NOTIFY_BEFORE_PUSH) && !defined(NO_NOTIFY)
            notifyOne();
#endif
#ifndef NOTIFY_BEFORE_PUSH
            checkConservation();
#endif
            submitted[t] = true;
            answered[t] = true
        }
    fi
}

proctype submitter(byte first) {
    byte t = first;
    do
    :: t < TASKS -> addTask(t); t = t + SUBMITTERS
    :: else -> break
    od
}

/* TaskHandle::cancel, over SubmittedTask::cancel and setState */
proctype canceller(byte t) {
    atomic {
        answered[t] ->
        if
        :: submitted[t] && holders[t] > 0 -> state[t] = CANCELLED
        :: else
        fi
    }
}

/* TaskHandle::waitForCompletion, over TaskEnd::wait */
proctype waiter(byte t) {
    byte found = NOBODY;
    atomic {
        answered[t] ->
        if
        :: submitted[t] && holders[t] > 0 -> holders[t]++
        :: else -> goto done
        fi
    }
    /* TaskEnd::retrieve */
    atomic {
        found = end[t];
#ifdef WAIT_WITHOUT_EXCHANGE
    };
    atomic {
#endif
        if
        :: found == NOBODY ->
            end[t] = WAITER;
            hasStack[t] = true;
            waiting[t] = true;
            assert(waits[t] == 0);
            waits[t]++
        :: else
        fi
    };
    if
    :: found == NOBODY
    :: atomic { found != NOBODY ->
            if
            :: found == FULFILLED && end[t] == FULFILLED ->
                assert(hasResult[t]);
                assert(waits[t] == 0);
#ifndef LATE_WAIT_LEAVES_NO_MARK
                end[t] = OVER;
#endif
                waits[t]++
            :: else ->
                assert(waits[t] == 1)  /* Refused. */
            fi;
            holders[t]--;
            goto done
        }
    fi;
end_wait:
    if
    :: atomic { posted[t] -> assert(hasResult[t]) }
    :: atomic { cancelledThreads > 0 -> cancelledThreads--; waiting[t] = false };
#ifndef CANCELLED_WAIT_LEFT_BEHIND
#ifdef TAKEN_BACK_WITHOUT_EXCHANGE
        if
        :: end[t] == WAITER -> end[t] = LEFT
        :: end[t] != WAITER -> posted[t]
        fi
#else
        if
#ifdef CANCELLED_WAIT_LEAVES_NO_MARK
        :: atomic { end[t] == WAITER -> end[t] = NOBODY }
#else
        :: atomic { end[t] == WAITER -> end[t] = LEFT }
#endif
        :: atomic { end[t] != WAITER };
#ifndef CANCELLED_WAITER_LEAVES_BEFORE_POST
            posted[t]
#endif
        fi
#endif
#endif
    fi;
    atomic { waiting[t] = false; hasStack[t] = false; holders[t]-- }
done:
    skip
}

/* TaskEnd::fulfil, without a promise that the application has asked for */
inline setPromiseValue(t) {
    atomic {
        assert(holders[t] > 0);
        assert(hasResult[t]);
        assert(!HAS_ENDED(t));
        wasWaited = end[t] != NOBODY;
        isAwaited = end[t] == WAITER;
#ifdef FULFILLED_WITHOUT_EXCHANGE
    };
    atomic {
#endif
#ifdef END_FORGETS_THE_WAIT
        wasWaited = false;
#endif
        end[t] = (wasWaited -> OVER : FULFILLED);
        wasWaited = false
    };
    if
    :: atomic { isAwaited -> assert(hasStack[t]); posted[t] = true; isAwaited = false }
    :: else
    fi
}

/* SubmittedTask::performCallback */
inline performCallback(t) {
    assert(HAS_ENDED(t) && (!waiting[t] || posted[t]))
}

inline release(self) {
    if
    :: currentTask[self] != NONE -> holders[currentTask[self]]--; currentTask[self] = NONE
    :: else
    fi
}

/* SubmittedTasksQueue::getNextTask, and the assignment in TaskExecutorWorker::fetchTask that
   releases a cancelled task that was skipped. */
inline fetchTask(self) {
    if
#ifdef SKIPPED_TASK_KEPT
    :: closed
#else
    :: atomic { closed -> release(self) }
#endif
    :: !closed ->
        atomic {
            !queueMutex ->
            if
            :: queued[0] -> next = 0
#if TASKS > 1
            :: queued[1] -> next = 1
#endif
#if TASKS > 2
            :: queued[2] -> next = 2
#endif
#if TASKS > 3
            :: queued[3] -> next = 3
#endif
            :: HAS_NO_TASKS -> next = NONE
            fi;
            if
            :: next != NONE ->
                queued[next] = false;
                assert(!taken[next]);
                taken[next] = true;
                busy[self] = true;
                release(self);
                currentTask[self] = next
            :: else ->
#ifndef SKIPPED_TASK_KEPT
                release(self)
#endif
            fi;
            next = NONE;
            checkConservation()
        }
    fi
}

/* SubmittedTask::execute up to the promise, for work that takes its time and succeeds */
inline execute(t) {
    state[t] = EXECUTING;
    atomic {
        hasResult[t] = true;
        if
        :: state[t] != CANCELLED -> state[t] = DONE
        :: else
        fi
    }
}

/* TaskExecutorWorker::runTask */
inline runTask(self) {
    if
    :: atomic { state[currentTask[self]] == CANCELLED -> hasResult[currentTask[self]] = true };
#ifndef SKIPPED_TASK_NOT_FULFILLED
        setPromiseValue(currentTask[self]);
#endif
        busy[self] = false
    :: state[currentTask[self]] != CANCELLED ->
#ifdef PROMISE_BEFORE_RESULT
        setPromiseValue(currentTask[self]);
        execute(currentTask[self]);
#else
        execute(currentTask[self]);
#ifdef CALLBACK_BEFORE_PROMISE
        performCallback(currentTask[self]);
#endif
        setPromiseValue(currentTask[self]);
#endif
        atomic {
#ifndef CALLBACK_BEFORE_PROMISE
            performCallback(currentTask[self]);
#endif
            release(self);
            busy[self] = false
        }
    fi
}

/* condition.wait: frees the lock and falls asleep in one step; wakes when notified, or from
   nowhere. To take the lock again only to free it is no step of its own. */
inline conditionWait(self) {
    atomic {
        asleep[self] = true;
        queueMutex = false;
        checkConservation()
    }
end_asleep:
    atomic {
        if
        :: !asleep[self] && !queueMutex
        :: asleep[self] && wakeUpsFromNowhere > 0 && !queueMutex ->
            wakeUpsFromNowhere--;
            asleep[self] = false
        fi
    }
}

/* TaskExecutorWorker::run, with waitForWork */
proctype worker(byte self) {
    byte next = NONE;
    bool isAwaited = false;
    bool wasWaited = false;
    do
    :: terminated[self] -> break
    :: !terminated[self] ->
        fetchTask(self);
        if
        :: currentTask[self] != NONE -> runTask(self)
        :: else ->
#ifdef CLOSED_TEST_BEFORE_LOCK
            if
            :: closed -> break
            :: else
            fi;
            atomic { !queueMutex -> queueMutex = true };
#else
            atomic { !queueMutex -> queueMutex = true };
            if
            :: atomic { closed -> queueMutex = false; break }
            :: !closed
            fi;
#endif
            if
#ifndef NO_CHECK_BEFORE_WAIT
            :: atomic { !HAS_NO_TASKS -> queueMutex = false }
            :: HAS_NO_TASKS ->
#else
            :: true ->
#endif
                conditionWait(self)
            fi
        fi
    od;
    atomic { ended[self] = true; release(self) }
}

inline dropAll() {
    d_step {
        byte each_ = 0;
        do
        :: each_ < TASKS ->
            if
            :: queued[each_] -> queued[each_] = false; dropped[each_] = true; holders[each_]--
            :: else
            fi;
            each_++
        :: else -> break
        od;
        each_ = 0
    }
}

/* SubmittedTasksQueue::close */
inline close() {
#ifdef CLOSE_WITHOUT_LOCK
    closed = true;
    notifyAll();
#endif
    atomic {
        !queueMutex ->
        closed = true;
        dropAll();
#ifdef NOTIFY_ONE_ON_CLOSE
        notifyOne()
#else
#ifndef CLOSE_WITHOUT_LOCK
        notifyAll()
#endif
#endif
    }
}

/* ~TaskExecutorImpl: shutDown, with TaskExecutorWorker::terminate */
proctype owner() {
    byte w = 0;
#ifndef TERMINATE_BEFORE_CLOSE
    close();
#endif
    do
    :: w < WORKERS ->
        terminated[w] = true;
        atomic { ended[w] -> w++ }  /* join */
    :: else -> break
    od;
#ifdef TERMINATE_BEFORE_CLOSE
    close();
#endif
    joined = true
}

/* Moves only when nothing else can. */
proctype judge() {
    byte t = 0;
end_judge:
    timeout ->
#if SHUTDOWN
    assert(joined);
#endif
    do
    :: t < TASKS ->
        assert(answered[t]);
        assert(!waiting[t] || dropped[t]);
        assert(!submitted[t] || dropped[t] || HAS_ENDED(t));
        assert(holders[t] == waiting[t] + queued[t]);
        t++
    :: else -> break
    od
}

init {
    byte i = 0;
    atomic {
        do
        :: i < WORKERS -> run worker(i); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < SUBMITTERS -> run submitter(i); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < WAITERS -> run waiter(i); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < SECOND_WAITS -> run waiter(0); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < CANCELLERS -> run canceller(TASKS - 1 - i); i++
        :: else -> break
        od;
#if SHUTDOWN
        run owner();
#endif
        run judge();
        i = 0
    }
}
