#include "ports_engine.h"

#include <rte_launch.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <thread>

#include "dpdk/environment.h"
#include "dpdk/error.h"
#include "failure.h"
#include "interruption.h"
#include "kes/timer.h"
#include "standin/runtime.h"

namespace kes_dpdk {
namespace {

using Clock = std::chrono::steady_clock;
using kes_engine::UsageError;

// How often links and idleness are looked at.
constexpr std::chrono::milliseconds kLook{100};
// How often a port is tried whose other side is absent.
constexpr std::chrono::seconds kTryAgain{1};
// How long packets may wait, at the end, for a port that does not take them.
constexpr std::chrono::milliseconds kGrace{1000};

// Buffers that an lcore holds in its cache, in hand, and on the way to another.
constexpr uint32_t kBuffersOfLcore = 1024;
constexpr uint32_t kHandedOver = 1024;
// Those that instances without a port take their time for.
constexpr uint32_t kBuffersOfCounting = 4096;

using Ports = std::vector<std::unique_ptr<UsedPort>>;

std::string RoleOf(const UsedPort &port) {
    switch (port.role) {
        case Role::kNetwork:
            return "--port";
        case Role::kInstance:
            return "--instance " + std::to_string(port.number);
        case Role::kKernel:
            return "--kernel";
    }
    return "";
}

// All ports that are used, in the order of their roles.
std::vector<UsedPort *> PortsOf(const Board &board) {
    std::vector<UsedPort *> ports;
    for (const Ports *some : {&board.networks, &board.instancePorts}) {
        std::ranges::transform(*some, std::back_inserter(ports),
                               [](const auto &port) { return port.get(); });
    }
    if (board.kernel != nullptr) {
        ports.push_back(board.kernel.get());
    }
    return ports;
}

// Gives every port its role. Throws UsageError for one that is given twice.
class PortOpener {
  public:
    std::unique_ptr<UsedPort> Open(const std::string &text, Role role,
                                   std::optional<uint32_t> number = std::nullopt) {
        auto port = std::make_unique<UsedPort>(text, role, number);
        const auto [entry, isFirst] = roles_.emplace(port->port.Id(), RoleOf(*port));
        if (!isFirst) {
            throw UsageError("port '" + text + "' is given twice: with " + entry->second +
                             " and with " + RoleOf(*port));
        }
        return port;
    }
    // The ports that have no role yet.
    Ports OpenOthers() {
        Ports others;
        for (const std::string &name : dpdk::KnownPorts()) {
            if (!roles_.contains(dpdk::Port::Find(name))) {
                others.push_back(Open(name, Role::kNetwork));
            }
        }
        return others;
    }

