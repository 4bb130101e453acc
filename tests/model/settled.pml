/*
 * How a queue that has stopped walking a task learns of its new rank: SubmittedTask::setRank on any
 * thread, and SettledTasks with the part of SubmittedTasksQueue that calls it.
 *
 * Everything but setRank and SettledTasks::noteNewRank runs with the queue's lock held, so one
 * process stands for all threads that add, pick and close. Which task a pick takes is left open.
 * Ranks are 1, 2 and FINAL; the strategy doubles them (or, with -DKEPT, keeps them, and then every
 * rank is final).
 *
 * Checked:
 *   - a pick that starts after setRank has returned compares the task by the rank that was set;
 *   - a task whose rank the strategy will still change is walked by that pick, and so doubled;
 *   - the stack holds only tasks that are settled here, which the queue keeps alive;
 *   - after the last pick nothing is left on the stack, and no task is both here and there.
 *
 * A rank that is set between the strategy's reading and writing of it is overwritten: that is
 * allowed, and so the stored rank itself, not the one asked for, is what a pick must see.
 *
 * Sizes (-D): TASKS, SETTERS, SETS (calls of setRank by each setter), STEPS (of the queue).
 * Faults (-D, one at a time) break the protocol in the ways that tools/test-model lists.
 */

#ifndef TASKS
#define TASKS 2
#endif
#ifndef SETTERS
#define SETTERS 2
#endif
#ifndef SETS
#define SETS 1
#endif
#ifndef STEPS
#define STEPS 4
#endif

#define FINAL 4
#define NONE 255

#ifdef KEPT
#define IS_FINAL(value) true
#else
#define IS_FINAL(value) ((value) == FINAL)
#endif

/* SubmittedTask */
byte rank[TASKS] = 1;
bool taskMutex[TASKS];
bool settled[TASKS];
bool hasNewRank[TASKS];
byte nextChanged[TASKS] = NONE;

/* SettledTasks::places and changed */
bool isPlaced[TASKS];
byte changed = NONE;

/* What the properties need to know; the code has none of it. */
byte underWay[TASKS];  /* Calls of setRank that have stored, but not returned. */
bool touched[TASKS];   /* One stored since the pick began, or was under way then. */
byte settersDone;

#define ACCESS(task) assert(isPlaced[task])
#define LOCK(mutex) atomic { !mutex -> mutex = true }

/* SettledTasks::pushChanged */
inline pushChanged(it, seen) {
#ifdef PUSH_WITHOUT_EXCHANGE
    seen = changed;
    ACCESS(it);
    nextChanged[it] = seen;
    ACCESS(it);
    atomic { changed = it; seen = NONE }
#else
    atomic { ACCESS(it); nextChanged[it] = changed };
    do
    :: atomic {
        changed == nextChanged[it] -> ACCESS(it); changed = it; break
    }
    :: atomic {
        changed != nextChanged[it] -> ACCESS(it); nextChanged[it] = changed
    }
    od
#endif
}

/* SettledTasks::noteNewRank */
inline noteNewRank(it, seen) {
    ACCESS(it);
    if
    :: !hasNewRank[it] ->
        hasNewRank[it] = true;
        pushChanged(it, seen)
    :: else
    fi
}

/* SubmittedTask::setRank, told the clamped value */
inline setRank(t, value) {
#ifdef LOOK_BEFORE_STORE
    isSettled = settled[t];
    atomic { rank[t] = value; underWay[t]++; touched[t] = true };
#else
    atomic { rank[t] = value; underWay[t]++; touched[t] = true };
    isSettled = settled[t];
#endif
    if
    :: isSettled ->
#ifndef NOTE_WITHOUT_MUTEX
        LOCK(taskMutex[t]);
        isSettled = settled[t];
#endif
        if
        :: isSettled -> noteNewRank(t, seen)
        :: else
        fi;
#ifndef NOTE_WITHOUT_MUTEX
        taskMutex[t] = false
#endif
    :: else
    fi;
    atomic { isSettled = false; underWay[t]-- }
}

proctype setter() {
    bool isSettled = false;
    byte seen = NONE;
    byte sets = 0;
    byte t = 0;
    byte value = 0;
    do
    :: sets < SETS ->
        atomic {
            select(t : 0 .. (TASKS - 1));
            if
            :: value = 1
            :: value = 2
            :: value = FINAL
            fi
        }
        setRank(t, value);
        atomic { t = 0; value = 0; sets++ }
    :: else -> break
    od;
    settersDone++
}

/* SettledTasks::add */
inline settle(t) {
    LOCK(taskMutex[t]);
    if
    :: !settled[t] ->
        atomic { settledRank[t] = rank[t]; isPlaced[t] = true };
        settled[t] = true;
#ifndef NO_SECOND_LOOK
        if
        :: settledRank[t] != rank[t] -> noteNewRank(t, seen)
#ifdef SECOND_LOOK_FOR_CHANGES_ONLY
        :: else
#else
        :: else ->
            if
            :: !IS_FINAL(settledRank[t]) -> noteNewRank(t, seen)
            :: else
            fi
#endif
        fi;
#endif
        atomic { unsettled[t] = false; isFinal[t] = false }
    :: else
    fi;
    taskMutex[t] = false
}

/* SettledTasks::removeChanged */
inline removeChanged(gone) {
    atomic { other = changed; changed = NONE };
    do
    :: other != NONE ->
        atomic { ACCESS(other); after = nextChanged[other] };
        if
        :: other != gone -> pushChanged(other, seen)
        :: else
        fi;
        atomic { other = after; after = NONE }
    :: else -> break
    od
}

