/*
 * The read-write locker of a table, step by step: one word, readers counted in its low half,
 * holders of and bidders for write access in its high half. The halves have four bits here, more
 * than there are processes. In front of it the packets' read side: a mark for each packet thread.
 *
 * Adding to the word and subtracting from it, with the result, is one step; so is reading it. A
 * loop that only reads the word until it has some value is one step that waits for the value. What
 * only counts for the assertions goes with the step before it.
 */
#define READER 1
#define READERS 15
#define WRITER 16
#define WRITERS 240

byte word = 0;

/* What is in the word by right: added and not yet subtracted. */
byte owed = 0;
/* Who is inside. */
byte readersInside = 0;
byte writersInside = 0;

/* Both within a step of the caller's. */
inline add(amount) {
    word = word + amount;
    owed = owed + amount;
    assert(word == owed) /* nothing lost */
}

inline subtract(amount) {
    assert(word >= amount && (word & READERS) >= (amount & READERS)); /* no underflow */
    word = word - amount;
    owed = owed - amount;
    assert(word == owed)
}

/* A reader's way in and out through the word. */
inline readLock() {
    do
    :: atomic {
           add(READER);
           if
           :: word < WRITER ->
              readersInside++;
              assert(writersInside == 0);
              break
           :: else
           fi
       }
#ifndef WRONG_READER_WAITS_COUNTED
       atomic { subtract(READER) }
       (word < WRITER)
#else
       (word < WRITER);
       atomic { subtract(READER) }
#endif
    od
}

inline readUnlock() {
    readersInside--;
    subtract(READER)
}

/*
 * The marks, as memory has them, and how many of its thread's stores memory has not: they wait in
 * the thread's store buffer and come to memory one after the other, each at any time. A thread sets
 * and clears in turn, so the number says which stores they are. It counts by its own mark, which it
 * need not read.
 */
#define STORES 2
bool mark[NUM_MARKED];
byte waiting[NUM_MARKED];

/* Within a step of the caller's that has looked for room. */
#define storeMark() waiting[_pid] = waiting[_pid] + 1
#define roomForStore (waiting[_pid] < STORES)

inline arrive(thread) {
    atomic {
        waiting[thread] > 0;
        mark[thread] = !mark[thread];
        waiting[thread] = waiting[thread] - 1
    }
}

/* A packet's way in and out; `marked` remembers which way it came. */
inline packetLock() {
    atomic { roomForStore; storeMark() }
    if
    :: atomic {
           word < WRITER;
           marked = true;
           readersInside++;
           assert(writersInside == 0)
       }
    :: atomic { word >= WRITER && roomForStore; storeMark() }
       readLock()
    fi
}

/* Within a step of the caller's, as readUnlock is. */
inline packetUnlock() {
    if
    :: marked && roomForStore ->
       marked = false;
       readersInside--;
       storeMark()
    :: !marked -> readUnlock()
    fi
}

/* All threads' stores are in memory when this is over. */
inline barrier() {
    atomic {
        thread = 0;
        do
        :: thread < NUM_MARKED ->
           if
           :: waiting[thread] % 2 == 1 -> mark[thread] = !mark[thread]
           :: else
           fi;
           waiting[thread] = 0;
           thread++
        :: else -> break
        od;
        thread = 0
    }
}

/* The writer looks at one mark after the other. */
inline waitForMarks() {
    do
    :: atomic { thread < NUM_MARKED && !mark[thread]; thread++ }
    :: atomic { thread == NUM_MARKED; thread = 0; break }
    od
}

inline writeLock() {
    do
    :: atomic {
           add(WRITER);
           if
           :: (word & WRITERS) == WRITER -> break
           :: else
           fi
       }
       atomic { subtract(WRITER) }
#ifndef WRONG_WRITER_BIDS_AT_ONCE
       (word < WRITER)
#endif
    od;
    (word & READERS) == 0;
#ifndef WRONG_NO_BARRIER
    barrier();
#endif
#ifndef WRONG_MARKS_NOT_AWAITED
    waitForMarks();
#endif
    atomic {
        writersInside++;
        assert(writersInside == 1 && readersInside == 0)
    }
}

/* The unlocking code looks first whether there is a writer to subtract. Its own bid is there,
 * unless the word has been lost, which is an error already. */
inline writeUnlock() {
    writersInside--;
    subtract(WRITER)
}
