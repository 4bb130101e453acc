/*
 * How a queue that has stopped walking a task learns of its new rank: SubmittedTask::setRank on any
 * thread, and SettledTasks with the part of SubmittedTasksQueue that calls it.
 *
 * Everything but setRank and SettledPlace::noteNewRank runs with the queue's lock held, so one
 * process stands for all threads that add, pick and close. Which task a pick takes is left open.
 * Ranks are 1, 2 and FINAL; the strategy doubles them (or, with -DKEPT, keeps them, and then every
 * rank is final).
 *
 * Checked:
 *   - a pick that starts after setRank has returned compares the task by the rank that was set;
 *   - a task whose rank the strategy will still change is walked by that pick, and so doubled;
 *   - no place is touched after it was erased, or put on the stack twice;
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

/* A task has a new place each time it settles: place t + TASKS * n is the nth of task t. */
#define PLACES (TASKS * (STEPS + 2))
#define TASK_OF(place) ((place) % TASKS)

#ifdef KEPT
#define IS_FINAL(value) true
#else
#define IS_FINAL(value) ((value) == FINAL)
#endif

/* SubmittedTask */
byte rank[TASKS] = 1;
bool taskMutex[TASKS];
byte settled[TASKS] = NONE;  /* A place. */

/* SettledPlace */
bool inPlaces[PLACES];
bool hasNewRank[PLACES];
byte nextChanged[PLACES] = NONE;

/* SettledTasks::changed */
byte changed = NONE;

/* What the properties need to know; the code has none of it. */
byte underWay[TASKS];  /* Calls of setRank that have stored, but not returned. */
bool touched[TASKS];   /* One stored since the pick began, or was under way then. */
byte settersDone;

#define ACCESS(place) assert(inPlaces[place])
#define LOCK(mutex) atomic { !mutex -> mutex = true }

/* SettledTasks::pushChanged */
inline pushChanged(place, seen) {
#ifdef PUSH_WITHOUT_EXCHANGE
    seen = changed;
    ACCESS(place);
    nextChanged[place] = seen;
    ACCESS(place);
    atomic { changed = place; seen = NONE }
#else
    atomic { ACCESS(place); nextChanged[place] = changed };
    do
    :: atomic {
        changed == nextChanged[place] -> ACCESS(place); changed = place; break
    }
    :: atomic {
        changed != nextChanged[place] -> ACCESS(place); nextChanged[place] = changed
    }
    od
#endif
}

/* SettledPlace::noteNewRank */
inline noteNewRank(place, seen) {
    ACCESS(place);
    if
    :: !hasNewRank[place] ->
        hasNewRank[place] = true;
        pushChanged(place, seen)
    :: else
    fi
}

/* SubmittedTask::setRank, told the clamped value */
inline setRank(t, value) {
#ifdef LOOK_BEFORE_STORE
    place = settled[t];
    atomic { rank[t] = value; underWay[t]++; touched[t] = true };
#else
    atomic { rank[t] = value; underWay[t]++; touched[t] = true };
    place = settled[t];
#endif
    if
    :: place != NONE ->
#ifndef NOTE_WITHOUT_MUTEX
        LOCK(taskMutex[t]);
        place = settled[t];
#endif
        if
        :: place != NONE -> noteNewRank(place, seen)
        :: else
        fi;
#ifndef NOTE_WITHOUT_MUTEX
        taskMutex[t] = false
#endif
    :: else
    fi;
    atomic { place = NONE; underWay[t]-- }
}

proctype setter() {
    byte place = NONE;
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
    :: settled[t] == NONE ->
        place = t + TASKS * usedPlaces[t];
        atomic {
            usedPlaces[t]++;
            assert(place < PLACES);
            urgency[place] = rank[t];
            inPlaces[place] = true
        }
        settled[t] = place;
#ifndef NO_SECOND_LOOK
        if
#ifdef SECOND_LOOK_AT_SCORE_ONLY
        :: urgency[place] != rank[t] -> noteNewRank(place, seen)
        :: else
#else
        :: !IS_FINAL(rank[t]) -> noteNewRank(place, seen)
        :: else ->
            if
            :: urgency[place] != rank[t] -> noteNewRank(place, seen)
            :: else
            fi
#endif
        fi;
#endif
        atomic { unsettled[t] = false; isFinal[t] = false; place = NONE }
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
#ifndef REMOVE_WITHOUT_MUTEX
    LOCK(taskMutex[t]);
#endif
    atomic { leaving = settled[t]; settled[t] = NONE };
#ifndef REMOVE_WITHOUT_MUTEX
    taskMutex[t] = false;
#endif
    if
    :: leaving != NONE ->
        if
#ifndef CHANGED_PLACE_LEFT_ON_STACK
        :: hasNewRank[leaving] -> removeChanged(leaving)
#endif
        :: else
        fi;
        atomic { inPlaces[leaving] = false; leaving = NONE }
    :: else
    fi
}

