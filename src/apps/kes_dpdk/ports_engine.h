// The engine on DPDK's ports: what it is made of, and the order in which it starts and stops.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <vector>

#include "control/command.h"
#include "dpdk/packet_pool.h"
#include "lcore.h"
#include "module_exchange.h"
#include "module_run.h"
#include "output_directory.h"
#include "page_matter.h"
#include "ports_options.h"
#include "service_instances.h"
#include "state.h"

namespace kes_dpdk {

class PortsEngine {
  public:
    // Opens the ports, makes the buffers, loads the module and lets the lcores enter it. DPDK's
    // environment has started, and outlives this. Throws UsageError and dpdk::Error.
    PortsEngine(const PortsOptions &options, const kes_engine::OutputDirectory &out);
    // Stops in order.
    ~PortsEngine();
    PortsEngine(const PortsEngine &) = delete;
    PortsEngine &operator=(const PortsEngine &) = delete;

    // Starts the module and the service instances. Throws Failure, and UsageError for an instance
    // that the module does not have.
    void Start();

    // Runs control commands before any packet. Throws Failure for the first that does not succeed.
    void Execute(const std::vector<control::Command> &commands) {
        run_.Execute(commands);
    }

    // The same for those of a saved state, without a word on each.
    void Restore(const std::vector<control::Command> &commands) {
        run_.Restore(commands);
    }
    // Tells of a failure in the result; an empty text is none.
    void Note(const std::string &failure) {
        run_.Note({failure});
    }

    // Starts the ports, forwards until it is interrupted, or until nothing has come in for as long
    // as the options say, and lets all that has come in meet its fate. Says on standard error when
    // a port's link goes down or comes up. Throws dpdk::Error.
    void Forward();

    // Runs control commands once the traffic is over. The first that does not succeed ends them and
    // is told in the result.
    void ExecuteAfter(const std::vector<control::Command> &commands) {
        run_.ExecuteAfter(commands);
    }

    // Stops the module, the lcores, the instances and the ports, completes the captures and unloads
    // the module. Returns what the run came to.
    kes_engine::Result Finish();

    // What is known while packets come in. Callable from any thread, once the engine has started.
    kes_engine::State StateNow();
    const standin::Module &Module() const {
        return run_.Module();
    }
    // By which clients have the module exchanged while packets are forwarded.
    kes_engine::ModuleExchange &Exchange() {
        return exchange_;
    }

  private:
    // Waits until an interruption, or until nothing has come in for long.
    void WaitForTheEnd();
    // Waits until nothing is under way, or only for ports that do not take it.
    void Drain();
    void WatchLinks();
    // Exchanges the module, and tells what came of it.
    nlohmann::ordered_json LoadAnew(const std::string &path);
    // Has all lcores follow.
    void UseModule(ModuleUse use);
    LcoreCounts Counts();
    kes_engine::Traffic TrafficNow();
    std::string Source() const;
    void EndLcores();
    void Stop();

    const PortsOptions &options_;
    const kes_engine::OutputDirectory &out_;
    // In this order: buffers go back to the pool as the ports close.
    std::optional<dpdk::PacketPool> pool_;
    std::optional<Board> board_;
    kes_engine::ModuleRun run_;
    std::deque<Lcore> lcores_;
    bool launched_ = false;
    kes_engine::ModuleExchange exchange_;
    std::optional<kes_engine::ServiceInstances> unported_;
    std::vector<UsedPort *> absent_;  // that wait for their other side
    kes_engine::PageMatter page_;
    std::vector<std::optional<bool>> links_;  // as last seen, by port
};

}  // namespace kes_dpdk
