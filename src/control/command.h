// Control commands: text in, request out; answer in, text or JSON out.
//
// A command is a line of words, with a comment behind '#'. The same words mean the same wherever
// they are given: in a file, or behind a client's name.
#pragma once

#include <istream>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "control/caller.h"
#include "control/command_table.h"
#include "control/input_error.h"

namespace control {

struct Command {
    std::string file;   // where it was read; empty for one that was not in a file
    uint32_t line = 0;  // from 1
    std::string text;   // its words, one space between them
    const CommandSpec *spec = nullptr;
    Request request;

    // "FILE:LINE: ", or nothing.
    std::string Where() const;
};

// The command of these words. Throws InputError.
Command ParseWords(std::span<const std::string> words);

// The commands of a text whose lines are counted from 1; `name` stands for it in errors. Nothing
// is run: either all of the text makes sense or InputError says where it does not, as in
// "FILE:LINE: reason".
std::vector<Command> ParseCommands(std::istream &text, const std::string &name);
std::vector<Command> ParseFile(const std::string &path);

// Why a request cannot be meant: it speaks of an instance beyond the last one. Empty where that is
// not so, or not known.
std::string BeyondInstances(const Request &request, std::optional<uint32_t> lastInstance);

// What came of a command.
// NOLINTNEXTLINE(bugprone-exception-escape): moving JSON values throws nothing.
struct Outcome {
    std::string text;  // the command's
    const CommandSpec *spec = nullptr;
    std::optional<BatchTally> tally;
    std::string failure;           // why there is no result; empty when there is one
    uint32_t result = 0;           // what the operation returned, or else what its reply says of it
    std::string reason;            // of a failing result, where it is more than the command's own
    nlohmann::ordered_json reply;  // what the replies say, under names; null: nothing

    bool Ok() const;
    // The result in words, as in "ok" or "failed (1): all eight sources are in use".
    std::string Meaning() const;
    // The meaning, and what a batch was made of.
    std::string Summary() const;
    // What the reply says, laid out; empty when the summary says it all.
    std::string ReplyText() const;
    // "COMMAND: SUMMARY", and what the reply says.
    std::string ToText() const;
    // {"command": text, "operation": name, "ok": bool, "result": N or null when it did not run,
    //  "meaning": text, "batch": {"records": N, "leftOut": N} and "reply": {...} where there is
    //  one}
    std::string ToJson() const;
    nlohmann::ordered_json Json() const;
};

// Runs a command, with as many requests as its replies ask for. A reply of another length than the
// operation's own, and one that contradicts itself, is a failure; so is a service instance beyond
// the last one, where that is known: nothing is sent then.
Outcome Execute(const Command &command, const Caller &caller,
                std::optional<uint32_t> lastInstance = std::nullopt);

}  // namespace control
