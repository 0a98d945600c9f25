// What stations send and receive through their access points.
#pragma once

#include <span>

#include "capwap/packet_builder.h"
#include "capwap_gen/link.h"
#include "capwap_gen/random.h"

namespace capwap_gen {

// A station's ping as an Ethernet frame, or the answer from behind the controller.
capwap::Bytes StationFrame(const capwap::Mac &station, From from, size_t dataSize, Random &random);

// A station's Ethernet frame as the IEEE 802.11 data frame, without FCS, that the radio received.
capwap::Bytes ToNative(std::span<const uint8_t> ethernet, const capwap::Mac &bssid, Random &random);

// A WAI packet behind the Ethernet header: a station's answer in a unicast or multicast key
// negotiation.
capwap::Bytes WaiAnswer(const capwap::Mac &station, const capwap::Mac &bssid, Random &random);

}  // namespace capwap_gen
