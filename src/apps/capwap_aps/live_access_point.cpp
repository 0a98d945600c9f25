#include "capwap_aps/live_access_point.h"

#include <algorithm>
#include <array>

namespace capwap_aps {
namespace {

constexpr uint16_t kAcName = 4, kResultCode = 33;
constexpr size_t kLongestDatagram = 65'535;

bool Succeeded(const capwap::Message &answer) {
    const auto code = capwap::FindElement(answer.elements, kResultCode);
    return !code || std::ranges::all_of(*code, [](uint8_t byte) { return byte == 0; });
}

}  // namespace

Exchanges &Exchanges::operator+=(const Exchanges &other) {
    requests += other.requests;
    answered += other.answered;
    retransmissions += other.retransmissions;
    keepalives += other.keepalives;
    keepalivesAnswered += other.keepalivesAnswered;
    joins += other.joins;
    return *this;
}

LiveAccessPoint::LiveAccessPoint(const capwap_gen::AccessPoint &ap,
                                 const capwap_gen::TrafficOptions &options, const Timers &timers)
    : ap_(ap),
      options_(options),
      timers_(timers),
      random_(options.seed + ap.index),
      control_(ap, ap.controlPort, options, capwap::kControlPort),
      data_(ap, ap.dataPort, options, capwap::kDataPort) {}

Moment LiveAccessPoint::Tick(Moment now) {
    if (request_ && now >= request_->due) {
        AskAgain(now);
    }
    if (!request_ && now >= nextRequest_) {
        Ask(joined_ ? capwap_gen::kEchoRequest : capwap_gen::kDiscoveryRequest, now);
    }
    if (joined_ && now >= nextKeepalive_) {
        SendKeepalive(now);
    }
    return std::min(request_ ? request_->due : nextRequest_,
                    joined_ ? nextKeepalive_ : Moment::max());
}

void LiveAccessPoint::Ask(uint32_t type, Moment now) {
    const auto elements = capwap_gen::MessageElements(type, {ap_, options_, random_});
    const uint8_t sequence = ap_.sequence++;
    request_ = {.type = type,
                .sequence = sequence,
                .datagram = capwap::ControlMessage(type, sequence, elements),
                .due = now + timers_.retransmit};
    nextRequest_ = now + timers_.echo;
    ++counts_.requests;
    control_.Send(request_->datagram);
}

// After the last retransmission it looks for its controller anew.
void LiveAccessPoint::AskAgain(Moment now) {
    if (request_->retransmissions == timers_.maxRetransmit) {
        request_.reset();
        joined_ = false;
        keepaliveSent_.reset();
        nextRequest_ = now;
        return;
    }
    ++request_->retransmissions;
    ++counts_.retransmissions;
    constexpr uint32_t kMostDoublings = 16;
    request_->due =
        now + timers_.retransmit * (1 << std::min(request_->retransmissions, kMostDoublings));
    control_.Send(request_->datagram);
}

void LiveAccessPoint::ReadControl(Moment now) {
    std::array<uint8_t, kLongestDatagram> buffer;
    while (const auto datagram = control_.Receive(buffer)) {
        const auto packet = capwap::ReadHeader(*datagram);
        if (!packet || packet->dtls || packet->fragment) {
            continue;
        }
        const auto answer = capwap::ReadMessage(packet->rest);
        if (answer && request_ && answer->type == request_->type + 1 &&
            answer->sequence == request_->sequence && Succeeded(*answer)) {
            Accept(*answer, now);
        }
    }
}

void LiveAccessPoint::Accept(const capwap::Message &answer, Moment now) {
    ++counts_.answered;
    request_.reset();
    if (answer.type == capwap_gen::kDiscoveryResponse) {
        Ask(capwap_gen::kJoinRequest, now);
    } else if (answer.type == capwap_gen::kJoinResponse) {
        const auto name = capwap::FindElement(answer.elements, kAcName);
        controllerName_ = name ? std::string(name->begin(), name->end()) : "";
        joined_ = true;
        ++counts_.joins;
        SendKeepalive(now);
    }
}

void LiveAccessPoint::SendKeepalive(Moment now) {
    nextKeepalive_ = now + timers_.keepalive;
    if (!keepaliveSent_) {
        keepaliveSent_ = now;
    }
    ++counts_.keepalives;
    data_.Send(capwap::Keepalive(ap_.session));
}

void LiveAccessPoint::ReadData() {
    std::array<uint8_t, kLongestDatagram> buffer;
    while (const auto datagram = data_.Receive(buffer)) {
        const auto packet = capwap::ReadHeader(*datagram);
        if (packet && packet->keepalive && capwap::ReadKeepalive(packet->rest) == ap_.session &&
            keepaliveSent_) {
            ++counts_.keepalivesAnswered;
            keepaliveSent_.reset();
        }
    }
}

bool LiveAccessPoint::IsServed(Moment now) const {
    const bool waitsForControl = request_ && request_->retransmissions > 0;
    const bool waitsForData = keepaliveSent_ && now - *keepaliveSent_ >= timers_.retransmit;
    return joined_ && !waitsForControl && !waitsForData;
}

}  // namespace capwap_aps
