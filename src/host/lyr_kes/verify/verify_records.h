// Verify records: which tunnels an audit removed, the newest 100 of them. They outlast a stop; the
// next start, or the unloading of the module, gives them up.
#pragma once

#include <cstddef>
#include <cstdint>

#include "kes/sync.h"
#include "lb/dist_table.h"
#include "module/export.h"
#include "mund/reconciliation_messages.h"

// Links of a circular doubly linked list through its head.
struct LyrKesVerifyRcdLinks {
    LyrKesVerifyRcdLinks *next;
    LyrKesVerifyRcdLinks *prev;
};

struct LyrKesVerifyRcdNode : LyrKesVerifyRcdLinks {
    LyrKesVerifyRcd record;
};

struct LyrKesVerifyRcdList {
    union {
        LyrKesVerifyRcdLinks links;  // both point at themselves in an empty list
        struct {
            LyrKesVerifyRcdLinks *first;  // oldest node
            LyrKesVerifyRcdLinks *last;   // newest node
        };
    };
    uint32_t count;
};
static_assert(offsetof(LyrKesVerifyRcdList, last) == 8, "newest node at 8");
static_assert(offsetof(LyrKesVerifyRcdList, count) == 16, "count at 16");

enum LyrKesVerifyListIndex : uint32_t {
    LYR_VERIFY_LB_TUNNELS = 0,  // tunnels that an audit removed
    LYR_VERIFY_RESERVED = 1,    // kept, cleared and served like the other; nothing adds to it
    LYR_VERIFY_LIST_NUM = 2,
};

// The lists, and the lock of both.
LYR_API LyrKesVerifyRcdList g_lyrKesVerifyRcd[LYR_VERIFY_LIST_NUM];
LYR_API TovSpinlock g_lyrKesVerifyRcdLock;

// Makes both lists empty, and their lock if there is none yet; the result of the latter.
LYR_API uint32_t LyrKes_VerifyRcdListInit();

// The list, or null for an index that has none.
LYR_API LyrKesVerifyRcdList *LyrKes_VerifyRcdListGet(uint32_t listIndex);
LYR_API TovSpinlock *LyrKes_VerifyRcdListLock();
// Records in a list; 0 for an index that has none.
LYR_API uint32_t LyrKes_VerifyRcdGetCnt(uint32_t listIndex);

// Under the lock. Adds a record; the oldest of 100 gives way. Returns 0 or 1.
LYR_API uint32_t LyrKes_VerifyRcdNodeAdd(const LyrKesVerifyRcd *record, uint32_t listIndex);
// Under the lock. Returns 0, or 1 for an index that has no list.
LYR_API uint32_t LyrKes_VerifyRcdClearAll(uint32_t listIndex);

// Records a tunnel description, up to 48 bytes of it, with the current second. Returns 0 when it
// was handed to the list, 1 when it was refused. Callable from any thread, as all that follow.
LYR_API uint32_t LyrKes_VerifyRcdAdd(uint32_t listIndex, uint8_t type, const void *tunnel,
                                     uint32_t length);
// Reads a list, the newest record first, into room for 100 records of `recordSize` (56) bytes.
// `count` and `records` stay as they are for an empty list. Returns 0 or 1.
LYR_API uint32_t LyrKes_VerifyRcdGet(uint32_t listIndex, uint16_t *count, LyrKesVerifyRcd *records,
                                     uint32_t recordSize);
LYR_API void LyrKes_VerifyRcdClearAllTable();

// Record a tunnel that an audit removed, by its key.
LYR_API uint32_t LyrKes_LbIpv4VerifyExcptionRcdAdd(const LyrKesDistIpv4Key *key);
LYR_API uint32_t LyrKes_LbIpv6VerifyExcptionRcdAdd(const LyrKesDistIpv6Key *key);

namespace lyr {

// Gives both lists up, once no one else can use them; also if they were never made.
void ReleaseVerifyRecords();

}  // namespace lyr
