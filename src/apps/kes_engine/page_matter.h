// What only the page of --report html needs, collected beside a run's packets.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "common_options.h"
#include "fates.h"
#include "report.h"
#include "standin/module_loader.h"
#include "timeline.h"
#include "unserved.h"

namespace kes_engine {

// For another form of the report nothing is collected.
class PageMatter {
  public:
    explicit PageMatter(ReportForm form) : wanted_(form == ReportForm::kHtml) {}

    // Before any packet; the module must have started.
    void Begin(const standin::Module &module, FateCaptures &captures);
    // With the first frame; later calls do nothing. `look` is called from another thread until
    // End() and tells what was received, and the fates so far.
    struct Counts {
        uint64_t received;
        Fates fates;
    };
    void KeepTime(Result &result, const std::function<Counts()> &look);
    // When all packets have met their fate. Puts all into the result.
    void End(Result &result);

  private:
    const bool wanted_;
    std::optional<Unserved> unserved_;
    std::optional<Timeline> timeline_;
};

}  // namespace kes_engine
