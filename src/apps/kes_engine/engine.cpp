#include "engine.h"

#include <chrono>
#include <iostream>

#include "control/json_line.h"
#include "explanation.h"
#include "failure.h"
#include "interruption.h"
#include "module_caller.h"
#include "mund/module_objects.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

constexpr uint32_t kPacketBuffers = 4096;

// How long an interruption may go unnoticed while no frame comes.
constexpr std::chrono::milliseconds kListenSlice{50};

}  // namespace

Engine::Engine(const Options &options, const OutputDirectory &out)
    : options_(options), out_(out), pace_(options.rate), pool_(kPacketBuffers) {
    result_.capture = options.Source();
    result_.workers = options.workers;
    result_.served = options.Serves();
    if (const std::string wrong = module_.Load(options.module); !wrong.empty()) {
        throw UsageError("cannot load the module: " + wrong);
    }
    forwarding_.emplace(module_, options.workers, kPacketBuffers, out);
}

Engine::~Engine() {
    Stop();
}

void Engine::Start() {
    if (const std::string wrong = module_.Start(); !wrong.empty()) {
        throw Failure("cannot start the module: " + wrong);
    }
    // Instances are numbered from 0 to this, inclusive.
    const auto *last = static_cast<const uint32_t *>(module_.Symbol(MUND_OBJECT_LAST_INSTANCE));
    if (last == nullptr) {
        throw Failure("module '" + options_.module + "' has no object " +
                      MUND_OBJECT_LAST_INSTANCE);
    }
    // No channel refuses a packet for lack of room: all buffers fit into any one of them.
    lastInstance_ = *last;
    instances_.emplace(uint64_t{lastInstance_} + 1, pool_.Capacity(), out_);
    countersBefore_ = ReadCounters();
}

void Engine::Execute(const std::vector<control::Command> &commands) {
    for (const control::Command &command : commands) {
        const control::Outcome outcome = control::Execute(command, CallModule, lastInstance_);
        standin::WaitUntilCreatedThreadsIdle();
        if (!outcome.Ok()) {
            throw Failure(command.Where() + outcome.ToText());
        }
        std::cerr << outcome.ToText() << '\n';
        ++result_.commands;
    }
}

template <class Run>
void Engine::Measure(Run run) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point start = Clock::now();
    try {
        run();
    } catch (const std::runtime_error &failure) {
        Note({failure.what()});
    }
    result_.fates = forwarding_->WaitUntilIdle();
    result_.frames = frames_;
    result_.received = received_;
    result_.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    CompareCounters();
}

void Engine::CompareCounters() {
    const std::optional<PacketCounters> counters = ReadCounters();
    if (countersBefore_ && counters) {
        result_.counters = Between(*countersBefore_, *counters);
    }
}

void Engine::Replay(capture::Reader &capture) {
    Measure([&] {
        Progress progress;
        ReplayOnce(capture, progress);
        // A capture that gave no frame gives none the next time.
        const bool repeats = frames_ > 0;
        for (uint32_t round = 2;
             repeats && !Interrupted() && (options_.loops == 0 || round <= options_.loops);
             ++round) {
            capture::Reader again(options_.capture);
            ReplayOnce(again, progress);
        }
    });
}

void Engine::ReplayOnce(capture::Reader &capture, Progress &progress) {
    capture.WhileWaiting([this] {
        forwarding_->Flush();
        return !Interrupted();
    });
    while (!Interrupted()) {
        const std::optional<capture::Frame> frame = capture.Next();
        if (!frame) {
            return;
        }
        KeepPace();
        Receive(*frame);
        if (progress.Due(frames_)) {
            progress.Show(frames_, options_.loops == 1 ? capture.Share() : std::nullopt);
        }
    }
}

void Engine::KeepPace() {
    if (!pace_.HasLimit()) {
        return;
    }
    const Pace::Clock::time_point now = Pace::Clock::now();
    if (const Pace::Clock::time_point moment = pace_.Next(now); moment > now) {
        forwarding_->Flush();
        SleepUntil(moment);
    }
}

