// The commands: one table says all that there is to say of each.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "control/arguments.h"
#include "control/caller.h"

namespace control {

struct ReplyFormat;

// What of a file went into a batch.
struct BatchTally {
    uint32_t records;
    uint32_t leftOut;  // entries of other nodes
};

// What a command sends.
struct Request {
    Bytes bytes;
    // The highest service instance that it speaks of.
    std::optional<uint64_t> instance = std::nullopt;
    std::optional<BatchTally> tally = std::nullopt;
};

struct CommandSpec {
    std::string_view name;     // its words
    std::string_view usage;    // what follows them, as Arguments reads it
    std::string_view help;     // what it does, in a line
    std::string_view example;  // what may follow them
    MundOperation operation;
    Request (*encode)(const Arguments &arguments);  // throws InputError
    std::string_view failure;  // what result 1 means; empty when it is never one
    const ReplyFormat *reply;  // null when the operation makes no reply
};

// All commands, in the order in which help lists them.
std::span<const CommandSpec> Commands();

// The command that a line's words begin with: the one with most words. Throws InputError.
const CommandSpec &FindCommand(std::span<const std::string> words);

// A command's name and usage.
std::string UsageOf(const CommandSpec &spec);

// A line's words behind the command's name, fitted to its usage. Throws InputError, which tells the
// usage too.
Arguments Fit(const CommandSpec &spec, std::span<const std::string> words);

}  // namespace control
