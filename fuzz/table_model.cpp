#include "table_model.h"

#include <utility>

#include "lb/dist_table.h"
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

void GroupsToWords(const uint16_t (&groups)[8], uint32_t (&words)[4]) {
    for (size_t i = 0; i < 4; ++i) {
        words[i] = static_cast<uint32_t>(groups[2 * i]) << 16 | groups[2 * i + 1];
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

LyrKesVerifyTunnel Shown(const LyrKesCwpTunnelReq &request) {
    LyrKesVerifyTunnel tunnel = {};
    tunnel.ipVer = request.srcAddr.ipVer != 0 ? 1 : 0;
    if (tunnel.ipVer == 0) {
        tunnel.srcIpv4 = request.srcAddr.ipv4Addr;
        tunnel.dstIpv4 = request.dstAddr.ipv4Addr;
    } else {
        std::ranges::copy(request.srcAddr.ipv6Addr, tunnel.srcIpv6);
        std::ranges::copy(request.dstAddr.ipv6Addr, tunnel.dstIpv6);
    }
    tunnel.srcPort = request.srcPort;
    tunnel.dstPort = request.dstPort;
    return tunnel;
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

TableModel::Entry *TableModel::Find(const ModelKey &key) {
    const auto found = std::ranges::find(entries_, key, &Entry::key);
    return found != entries_.end() ? &*found : nullptr;
}

void TableModel::Put(const Entry &added) {
    if (Entry *entry = Find(added.key)) {
        entry->nodeId = added.nodeId;
    } else {
        entries_.push_back(added);
    }
}

void TableModel::Remove(const ModelKey &key) {
    std::erase_if(entries_, [&key](const Entry &entry) { return entry.key == key; });
}

void TableModel::Add(const LyrKesCwpTunnelReq &request) {
    Put({KeyOfTunnel(request), request.nodeId, 0, Shown(request)});
}

void TableModel::Add(const LyrKesKaTunnelReq &request) {
    Put({Keep(Table::kSessions, request.sessionId), request.nodeId, 0, {}});
}

void TableModel::Delete(const LyrKesCwpTunnelReq &request) {
    Remove(KeyOfTunnel(request));
}

void TableModel::Delete(const LyrKesKaTunnelReq &request) {
    Remove(Keep(Table::kSessions, request.sessionId));
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
        Confirm(KeyOfTunnel(record), nodeId);
    } else if (record.reconType == LYR_KES_RECON_SESSION) {
        Confirm(Keep(Table::kSessions, record.sessionId), nodeId);
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
            removed_.push_back(entry.shown);
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
