#include "command_line.h"

#include <iostream>

#include "command_list.h"
#include "completion.h"
#include "control/arguments.h"
#include "control/input_error.h"
#include "control/json_line.h"
#include "shell.h"
#include "standard_output.h"
#include "task.h"

namespace lyrctl {
namespace {

ExitStatus RunCommand(const Options &options) {
    if (!options.words.empty()) {
        Client client(options.control, options.json);
        return Task(options.words).Run(client);
    }
    if (options.inShell) {
        throw control::InputError("there is no command (help lists them)");
    }
    return RunShell(options);
}

void PrintChoices(const Options &options) {
    // With a '=' before it, a word may be empty, or begin as an option does.
    if (!options.complete->starts_with('=')) {
        throw control::InputError("--complete '" + *options.complete + "' does not begin with '='");
    }
    Client client(options.control, options.json);
    const Choices choices = Complete(client, options.words, options.complete->substr(1));
    for (const std::string &word : choices.words) {
        std::cout << word << '\n';
    }
    std::cout << (choices.files ? "FILE\n" : "");
}

// For programs, a command that is not understood, or has nobody to run it, has an answer as well.
void TellFailure(const Options &options, const std::string &what) {
    if (options.json) {
        std::cout << control::JsonLine({{"command", control::Join(options.words)},
                                        {"ok", false},
                                        {"meaning", what}})
                  << '\n';
    }
    Complain(what);
}

ExitStatus RunOptions(const std::vector<std::string> &words, Options &options) {
    if (!ParseOptions(words, options)) {
        return kOk;
    }
    if (options.help) {
        std::cout << (options.words.empty() ? options.overview : Commands().HelpOn(options.words));
        return kOk;
    }
    if (options.listCommands) {
        std::cout << Commands().Lines();
        return kOk;
    }
    if (options.complete) {
        PrintChoices(options);
        return kOk;
    }
    return RunCommand(options);
}

}  // namespace

ExitStatus RunCommandLine(const std::vector<std::string> &words, const Options &before) {
    ExitStatus status = kOk;
    Options options = before;
    try {
        status = RunOptions(words, options);
    } catch (const control::InputError &error) {
        TellFailure(options, error.what());
        status = kUsage;
    } catch (const control::NoEngine &error) {
        TellFailure(options, error.what());
        status = kNoEngine;
    } catch (const std::exception &error) {
        Complain(error.what());
        status = kRefused;
    }
    const bool written = EndOutput("lyrctl", "the answer");
    return written || status != kOk ? status : kRefused;
}

}  // namespace lyrctl