  private:
    std::map<uint16_t, std::string> roles_;
};

void OpenPorts(Board &board) {
    const PortsOptions &options = board.options;
    PortOpener opener;
    for (const InstancePort &given : options.instances) {
        board.instancePorts.push_back(opener.Open(given.port, Role::kInstance, given.instance));
    }
    if (!options.kernel.empty()) {
        board.kernel = opener.Open(options.kernel, Role::kKernel);
    }
    for (const NetworkPort &given : options.networks) {
        board.networks.push_back(opener.Open(given.port, Role::kNetwork, given.index));
    }
    if (options.networks.empty()) {
        board.networks = opener.OpenOthers();
    }
    if (board.networks.empty()) {
        throw UsageError(PortsOf(board).empty()
                             ? "there is no port to receive from: DPDK's arguments have made none"
                             : "there is no port to receive from: each has another role");
    }
    for (UsedPort *port : PortsOf(board)) {
        const unsigned receivers = port->role == Role::kNetwork ? board.lcores : 1;
        port->port.Configure(receivers, board.lcores, options.longestFrame);
    }
}

// As many as ports, lcores and channels may hold at a time, unless the command line has a number.
uint32_t BuffersFor(const Board &board) {
    uint32_t held = board.lcores * (kBuffersOfLcore + (board.lcores - 1) * kHandedOver);
    if (board.options.reassemble) {
        held += board.lcores * dpdk::Reassembly::kBuffers;
    }
    for (const UsedPort *port : PortsOf(board)) {
        held += port->port.BuffersHeld();
    }
    const uint32_t given = board.options.buffers;
    if (given != 0 && given < held) {
        throw UsageError("--buffers '" + std::to_string(given) +
                         "': too few: ports and lcores alone may hold " + std::to_string(held));
    }
    const auto channels = static_cast<uint32_t>(2 * board.instancePorts.size());
    return given != 0 ? given : held + channels * board.options.channelSize + kBuffersOfCounting;
}

// Timers' thread begins with the first timer, which an lcore may set: then it would be stuck to
// that lcore's processor. So the first one is set here.
void BeginTimers() {
    uint32_t id = 0;
    constexpr uint32_t kNever = UINT32_MAX;
    const auto nothing = [](void *) { return 0u; };
    if (TovSLcoreTimerCreateAndStart(kNever, TOV_TIMER_ONCE, nothing, nullptr, &id) == 0) {
        TovSLcoreTimerDelete(id);
    }
}

unsigned CountLcores() {
    const auto lcores = static_cast<unsigned>(dpdk::Environment::Workers().size());
    if (lcores == 0) {
        throw UsageError(
            "there is no lcore that forwards: give DPDK two at least (-l 0,1, or "
            "--lcores '0@0,1@0' on one processor); the first is the main one");
    }
    return lcores;
}

}  // namespace

PortsEngine::PortsEngine(const PortsOptions &options, const kes_engine::OutputDirectory &out)
    : options_(options), out_(out), run_(options.module), page_(options.report) {
    BeginTimers();
    const unsigned lcores = CountLcores();
    board_.emplace(run_.Module(), options, out, lcores);
    OpenPorts(*board_);
    pool_.emplace(BuffersFor(*board_), options.longestFrame);
    board_->pool = &*pool_;
    for (const auto &port : board_->instancePorts) {
        board_->instances.push_back(std::make_unique<PortedInstance>(*port, options.channelSize));
    }
    for (unsigned number = 0; number < lcores; ++number) {
        lcores_.emplace_back(*board_, number);
    }
    const auto run = [](void *lcore) {
        static_cast<Lcore *>(lcore)->Run();
        return 0;
    };
    launched_ = true;
    for (unsigned number = 0; number < lcores; ++number) {
        rte_eal_remote_launch(run, &lcores_[number], dpdk::Environment::Workers()[number]);
    }
    const auto mayServe = [](Lcore &lcore) { return lcore.WaitUntilEntered(); };
    if (std::ranges::count_if(lcores_, mayServe) != static_cast<ptrdiff_t>(lcores)) {
        throw kes_engine::Failure(
            "an lcore cannot serve its instances: other threads bear the "
            "names of theirs");
    }
}

PortsEngine::~PortsEngine() {
    Stop();
}

void PortsEngine::Start() {
    run_.Start();
    std::vector<uint32_t> unported = kes_engine::InstancesUpTo(run_.LastInstance());
    for (const InstancePort &given : options_.instances) {
        if (given.instance > run_.LastInstance()) {
            throw UsageError("--instance " + std::to_string(given.instance) +
                             ": the last instance of the module is " +
                             std::to_string(run_.LastInstance()));
        }
        std::erase(unported, given.instance);
    }
    unported_.emplace(unported, options_.channelSize, out_);
    page_.Begin(Module(), board_->captures);
}

void PortsEngine::Forward() {
    for (UsedPort *port : PortsOf(*board_)) {
        if (!port->port.Start(*pool_)) {
            absent_.push_back(port);
        }
    }
    kes_engine::Result &result = run_.Outcome();
    const Clock::time_point start = Clock::now();
    page_.KeepTime(result, [this] {
        const LcoreCounts counts = Counts();
        return kes_engine::PageMatter::Counts{.received = counts.received, .fates = counts.fates};
    });
    board_->phase = Phase::kForwarding;
    WaitForTheEnd();
    board_->phase = Phase::kDraining;
    Drain();
    const LcoreCounts counts = Counts();
    result.frames = counts.frames;
    result.received = counts.received;
    result.fates = counts.fates;
    result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    page_.End(result);
    run_.CompareCounters();
}

void PortsEngine::UseModule(ModuleUse use) {
    board_->moduleUse.store(use, std::memory_order_release);
    for (const Lcore &lcore : lcores_) {
        while (lcore.Use() != use) {
            std::this_thread::yield();
        }
    }
}

nlohmann::ordered_json PortsEngine::LoadAnew(const std::string &path) {
    if (options_.report == kes_engine::ReportForm::kHtml) {
        throw kes_engine::Failure("the page of --report html is that of one module");
    }
    const auto closed = exchange_.gate.Close();
    const uint64_t unservedBefore = Counts().unserved;
    const Clock::time_point start = Clock::now();
    UseModule(ModuleUse::kAside);
    const size_t leftBefore = run_.Outcome().leftovers.size();
    size_t commands = 0;
    try {
        commands = run_.Exchange(
            path, [this] { UseModule(ModuleUse::kOutside); },
            [this] { UseModule(ModuleUse::kAside); });
    } catch (...) {
        UseModule(run_.Module().Started() ? ModuleUse::kServing : ModuleUse::kAside);
        throw;
    }
    UseModule(ModuleUse::kServing);
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    const auto &leftovers = run_.Outcome().leftovers;
    return {{"file", run_.Path()},
            {"commands", commands},
            {"unserved", Counts().unserved - unservedBefore},
            {"seconds", seconds},
            {"leftovers",
             std::vector(leftovers.begin() + static_cast<ptrdiff_t>(leftBefore), leftovers.end())}};
}

void PortsEngine::WaitForTheEnd() {
    const kes_engine::ModuleExchange::Attendance attendance(exchange_);
    uint64_t frames = 0;
    Clock::time_point lastCame = Clock::now();
    Clock::time_point nextTry = lastCame;
    do {
        WatchLinks();
        exchange_.Attend([this](const std::string &path) { return LoadAnew(path); });
        const Clock::time_point now = Clock::now();
        if (now >= nextTry) {
            nextTry = now + kTryAgain;
            std::erase_if(absent_, [](UsedPort *port) { return port->port.TryAgain(); });
        }
        const LcoreCounts counts = Counts();
        if (const uint64_t come = counts.frames + counts.reassembly.fragments; come != frames) {
            frames = come;
            lastCame = now;
        }
        if (options_.idleSeconds != 0 &&
            now - lastCame >= std::chrono::seconds(options_.idleSeconds)) {
            return;
        }
    } while (!kes_engine::SleepUntil(Clock::now() + kLook));
}

void PortsEngine::Drain() {
    const Clock::time_point end = Clock::now() + kGrace;
    const auto allIdle = [this] {
        return std::ranges::all_of(lcores_, &Lcore::IsIdle) && board_->handOver.IsEmpty();
    };
    const auto allDelivered = [this] {
        return std::ranges::all_of(board_->instances,
                                   [](const auto &instance) { return instance->IsEmpty(); });
    };
    for (int quiet = 0; quiet < 3;) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        quiet = allIdle() && (allDelivered() || Clock::now() > end) ? quiet + 1 : 0;
    }
}

