#include "program.h"

#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <iterator>

#include "capture/error.h"
#include "control/input_error.h"
#include "control/printable.h"
#include "failure.h"
#include "hang_ups.h"
#include "html_report.h"
#include "standard_output.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

void Complain(const std::string &program, const std::string &what) {
    std::cerr << program << ": " << control::Printable(what, "\n") << '\n';
}

std::string ReportOf(const Result &result, ReportForm form) {
    switch (form) {
        case ReportForm::kJson:
            return JsonReport(result);
        case ReportForm::kHtml:
            return HtmlReport(result);
        case ReportForm::kText:
            break;
    }
    return TextReport(result);
}

// Whether it is the command line that is wrong, or what it names to be read.
bool IsUsage(const std::exception &error) {
    return dynamic_cast<const UsageError *>(&error) != nullptr ||
           dynamic_cast<const control::InputError *>(&error) != nullptr ||
           dynamic_cast<const capture::Error *>(&error) != nullptr;
}

}  // namespace

int RunProgram(const std::string &name, const std::function<ExitStatus()> &body) {
    try {
        const ExitStatus status = body();
        return status == kOk && !EndOutput(name, "the answer") ? kFailed : status;
    } catch (const std::exception &error) {
        Complain(name, error.what());
        return IsUsage(error) ? kUsage : kFailed;
    }
}

std::vector<control::Command> ReadCommands(const std::vector<std::string> &files) {
    std::vector<control::Command> commands;
    for (const std::string &file : files) {
        std::ranges::move(control::ParseFile(file), std::back_inserter(commands));
    }
    return commands;
}

void Configure(const CommonOptions &options) {
    for (const auto &[name, value] : options.capabilities) {
        standin::SetCapability(name, value);
    }
    for (const auto &[forwarding, control] : options.interfaceMap) {
        standin::MapInterface(forwarding, control);
    }
}

void PrepareForSignals() {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    HoldHangUps();
}

void PrepareForFiles() {
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

ExitStatus Publish(const std::string &name, const Result &result, ReportForm form, bool hasReport) {
    if (hasReport) {
        std::cout << ReportOf(result, form);
    }
    const bool written = EndOutput(name, hasReport ? "the report" : "what was to be explained");
    for (const std::string &failure : result.failures) {
        Complain(name, failure);
    }
    for (const std::string &leftover : result.leftovers) {
        Complain(name, "left behind by the module: " + leftover);
    }
    if (!result.Conserved()) {
        Complain(name, "packets are not conserved: of " + std::to_string(result.frames) +
                           " frames, " + std::to_string(result.received) + " received and " +
                           std::to_string(result.fates.transmitted) + " transmitted; " +
                           std::to_string(result.fates.taken) + " taken, " +
                           std::to_string(result.ReceivedByInstances()) + " received by instances");
    }
    for (const std::string &contradiction : result.Contradictions()) {
        Complain(name, (result.CountsAreExact() ? "" : "note: ") + contradiction);
    }
    return written && result.Ok() ? kOk : kFailed;
}

}  // namespace kes_engine
