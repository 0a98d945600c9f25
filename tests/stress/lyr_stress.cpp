// Starts and stops the module again and again, in every manner, while threads forward packets and
// call every operation, and checks at each quiet moment that nothing is lost, torn or left behind.
#include <CLI/CLI.hpp>
#include <atomic>
#include <chrono>

#include "crew.h"
#include "loaded_module.h"
#include "management.h"
#include "report.h"
#include "standin/runtime.h"
#include "traffic.h"

namespace stress {
namespace {

using std::chrono::steady_clock;

struct Options {
    uint64_t seed = 1;
    uint64_t firstCycle = 0;
    uint64_t cycles = 1000;
    uint32_t threads = 4;
    uint32_t seconds = 0;
    uint32_t patience = 60;
    bool exitAtWork = false;
};

// A call of the engine that a start may be made to fail at.
struct Fault {
    const char *operation;
    uint32_t calls;  // of one start, or about as many
};

constexpr Fault kStartFaults[] = {
    {"TovMemAllocInner", 13},      {"TovMemAllocInner", 13},
    {"HostHookRegister", 5},       {"TovCapabilityQueryItem", 3},
    {"RegRavelRpcServerToKes", 1}, {"TovCreatePipeQue", 1},
    {"TovThreadCreate", 1},        {"TOV_ThreadInfoRegByName", 1},
    {"TOV_EventRead", 1},          {"strcpy_s", 1},
};

constexpr Fault kRunFaults[] = {
    {"TovMemAllocInner", 40},  {"RPC_IdlMsgCreate", 20},
    {"TOV_ChannelDcSend", 40}, {"TOV_ChannelGetIdByName", 4},
    {"TOV_EventWrite", 40},    {"TOV_ThreadInfoGetByName", 10},
    {"TovQueEnq", 10},         {"TovSLcoreTimerCreateAndStart", 1},
    {"memcpy_s", 40},          {"vsnprintf_truncated_s", 20},
};

void SetFault(const Fault &fault, Random &random) {
    standin::FailCall(fault.operation, 1 + random.Below(fault.calls));
}

class Run {
  public:
    explicit Run(const Options &options)
        : options_(options),
          crew_(options.threads,
                {.enter = [this] { module_.Get().EnterLcore(); },
                 .leave = [this] { module_.Get().LeaveLcore(); },
                 .perform = [this](Random &random, Doing &doing) { Act(random, doing); }}),
          watchdog_(std::chrono::seconds(options.patience), [this] { return Describe(); }) {
        standin::SetTimersManual(!options.exitAtWork);
        standin::SetLineSink([this](standin::LineKind kind, std::string_view line) {
            if (kind == standin::LineKind::kAssertion && !faults_) {
                Fail("a broken invariant: %s", std::string(line).c_str());
            }
            ++lines_;
        });
    }
    ~Run() {
        standin::SetLineSink({});
    }
    Run(const Run &) = delete;
    Run &operator=(const Run &) = delete;

    void Execute() {
        position.seed = options_.seed;
        const auto begin = steady_clock::now();
        const auto end = begin + std::chrono::seconds(options_.seconds);
        uint64_t done = 0;
        while (done < options_.cycles && (options_.seconds == 0 || steady_clock::now() < end)) {
            Cycle(options_.firstCycle + done++);
        }
        if (options_.exitAtWork) {
            ExitAtWork();
        }
        At("the end");
        Unload();
        Print(done, std::chrono::duration<double>(steady_clock::now() - begin).count());
        // In fewer cycles than these, chance may leave something out.
        if (done >= 300) {
            ExpectEverythingHappened();
        }
    }

  private:
    // Ends the process in the middle of everything: nothing of the module may be destroyed under
    // its own threads and ours, and nothing is waited for.
    [[noreturn]] void ExitAtWork() {
        Unload();  // joins threads that have ended
        Load();
        ExpectFaults(false);
        At("a start before the exit");
        Require(module_.Start(), "a start succeeds");
        crew_.Work();
        crew_.Allow(UINT32_MAX);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        At("the exit");
        std::exit(0);
    }

