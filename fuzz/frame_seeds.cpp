#include "frame_seeds.h"

#include <map>
#include <string>

#include "capture/reader.h"
#include "capwap/describe.h"
#include "capwap_gen/traffic.h"

namespace fuzz {

namespace {

// Keeps the shortest frame of each content, if it is short: mutations of long ones mostly touch
// what nobody reads.
class Shortest {
  public:
    void Add(std::string_view content, ByteSpan frame) {
        constexpr size_t kLongest = 400;
        Bytes &kept = byContent_[std::string(content)];
        if (frame.size() <= kLongest && (kept.empty() || frame.size() < kept.size())) {
            kept.assign(frame.begin(), frame.end());
        }
    }
    void MoveTo(std::vector<Bytes> &frames) {
        for (auto &[content, frame] : byContent_) {
            if (!frame.empty()) {
                frames.push_back(std::move(frame));
            }
        }
        byContent_.clear();
    }

  private:
    std::map<std::string, Bytes> byContent_;
};

void AddGeneratedFrames(std::vector<Bytes> &frames) {
    capwap_gen::TrafficOptions options;
    options.accessPoints = 8;
    for (const capwap_gen::KindInfo &kind : capwap_gen::kKinds) {
        options.mix.Set(kind.kind, 1);
    }
    Shortest shortest;
    capwap_gen::Traffic(options).Generate(
        [&shortest](const capwap_gen::Frame &frame) { shortest.Add(frame.content, frame.bytes); });
    shortest.MoveTo(frames);
}

void AddSession(std::vector<Bytes> &frames) {
    capture::Reader session(LYR_FUZZ_SESSION);
    Shortest shortest;
    while (const auto frame = session.Next()) {
        shortest.Add(capwap::Describe(frame->bytes), frame->bytes);
    }
    shortest.MoveTo(frames);
}

}  // namespace

std::vector<Bytes> SeedFrames() {
    std::vector<Bytes> frames;
    AddGeneratedFrames(frames);
    AddSession(frames);
    return frames;
}

}  // namespace fuzz
