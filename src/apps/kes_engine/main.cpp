// kes_engine: replays a capture through the module, as the engine on a forwarding board would pass
// it its packets, and reports where every packet went.
#include <iostream>
#include <optional>
#include <vector>

#include "capture/reader.h"
#include "control_service.h"
#include "engine.h"
#include "hang_ups.h"
#include "interruption.h"
#include "line_log.h"
#include "live_reader.h"
#include "options.h"
#include "output_directory.h"
#include "program.h"
#include "services.h"
#include "state_keeper.h"

namespace kes_engine {
namespace {

constexpr const char *kName = "kes_engine";

// All that can be known to be wrong is found before the module starts.
ExitStatus Run(const Options &options) {
    PrepareForSignals();
    const std::vector<control::Command> commands = ReadCommands(options.commandFiles);
    const std::vector<control::Command> later = ReadCommands(options.laterCommandFiles);
    std::optional<capture::Reader> capture;
    if (!options.capture.empty()) {
        capture.emplace(options.capture, options.selection);
    }
    LiveReaders interfaces(options.interfaces, options.listening);
    OutputDirectory out(options.outDirectory, options.capture);
    LineLog log(options.logFile, options.decode);
    PrepareForFiles();
    Configure(options);
    Engine engine(options, out);
    Services services(options.metricsPlace, options.controlGroup);
    StateKeeper keeper(options.statePath);

    const HangUps hangUps([&log] { log.Reopen(); });
    ListenForInterruption();
    log.Begin();
    engine.Start();
    const auto stateNow = [&engine] { return engine.StateNow(); };
    engine.Restore(keeper.Load(LocalView(HandlersOf(engine.Module(), stateNow))));
    services.Begin(options.controlPath, engine.Module(), stateNow, log);
    engine.Execute(commands);
    keeper.Begin();
    out.Begin();
    if (capture && options.explain) {
        engine.Explain(*capture);
    } else if (capture) {
        engine.Replay(*capture);
    }
    if (interfaces.AnyLeft()) {
        engine.Listen(interfaces);
    }
    engine.ExecuteAfter(later);
    if (options.stay) {
        SleepUntilInterrupted();
    }
    services.End();
    engine.Note(keeper.End());
    Result result = engine.Finish();
    result.lostLogLines = log.End();
    return Publish(kName, result, options.report, !options.explain);
}

}  // namespace
}  // namespace kes_engine

int main(int argc, char **argv) {
    using namespace kes_engine;
    return RunProgram(kName, [&] {
        const std::optional<Options> options = ParseOptions(argc, argv);
        return options ? Run(*options) : kOk;
    });
}
