// Fetches what a packet's lookup will read into the processor's cache while the packet's burst is
// still on its receive path, so that the lookups of a burst do not wait for memory one after the
// other: first the bucket; when that has had time to come, the bucket's first entry; and after that
// the second, which every third lookup meets in a table that is as full as it is meant to be.
//
// It only fetches. The lookup does not know of it, finds the same without it, and what has changed
// in between costs a fetch in vain. Nobody is waited for. Lcores alone look ahead; on other threads
// these do nothing.
#pragma once

#include "kes/mbuf.h"

namespace lyr {

// For each packet of a burst at receive-in: fetches its bucket, if a tunnel or a session will be
// looked up for it, and entries for those some packets before it.
void FetchBucket(const HostMbuf *packet);

// For each packet of the burst at receive-out: fetches the entries that are left.
void FetchEntries();

}  // namespace lyr
