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
#include "module_run.h"
#include "options.h"
#include "output_directory.h"
#include "pace.h"
#include "page_matter.h"
#include "progress.h"
#include "service_instances.h"
#include "standin/mbuf_pool.h"
#include "state.h"

namespace kes_engine {

struct Explanation;

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

    // Runs control commands before any frame. Throws Failure for the first that does not succeed.
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

    // Passes all frames down their paths, as often and as fast as the options say, and waits for
    // the last one's fate. Where the capture breaks off, the replay ends and says so in the result;
    // it ends in order when it is interrupted. A frame that is too long for a buffer is left out
    // and counted.
    void Replay(capture::Reader &capture);

    // Says of each frame of the capture what the module would do with it, on standard output, as
    // text or as a JSON object a line. What breaks it off is told in the result; a reader of the
    // standard output that goes away ends it.
    void Explain(capture::Reader &capture);

    // Receives frames from interfaces until it is interrupted, or has received all that are
    // selected. An interface that goes away is told in the result, and the others go on.
    void Listen(LiveReaders &interfaces);

    // What is known while frames come in. Callable from any thread, once the engine has started.
    State StateNow() const;
    const standin::Module &Module() const {
        return run_.Module();
    }

    // Runs control commands once the replay is over. The first that does not succeed ends them and
    // is told in the result.
    void ExecuteAfter(const std::vector<control::Command> &commands) {
        run_.ExecuteAfter(commands);
    }

    // Waits for the module's own threads, stops the module, the threads and the instances,
    // completes the captures and unloads the module. Returns what the run came to.
    Result Finish();

  private:
    // Keeps the time and the module's counters of what runs.
    template <class Run>
    void Measure(Run run);
    void ReplayOnce(capture::Reader &capture, Progress &progress);
    void PassAll(capture::Reader &capture, Progress &progress);
    void Receive(const capture::Frame &frame);
    void KeepPace(const capture::Frame &frame);
    void ReceiveFrom(LiveReaders &interfaces);
    bool HasRoomFor(const capture::Frame &frame);
    void Print(const capture::Frame &frame, const Explanation &explanation) const;
    standin::Arrival ArrivalOf(const capture::Frame &frame) const;
    void Stop();

    const Options &options_;
    const OutputDirectory &out_;
    Pace pace_;
    std::optional<OwnTimes> ownTimes_;  // that are kept instead
    std::atomic<uint64_t> frames_{0};
    std::atomic<uint64_t> received_{0};  // of these
    standin::MbufPool pool_;
    ModuleRun run_;
    Result &result_;
    std::optional<ForwardingThreads> forwarding_;
    std::optional<ServiceInstances> instances_;
    PageMatter page_;
};

}  // namespace kes_engine
