// Packets by which hosts find each other's hardware addresses: ARP and IPv6 neighbour discovery.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kes/mbuf.h"

namespace kes_dpdk {

bool ResolvesAddresses(const HostMbuf *packet);

// An IPv4 or IPv6 address as packets have it, of 4 or 16 bytes.
using AddressBytes = std::vector<uint8_t>;

// Throws control::InputError for a text that is no address; the name is what it is for.
AddressBytes ParseAddress(const std::string &name, const std::string &text);

// Whether it asks for an address that is none of these. No address at all: for none.
bool AsksForAnother(const HostMbuf *packet, const std::vector<AddressBytes> &addresses);

// Whether it answers somebody's question.
bool AnswersResolution(const HostMbuf *packet);

}  // namespace kes_dpdk