void Engine::Explain(capture::Reader &capture) {
    try {
        const Explainer explainer(module_);
        capture.WhileWaiting([] {
            std::cout.flush();
            return !Interrupted();
        });
        while (!Interrupted() && std::cout) {
            const std::optional<capture::Frame> frame = capture.Next();
            if (!frame) {
                return;
            }
            if (!HasRoomFor(*frame)) {
                continue;
            }
            Print(*frame, explainer.Explain(frame->bytes, ArrivalOf(*frame), 0));
        }
    } catch (const std::runtime_error &failure) {
        Note({failure.what()});
    }
}

void Engine::Print(const capture::Frame &frame, const Explanation &explanation) const {
    if (options_.jsonReport) {
        nlohmann::ordered_json object = {{"frame", frame.number}};
        if (frame.IsCutShort()) {
            object["missing_bytes"] = frame.MissingBytes();
        }
        object.update(explanation.ToJson());
        std::cout << control::JsonLine(object) << '\n';
    } else {
        std::cout << frame.ToText() << '\n' << explanation.ToText() << '\n';
    }
}

standin::Arrival Engine::ArrivalOf(const capture::Frame &frame) const {
    return {.timeNs = frame.timeNs,
            .wireLength = frame.wireLength,
            .number = frame.number,
            .rxPort = options_.rxPort,
            .vrf = options_.vrf,
            .diagnose = options_.diagnose};
}

void Engine::Listen(LiveReader &interface) {
    Measure([&] {
        while (!Interrupted()) {
            const std::optional<capture::Frame> frame = interface.Next();
            if (frame) {
                Receive(*frame);
            } else {
                forwarding_->Flush();
                interface.Wait(kListenSlice);
            }
        }
    });
    if (const uint64_t lost = interface.Lost(); lost > 0) {
        Note({"--listen " + options_.interface + ": " + std::to_string(lost) +
              " frames came faster than they could be received"});
    }
}

State Engine::StateNow() const {
    return {.capture = options_.Source(),
            .workers = options_.workers,
            .received = received_,
            .fates = forwarding_->FatesSoFar(),
            .instances = instances_->Counts(),
            .memory = standin::ModuleMemoryByPlace(module_.Id())};
}

void Engine::ExecuteAfter(const std::vector<control::Command> &commands) {
    standin::WaitUntilCreatedThreadsIdle();
    try {
        Execute(commands);
    } catch (const Failure &failure) {
        Note({failure.what()});
    }
}

void Engine::Receive(const capture::Frame &frame) {
    if (!HasRoomFor(frame)) {
        return;
    }
    result_.cutShort += frame.IsCutShort() ? 1 : 0;
    HostMbuf *packet = pool_.Receive(frame.bytes, ArrivalOf(frame));
    standin::HostMbufMeta &meta = standin::MetaOf(packet);
    options_.frameRules.Apply(meta);
    // Only this thread counts.
    frames_.store(frames_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (!meta.transmitted) {
        received_.store(received_.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }
    forwarding_->Forward(packet);
}

// A network card may have joined frames to longer ones than any that was sent.
bool Engine::HasRoomFor(const capture::Frame &frame) {
    if (frame.bytes.size() <= standin::MbufPool::kMaxFrame) {
        return true;
    }
    ++result_.oversize;
    return false;
}

Result Engine::Finish() {
    standin::WaitUntilCreatedThreadsIdle();
    if (!result_.counters) {
        CompareCounters();
    }
    result_.dropWatch = ReadDropWatch(module_);
    if (result_.oversize > 0) {
        Note({"'" + options_.Source() + "': " + std::to_string(result_.oversize) +
              " frames were left out: they have more than the " +
              std::to_string(standin::MbufPool::kMaxFrame) + " bytes that fit into a buffer"});
    }
    Stop();
    result_.instances = instances_->Reports();
    result_.alarms = standin::SentAlarms();
    Note(forwarding_->CloseCaptures());
    Note(instances_->CloseCaptures());
    result_.leftovers = module_.Unload();
    return result_;
}

std::optional<PacketCounters> Engine::ReadCounters() {
    try {
        return ReadPacketCounters();
    } catch (const Failure &failure) {
        Note({failure.what()});
        return std::nullopt;
    }
}

void Engine::Stop() {
    module_.Stop();
    if (forwarding_) {
        forwarding_->Stop();
    }
    if (instances_) {
        instances_->Stop();
    }
}

void Engine::Note(const std::vector<std::string> &failures) {
    for (const std::string &failure : failures) {
        if (!failure.empty()) {
            result_.failures.push_back(failure);
        }
    }
}

}  // namespace kes_engine
