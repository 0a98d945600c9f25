#include "explanation.h"

#include "control/values.h"
#include "dry_run.h"
#include "failure.h"
#include "module_view.h"

namespace kes_engine {
namespace {

constexpr uint32_t kPacketBuffers = 256;
// Times that a packet is tried while the tables change under it.
constexpr int kAttempts = 8;

struct ReleasePacket {
    void operator()(HostMbuf *packet) const {
        standin::MbufPool::Release(packet);
    }
};
using Packet = std::unique_ptr<HostMbuf, ReleasePacket>;

const char *FateName(standin::Fate fate) {
    switch (fate) {
        case standin::Fate::kReturned:
            return "returned";
        case standin::Fate::kTaken:
            return "taken";
        case standin::Fate::kUndelivered:
            return "undelivered";
    }
    return "";
}

std::string ValueText(uint64_t value) {
    return value == 0 ? "0" : control::HexText(value);
}

}  // namespace

nlohmann::ordered_json Explanation::ToJson() const {
    nlohmann::ordered_json json;
    json["steps"] = nlohmann::ordered_json::array();
    for (const Step &step : steps) {
        json["steps"].push_back({{"step", step.step}, {"text", step.text}});
    }
    json["meaning"] = text;
    json["fate"] = FateName(fate);
    json["instance"] = nullptr;
    if (instance) {
        json["instance"] = *instance;
    }
    json["verdict"] = ValueText(result);
    return json;
}

std::string Explanation::ToText() const {
    std::string lines;
    for (size_t i = 0; i < steps.size(); ++i) {
        lines += std::to_string(i + 1) + ". " + steps[i].step + ": " + steps[i].text + '\n';
    }
    return lines + "result: " + text + " (" + ValueText(result) + ")";
}

struct Explainer::State {
    explicit State(const standin::Module &loaded) : module(loaded) {}

    const ModuleView module;
    standin::MbufPool pool{kPacketBuffers};
};

Explainer::Explainer(const standin::Module &module) : state_(new State(module)) {}

Explainer::~Explainer() = default;

Explanation Explainer::Explain(std::span<const uint8_t> frame, const standin::Arrival &arrival,
                               uint16_t causeAction) const {
    standin::Arrival quiet = arrival;
    quiet.diagnose = false;
    for (int attempt = 1;; ++attempt) {
        const Packet packet(state_->pool.Receive(frame, quiet));
        if (packet == nullptr) {
            throw Failure("a frame of " + std::to_string(frame.size()) + " bytes; at most " +
                          std::to_string(standin::MbufPool::kMaxFrame) + " fit into a buffer");
        }
        standin::MetaOf(packet.get()).causeAction = causeAction;
        DryRun run(state_->module, packet.get());
        Explanation explanation = run.Explain();
        if (!run.Contradicted()) {
            return explanation;
        }
        if (attempt == kAttempts) {
            explanation.steps.push_back(
                {"note", "the tables kept changing; the result is what the module said last"});
            return explanation;
        }
    }
}

}  // namespace kes_engine