/* SettledTasks::remove */
inline remove(t) {
    if
    :: settled[t] ->
#ifndef REMOVE_WITHOUT_MUTEX
        LOCK(taskMutex[t]);
#endif
        settled[t] = false;
#ifdef CHANGED_TASK_LEFT_ON_STACK
        hasNewRank[t] = false;
#else
        atomic { isOnStack = hasNewRank[t]; hasNewRank[t] = false };
#endif
        if
        :: isOnStack -> removeChanged(t)
        :: else
        fi;
#ifndef REMOVE_WITHOUT_MUTEX
        taskMutex[t] = false;
#endif
        atomic { isOnStack = false; isPlaced[t] = false }
    :: else
    fi
}

/* SettledTasks::rekey */
inline rekey(t) {
#ifdef RESET_AFTER_READ
    newRank = rank[t];
    LOCK(taskMutex[t]);
    atomic { ACCESS(t); hasNewRank[t] = false; taskMutex[t] = false };
#else
    LOCK(taskMutex[t]);
    atomic { ACCESS(t); hasNewRank[t] = false; taskMutex[t] = false };
    newRank = rank[t];
#endif
    if
    :: !IS_FINAL(newRank) -> unsettled[t] = true; remove(t)
    :: else -> settledRank[t] = newRank
    fi;
    newRank = 0
}

/* SettledTasks::rekeyChanged */
inline rekeyChanged() {
    atomic { walked = changed; changed = NONE };
    do
    :: walked != NONE ->
#ifdef NEXT_READ_LATE
        rekey(walked);
        atomic { ACCESS(walked); following = nextChanged[walked] };
#else
        atomic { ACCESS(walked); following = nextChanged[walked] };
        rekey(walked);
#endif
        atomic { walked = following; following = NONE }
    :: else -> break
    od
}

inline checkRanks() {
    d_step {
        byte n = 0;
        do
        :: n < TASKS ->
            if
            :: settled[n] && !touched[n] ->
                assert(settledRank[n] == rank[n]);
                assert(IS_FINAL(rank[n]))
            :: else
            fi;
            assert(!(unsettled[n] && settled[n]));
            assert(settled[n] == isPlaced[n]);
            n++
        :: else -> break
        od;
        n = 0
    }
}

/* RankRule::doubleRank, or nothing, and isFinal */
inline updateRank(t) {
#ifndef KEPT
    doubled = (rank[t] * 2 < FINAL -> rank[t] * 2 : FINAL);
    atomic {
        rank[t] = doubled;
        isFinal[t] = IS_FINAL(doubled);
        doubled = 0
    }
#else
    isFinal[t] = IS_FINAL(rank[t])
#endif
}

/* SubmittedTasksQueue::addTask */
inline addTask(t) {
    unsettled[t] = true;
    if
    :: IS_FINAL(rank[t]) -> settle(t)
    :: !IS_FINAL(rank[t])
    fi
}

/* SubmittedTasksQueue::getNextTask */
inline getNextTask() {
    d_step {
        byte m = 0;
        do
        :: m < TASKS -> touched[m] = (underWay[m] > 0); m++
        :: else -> break
        od;
        m = 0
    }
    rekeyChanged();
    checkRanks();
    t = 0;
    do
    :: t < TASKS ->
        if
        :: unsettled[t] -> updateRank(t)
        :: else
        fi;
        t++
    :: else -> break
    od;
    atomic {
        if
        :: unsettled[0] || settled[0] -> t = 0
#if TASKS > 1
        :: unsettled[1] || settled[1] -> t = 1
#endif
#if TASKS > 2
        :: unsettled[2] || settled[2] -> t = 2
#endif
        :: t = NONE  /* Two more picks of a task that stays say more than taking it. */
        fi
    }
    if
    :: t != NONE ->
        remove(t);
        atomic { unsettled[t] = false; isFinal[t] = false }
    :: else
    fi;
    t = 0;
    do
    :: t < TASKS ->
        if
        :: unsettled[t] && isFinal[t] -> settle(t)
        :: else
        fi;
        t++
    :: else -> break
    od;
    t = 0
}

/* SubmittedTasksQueue::close, with SettledTasks::takeAll */
inline close() {
    t = 0;
    do
    :: t < TASKS ->
#ifndef CLOSE_LEAVES_SETTLED
        if
        :: settled[t] ->
            LOCK(taskMutex[t]);
            settled[t] = false;
            hasNewRank[t] = false;
            taskMutex[t] = false
        :: else
        fi;
#endif
        t++
    :: else -> break
    od;
    changed = NONE;
    atomic {
        t = 0;
        do
        :: t < TASKS -> isPlaced[t] = false; unsettled[t] = false; t++
        :: else -> break
        od;
        t = 0
    }
}

proctype queue() {
    bool unsettled[TASKS];  /* SubmittedTasksQueue::tasks */
    bool isFinal[TASKS];
    byte settledRank[TASKS];
    byte newRank = 0;
    bool isOnStack = false;
    byte t = 0;
    byte seen = NONE;
    byte other = NONE;
    byte after = NONE;
    byte walked = NONE;
    byte following = NONE;
    byte doubled = 0;
    byte steps = 0;
    do
    :: steps < STEPS ->
        if
        :: !unsettled[0] && !settled[0] -> addTask(0)
#if TASKS > 1
        :: !unsettled[1] && !settled[1] -> addTask(1)
#endif
#if TASKS > 2
        :: !unsettled[2] && !settled[2] -> addTask(2)
#endif
        :: getNextTask()
        fi;
        steps++
    :: true -> break
    od;
    if
    :: close()
    :: settersDone == SETTERS ->
        /* Nobody sets a rank any more: one pick settles every account. */
        getNextTask();
        assert(changed == NONE)
    fi
}

init {
    byte i = 0;
    atomic {
        do
        :: i < SETTERS -> run setter(); i++
        :: else -> break
        od;
        run queue();
        i = 0
    }
}
