// kes_dpdk: runs the module on DPDK's ports, with service instances that are processes of their
// own.
#include <optional>
#include <vector>

#include "control_service.h"
#include "dpdk/environment.h"
#include "dpdk/error.h"
#include "dpdk/parts.h"
#include "failure.h"
#include "hang_ups.h"
#include "interruption.h"
#include "line_log.h"
#include "output_directory.h"
#include "ports_engine.h"
#include "ports_options.h"
#include "program.h"
#include "services.h"
#include "state_keeper.h"

namespace {

using namespace kes_dpdk;
using kes_engine::ExitStatus;

constexpr const char *kName = "kes_dpdk";

// All that can be known to be wrong is found before the module starts.
ExitStatus Run(const PortsOptions &options) {
    kes_engine::PrepareForSignals();
    const std::vector<control::Command> commands = kes_engine::ReadCommands(options.commandFiles);
    const std::vector<control::Command> later = kes_engine::ReadCommands(options.laterCommandFiles);
    kes_engine::OutputDirectory out(options.outDirectory, "");
    kes_engine::LineLog log(options.logFile, options.decode);
    kes_engine::PrepareForFiles();
    kes_engine::Configure(options);
    const dpdk::Environment environment(kName, options.environment);
    dpdk::Parts parts;
    standin::UseParts(parts);
    PortsEngine engine(options, out);
    kes_engine::Services services(options.metricsPlace, options.controlGroup);
    kes_engine::StateKeeper keeper(options.statePath);

    const kes_engine::HangUps hangUps([&log] { log.Reopen(); });
    kes_engine::ListenForInterruption();
    log.Begin();
    engine.Start();
    const auto stateNow = [&engine] { return engine.StateNow(); };
    engine.Restore(keeper.Load(kes_engine::LocalView(
        kes_engine::HandlersOf(engine.Module(), stateNow, engine.Exchange()))));
    services.Begin(options.controlPath, engine.Module(), stateNow, log, &engine.Exchange());
    engine.Execute(commands);
    keeper.Begin();
    out.Begin();
    engine.Forward();
    engine.ExecuteAfter(later);
    services.End();
    engine.Note(keeper.End());
    kes_engine::Result result = engine.Finish();
    result.lostLogLines = log.End();
    return kes_engine::Publish(kName, result, options.report);
}

// What DPDK cannot do with the arguments that it was given is the command line's fault.
ExitStatus RunOnPorts(const PortsOptions &options) {
    try {
        return Run(options);
    } catch (const dpdk::Error &error) {
        throw kes_engine::UsageError(error.what());
    }
}

}  // namespace

int main(int argc, char **argv) {
    return kes_engine::RunProgram(kName, [&] {
        const std::optional<PortsOptions> options = ParseOptions(argc, argv);
        return options ? RunOnPorts(*options) : kes_engine::kOk;
    });
}
