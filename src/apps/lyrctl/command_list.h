// Every command there is: those that run an operation of the module, and lyrctl's own.
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
};

const control::CommandSet &Commands();

// The command of a text; null for one that runs an operation.
const OwnCommand *FindOwn(const control::CommandText &text);

}  // namespace lyrctl
