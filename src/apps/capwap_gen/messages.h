// What access points and controllers say to each other in control messages: all mandatory message
// elements (RFC 5415, sections 5 to 10, and RFC 5416, section 5) and usual optional ones.
#pragma once

#include "capwap/packet_builder.h"
#include "capwap_gen/access_point.h"
#include "capwap_gen/random.h"

namespace capwap_gen {

enum MessageType : uint32_t {
    kDiscoveryRequest = 1,
    kDiscoveryResponse = 2,
    kJoinRequest = 3,
    kJoinResponse = 4,
    kConfigurationStatusRequest = 5,
    kConfigurationStatusResponse = 6,
    kConfigurationUpdateRequest = 7,
    kConfigurationUpdateResponse = 8,
    kWtpEventRequest = 9,
    kWtpEventResponse = 10,
    kChangeStateEventRequest = 11,
    kChangeStateEventResponse = 12,
    kEchoRequest = 13,
    kEchoResponse = 14,
    kImageDataRequest = 15,
    kImageDataResponse = 16,
    kResetRequest = 17,
    kResetResponse = 18,
    kPrimaryDiscoveryRequest = 19,
    kPrimaryDiscoveryResponse = 20,
    kDataTransferRequest = 21,
    kDataTransferResponse = 22,
    kClearConfigurationRequest = 23,
    kClearConfigurationResponse = 24,
    kStationConfigurationRequest = 25,
    kStationConfigurationResponse = 26,
    kWlanConfigurationRequest = 3398913,
    kWlanConfigurationResponse = 3398914,
};

struct Conversation {
    const AccessPoint &ap;
    const TrafficOptions &options;
    Random &random;
};

// The message elements of a message of one of the types above, or of a vendor ping or probe.
capwap::Bytes MessageElements(uint32_t type, const Conversation &in);

// The message elements of a vendor ping with `size` bytes behind the ping header.
capwap::Bytes PingElements(size_t size, Random &random);

// The element that makes a Discovery Request probe the path's MTU (RFC 5415, section 3.5).
capwap::Bytes MtuDiscoveryPadding(size_t size);

}  // namespace capwap_gen
