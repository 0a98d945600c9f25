// Arrays with a slot for each service instance.
#pragma once

#include <cstdint>

#include "kes/memory.h"
#include "module/capability.h"
#include "module/registration.h"
#include "module/shared_word.h"

namespace lyr {

// An array with every slot set to `initial`, or null: also for more instances than an allocation
// has bytes. No instances, after the largest count has wrapped, make an empty array.
template <class Slot>
Slot *NewInstanceArray(Slot initial, const char *tag, uint32_t line) {
    const uint32_t instances = g_lyrHostsvcNum + 1;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): a slot may well be a pointer.
    const uint64_t size = uint64_t{instances} * sizeof(Slot);
    if (size > UINT32_MAX) {
        return nullptr;
    }
    auto *slots = static_cast<Slot *>(
        TovMemAllocInner(mod_kes_lyrhost_id, 0, static_cast<uint32_t>(size), 0, tag, line));
    if (slots != nullptr) {
        for (uint32_t i = 0; i < instances; ++i) {
            slots[i] = initial;
        }
    }
    return slots;
}

// Frees an array, if there is one. Whoever finds the pointer set may count on what it points at.
template <class Slot>
void FreeInstanceArray(Slot *&slots) {
    Slot *const released = slots;
    if (released != nullptr) {
        StoreRelease<Slot *>(slots, nullptr);
        TovMemFreeInner(released);
    }
}

}  // namespace lyr
