#include "unserved.h"

#include <algorithm>
#include <cstring>

#include "control/counters.h"
#include "control/values.h"
#include "failure.h"
#include "packet_class.h"
#include "standin/mbuf_pool.h"

namespace kes_engine {
namespace {

constexpr uint16_t kTypeWapi = 0x88B4;
constexpr uint8_t kWapi = UINT8_MAX;
// Steps of an explanation that come before any reason, or only say what follows from the others.
constexpr const char *kUninteresting[] = {"packet", "class", "bucket", "instance"};

void PutMac(uint32_t (&address)[4], const uint8_t (&mac)[6]) {
    std::memcpy(address, mac, sizeof mac);
}

std::string AddressText(const uint32_t (&address)[4], uint8_t family) {
    switch (family) {
        case HOST_PROTO_IPV4:
            return control::AddressText(address[0]);
        case HOST_PROTO_IPV6:
            return control::AddressText(address);
        default: {
            uint8_t mac[6];
            std::memcpy(mac, address, sizeof mac);
            return control::MacText(mac);
        }
    }
}

const char *KindText(uint8_t kind) {
    return kind == kWapi ? "WAPI" : control::kPacketClassWords[kind];
}

}  // namespace

size_t Unserved::HashOfKey::operator()(const Key &key) const {
    uint64_t hash = key.kind + 256u * key.undelivered;
    for (const uint32_t(&address)[4] : {std::cref(key.source), std::cref(key.destination)}) {
        for (const uint32_t word : address) {
            hash = (hash ^ word) * 0x9E3779B97F4A7C15;
            hash ^= hash >> 32;
        }
    }
    return hash;
}

Unserved::Unserved(const standin::Module &module) {
    try {
        explainer_.emplace(module);
    } catch (const Failure &) {
    }
}

std::optional<Unserved::Key> Unserved::KeyOf(const HostMbuf *packet, bool undelivered) {
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    Key key = {};
    key.undelivered = undelivered;
    if (meta.etherType == kTypeWapi) {
        key.kind = kWapi;
        key.family = HOST_PROTO_OTHER;
        PutMac(key.source, meta.srcMac);
        PutMac(key.destination, meta.dstMac);
        return key;
    }
    const std::optional<size_t> row = ClassOf(packet);
    if (!row) {
        return std::nullopt;
    }
    key.kind = static_cast<uint8_t>(*row);
    key.family = meta.protoType;
    if (meta.protoType == HOST_PROTO_IPV4) {
        key.source[0] = meta.srcIp;
        key.destination[0] = meta.dstIp;
    } else {
        std::ranges::copy(meta.srcIp6, key.source);
        std::ranges::copy(meta.dstIp6, key.destination);
    }
    return key;
}

void Unserved::Count(const HostMbuf *packet, bool undelivered) {
    const std::optional<Key> key = KeyOf(packet, undelivered);
    if (!key) {
        return;
    }
    const std::lock_guard lock(mutex_);
    auto talk = talks_.find(*key);
    if (talk == talks_.end()) {
        if (talks_.size() == kMostTalks) {
            ++others_;
            return;
        }
        talk = talks_.emplace(*key, Talk{.why = WhyOf(packet, undelivered)}).first;
    }
    ++talk->second.packets;
}

std::string Unserved::WhyOf(const HostMbuf *packet, bool undelivered) const {
    if (!explainer_) {
        return "the module cannot be asked";
    }
    const standin::HostMbufMeta &meta = standin::MetaOf(packet);
    const Explanation explanation =
        explainer_->Explain(standin::FrameAsReceived(packet), meta.arrival, meta.causeAction);
    const standin::Fate fate = undelivered ? standin::Fate::kUndelivered : standin::Fate::kReturned;
    if (explanation.fate != fate) {
        return "its channel was full, or the tables changed: now it would be " + explanation.text;
    }
    // The fate is told besides.
    std::string why = explanation.text.substr(explanation.text.find(": ") + 1);
    why.erase(0, why.find_first_not_of(' '));
    const bool hasKey = std::ranges::any_of(
        explanation.steps, [](const Explanation::Step &step) { return step.step == "key"; });
    for (const Explanation::Step &step : explanation.steps) {
        const bool isPassed =
            (step.step == "cause" && meta.causeAction == 0) || (step.step == "source" && hasKey);
        if (!isPassed && std::ranges::find(kUninteresting, step.step) == std::end(kUninteresting)) {
            why += "; " + step.text;
        }
    }
    return why;
}

UnservedReport Unserved::Report() {
    const std::lock_guard lock(mutex_);
    UnservedReport report = {.talks = {}, .others = others_};
    for (const auto &[key, talk] : talks_) {
        report.talks.push_back({.source = AddressText(key.source, key.family),
                                .destination = AddressText(key.destination, key.family),
                                .kind = KindText(key.kind),
                                .undelivered = key.undelivered,
                                .why = talk.why,
                                .packets = talk.packets});
    }
    std::ranges::sort(report.talks, [](const auto &left, const auto &right) {
        return std::tie(right.packets, left.source, left.destination, left.kind, left.undelivered) <
               std::tie(left.packets, right.source, right.destination, right.kind,
                        right.undelivered);
    });
    return report;
}

}  // namespace kes_engine
