// Traffic that has nothing to do with CAPWAP or WAPI.
#pragma once

#include "capwap/packet_builder.h"
#include "capwap_gen/random.h"

namespace capwap_gen {

// One packet between the hosts of a frame that lacks its payload: ARP, ICMP, DNS, NTP, or TCP, even
// to the CAPWAP control port.
capwap::FrameSpec UnrelatedPacket(capwap::FrameSpec between, Random &random);

}  // namespace capwap_gen