void PortsEngine::WatchLinks() {
    const std::vector<UsedPort *> ports = PortsOf(*board_);
    links_.resize(ports.size());
    for (size_t i = 0; i < ports.size(); ++i) {
        const bool up = ports[i]->port.IsUp();
        const bool isNews = links_[i].value_or(true) != up;
        links_[i] = up;
        if (isNews) {
            std::cerr << "port '" << ports[i]->port.Name() << "' (" << RoleOf(*ports[i])
                      << "): link " << (up ? "up\n" : "down, waiting for its other side\n");
        }
    }
}

LcoreCounts PortsEngine::Counts() {
    LcoreCounts counts;
    for (Lcore &lcore : lcores_) {
        counts += lcore.Counts();
    }
    return counts;
}

kes_engine::Traffic PortsEngine::TrafficNow() {
    kes_engine::Traffic traffic;
    for (const auto &port : board_->networks) {
        traffic.ports.push_back(port->Counts());
    }
    for (const auto &instance : board_->instances) {
        traffic.ports.push_back(instance->PortCounts());
    }
    if (board_->kernel != nullptr) {
        traffic.ports.push_back(board_->kernel->Counts());
    }
    if (options_.reassemble) {
        const dpdk::ReassemblyCounts counts = Counts().reassembly;
        traffic.reassembly = {.fragments = counts.fragments,
                              .joined = counts.joined,
                              .datagrams = counts.datagrams,
                              .expired = counts.expired,
                              .dropped = counts.dropped,
                              .tooLong = counts.tooLong};
    }
    traffic.buffers = {pool_->Capacity(), pool_->InUse()};
    return traffic;
}

std::string PortsEngine::Source() const {
    std::string names;
    for (const auto &port : board_->networks) {
        names += (names.empty() ? "" : ", ") + port->port.Name();
    }
    return names;
}

kes_engine::State PortsEngine::StateNow() {
    const LcoreCounts counts = Counts();
    std::vector<kes_engine::InstanceCount> instances = unported_->Counts();
    for (const auto &instance : board_->instances) {
        instances.push_back(instance->Count());
    }
    std::ranges::sort(instances, {}, &kes_engine::InstanceCount::instance);
    return {.capture = Source(),
            .workers = board_->lcores,
            .received = counts.received,
            .fates = counts.fates,
            .instances = std::move(instances),
            .memory = standin::ModuleMemoryByPlace(Module().Id()),
            .traffic = TrafficNow()};
}

kes_engine::Result PortsEngine::Finish() {
    run_.Conclude();
    Stop();
    kes_engine::Result &result = run_.Outcome();
    result.capture = Source();
    result.workers = board_->lcores;
    result.served = true;
    result.instances = unported_->Reports();
    for (const auto &instance : board_->instances) {
        instance->Abandon();
        result.instances.push_back(instance->Report());
    }
    std::ranges::sort(result.instances, {}, &kes_engine::InstanceReport::instance);
    run_.Note(board_->captures.Close());
    run_.Note(unported_->CloseCaptures());
    result.traffic = TrafficNow();
    board_->ClosePorts();
    result.traffic->buffers.inUse = pool_->InUse();
    if (result.traffic->buffers.inUse != 0) {
        run_.Note(
            {std::to_string(result.traffic->buffers.inUse) + " packet buffers have not come back"});
    }
    run_.Unload();
    return result;
}

void PortsEngine::EndLcores() {
    if (launched_) {
        board_->phase = Phase::kEnding;
        rte_eal_mp_wait_lcore();
        launched_ = false;
    }
}

void PortsEngine::Stop() {
    run_.Module().Stop();
    EndLcores();
    if (unported_) {
        unported_->Stop();
    }
}

}  // namespace kes_dpdk
