// Table keys out of messages that name a tunnel: tunnel requests and reconciliation records.
#pragma once

#include "lb/dist_table.h"
#include "packet/host_ip_addr.h"

namespace lyr {

template <class Message>
LyrKesDistIpv4Key Ipv4KeyOf(const Message &message) {
    return {
        .srcIp = message.srcAddr.ipv4Addr,
        .dstIp = message.dstAddr.ipv4Addr,
        .srcPort = message.srcPort,
        .dstPort = message.dstPort,
        .vpnId = message.vpnId,
    };
}

template <class Message>
LyrKesDistIpv6Key Ipv6KeyOf(const Message &message) {
    LyrKesDistIpv6Key key;
    GroupsToWords(message.srcAddr.ipv6Addr, key.srcIpv6);
    GroupsToWords(message.dstAddr.ipv6Addr, key.dstIpv6);
    key.srcPort = message.srcPort;
    key.dstPort = message.dstPort;
    key.vpnId = message.vpnId;
    return key;
}

}  // namespace lyr
