// Reading memory that others may be writing.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace standin {

// Copies memory word by word, its ends byte by byte: no access is a data race with one of the
// writers' relaxed stores.
std::vector<uint8_t> CopyLive(const void *memory, size_t size);

// Replaces `bytes` by the block of the module that the word points at when the call looks. False,
// with the word's value, if that is not the start of one.
bool CopyBlockAt(uint32_t moduleId, const uint64_t *word, std::vector<uint8_t> &bytes,
                 uint64_t &value);

}  // namespace standin
