// The traffic between a controller and its access points, frame by frame.
#pragma once

#include <cstdint>
#include <map>
#include <string_view>
#include <vector>

#include "capwap_gen/access_point.h"
#include "capwap_gen/link.h"

namespace capwap_gen {

class Traffic {
  public:
    // Throws std::invalid_argument when a controller's address is an access point's.
    explicit Traffic(const TrafficOptions &options);

    const TrafficOptions &Options() const {
        return options_;
    }
    const std::vector<AccessPoint> &AccessPoints() const {
        return accessPoints_;
    }

    // Hands each frame to the sink as it is made; every call makes the same frames.
    void Generate(const Sink &sink) const;

  private:
    TrafficOptions options_;
    Random random_;
    std::vector<AccessPoint> accessPoints_;
};

// What a capture holds, counted.
struct Tally {
    uint64_t frames = 0, returned = 0, undelivered = 0;
    std::map<std::string_view, uint64_t> byContent;
    std::vector<uint64_t> byInstance;  // frames delivered

    explicit Tally(uint32_t instances) : byInstance(instances) {}
    void Count(const Frame &frame);
};

}  // namespace capwap_gen
