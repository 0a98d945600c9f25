// The command line, up to the words of the command.
#pragma once

#include <string>
#include <vector>

namespace lyrctl {

struct Options {
    std::string control;  // path of the socket
    bool json = false;
    bool help = false;
    bool listCommands = false;
    std::vector<std::string> words;  // of the command, with its own options
    std::string overview;            // the help of the program itself
};

// Reads the command line; the program's own options may stand anywhere in it. False after
// --version, which it has answered. Throws control::InputError.
bool ParseOptions(int argc, char **argv, Options &options);

}  // namespace lyrctl
