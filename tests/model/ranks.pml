/*
 * The rank of a task: SubmittedTask::getRank() and setRank(), RankedTasks::insert(), setRank(),
 * rankOf() and pick(), under a strategy that doubles ranks. While a task is in RankedTasks, its rank
 * is computed: the flag COMPUTED is set in the rank, and the lock of RankedTasks guards what the
 * rank is computed from. Otherwise the rank is an atomic variable.
 *
 * One step stands for what the code does between two points at which another thread could notice the
 * difference: an access to an atomic variable, a lock, an unlock. What a lock guards is written in
 * several steps where the order matters, so that an access without the lock would be noticed.
 *
 * `stored` is the rank of a task if it were stored: a setter writes it, a pick doubles it. Checked
 * in every reachable state:
 *   - whoever asks for a rank gets what is stored at that moment;
 *   - a task that is computed has a home, and one home only;
 * and when nothing can move any more, the rank of each task is what is stored.
 *
 * Sizes (-D): TASKS, SETTERS, SETS (by each), GETTERS, PICKS, ADDERS (who add the same tasks).
 * Faults (-D, one at a time) break it in the ways that tools/test-model lists.
 */

#ifndef TASKS
#define TASKS 1
#endif
#ifndef SETTERS
#define SETTERS 2
#endif
#ifndef SETS
#define SETS 1
#endif
#ifndef GETTERS
#define GETTERS 1
#endif
#ifndef PICKS
#define PICKS 2
#endif
#ifndef ADDERS
#define ADDERS 1
#endif

#define COMPUTED 128
#define HIGHEST 12
#define GIVEN(word) ((word) & 127)
#define IS_COMPUTED(word) ((word) >= COMPUTED)
#define DOUBLED(rank) ((rank) * 2 > HIGHEST -> HIGHEST : (rank) * 2)

/* RankedEntry */
byte rank[TASKS] = 1;
byte since[TASKS];
bool hasHome[TASKS];
bool wasAdded[TASKS];

/* RankedTasks */
bool locked;
byte picks;

/* What the properties need to know. */
byte stored[TASKS] = 1;
bool isHere[TASKS];  /* In RankedTasks. */
byte ended;

inline lock() {
    atomic { !locked -> locked = true }
}

/* RankedTasks::computeRank: doubled at each pick since. */
inline computeRank(word, sincePick, result) {
    d_step {
        result = GIVEN(word);
        doublings = picks - sincePick;
        do
        :: doublings > 0 -> result = DOUBLED(result); doublings--
        :: else -> break
        od
    }
}

/* RankedTasks::insert */
proctype adder() {
    byte t = 0;
    byte seen;
    do
    :: t < TASKS ->
#ifdef ADDED_WITHOUT_EXCHANGE
        seen = wasAdded[t];
        wasAdded[t] = true;
#else
        atomic { seen = wasAdded[t]; wasAdded[t] = true };
#endif
        if
        :: !seen ->
#ifdef FLAG_BEFORE_LOCK
            rank[t] = rank[t] | COMPUTED;
#endif
            lock();
            assert(!hasHome[t]);
#ifdef FLAG_BEFORE_HOME
            rank[t] = rank[t] | COMPUTED;
#endif
            hasHome[t] = true;
#ifndef SINCE_LEFT
            since[t] = picks;
#endif
#ifdef FLAG_WITHOUT_EXCHANGE
            seen = rank[t];
            rank[t] = seen | COMPUTED;
#else
            rank[t] = rank[t] | COMPUTED;
#endif
            isHere[t] = true;
            locked = false
        :: else
        fi;
        seen = 0;
        t++
    :: else -> break
    od;
    ended++
}