/* SettledTasks::rekey */
inline rekey(t, it) {
#ifdef RESET_AFTER_READ
    atomic { ACCESS(it); urgency[it] = rank[t] };
    LOCK(taskMutex[t]);
    atomic { ACCESS(it); hasNewRank[it] = false; taskMutex[t] = false };
#else
    LOCK(taskMutex[t]);
    atomic { ACCESS(it); hasNewRank[it] = false; taskMutex[t] = false };
    atomic { ACCESS(it); urgency[it] = rank[t] };
#endif
    if
    :: atomic { !IS_FINAL(rank[t]) -> unsettled[t] = true }; remove(t)
    :: IS_FINAL(rank[t])
    fi
}

/* SettledTasks::rekeyChanged */
inline rekeyChanged() {
    atomic { walked = changed; changed = NONE };
    do
    :: walked != NONE ->
#ifdef NEXT_READ_LATE
        rekey(TASK_OF(walked), walked);
        atomic { ACCESS(walked); following = nextChanged[walked] };
#else
        atomic { ACCESS(walked); following = nextChanged[walked] };
        rekey(TASK_OF(walked), walked);
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
            :: settled[n] != NONE && !touched[n] ->
                assert(urgency[settled[n]] == rank[n]);
                assert(IS_FINAL(rank[n]))
            :: else
            fi;
            assert(!(unsettled[n] && settled[n] != NONE));
            n++
        :: else -> break
        od;
        n = 0
    }
}

/* SettledTasks::updateRank and isFinal */
inline updateRank(t) {
#ifndef KEPT
    doubled = rank[t] * 2;
    atomic {
        rank[t] = (doubled < FINAL -> doubled : FINAL);
        doubled = 0
    }
#endif
    isFinal[t] = IS_FINAL(rank[t])
}

/* SubmittedTasksQueue::addTask */
inline addTask(t) {
    added[t] = true;
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
        :: added[0] && (unsettled[0] || settled[0] != NONE) -> t = 0
#if TASKS > 1
        :: added[1] && (unsettled[1] || settled[1] != NONE) -> t = 1
#endif
#if TASKS > 2
        :: added[2] && (unsettled[2] || settled[2] != NONE) -> t = 2
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
        if
        :: settled[t] != NONE ->
#ifndef CLOSE_LEAVES_SETTLED
            LOCK(taskMutex[t]);
            place = settled[t];
            atomic { settled[t] = NONE; taskMutex[t] = false };
#else
            place = settled[t];
#endif
            atomic { dropped[t] = place; place = NONE }
        :: else
        fi;
        t++
    :: else -> break
    od;
    changed = NONE;
    atomic {
        t = 0;
        do
        :: t < TASKS ->
            if
            :: dropped[t] != NONE -> inPlaces[dropped[t]] = false
            :: else
            fi;
            unsettled[t] = false;
            t++
        :: else -> break
        od;
        t = 0
    }
}

proctype queue() {
    bool unsettled[TASKS];  /* SubmittedTasksQueue::tasks */
    bool isFinal[TASKS];
    bool added[TASKS];
    byte urgency[PLACES];   /* Of each SettledPlace. */
    byte usedPlaces[TASKS];
    byte t = 0;
    byte place = NONE;
    byte seen = NONE;
    byte other = NONE;
    byte after = NONE;
    byte leaving = NONE;
    byte walked = NONE;
    byte following = NONE;
    byte doubled = 0;
    byte steps = 0;
    byte dropped[TASKS] = NONE;
    do
    :: steps < STEPS ->
        if
        :: !added[0] -> addTask(0)
#if TASKS > 1
        :: !added[1] -> addTask(1)
#endif
#if TASKS > 2
        :: !added[2] -> addTask(2)
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
