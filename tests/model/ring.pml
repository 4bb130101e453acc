/*
 * The ring of RecentLinesLogHandler: threads that keep lines, some that write the ring out.
 *
 * One word of each place says who has it: it is empty, holds the line with a ticket and is being
 * read by so many, or is being filled. Tickets are not reused here: the code hands them out again
 * after so many that no thread can be that late.
 *
 * Checked:
 *   - whoever fills a place is alone with it, and whoever reads it is among readers only;
 *   - a line that is written out is the one of its ticket, whole;
 *   - the lines of a dump rise, and so does each thread's ticket from line to line;
 *   - a line does not take the place of a later one;
 *   - at the end no place is held, and if nobody was in anybody's way the last lines are all there.
 *
 * Sizes (-D): PLACES, WRITERS, LINES (by each), READERS, DUMPS (by each).
 * Faults (-D, one at a time) break the ring in the ways that tools/test-model lists.
 */

#ifndef PLACES
#define PLACES 2
#endif
#ifndef WRITERS
#define WRITERS 2
#endif
#ifndef LINES
#define LINES 2
#endif
#ifndef READERS
#define READERS 1
#endif
#ifndef DUMPS
#define DUMPS 1
#endif

/* Place::word, taken apart. It changes in one step. */
bool filled[PLACES];  /* Somebody is filling it; then the other two mean nothing. */
byte ticketOf[PLACES];  /* 0: empty. */
byte readersOf[PLACES];

/* Place::text, in two halves: the ticket stands for the text. */
byte firstHalf[PLACES];
byte secondHalf[PLACES];

byte lastTicket;

/* What the properties need to know; the code has none of it. */
byte fillers[PLACES];
byte lookers[PLACES];
bool inTheWay;

#define PLACE(ticket) (((ticket) - 1) % PLACES)

/* Ring::claim and Place::fill */
inline keep() {
    tries = 0;
    isOver = false;
    do
    :: !isOver && tries < PLACES ->
        atomic {
            lastTicket++;
            ticket = lastTicket;
            place = PLACE(ticket)
        }
#ifdef CLAIM_IN_TWO_STEPS
        isFree = !filled[place] && readersOf[place] == 0 && ticketOf[place] < ticket;
        atomic {
            if
            :: isFree -> filled[place] = true
            :: else -> tries++; inTheWay = true
            fi
        }
#else
        atomic {
            isFree = false;
            if
#ifndef CLAIM_WHAT_IS_FILLED
            :: filled[place] -> tries++; inTheWay = true
#endif
#ifndef CLAIM_WHAT_IS_READ
            :: !filled[place] && readersOf[place] > 0 -> tries++; inTheWay = true
#endif
#ifndef CLAIM_TOO_LATE
            :: !filled[place] && readersOf[place] == 0 && ticketOf[place] > ticket ->
                isOver = true; inTheWay = true
#endif
            :: else ->
                assert(filled[place] || ticketOf[place] < ticket);
                isFree = true;
                filled[place] = true
            fi
        }
#endif
        if
        :: isFree ->
            isOver = true;
#ifdef PUBLISH_BEFORE_COPY
            atomic { filled[place] = false; ticketOf[place] = ticket; readersOf[place] = 0 };
#endif
            atomic { assert(fillers[place] == 0 && lookers[place] == 0); fillers[place]++ };
            firstHalf[place] = ticket;
            secondHalf[place] = ticket;
            fillers[place]--;
#ifndef PUBLISH_BEFORE_COPY
            atomic { filled[place] = false; ticketOf[place] = ticket; readersOf[place] = 0 }
#endif
        :: else
        fi
    :: else -> break
    od
}

/* Reader::Reader, for the line with `ticket` in `place` */
inline hold() {
#ifdef HOLD_IN_TWO_STEPS
    isHolding = !filled[place] && ticketOf[place] == ticket;
    if
    :: isHolding -> readersOf[place]++
    :: else
    fi
#else
    atomic {
#ifdef HOLD_WHATEVER_IS_THERE
        isHolding = !filled[place] && ticketOf[place] != 0;
#else
        isHolding = !filled[place] && ticketOf[place] == ticket;
#endif
        if
#ifndef READ_WITHOUT_HOLDING
        :: isHolding -> readersOf[place]++
#endif
        :: else
        fi
    }
#endif
}

proctype writer() {
    byte line, tries, ticket, place;
    bool isFree, isOver;
    for (line : 1 .. LINES) {
        keep()
    }
}

proctype reader() {
    byte dump, step, ticket, place, shown, shownLast;
    byte last;
    bool isHolding;
    for (dump : 1 .. DUMPS) {
        atomic { last = lastTicket; shownLast = 0 };
        for (step : 1 .. PLACES) {
            /* Those before the first ticket are none. */
            if
            :: last + step > PLACES ->
#ifdef NEWEST_FIRST
                ticket = last + 1 - step;
#else
                ticket = last + step - PLACES;
#endif
                place = PLACE(ticket);
                hold();
                if
                :: isHolding ->
                    atomic { assert(fillers[place] == 0); lookers[place]++ };
                    shown = firstHalf[place];
                    assert(shown > shownLast);
                    assert(shown == ticket);
                    assert(shown == secondHalf[place]);
                    shownLast = shown;
                    lookers[place]--;
#ifndef READ_WITHOUT_HOLDING
#ifdef LETS_ALL_READERS_GO
                    readersOf[place] = 0
#else
                    atomic { assert(readersOf[place] > 0); readersOf[place]-- }
#endif
#endif
                :: else
                fi
            :: else
            fi
        }
    }
}

init {
    byte count, place;
    atomic {
        for (count : 1 .. WRITERS) {
            run writer()
        }
        for (count : 1 .. READERS) {
            run reader()
        }
    }
    _nr_pr == 1;
    for (place : 0 .. PLACES - 1) {
        assert(!filled[place] && readersOf[place] == 0);
        assert(firstHalf[place] == ticketOf[place] && secondHalf[place] == ticketOf[place]);
        assert(inTheWay || lastTicket < PLACES || ticketOf[place] + PLACES > lastTicket)
    }
}
