/*
 * A table that is made and released again and again while readers and writers come at any time,
 * late ones among them. The rule: look whether the table exists, lock, look again; making a table
 * does not write the locker's word; the release takes the write side, clears the pointer, gives the
 * lock up, and frees after that.
 *
 * Every process goes round for ever, so what holds here holds for any number of visits. Progress
 * is someone inside.
 */
#ifndef NUM_MARKED
#define NUM_MARKED 2
#endif
#ifndef NUM_READERS
#define NUM_READERS 1
#endif
#ifndef NUM_WRITERS
#define NUM_WRITERS 1
#endif
#include "locker.pml"

#define NO_TABLE 0

/* The pointer: none, or one of two places that a table may be at. */
byte table = NO_TABLE;
bool allocated[3];

inline use(place) {
    assert(allocated[place])
}

/* Under the lock: the table that the reader has computed its bucket in, if it is still there. */
inline lookAgain() {
#ifdef LOCK_BEFORE_LOOK
    seen = table;
#endif
    if
#ifdef WRONG_NO_SECOND_LOOK
    :: true -> use(seen)
#else
    :: seen != NO_TABLE && table == seen -> use(seen)
#endif
    :: else
    fi
}

/* A packet's lookup on a thread that has a mark. Declared first: its number is its mark's. */
active [NUM_MARKED] proctype Packet() {
    byte seen = NO_TABLE;
    bool marked = false;
    do
    ::
#ifndef LOCK_BEFORE_LOOK
       atomic {
           table != NO_TABLE;
           seen = table
       }
#endif
       packetLock();
progress:
       lookAgain();
       atomic {
           packetUnlock();
           seen = NO_TABLE
       }
    od
}

/* A query, or a packet on a thread that has none. */
active [NUM_READERS] proctype Reader() {
    byte seen = NO_TABLE;
    do
    ::
#ifndef LOCK_BEFORE_LOOK
       atomic {
           table != NO_TABLE;
           seen = table
       }
#endif
       readLock();
progress:
       lookAgain();
       atomic {
           readUnlock();
           seen = NO_TABLE
       }
    od
}

/* The marks' stores on their way to memory. */
active [NUM_MARKED] proctype StoreBuffer() {
    do
    :: arrive(_pid - NUM_MARKED - NUM_READERS)
    od
}

/* An operation or a sweep: it takes the table that there is when it has the lock. */
active [NUM_WRITERS] proctype Writer() {
    byte seen = NO_TABLE;
    byte thread = 0;
    do
    ::
#ifndef LOCK_BEFORE_LOOK
       table != NO_TABLE;
#endif
       writeLock();
progress:
       seen = table;
       if
       :: seen != NO_TABLE -> use(seen)
       :: else
       fi;
       atomic {
           writeUnlock();
           seen = NO_TABLE
       }
    od
}

/* Starts and stops. */
active proctype Lifecycle() {
    byte place = 1;
    byte thread = 0;
    do
    ::
#ifdef WRONG_CREATION_WRITES_WORD
       word = 0;
#endif
       atomic {
           allocated[place] = true;
           table = place
       }
#ifndef WRONG_RELEASE_WITHOUT_LOCK
       writeLock();
#endif
progress:
       table = NO_TABLE;
#ifndef WRONG_RELEASE_WITHOUT_LOCK
       atomic { writeUnlock() }
#endif
       atomic {
           allocated[place] = false;
           place = 3 - place
       }
    od
}
