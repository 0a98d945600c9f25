// Every command there is: those that run an operation of the module, and lyrctl's own. One of
// lyrctl's own that has the name of an operation's does more, and stands in its place.
#pragma once

#include <string>

#include "client.h"
#include "control/command_set.h"

namespace lyrctl {

// A command of lyrctl's own. Either it reads something that is then laid out, or it runs by itself.
struct OwnCommand {
    control::CommandText text;
    ordered_json (*read)(Client &client, const control::Arguments &arguments) = nullptr;
    std::string (*render)(const ordered_json &reply) = nullptr;
    ExitStatus (*run)(Client &client, const control::Arguments &arguments) = nullptr;
    // For a command that compares: whether all is the same. Where it is not, the exit status is 1,
    // and that of a refusal 2. Null for other commands.
    bool (*isSame)(const ordered_json &reply) = nullptr;
    // Whether these are arguments of the operation's command of the same name; null: there is none,
    // or it is never that one.
    bool (*isOperation)(const control::Arguments &arguments) = nullptr;
};

const control::CommandSet &Commands();

// The command of a text; null for one that runs an operation.
const OwnCommand *FindOwn(const control::CommandText &text);

}  // namespace lyrctl