    // What the workers draw from.
    void Act(Random &random, Doing &doing) {
        const uint32_t drawn = random.Below(16);
        if (starting_ && drawn < 4) {
            // A manager at the door, who audits as soon as he is let in.
            doing = "an audit at the door";
            do {
                management_.Audit(random);
            } while (starting_);
        } else if (drawn < 10) {
            doing = "a packet";
            traffic_.Forward(random);
        } else if (drawn < 14) {
            doing = "an operation";
            management_.Act(random);
        } else if (drawn == 14) {
            doing = "a channel";
            traffic_.Drain(random.Below(kPlaces));
        } else if (!options_.exitAtWork) {
            doing = "the timers";
            standin::AdvanceTimers(1000);
        }
    }

    // One start, a burst of everything, one stop. What is drawn depends on the seed and the
    // cycle's number alone.
    void Cycle(uint64_t number) {
        position.cycle = number;
        Random random(options_.seed ^ (number + 1) * 0x9E3779B97F4A7C15);
        if (!module_.Get().Loaded()) {
            Load();
        }
        crew_.Reseed(random.Next());
        SetCapabilities(random);
        if (!random.OneIn(4)) {
            crew_.Work();
        }
        standin::SetStrict(random.OneIn(2));
        const bool mayFail = random.OneIn(3);
        if (Start(random, mayFail)) {
            Burst(random, 300);
            if (random.OneIn(4)) {
                LookAround(mayFail);
                Burst(random, 200);
            }
            Stop(random);
        }
        if (random.OneIn(2)) {
            Park();
            At("counting packets");
            traffic_.ExpectConservation();
        }
        if (random.OneIn(8)) {
            Unload();
        }
    }

    static void SetCapabilities(Random &random) {
        standin::ClearCapabilities();
        standin::SetCapability("WCWP_SPEC_SVC_NUM", random.Between(3u, 9u));
        // Small tables have neighbours in their chains; large ones take their time to be made.
        if (!random.OneIn(32)) {
            standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", random.Below(24));
            standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", random.Below(24));
        }
    }

    bool Start(Random &random, bool mayFail) {
        At(mayFail ? "a start that may fail" : "a start");
        ExpectFaults(mayFail);
        if (mayFail) {
            SetFault(random.Pick(kStartFaults), random);
        }
        Accompany(random);
        starting_ = true;
        const bool started = module_.Start();
        starting_ = false;
        standin::ClearFaults();
        ++starts_;
        if (started) {
            if (!mayFail) {
                management_.Register(kUnaudited);
            }
            return true;
        }
        ++failedStarts_;
        Require(mayFail, "a start succeeds unless the engine fails it");
        ExpectStopped();
        return false;
    }

    void Stop(Random &random) {
        if (random.OneIn(4)) {
            At("a burst of faults");
            ExpectFaults(true);
            SetFault(random.Pick(kRunFaults), random);
            SetFault(random.Pick(kRunFaults), random);
            Burst(random, 200);
            standin::ClearFaults();
        }
        const bool alone = random.OneIn(4);
        if (alone) {
            Park();
            At("the audits before a stop");
            management_.FinishAudits();
        }
        At(alone ? "a stop" : "a stop under traffic");
        const uint32_t records = module_.VerifyRecords();
        Accompany(random);
        module_.Stop();
        ExpectStopped();
        Require(!alone || module_.VerifyRecords() == records, "a stop keeps the verify records");
    }

    void ExpectStopped() {
        At("looking for what is left");
        Require(!management_.Answers(), "the service is closed");
        module_.ExpectNothingHeld();
    }

    // Parks everyone and looks at everything. Unless something was made to fail, the module then
    // has to do all that it is there for.
    void LookAround(bool mayLack) {
        Park();
        At("looking around");
        management_.FinishAudits();
        traffic_.ExpectConservation();
        const LoadedModule::Entries entries = module_.ExpectSoundTables(5246);
        if (mayLack) {
            return;
        }
        Require(management_.CountTunnels(false, 5246) == entries.ipv4WithPort &&
                    management_.CountTunnels(true, 5246) == entries.ipv6WithPort,
                "the tables are counted right");
        At("what is not audited");
        management_.DeclareController();
        ExpectArrivals(kUnaudited);
        At("an audit that removes everything");
        swept_ += entries.all;
        management_.RemoveEverything(module_.LastInstance());
        Require(module_.ExpectSoundTables(5246).all == 0, "audits are carried out");
        At("a packet of each table");
        management_.ResetPacketCounters();
        management_.Register(1);
        ExpectArrivals(1);
        management_.ExpectPacketCounters({2, 1, 0});
        ++looks_;
    }

