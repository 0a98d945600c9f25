#include "table_model.h"

#include <utility>

#include "lb/dist_table.h"
#include "lb/tunnel_registration.h"
#include "module/capability.h"

namespace fuzz {

namespace {

template <class Key>
ModelKey Keep(Table table, const Key &key) {
    static_assert(sizeof key <= sizeof ModelKey::bytes);
    ModelKey kept = {table, {}};
    std::memcpy(kept.bytes, &key, sizeof key);
    return kept;
}

template <class Key>
Key Restore(const ModelKey &kept) {
    Key key;
    std::memcpy(&key, kept.bytes, sizeof key);
    return key;
}

void GroupsToWords(const uint16_t (&groups)[8], uint32_t (&words)[4]) {
    for (size_t i = 0; i < 4; ++i) {
        words[i] = static_cast<uint32_t>(groups[2 * i]) << 16 | groups[2 * i + 1];
    }
}

void WordsToGroups(const uint32_t (&words)[4], uint16_t (&groups)[8]) {
    for (size_t i = 0; i < 8; ++i) {
        groups[i] = static_cast<uint16_t>(words[i / 2] >> (i % 2 == 0 ? 16 : 0));
    }
}

// Tunnel requests and audit records have the same fields.
template <class Message>
ModelKey KeyOfTunnel(const Message &message) {
    if (message.srcAddr.ipVer == 0) {
        return Keep(Table::kIpv4,
                    LyrKesDistIpv4Key{message.srcAddr.ipv4Addr, message.dstAddr.ipv4Addr,
                                      message.srcPort, message.dstPort, message.vpnId});
    }
    LyrKesDistIpv6Key key = {};
    GroupsToWords(message.srcAddr.ipv6Addr, key.srcIpv6);
    GroupsToWords(message.dstAddr.ipv6Addr, key.dstIpv6);
    key.srcPort = message.srcPort;
    key.dstPort = message.dstPort;
    key.vpnId = message.vpnId;
    return Keep(Table::kIpv6, key);
}

template <class Key>
bool KeyHasPort(const ModelKey &kept, uint16_t port) {
    const Key key = Restore<Key>(kept);
    return key.srcPort == port || key.dstPort == port;
}

// How many entries a table of the module has, each of which must be in the model.
template <class Entry, class IndexOf>
size_t CountTable(Table table, const LyrKesDistBucket *buckets, uint32_t cap, IndexOf indexOf,
                  const std::vector<TableModel::Entry> &model) {
    size_t count = 0;
    for (uint32_t i = 0; i < cap; ++i) {
        const LyrKesDistBucket *before = &buckets[i];
        for (const LyrKesDistBucket *link = before->next; link != &buckets[i]; link = link->next) {
            Require(link != nullptr && link->prev == before, "buckets are linked both ways");
            const auto &entry = *static_cast<const Entry *>(link);
            Require(indexOf(&entry.key, sizeof entry.key) == i, "entries are in their buckets");
            const ModelKey key = Keep(table, entry.key);
            const auto known = std::ranges::find(model, key, &TableModel::Entry::key);
            Require(known != model.end(), "a table has what was added and not deleted");
            Require(known->nodeId == entry.nodeId, "an entry has its last owner");
            Require(known->mark == entry.reconMark, "an entry has its confirmations");
            before = link;
            ++count;
        }
        Require(buckets[i].prev == before, "buckets are linked both ways");
    }
    return count;
}

}  // namespace

ModelKey KeyOf(const LyrKesCwpTunnelReq &request) {
    return KeyOfTunnel(request);
}

ModelKey KeyOf(const LyrKesKaTunnelReq &request) {
    return Keep(Table::kSessions, request.sessionId);
}

ModelKey TunnelKeyOf(const LyrKesReconRecord &record) {
    return KeyOfTunnel(record);
}

ModelKey SessionKeyOf(const LyrKesReconRecord &record) {
    return Keep(Table::kSessions, record.sessionId);
}

bool TableModel::Entry::HasPort(uint16_t port) const {
    return key.table == Table::kIpv4 ? KeyHasPort<LyrKesDistIpv4Key>(key, port)
                                     : KeyHasPort<LyrKesDistIpv6Key>(key, port);
}

LyrKesVerifyTunnel TableModel::Entry::Removed() const {
    LyrKesVerifyTunnel tunnel = {};
    if (key.table == Table::kIpv4) {
        const auto ipv4 = Restore<LyrKesDistIpv4Key>(key);
        tunnel.srcIpv4 = ipv4.srcIp;
        tunnel.dstIpv4 = ipv4.dstIp;
        tunnel.srcPort = ipv4.srcPort;
        tunnel.dstPort = ipv4.dstPort;
    } else {
        const auto ipv6 = Restore<LyrKesDistIpv6Key>(key);
        tunnel.ipVer = 1;
        WordsToGroups(ipv6.srcIpv6, tunnel.srcIpv6);
        WordsToGroups(ipv6.dstIpv6, tunnel.dstIpv6);
        tunnel.srcPort = ipv6.srcPort;
        tunnel.dstPort = ipv6.dstPort;
    }
    return tunnel;
}

void TableModel::Entry::DeleteFromModule() const {
    switch (key.table) {
        case Table::kIpv4: {
            const auto ipv4 = Restore<LyrKesDistIpv4Key>(key);
            LyrKes_DistDelIPv4Tunnel(nodeId, &ipv4);
            return;
        }
        case Table::kIpv6: {
            const auto ipv6 = Restore<LyrKesDistIpv6Key>(key);
            LyrKes_DistDelIPv6Tunnel(nodeId, &ipv6);
            return;
        }
        case Table::kSessions: {
            const auto session = Restore<LyrKesDistKaKey>(key);
            LyrKes_DistDelKaTunnel(nodeId, &session);
            return;
        }
    }
}

TableModel::Entry *TableModel::Find(const ModelKey &key) {
    const auto found = std::ranges::find(entries_, key, &Entry::key);
    return found != entries_.end() ? &*found : nullptr;
}

void TableModel::Add(const ModelKey &key, uint32_t nodeId) {
    if (Entry *entry = Find(key)) {
        entry->nodeId = nodeId;
    } else {
        entries_.push_back({key, nodeId, 0});
    }
}

void TableModel::Delete(const ModelKey &key) {
    if (Entry *entry = Find(key)) {
        *entry = entries_.back();
        entries_.pop_back();
    }
}

bool TableModel::IsOpen(uint32_t nodeId) const {
    return std::ranges::find(openAudits_, nodeId) != openAudits_.end();
}

void TableModel::Audit(const LyrKesReconRecord &record) {
    const uint32_t nodeId = record.nodeId;
    if (nodeId > g_lyrHostsvcNum) {
        return;
    }
    if (record.reconType == LYR_KES_RECON_BEGIN) {
        if (!IsOpen(nodeId)) {
            openAudits_.push_back(nodeId);
        }
    } else if (!IsOpen(nodeId)) {
        return;
    } else if (record.reconType == LYR_KES_RECON_TUNNEL) {
        Confirm(TunnelKeyOf(record), nodeId);
    } else if (record.reconType == LYR_KES_RECON_SESSION) {
        Confirm(SessionKeyOf(record), nodeId);
    } else if (record.reconType == LYR_KES_RECON_FINISH) {
        Sweep(nodeId);
        std::erase(openAudits_, nodeId);
    }
}

void TableModel::Confirm(const ModelKey &key, uint32_t nodeId) {
    Entry *entry = Find(key);
    if (entry != nullptr && entry->nodeId == nodeId) {
        ++entry->mark;
    }
}

void TableModel::Sweep(uint32_t nodeId) {
    std::erase_if(entries_, [&](Entry &entry) {
        if (entry.nodeId != nodeId) {
            return false;
        }
        const bool confirmed = std::exchange(entry.mark, 0) != 0;
        if (!confirmed && entry.key.table != Table::kSessions) {
            removed_.push_back(entry.Removed());
        }
        return !confirmed;
    });
}

void TableModel::CheckTables() const {
    Require(g_LyrKes_DistIpv4RwLocker == 0 && g_LyrKes_DistIpv6RwLocker == 0 &&
                g_LyrKes_DistKaRwLocker == 0,
            "nobody holds a locker");
    const size_t count =
        CountTable<LyrKesDistIpv4Entry>(Table::kIpv4, g_LyrKes_DistIpv4Tbl, g_LyrKes_DistIpv4Cap,
                                        LyrKes_DistIpv4_GetHashIndex, entries_) +
        CountTable<LyrKesDistIpv6Entry>(Table::kIpv6, g_LyrKes_DistIpv6Tbl, g_LyrKes_DistIpv6Cap,
                                        LyrKes_DistIpv6_GetHashIndex, entries_) +
        CountTable<LyrKesDistKaEntry>(Table::kSessions, g_LyrKes_DistKaTbl, g_LyrKes_DistKaCap,
                                      LyrKes_DistKa_GetHashIndex, entries_);
    Require(count == entries_.size(), "a table has every entry once");
}

void TableModel::Clear() {
    entries_.clear();
    removed_.clear();
    openAudits_.clear();
}

}  // namespace fuzz
