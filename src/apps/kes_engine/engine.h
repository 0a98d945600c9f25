// The engine around the module: forwarding threads, service instances, and the order in which
// they start and stop.
#pragma once

#include <atomic>
#include <optional>
#include <vector>

#include "capture/reader.h"
#include "control/command.h"
#include "forwarding.h"
#include "live_reader.h"
#include "module_statistics.h"
#include "options.h"
#include "output_directory.h"
#include "pace.h"
#include "progress.h"
#include "report.h"
#include "service_instances.h"
#include "standin/mbuf_pool.h"
#include "standin/module_loader.h"
#include "standin/runtime.h"

namespace kes_engine {

struct Explanation;

// A run as it stands.
struct State {
    std::string capture;
    uint32_t workers = 0;
    uint64_t received = 0;
    Fates fates;
    std::vector<InstanceCount> instances;
    std::vector<standin::MemoryOfPlace> memory;  // that the module holds
};

class Engine {
  public:
    // Loads the module, and lets the forwarding threads enter it. Throws UsageError.
    Engine(const Options &options, const OutputDirectory &out);
    // Stops in order.
    ~Engine();
    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;

    // Starts the module and the service instances. Throws Failure.
    void Start();

    // Runs control commands, printing what came of each on standard error. What a command leaves to
    // the module's own threads is done before the next one runs, and before this returns. Throws
    // Failure for the first that does not succeed.
    void Execute(const std::vector<control::Command> &commands);

    // Passes all frames down their paths, as often and as fast as the options say, and waits for
    // the last one's fate. Where the capture breaks off, the replay ends and says so in the result;
    // it ends in order when it is interrupted. A frame that is too long for a buffer is left out
    // and counted.
    void Replay(capture::Reader &capture);

    // Says of each frame of the capture what the module would do with it, on standard output, as
    // text or as a JSON object a line. What breaks it off is told in the result; a reader of the
    // standard output that goes away ends it.
    void Explain(capture::Reader &capture);

    // Receives frames from an interface until it is interrupted. An interface that goes away is
    // told in the result.
    void Listen(LiveReader &interface);

    // What is known while frames come in. Callable from any thread, once the engine has started.
    State StateNow() const;
    const standin::Module &Module() const {
        return module_;
    }

    // Runs control commands once the replay is over. The first that does not succeed ends them and
    // is told in the result.
    void ExecuteAfter(const std::vector<control::Command> &commands);

    // Waits for the module's own threads, stops the module, the threads and the instances,
    // completes the captures and unloads the module. Returns what the run came to.
    Result Finish();

  private:
    // Keeps the time and the module's counters of what runs.
    template <class Run>
    void Measure(Run run);
    void ReplayOnce(capture::Reader &capture, Progress &progress);
    void Receive(const capture::Frame &frame);
    void KeepPace();
    bool HasRoomFor(const capture::Frame &frame);
    void Print(const capture::Frame &frame, const Explanation &explanation) const;
    standin::Arrival ArrivalOf(const capture::Frame &frame) const;
    std::optional<PacketCounters> ReadCounters();
    void CompareCounters();
    void Stop();
    void Note(const std::vector<std::string> &failures);

    const Options &options_;
    const OutputDirectory &out_;
    Result result_;
    std::optional<PacketCounters> countersBefore_;  // any frame
    Pace pace_;
    std::atomic<uint64_t> frames_{0};
    std::atomic<uint64_t> received_{0};  // of these
    standin::MbufPool pool_;
    standin::Module module_;
    std::optional<ForwardingThreads> forwarding_;
    uint32_t lastInstance_ = 0;
    std::optional<ServiceInstances> instances_;
};

}  // namespace kes_engine
