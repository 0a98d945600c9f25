// The commands that run operations: one table says all that there is to say of each.
#pragma once

#include <optional>
#include <span>
#include <string_view>

#include "control/caller.h"
#include "control/command_set.h"

namespace control {

struct ReplyFormat;

// What of a file went into a batch.
struct BatchTally {
    uint32_t records;
    uint32_t leftOut;  // entries of other instances
};

// What a command sends.
struct Request {
    Bytes bytes;
    // The highest service instance that it speaks of.
    std::optional<uint64_t> instance = std::nullopt;
    std::optional<BatchTally> tally = std::nullopt;
};

struct CommandSpec {
    CommandText text;
    MundOperation operation;
    Request (*encode)(const Arguments &arguments);  // throws InputError
    std::string_view failure;  // what result 1 means; empty when it is never one
    const ReplyFormat *reply;  // null when the operation makes no reply
};

std::span<const CommandSpec> Commands();

// The same by their names.
const CommandSet &Operations();

// The command of a text; null for one that runs no operation.
const CommandSpec *FindSpec(const CommandText &text);

}  // namespace control
