#include "contenders.h"

#include <algorithm>
#include <array>
#include <utility>

#include "dfx/stat_hooks.h"
#include "failure.h"
#include "kes/hook.h"
#include "lb/dist_hash.h"
#include "lb/packet_lookup.h"
#include "running_module.h"

namespace bench {
namespace {

// The key as the module reads it, with the same accessors.
LyrKesDistIpv4Key KeyOf(const HostMbuf *packet) {
    return {
        .srcIp = HostMbufGetIphdrSrcIp(packet),
        .dstIp = HostMbufGetIphdrDstIp(packet),
        .srcPort = static_cast<uint16_t>(HostMbufGetL4SrcPort(packet)),
        .dstPort = static_cast<uint16_t>(HostMbufGetL4DstPort(packet)),
        .vpnId = HostMbufGetReceiveVrfIndex(packet) & 0xFFFF,
    };
}

// Three tables of the module, each sized for so many entries and filled with as many.
ModuleSetup SetupFor(uint32_t entries) {
    return {.linkNum = 0,
            .dataLinkNum = entries,
            .ipv4Tunnels = entries,
            .ipv6Tunnels = entries,
            .sessions = entries,
            .owners = kOwners};
}

void LookUpOneByOne(const PeerTable &table, std::span<HostMbuf *const> packets) {
    for (HostMbuf *packet : packets) {
        HostMbufSetLbKey(packet, table.Find(KeyOf(packet)));
    }
}

void LookUpInBulk(const PeerTable &table, std::span<HostMbuf *const> packets) {
    static_assert(kBurst % PeerTable::kBulk == 0, "bursts are whole bulks");
    std::array<LyrKesDistIpv4Key, PeerTable::kBulk> keys;
    std::array<const void *, PeerTable::kBulk> pointers;
    std::ranges::transform(keys, pointers.begin(), [](const auto &key) { return &key; });
    for (; !packets.empty(); packets = packets.subspan(PeerTable::kBulk)) {
        std::ranges::transform(packets.first(PeerTable::kBulk), keys.begin(), KeyOf);
        table.FindBulk(pointers,
                       [&](size_t i, uint32_t node) { HostMbufSetLbKey(packets[i], node); });
    }
}

}  // namespace

Contest::Contest(uint32_t entries, size_t stageBurst)
    : entries_(entries),
      lockFree_("lock_free", entries, Readers::kLockFree),
      readWriteLock_("read_write_lock", entries, Readers::kReadWriteLock) {
    RunModule(SetupFor(entries));
    for (uint32_t flow = 0; flow < entries; ++flow) {
        const LyrKesDistIpv4Key key = Ipv4Tunnel(flow);
        const uint32_t owner = OwnerOf(Traffic::kControlIpv4, flow, kOwners);
        lockFree_.Add(key, owner);
        readWriteLock_.Add(key, owner);
        hashes_.push_back(LyrKes_Hash(&key, sizeof(key)));
    }
    // Their whole cost, what they do for the statistics included.
    const std::vector<HostHookFunc> stages = {LyrKes_CwpStatRxInProc, LyrKes_CwpStatRxOutProc};
    AddOurs("IPv4", Traffic::kControlIpv4, stages, LyrKes_DistIpv4_PktProc, stageBurst);
    AddPeers();
    AddOurs("IPv6", Traffic::kControlIpv6, stages, LyrKes_DistIpv6_PktProc, stageBurst);
    AddOurs("keepalive", Traffic::kKeepalive, stages, LyrKes_DistKa_PktProc, stageBurst);
}

void Contest::Check(const Contender &contender, const Bursts &burst,
                    std::span<const uint32_t> hashes) const {
    const bool stamps = contender.side != Side::kFloor;
    for (size_t i = 0; i < kBurst; ++i) {
        const uint32_t flow = burst.FlowOf(i);
        const uint32_t right = stamps ? OwnerOf(contender.traffic, flow, kOwners) : hashes_[flow];
        const uint32_t given = stamps ? HostMbufGetLbKey(burst.Packets()[i]) : hashes[i];
        if (given != right) {
            Fail("%s: a packet of flow %u got %u, not %u", contender.name.c_str(), flow, given,
                 right);
        }
    }
}

// `stages` are the module's hooks that a burst passes before its packets are looked up, and that
// have to do with the lookup: all of what they cost is timed.
void Contest::AddOurs(const std::string &table, Traffic traffic, std::vector<HostHookFunc> stages,
                      uint32_t (*lookUp)(HostMbuf *packet), size_t stageBurst) {
    const auto lookUpEach = [lookUp](std::span<HostMbuf *const> packets) {
        for (HostMbuf *packet : packets) {
            if (lookUp(packet) != LYR_DIST_OK) {
                Fail("a lookup went wrong");
            }
        }
    };
    contenders_.push_back({.name = "ours, " + table + ", one by one",
                           .side = Side::kOurs,
                           .traffic = traffic,
                           .work = [lookUpEach](auto packets, auto) { lookUpEach(packets); }});
    contenders_.push_back(
        {.name = "ours, " + table + ", in bursts of " + std::to_string(stageBurst),
         .side = Side::kOurs,
         .traffic = traffic,
         .work = [=, stages = std::move(stages)](auto packets, auto) {
             while (!packets.empty()) {
                 const auto burst = packets.first(std::min(stageBurst, packets.size()));
                 for (const HostHookFunc stage : stages) {
                     for (HostMbuf *packet : burst) {
                         if (stage(packet) != HOST_HOOK_CONTINUE) {
                             Fail("a stage before the lookup took a packet");
                         }
                     }
                 }
                 lookUpEach(burst);
                 packets = packets.subspan(burst.size());
             }
         }});
}

void Contest::AddPeers() {
    const auto add = [this](const char *name, Side side, auto work) {
        contenders_.push_back({.name = name,
                               .side = side,
                               .traffic = Traffic::kControlIpv4,
                               .work = std::move(work)});
    };
    add("rte_hash, lock-free readers", Side::kPeer,
        [this](auto packets, auto) { LookUpOneByOne(lockFree_, packets); });
    add("rte_hash, read-write lock", Side::kPeer,
        [this](auto packets, auto) { LookUpOneByOne(readWriteLock_, packets); });
    add("rte_hash, lock-free, bulks of 32", Side::kPeer,
        [this](auto packets, auto) { LookUpInBulk(lockFree_, packets); });
    add("key read and hash alone", Side::kFloor, [](auto packets, auto hashes) {
        std::ranges::transform(packets, hashes.begin(), [](const HostMbuf *packet) {
            return PeerTable::Hash(KeyOf(packet));
        });
    });
}

}  // namespace bench
