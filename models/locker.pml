/*
 * The read-write locker of a table, step by step: one word, readers counted in its low half,
 * holders of and bidders for write access in its high half. The halves have four bits here, more
 * than there are processes.
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

/* How a reader goes in and out stands in these two alone. */
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
    atomic {
        (word & READERS) == 0;
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
