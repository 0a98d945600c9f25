// What a dry run comes across, in words.
#pragma once

#include <string>

#include "kes/mbuf.h"
#include "module_view.h"

namespace kes_engine {

std::string HexText(uint32_t value, int digits);

// What the packet carries, between whom, and how it comes in.
std::string PacketText(const HostMbuf *packet);

// Its UDP ports, as in "12380 -> 5246".
std::string PortsText(const HostMbuf *packet);

std::string AddressText(const MundModuleAddress &address);

// As in "source 0 (type 1, 10.0.0.1, interface 7)".
std::string SourceText(size_t position, const MundSourceRecord &source);
// The sources that are in use.
std::string SourcesText(const Sources &sources);

std::string KeyText(const MundIpv4TunnelKey &key);
std::string KeyText(const MundIpv6TunnelKey &key);
std::string KeyText(const MundSessionKey &key);

// As in "bucket 3 of 23397".
std::string BucketText(const Chain &chain);
// The bucket and how many entries are in it.
std::string ChainText(const Chain &chain);

}  // namespace kes_engine
