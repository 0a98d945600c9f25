#include "engine.h"

#include <chrono>
#include <iostream>

#include "control/json_line.h"
#include "explanation.h"
#include "failure.h"
#include "interruption.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

constexpr uint32_t kPacketBuffers = 4096;

// How long an interruption may go unnoticed while no frame comes.
constexpr std::chrono::milliseconds kListenSlice{50};

}  // namespace

Engine::Engine(const Options &options, const OutputDirectory &out)
    : options_(options),
      out_(out),
      pace_(options.rate),
      pool_(kPacketBuffers),
      run_(options.module),
      result_(run_.Outcome()),
      page_(options.report) {
    if (options.speed > 0) {
        ownTimes_.emplace(options.speed);
    }
    result_.capture = options.Source();
    result_.workers = options.workers;
    result_.served = options.Serves();
    forwarding_.emplace(Module(), options.workers, kPacketBuffers, out);
}

Engine::~Engine() {
    Stop();
}

void Engine::Start() {
    run_.Start();
    // No channel refuses a packet for lack of room: all buffers fit into any one of them.
    instances_.emplace(InstancesUpTo(run_.LastInstance()), pool_.Capacity(), out_);
    page_.Begin(Module(), forwarding_->Captures());
}

template <class Run>
void Engine::Measure(Run run) {
    using Clock = std::chrono::steady_clock;
    page_.KeepTime(result_, [this] {
        return PageMatter::Counts{.received = received_, .fates = forwarding_->FatesSoFar()};
    });
    const Clock::time_point start = Clock::now();
    try {
        run();
    } catch (const std::runtime_error &failure) {
        run_.Note({failure.what()});
    }
    result_.fates = forwarding_->WaitUntilIdle();
    result_.frames = frames_;
    result_.received = received_;
    result_.seconds += std::chrono::duration<double>(Clock::now() - start).count();
    run_.CompareCounters();
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
            capture::Reader again(options_.capture, options_.selection);
            ReplayOnce(again, progress);
        }
    });
}

void Engine::ReplayOnce(capture::Reader &capture, Progress &progress) {
    try {
        PassAll(capture, progress);
    } catch (...) {
        result_.tally += capture.Done();
        throw;
    }
    result_.tally += capture.Done();
}

void Engine::PassAll(capture::Reader &capture, Progress &progress) {
    capture.WhileWaiting([this] {
        forwarding_->Flush();
        return !Interrupted();
    });
    if (ownTimes_) {
        ownTimes_->Begin();
    }
    while (!Interrupted()) {
        const std::optional<capture::Frame> frame = capture.Next();
        if (!frame) {
            return;
        }
        KeepPace(*frame);
        Receive(*frame);
        if (progress.Due(frames_)) {
            progress.Show(frames_, options_.loops == 1 ? capture.Share() : std::nullopt);
        }
    }
}

void Engine::KeepPace(const capture::Frame &frame) {
    if (!pace_.HasLimit() && !ownTimes_) {
        return;
    }
    const Pace::Clock::time_point now = Pace::Clock::now();
    const Pace::Clock::time_point moment =
        ownTimes_ ? ownTimes_->Next(now, frame.timeNs) : pace_.Next(now);
    if (moment > now) {
        forwarding_->Flush();
        SleepUntil(moment);
    }
}

void Engine::Explain(capture::Reader &capture) {
    try {
        const Explainer explainer(Module());
        capture.WhileWaiting([] {
            std::cout.flush();
            return !Interrupted();
        });
        bool any = false;
        while (!Interrupted() && std::cout) {
            const std::optional<capture::Frame> frame = capture.Next();
            if (!frame) {
                const uint64_t others = capture.Done().passedOver;
                if (!any && others > 0) {
                    std::cerr << "kes_engine: note: none of the " << others
                              << " frames read is wanted\n";
                }
                return;
            }
            any = true;
            if (!HasRoomFor(*frame)) {
                continue;
            }
            Print(*frame, explainer.Explain(frame->bytes, ArrivalOf(*frame), 0));
        }
    } catch (const std::runtime_error &failure) {
        run_.Note({failure.what()});
    }
}

void Engine::Print(const capture::Frame &frame, const Explanation &explanation) const {
    if (options_.report == ReportForm::kJson) {
        nlohmann::ordered_json object = {{"frame", frame.number}};
        if (frame.IsCutShort()) {
            object["missingBytes"] = frame.MissingBytes();
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

void Engine::Listen(LiveReaders &interfaces) {
    Measure([&] { ReceiveFrom(interfaces); });
    run_.Note(interfaces.Failures());
    result_.interfaces = interfaces.Counts();
    result_.tally += interfaces.Done();
    for (const InterfaceCounts &counts : result_.interfaces) {
        if (counts.dropped > 0) {
            run_.Note({"--listen " + counts.interface + ": " + std::to_string(counts.dropped) +
                       " frames came faster than they could be received"});
        }
    }
}

void Engine::ReceiveFrom(LiveReaders &interfaces) {
    const capture::FrameRanges &wanted = options_.selection.frames;
    for (uint64_t last = 0; !Interrupted() && interfaces.AnyLeft() && last < wanted.Last();) {
        const std::optional<capture::Frame> frame = interfaces.Next();
        if (!frame) {
            forwarding_->Flush();
            interfaces.Wait(kListenSlice);
            continue;
        }
        last = frame->number;
        if (wanted.Contain(last)) {
            Receive(*frame);
        } else {
            ++result_.tally.passedOver;
        }
    }
}

State Engine::StateNow() const {
    return {.capture = options_.Source(),
            .workers = options_.workers,
            .received = received_,
            .fates = forwarding_->FatesSoFar(),
            .instances = instances_->Counts(),
            .memory = standin::ModuleMemoryByPlace(Module().Id())};
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
    run_.Conclude();
    if (result_.oversize > 0) {
        run_.Note({"'" + options_.Source() + "': " + std::to_string(result_.oversize) +
                   " frames were left out: they have more than the " +
                   std::to_string(standin::MbufPool::kMaxFrame) + " bytes that fit into a buffer"});
    }
    page_.End(result_);
    Stop();
    result_.instances = instances_->Reports();
    run_.Note(forwarding_->CloseCaptures());
    run_.Note(instances_->CloseCaptures());
    run_.Unload();
    return result_;
}

void Engine::Stop() {
    run_.Module().Stop();
    if (forwarding_) {
        forwarding_->Stop();
    }
    if (instances_) {
        instances_->Stop();
    }
}

}  // namespace kes_engine