/* RankedTasks::pick: any task, or none. */
proctype picker() {
    byte i = 0;
    byte t;
    byte doublings;
    byte value;
    do
    :: i < PICKS ->
#ifndef PICK_WITHOUT_LOCK
        lock();
#endif
        atomic {
#ifndef TAKEN_BEFORE_COUNT
            picks++;
#endif
            t = 0;
            do
            :: t < TASKS ->
                if
                :: isHere[t] -> stored[t] = DOUBLED(stored[t])
                :: else
                fi;
                t++
            :: else -> break
            od;
            t = 0
        };
        if
        :: isHere[0] -> t = 0; goto take
#if TASKS > 1
        :: isHere[1] -> t = 1; goto take
#endif
        :: true -> goto next
        fi;
    take:
        computeRank(rank[t], since[t], value);
        atomic { rank[t] = value; isHere[t] = false };
    next:
        t = 0;
        value = 0;
#ifdef TAKEN_BEFORE_COUNT
        picks++;
#endif
#ifndef PICK_WITHOUT_LOCK
        locked = false;
#endif
        i++
    :: else -> break
    od;
    ended++
}

/* SubmittedTask::setRank */
proctype setter(byte first) {
    byte i = 0;
    byte t;
    byte seen;
    byte wanted;
    do
    :: i < SETS ->
        wanted = first + i * SETTERS;
        if
        :: t = 0
#if TASKS > 1
        :: t = 1
#endif
        fi;
    again:
        seen = rank[t];
        if
        :: IS_COMPUTED(seen) ->
            assert(hasHome[t]);
#ifndef SET_WITHOUT_LOCK
            lock();
#endif
            if
#ifndef SET_WITHOUT_SECOND_LOOK
            :: !IS_COMPUTED(rank[t]) -> locked = false; goto again
            :: IS_COMPUTED(rank[t]) ->
#else
            :: true ->
#endif
                atomic { rank[t] = wanted | COMPUTED; stored[t] = wanted };
#ifndef SINCE_KEPT
                since[t] = picks;
#endif
#ifndef SET_WITHOUT_LOCK
                locked = false
#endif
            fi
        :: else ->
#ifdef SET_WITHOUT_EXCHANGE
            atomic { rank[t] = wanted; stored[t] = wanted }
#else
            atomic {
                if
                :: rank[t] == seen -> rank[t] = wanted; stored[t] = wanted
                :: else -> goto again
                fi
            }
#endif
        fi;
        seen = 0;
        t = 0;
        i++
    :: else -> break
    od;
    ended++
}

/* SubmittedTask::getRank */
proctype getter() {
    byte t;
    byte seen;
    byte value;
    byte doublings;
    if
    :: t = 0
#if TASKS > 1
    :: t = 1
#endif
    fi;
    atomic {
        seen = rank[t];
        assert(IS_COMPUTED(seen) || seen == stored[t])
    };
    if
    :: IS_COMPUTED(seen) ->
        assert(hasHome[t]);
#ifndef GET_WITHOUT_LOCK
        lock();
#endif
#ifndef GET_WITHOUT_SECOND_LOOK
        atomic {
            seen = rank[t];
            assert(IS_COMPUTED(seen) || seen == stored[t])
        };
#endif
        if
        :: IS_COMPUTED(seen) ->
            computeRank(seen, since[t], value);
            assert(value == stored[t])
        :: else
        fi;
#ifndef GET_WITHOUT_LOCK
        locked = false
#endif
    :: else
    fi;
    ended++
}

/* When all have ended. */
proctype judge() {
    byte t = 0;
    byte value;
    byte doublings;
    ended == SETTERS + GETTERS + ADDERS + 1;
    assert(!locked);
    do
    :: t < TASKS ->
        if
        :: IS_COMPUTED(rank[t]) -> computeRank(rank[t], since[t], value)
        :: else -> value = rank[t]
        fi;
        assert(value == stored[t]);
        t++
    :: else -> break
    od
}

init {
    byte i = 0;
    atomic {
        do
        :: i < ADDERS -> run adder(); i++
        :: else -> break
        od;
        run picker();
        i = 0;
        do
        :: i < SETTERS -> run setter(2 + i); i++
        :: else -> break
        od;
        i = 0;
        do
        :: i < GETTERS -> run getter(); i++
        :: else -> break
        od;
        run judge();
        i = 0
    }
}
