// The command line, up to the words of the command.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace lyrctl {

struct Options {
    std::string control;  // path of the socket
    bool json = false;
    bool help = false;
    bool listCommands = false;
    std::optional<std::string> complete;  // '=' and a word to be completed
    bool inShell = false;                 // a line of the shell's
    std::vector<std::string> words;       // of the command, with its own options
    std::string overview;                 // the help of the program itself
};

// Reads a command line, on top of what the options say already; the program's own may stand
// anywhere in it. False after --version, which it has answered. Throws control::InputError.
bool ParseOptions(std::vector<std::string> words, Options &options);

}  // namespace lyrctl