    void ExpectArrivals(uint32_t tunnel) {
        for (const Table table : {Table::kIpv4, Table::kIpv6, Table::kSession}) {
            Require(traffic_.Arrives(table, tunnel, OwnerOf(tunnel)),
                    "a registered tunnel's packet arrives");
        }
    }

    void ExpectFaults(bool expected) {
        // Who has met a fault may be about to look whether it was expected.
        crew_.Finish();
        faults_ = expected;
        management_.ExpectFaults(expected);
    }

    // Everything at once, up to so many actions, before the next step.
    void Burst(Random &random, uint32_t most) {
        At("a burst of everything");
        crew_.Work();
        crew_.Allow(random.Below(most));
        crew_.Finish();
    }
    // Everything at once, beside the next step, unless all are parked.
    void Accompany(Random &random) {
        crew_.Allow(random.Below(300));
    }
    void Park() {
        At("waiting for the workers to end what they do");
        crew_.Park();
    }

    void Load() {
        At("loading");
        module_.Load();
        ++loads_;
        visible_ = &module_;
    }
    void Unload() {
        if (module_.Get().Loaded()) {
            Park();
            At("unloading");
            visible_ = nullptr;
            module_.Unload();
        }
    }

    std::string Describe() const {
        const LoadedModule *module = visible_;
        return crew_.Activities() + (module != nullptr ? " lockers:" + module->Lockers() : "");
    }

    void Print(uint64_t cycles, double seconds) const {
        const Traffic::Totals packets = traffic_.Sum();
        uint64_t operations = 0;
        for (uint32_t operation = 0; operation < MUND_OPERATION_COUNT; ++operation) {
            operations += management_.Served(operation);
        }
        std::printf("%" PRIu64 " cycles from %" PRIu64 " of seed %" PRIu64
                    " in %.1f s: %u loads, %u starts, %u of them failed, %u looks around\n",
                    cycles, options_.firstCycle, options_.seed, seconds, loads_, starts_,
                    failedStarts_, looks_);
        std::printf("%" PRIu64 " packets: %" PRIu64 " returned, %" PRIu64 " taken, %" PRIu64
                    " undelivered; %" PRIu64 " operations, %" PRIu64 " entries swept, %" PRIu64
                    " lines\n",
                    packets.returned + packets.taken + packets.undelivered, packets.returned,
                    packets.taken, packets.undelivered, operations, swept_, lines_.load());
    }

    void ExpectEverythingHappened() const {
        for (uint32_t operation = 0; operation < MUND_OPERATION_COUNT; ++operation) {
            if (management_.Served(operation) == 0) {
                Fail("%s was never served", MundOperationName(operation));
            }
        }
        if (const std::string kind = traffic_.NeverArrived(); !kind.empty()) {
            Fail("never arrived: %s", kind.c_str());
        }
        Require(failedStarts_ > 0 && looks_ > 0 && swept_ > 0 && lines_ > 0 && loads_ > 1 &&
                    management_.RecordsRead() > 0,
                "the run has met everything");
    }

    const Options options_;
    LoadedModule module_;
    std::atomic<const LoadedModule *> visible_{nullptr};
    Traffic traffic_;
    Management management_;
    std::atomic<bool> faults_{false}, starting_{false};
    std::atomic<uint64_t> lines_{0};
    uint32_t loads_ = 0, starts_ = 0, failedStarts_ = 0, looks_ = 0;
    uint64_t swept_ = 0;
    Crew crew_;
    Watchdog watchdog_;
};

}  // namespace
}  // namespace stress

int main(int argc, char **argv) {
    stress::Options options;
    CLI::App app{"Stress program of the module: see tests/stress/README.md"};
    app.add_option("--seed", options.seed, "What everything is drawn from")->capture_default_str();
    app.add_option("--first-cycle", options.firstCycle, "Number of the first cycle")
        ->capture_default_str();
    app.add_option("--cycles", options.cycles, "Starts and stops")->capture_default_str();
    app.add_option("--seconds", options.seconds, "Ends after so long; 0: not before the cycles do")
        ->capture_default_str();
    app.add_option("--threads", options.threads, "Threads at work beside the one that starts")
        ->check(CLI::Range(1, 64))
        ->capture_default_str();
    app.add_option("--patience", options.patience, "Seconds after which a cycle counts as hanging")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_flag("--exit-at-work", options.exitAtWork, "Exits while the threads are at work");
    CLI11_PARSE(app, argc, argv);
    stress::Run(options).Execute();
    return 0;
}
