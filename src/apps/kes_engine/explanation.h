// The dry run: where a received packet would go, and why.
#pragma once

#include <cstdint>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "standin/mbuf_pool.h"
#include "standin/module_loader.h"
#include "standin/packet_path.h"

namespace kes_engine {

struct Explanation {
    // In order: packet, cause, class; then, as far as the packet comes, source, key, bucket, entry,
    // default (an unknown tunnel's), instance and channel. A last step "note" says that the tables
    // changed all the time.
    struct Step {
        std::string step;
        std::string text;
    };
    std::vector<Step> steps;

    standin::Fate fate = standin::Fate::kReturned;
    std::optional<uint32_t> instance;  // that the packet is for, whether it gets it or not
    uint64_t result = 0;               // HOST_HOOK_*, what the engine would be told
    std::string text;                  // the result in words

    // {"steps": [{"step": name, "text": text}, ...], "meaning": text,
    //  "fate": "taken", "returned" or "undelivered", "instance": N or null, "verdict": "0x1000000"}
    nlohmann::ordered_json ToJson() const;
    // The steps, one numbered line each, and the result.
    std::string ToText() const;
};

// Tells what a started module would do with a packet of the receive path.
//
// The module's own operations decide; the tables are read besides to say what they found. Nothing
// is counted, sent or woken, and no hook runs. Two things cannot be foreseen: a channel that is
// full, since the engine does not tell, and a table that changes after the answer. The operations
// trace their failures while the debug trace is on, and report a broken chain, as for any packet.
//
// May run on any threads beside traffic and changes of the tables. The module must stay started
// meanwhile.
class Explainer {
  public:
    // Throws Failure, which names an operation or object that the module lacks.
    explicit Explainer(const standin::Module &module);
    ~Explainer();

    // The arrival's mark for the diagnostic print is not heeded. Throws Failure for a frame that
    // is too long for a packet buffer.
    Explanation Explain(std::span<const uint8_t> frame, const standin::Arrival &arrival,
                        uint16_t causeAction) const;

  private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace kes_engine
