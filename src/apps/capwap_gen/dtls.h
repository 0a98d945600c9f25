// DTLS as it looks on the wire (RFC 6347): a handshake with pre-shared keys (RFC 4279), then
// records that are encrypted, which here means random.
#pragma once

#include <string_view>
#include <vector>

#include "capwap/packet_builder.h"
#include "capwap_gen/link.h"

namespace capwap_gen {

struct DtlsDatagram {
    From from;
    capwap::Bytes payload;     // of UDP: CAPWAP DTLS header and one record or more
    std::string_view content;  // of the first record, as Describe() has it
};

// The datagrams of a handshake, in order; the access point is the client.
std::vector<DtlsDatagram> DtlsHandshake(std::string_view identity, Random &random);

// One record of an established connection.
capwap::Bytes DtlsApplicationData(uint64_t number, Random &random);
capwap::Bytes DtlsAlert(uint64_t number, Random &random);

}  // namespace capwap_gen
