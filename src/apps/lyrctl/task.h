// A command of either kind that has been understood, ready to be run.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "client.h"
#include "command_list.h"
#include "control/arguments.h"
#include "control/command.h"

namespace lyrctl {

class Task {
  public:
    // The command of these words. Throws InputError.
    explicit Task(std::span<const std::string> words);
    // The same from a line of a file, with all that can be said of it without an engine. Its
    // answers tell of the line, and none says no more than "ok".
    Task(std::span<const std::string> words, const std::string &file, uint32_t line);

    // Runs it and prints what came of it. What cannot be done is thrown, or told and answered with
    // another status than kOk.
    ExitStatus Run(Client &client) const;
    // Says why it could not be run; for programs with an object as well.
    void TellFailure(const Client &client, const std::string &why) const;
    // "FILE:LINE: ", or nothing.
    std::string Where() const;

  private:
    ExitStatus RunOperation(Client &client) const;
    ExitStatus RunOwn(Client &client) const;
    // A line of JSON that begins with the place of the command.
    void PrintJson(const ordered_json &answer) const;

    std::string file_;
    uint32_t line_ = 0;
    std::vector<std::string> words_;
    const OwnCommand *own_;                        // null: it runs an operation
    std::optional<control::Arguments> arguments_;  // of one of lyrctl's own
    control::Command operation_;
};

}  // namespace lyrctl
