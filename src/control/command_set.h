// Commands by their names: finding one, fitting words to it, and telling of them.
#pragma once

#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "control/arguments.h"

namespace control {

// All that people are told of a command.
struct CommandText {
    std::string_view name;     // its words
    std::string_view usage;    // what follows them, as Arguments reads it
    std::string_view help;     // what it does: a sentence for overviews, and what else there is
    std::string_view example;  // what may follow the name
};

// The words behind the command's name, fitted to its usage. Throws InputError, which tells the
// usage too.
Arguments Fit(const CommandText &command, std::span<const std::string> words);

class CommandSet {
  public:
    // Commands that begin with the same word stand together, in the order given. `program` is what
    // stands before them in help, with a space behind it, or nothing. The texts outlive the set.
    CommandSet(std::string program, std::span<const CommandText *const> commands);

    // The command that the words begin with: the one with most words. Throws InputError, with the
    // commands that may have been meant.
    const CommandText &Find(std::span<const std::string> words) const;
    // The same, or null.
    const CommandText *FindBegun(std::span<const std::string> words) const;
    // The names of all.
    std::vector<std::string_view> Names() const;

    // Name and usage of every command and the first sentence of its help, indented.
    std::string Overview() const;
    // All about every command, indented.
    std::string Help() const;
    // All about the commands that begin with the words, or else about the one that the words begin
    // with. Throws InputError.
    std::string HelpOn(std::span<const std::string> words) const;
    // A line for each command: name, tab, usage.
    std::string Lines() const;

  private:
    std::string HelpOf(const CommandText &command, const std::string &margin) const;
    std::string Unknown(std::span<const std::string> words) const;

    std::string program_;
    std::vector<const CommandText *> commands_;
};

}  // namespace control
