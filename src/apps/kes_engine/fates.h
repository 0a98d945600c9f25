// What became of packets, as those who forward them see it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "output_directory.h"
#include "packet_capture.h"
#include "packet_class.h"
#include "standin/packet_path.h"

namespace kes_engine {

// Packets by their fate.
struct Fates {
    uint64_t returned = 0;
    uint64_t taken = 0;
    uint64_t undelivered = 0;
    uint64_t transmitted = 0;  // all the way
    ClassCounts undeliveredByClass = {};
    uint32_t returnedControl = 0;  // of the returned, those on the control port

    Fates &operator+=(const Fates &other);
};

class Unserved;

// The captures of packets that no service instance got.
class FateCaptures {
  public:
    explicit FateCaptures(const OutputDirectory &out);

    // Has those counted, too, who are not served; before any packet.
    void Watch(Unserved *unserved) {
        unserved_ = unserved;
    }

    // Counts and keeps a packet whose way has ended. One that was taken is not looked at. Callable
    // from any thread, each with counts of its own.
    void Account(Fates &counts, const HostMbuf *packet, standin::Fate fate, bool transmitted);

    // Completes the captures. Returns what went wrong with each, or an empty text.
    std::vector<std::string> Close();

  private:
    PacketCapture returned_;
    PacketCapture undelivered_;
    PacketCapture transmitted_;
    Unserved *unserved_ = nullptr;
};

}  // namespace kes_engine
