// The link that a capture is taken on: it addresses and stamps frames and knows what becomes of
// them.
#pragma once

#include <cstdint>
#include <functional>
#include <string_view>

#include "capwap/packet_builder.h"
#include "capwap_gen/access_point.h"
#include "capwap_gen/random.h"

namespace capwap_gen {

// What becomes of a frame in a module that runs the capture's commands.
struct Fate {
    enum Kind { kReturned, kUndelivered, kDelivered };
    Kind kind = kReturned;
    uint32_t instance = 0;  // that gets a delivered frame
};

constexpr Fate kReturned = {};

struct Frame {
    capwap::Bytes bytes;
    int64_t timeNs;            // since the epoch
    std::string_view content;  // in the words of capwap::Describe
    Fate fate;
};

using Sink = std::function<void(const Frame &)>;

enum class From { kAccessPoint, kController };

constexpr capwap::Mac kControllerMac = {0xD2, 0xC0, 0, 0, 0, 1};

class Link {
  public:
    Link(const TrafficOptions &options, Random &random, const Sink &sink);

    // A frame between the two, without payload; `port` is the controller's.
    capwap::FrameSpec Between(AccessPoint &ap, From from, uint16_t port) const;

    void Emit(capwap::Bytes bytes, std::string_view content, Fate fate);
    void Emit(const capwap::FrameSpec &spec, std::string_view content, Fate fate);
    void Send(AccessPoint &ap, From from, uint16_t port, capwap::Bytes payload,
              std::string_view content, Fate fate);

  private:
    const TrafficOptions &options_;
    Random &random_;
    const Sink &sink_;
    int64_t timeNs_;
    uint32_t gapNs_;
};

// The fate of what is looked up by addresses and ports: all on the control port, and DTLS
// handshakes on the data port. What a controller sends is not addressed to one and comes back.
Fate TunnelFate(const AccessPoint &ap, From from, uint16_t port);
// The fate of a keepalive; a session that is not registered has no default.
Fate KeepaliveFate(const AccessPoint &ap, From from);
// The fate of tunnels that are not registered.
Fate DefaultFate();
// The fate of a WAPI frame, which the station's address decides.
Fate StationFate(const capwap::Mac &station, uint32_t instances);

}  // namespace capwap_gen
