#include "page_matter.h"

#include <ctime>

#include "control/values.h"
#include "standin/runtime.h"

namespace kes_engine {

void PageMatter::Begin(const standin::Module &module, FateCaptures &captures) {
    if (wanted_) {
        unserved_.emplace(module);
        captures.Watch(&*unserved_);
    }
}

void PageMatter::KeepTime(Result &result, const std::function<Counts()> &look) {
    if (!wanted_ || timeline_) {
        return;
    }
    result.begunAt = control::TimeText(std::time(nullptr));
    timeline_.emplace([look] {
        const Counts counts = look();
        const standin::AlarmCounts alarms = standin::SentAlarms();
        return TimePoint{.received = counts.received,
                         .returned = counts.fates.returned,
                         .taken = counts.fates.taken,
                         .undelivered = counts.fates.undelivered,
                         .transmitted = counts.fates.transmitted,
                         .raised = alarms.raised,
                         .restored = alarms.restored};
    });
}

void PageMatter::End(Result &result) {
    if (timeline_) {
        result.timeline = timeline_->End();
    }
    if (unserved_) {
        result.unserved = unserved_->Report();
    }
}

}  // namespace kes_engine
