// One packet's way through the module without a hand-off at its end.
#pragma once

#include <string>

#include "explanation.h"
#include "kes/mbuf.h"
#include "module_view.h"

namespace kes_engine {

class DryRun {
  public:
    // The packet is as the receive path delivers it. The module writes its load-balance key.
    DryRun(const ModuleView &module, HostMbuf *packet);

    // Goes the packet's way, once.
    Explanation Explain();

    // True when what the module answered is not what its tables said before: they have changed in
    // between, and the steps do not lead to the result.
    bool Contradicted() const {
        return contradicted_;
    }

  private:
    enum class Class { kWapi, kControl, kKeepalive, kDtlsHandshake, kNone };
    // What a lookup must come to by the tables.
    struct Expected {
        uint32_t answer;
        uint32_t lbKey;
    };

    void Say(const char *step, std::string text);
    // The possible ends.
    void Return(const std::string &reason);
    void Refuse(uint32_t answer);
    void Undelivered(const std::string &reason);
    void Taken(uint32_t instance);

    Class Classify();
    Class ClassifyOnDataPort();
    bool ExplainSource();
    void ExplainStation();
    void ExplainTunnel();
    void ExplainSession();
    template <class Key>
    Expected ExplainTunnelLookup(const Table<Key> &table, const Key &key);
    template <class Key>
    Expected ExplainLookup(const Table<Key> &table, const Key &key);
    template <class Key>
    Expected ExplainDefault(const Table<Key> &table);
    void Distributed(uint32_t answer, const Expected &expected);
    void HandOver(uint32_t lbKey, uint32_t packetType);
    bool ExplainChannel(uint32_t instance, uint32_t packetType);

    const ModuleView &module_;
    HostMbuf *packet_;
    Explanation explanation_;
    bool contradicted_ = false;
};

}  // namespace kes_engine
