// kes_engine: replays a capture through the module, as the engine on a forwarding board would pass
// it its packets, and reports where every packet went.
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <iostream>
#include <iterator>

#include "capture/reader.h"
#include "control/command.h"
#include "control_service.h"
#include "engine.h"
#include "failure.h"
#include "hang_ups.h"
#include "interruption.h"
#include "line_log.h"
#include "live_reader.h"
#include "options.h"
#include "output_directory.h"
#include "report.h"
#include "standard_output.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

enum ExitStatus { kOk = 0, kFailed = 1, kUsage = 2 };

void Complain(const std::string &what) {
    std::cerr << "kes_engine: " << what << '\n';
}

std::vector<control::Command> ReadCommands(const std::vector<std::string> &files) {
    std::vector<control::Command> commands;
    for (const std::string &file : files) {
        std::ranges::move(file == capture::kStandardStream
                              ? control::ParseCommands(std::cin, "the standard input")
                              : control::ParseFile(file),
                          std::back_inserter(commands));
    }
    return commands;
}

void Configure(const Options &options) {
    for (const auto &[name, value] : options.capabilities) {
        standin::SetCapability(name, value);
    }
    for (const auto &[forwarding, control] : options.interfaceMap) {
        standin::MapInterface(forwarding, control);
    }
}

// Files that outgrow a limit, readers that go away and a log that is rotated are not to end the
// program. An interruption is to do so while what the command line names is still being opened,
// even for a shell that starts its children deaf to it.
void PrepareForSignals() {
    std::signal(SIGINT, SIG_DFL);
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGXFSZ, SIG_IGN);
    std::signal(SIGPIPE, SIG_IGN);
    HoldHangUps();
}

// There may be a capture for each of many instances.
void PrepareForFiles() {
    rlimit files;
    if (getrlimit(RLIMIT_NOFILE, &files) == 0) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }
}

ExitStatus Publish(const Result &result, const Options &options) {
    if (!options.explain) {
        std::cout << (options.jsonReport ? JsonReport(result) : TextReport(result));
    }
    for (const std::string &failure : result.failures) {
        Complain(failure);
    }
    for (const std::string &leftover : result.leftovers) {
        Complain("left behind by the module: " + leftover);
    }
    if (!result.Conserved()) {
        Complain("packets are not conserved: of " + std::to_string(result.frames) + " frames, " +
                 std::to_string(result.received) + " received and " +
                 std::to_string(result.fates.transmitted) + " transmitted; " +
                 std::to_string(result.fates.taken) + " taken, " +
                 std::to_string(result.ReceivedByInstances()) + " received by instances");
    }
    for (const std::string &contradiction : result.Contradictions()) {
        Complain((result.CountsAreExact() ? "" : "note: ") + contradiction);
    }
    if (!std::cout.flush()) {
        if (!OutputReaderIsGone()) {
            Complain(options.explain ? "cannot write what was to be explained"
                                     : "cannot write the report");
        }
        return kFailed;
    }
    return result.Ok() ? kOk : kFailed;
}

// All that can be known to be wrong is found before the module starts.
ExitStatus Run(const Options &options) {
    PrepareForSignals();
    const std::vector<control::Command> commands = ReadCommands(options.commandFiles);
    const std::vector<control::Command> later = ReadCommands(options.laterCommandFiles);
    std::optional<capture::Reader> capture;
    if (!options.capture.empty()) {
        capture.emplace(options.capture);
    }
    std::optional<LiveReader> interface;
    if (!options.interface.empty()) {
        interface.emplace(options.interface);
    }
    OutputDirectory out(options.outDirectory, options.capture);
    LineLog log(options.logFile);
    PrepareForFiles();
    Configure(options);
    Engine engine(options, out);

    const HangUps hangUps([&log] { log.Reopen(); });
    ListenForInterruption();
    log.Begin();
    engine.Start();
    std::optional<ControlService> service;
    if (options.Serves()) {
        service.emplace(
            options.controlPath, engine.Module(), [&engine] { return engine.StateNow(); }, log);
        std::cerr << "serving clients on " << options.controlPath << '\n';
    }
    engine.Execute(commands);
    out.Begin();
    if (capture && options.explain) {
        engine.Explain(*capture);
    } else if (capture) {
        engine.Replay(*capture);
    }
    if (interface) {
        engine.Listen(*interface);
    }
    engine.ExecuteAfter(later);
    if (options.stay) {
        SleepUntilInterrupted();
    }
    service.reset();
    Result result = engine.Finish();
    result.lostLogLines = log.End();
    return Publish(result, options);
}

// Whether it is the command line that is wrong, or what it names to be read.
bool IsUsage(const std::exception &error) {
    return dynamic_cast<const UsageError *>(&error) != nullptr ||
           dynamic_cast<const control::InputError *>(&error) != nullptr ||
           dynamic_cast<const capture::Error *>(&error) != nullptr;
}

int Main(int argc, char **argv) {
    try {
        const std::optional<Options> options = ParseOptions(argc, argv);
        return options ? Run(*options) : kOk;
    } catch (const std::exception &error) {
        Complain(error.what());
        return IsUsage(error) ? kUsage : kFailed;
    }
}

}  // namespace
}  // namespace kes_engine

int main(int argc, char **argv) {
    return kes_engine::Main(argc, argv);
}
