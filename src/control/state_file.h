// Files that hold a whole state: commands, sorted, with comments that say where one ends and how
// large the tables were.
#pragma once

#include <string>
#include <vector>

#include "control/command.h"
#include "control/settings.h"

namespace control {

struct StateText {
    std::string text;
    size_t commands;  // in it
};

// The text of the file that makes these settings again. What no command makes is a comment. Equal
// states of equal modules give equal bytes.
StateText ToStateText(const std::vector<Setting> &settings, const ModuleSize &size);

// The commands of a whole file that StateText has made, for a module of a size. Throws InputError,
// which names file, line and value, for a file that cannot be read, is none of these, is cut short,
// or was made with tables of another size or for an instance that there is not.
std::vector<Command> ReadStateFile(const std::string &path, const ModuleSize &size);

}  // namespace control
