// What the distribution tables are to hold, kept apart from the module.
#pragma once

#include "fuzz_target.h"
#include "mund/reconciliation_messages.h"
#include "mund/statistics_messages.h"

namespace fuzz {

enum class Table { kIpv4, kIpv6, kSessions };

struct ModelKey {
    Table table;
    uint8_t bytes[40];  // as in the table; behind the key zero
    bool operator==(const ModelKey &) const = default;
};

class TableModel {
  public:
    struct Entry {
        ModelKey key;
        uint32_t nodeId;
        uint32_t mark;  // confirmations

        LyrKesVerifyTunnel shown;  // as the verify records show it; of a session nothing

        bool HasPort(uint16_t port) const {
            return shown.srcPort == port || shown.dstPort == port;
        }
    };

    void Add(const LyrKesCwpTunnelReq &request);
    void Add(const LyrKesKaTunnelReq &request);
    void Delete(const LyrKesCwpTunnelReq &request);
    void Delete(const LyrKesKaTunnelReq &request);
    // A record that the service has taken.
    void Audit(const LyrKesReconRecord &record);

    const std::vector<Entry> &Entries() const {
        return entries_;
    }
    // What audits have removed, oldest first.
    const std::vector<LyrKesVerifyTunnel> &Removed() const {
        return removed_;
    }
    void ForgetRemoved() {
        removed_.clear();
    }
    const std::vector<uint32_t> &OpenAudits() const {
        return openAudits_;
    }
    // The module's tables hold the model's entries and no others, each once, in its bucket, linked
    // both ways; and nobody holds a locker.
    void CheckTables() const;
    void Clear();

  private:
    Entry *Find(const ModelKey &key);
    void Put(const Entry &added);
    void Remove(const ModelKey &key);
    void Confirm(const ModelKey &key, uint32_t nodeId);
    void Sweep(uint32_t nodeId);
    bool IsOpen(uint32_t nodeId) const;

    std::vector<Entry> entries_;
    std::vector<LyrKesVerifyTunnel> removed_;
    std::vector<uint32_t> openAudits_;
};

}  // namespace fuzz
