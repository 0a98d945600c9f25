// Every command there is: those that run an operation of the module, and lyrctl's own.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "client.h"
#include "control/arguments.h"
#include "control/command_table.h"

namespace lyrctl {

// A command of lyrctl's own; texts and grammar are as in control::CommandSpec. Either it reads
// something that is then laid out, or it runs by itself.
struct OwnCommand {
    std::string_view name;
    std::string_view usage;
    std::string_view help;
    std::string_view example;
    ordered_json (*read)(Client &client, const control::Arguments &arguments) = nullptr;
    std::string (*render)(const ordered_json &reply) = nullptr;
    ExitStatus (*run)(Client &client, const control::Arguments &arguments) = nullptr;
};

// A command of either kind.
struct Entry {
    std::string_view name;
    std::string_view usage;
    std::string_view help;
    std::string_view example;
    const OwnCommand *own;  // null for one that runs an operation
};

// The command that the words begin with: the one with most words. Throws control::InputError, with
// the commands that may have been meant.
const Entry &FindEntry(std::span<const std::string> words);

// The words behind the command's name, fitted to its usage. Throws control::InputError.
control::Arguments FitTo(const Entry &entry, std::span<const std::string> words);

// Name and usage of every command, and the first sentence of its help.
std::string Overview();
// All about the commands that begin with the words, or else about the one that the words begin
// with. Throws control::InputError.
std::string HelpOn(std::span<const std::string> words);
// A line for each command: name, tab, usage.
std::string CommandLines();

}  // namespace lyrctl
