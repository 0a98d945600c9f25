// How a program that runs a module begins and ends.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "common_options.h"
#include "control/command.h"
#include "report.h"

namespace kes_engine {

enum ExitStatus { kOk = 0, kFailed = 1, kUsage = 2 };

// Runs a program's body. What it throws is told on standard error, under the program's name, and
// makes its exit status: kUsage for the command line and what it names to be read.
int RunProgram(const std::string &name, const std::function<ExitStatus()> &body);

// Files that outgrow a limit, readers that go away and a log that is rotated are not to end the
// program from now on. An interruption is to do so while what the command line names is still being
// opened, even for a shell that starts its children deaf to it.
void PrepareForSignals();
// Allows as many open files as the system does: there may be a capture for each of many instances.
void PrepareForFiles();

// The commands of files, in order; "-" is the standard input. Throws control::InputError.
std::vector<control::Command> ReadCommands(const std::vector<std::string> &files);

// Gives the platform the capabilities and the interface map of the command line.
void Configure(const CommonOptions &options);

// Prints the report, unless the standard output has been given another purpose, and what went
// wrong on standard error.
ExitStatus Publish(const std::string &name, const Result &result, ReportForm form,
                   bool hasReport = true);

}  // namespace kes_engine
