/*
 * The locker by itself, as everybody uses it: packets with marks, readers and writers of the word,
 * each going round for ever. Progress is someone inside.
 */
#ifndef NUM_MARKED
#define NUM_MARKED 2
#endif
#ifndef NUM_READERS
#define NUM_READERS 2
#endif
#ifndef NUM_WRITERS
#define NUM_WRITERS 2
#endif
#include "locker.pml"

active [NUM_MARKED] proctype Packet() {
    bool marked = false;
    do
    :: packetLock();
progress:
       atomic { packetUnlock() }
    od
}

active [NUM_READERS] proctype Reader() {
    do
    :: readLock();
progress:
       atomic { readUnlock() }
    od
}

active [NUM_MARKED] proctype StoreBuffer() {
    do
    :: arrive(_pid - NUM_MARKED - NUM_READERS)
    od
}

active [NUM_WRITERS] proctype Writer() {
    byte thread = 0;
    do
    :: writeLock();
progress:
       atomic { writeUnlock() }
    od
}
