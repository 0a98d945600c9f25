// Access to words that several threads share without a lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace lyr {

template <class T>
T LoadRelaxed(const T &word) {
    return std::atomic_ref<T>(const_cast<T &>(word)).load(std::memory_order_relaxed);
}

template <class T>
T LoadAcquire(const T &word) {
    return std::atomic_ref<T>(const_cast<T &>(word)).load(std::memory_order_acquire);
}

template <class T>
void StoreRelaxed(T &word, T value) {
    std::atomic_ref<T>(word).store(value, std::memory_order_relaxed);
}

template <class T>
void StoreRelease(T &word, T value) {
    std::atomic_ref<T>(word).store(value, std::memory_order_release);
}

// Records are shared as their 32-bit words: each word is whole, the record may be a mixture.
using SharedWord [[gnu::may_alias]] = uint32_t;

// A word of a later write brings what was written before it along.
template <class Record>
Record LoadWords(const Record &shared) {
    static_assert(sizeof(Record) % sizeof(SharedWord) == 0, "a record of whole words");
    Record record;
    auto *to = reinterpret_cast<SharedWord *>(&record);
    const auto *from = reinterpret_cast<const SharedWord *>(&shared);
    for (size_t i = 0; i < sizeof(Record) / sizeof(SharedWord); ++i) {
        to[i] = __atomic_load_n(&from[i], __ATOMIC_ACQUIRE);
    }
    return record;
}

template <class Record>
void StoreWords(Record &shared, const Record &record) {
    static_assert(sizeof(Record) % sizeof(SharedWord) == 0, "a record of whole words");
    auto *to = reinterpret_cast<SharedWord *>(&shared);
    const auto *from = reinterpret_cast<const SharedWord *>(&record);
    for (size_t i = 0; i < sizeof(Record) / sizeof(SharedWord); ++i) {
        __atomic_store_n(&to[i], from[i], __ATOMIC_RELEASE);
    }
}

// Counts without a locked instruction: concurrent threads may lose counts.
template <class T>
T CountBy(T &counter, T amount) {
    const T count = LoadRelaxed(counter) + amount;
    StoreRelaxed(counter, count);
    return count;
}

template <class T>
T CountOne(T &counter) {
    return CountBy(counter, T{1});
}

}  // namespace lyr
