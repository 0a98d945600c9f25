// Between the messages of operations and the bytes that travel.
#pragma once

#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

#include "control/caller.h"

namespace control {

template <typename Message>
Bytes BytesOf(const Message &message) {
    static_assert(std::has_unique_object_representations_v<Message>);
    Bytes bytes(sizeof message);
    std::memcpy(bytes.data(), &message, sizeof message);
    return bytes;
}

// `bytes` holds the whole message at least.
template <typename Message>
Message MessageOf(std::span<const uint8_t> bytes) {
    Message message;
    std::memcpy(&message, bytes.data(), sizeof message);
    return message;
}

}  // namespace control
