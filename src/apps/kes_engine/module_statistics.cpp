#include "module_statistics.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>

#include "control/counters.h"
#include "failure.h"
#include "module_caller.h"
#include "mund/call.h"
#include "mund/module_objects.h"

namespace kes_engine {
namespace {

constexpr MundOperation kReadCounters = MUND_OP_GetPktStatistics;

bool IsNotOffered(const control::Answer &answer) {
    return answer.failure == MundStatusText(MUND_STATUS_NO_SERVICE) ||
           answer.failure == MundStatusText(MUND_STATUS_NO_OPERATION);
}

// What is wrong with the answer, or an empty text.
std::string Flaw(const control::Answer &answer, const LyrKesGetPktStatisticsRsp &reply) {
    if (!answer.failure.empty()) {
        return answer.failure;
    }
    if (answer.result != 0) {
        return "it returned " + std::to_string(answer.result);
    }
    if (answer.reply.size() != sizeof reply) {
        return "it replied " + std::to_string(answer.reply.size()) + " bytes instead of " +
               std::to_string(sizeof reply);
    }
    if (reply.rowNum != LYR_KES_PKT_STAT_ROW_NUM ||
        reply.counterNum != LYR_KES_PKT_STAT_COUNTER_NUM) {
        return "it replied " + std::to_string(reply.rowNum) + " rows of " +
               std::to_string(reply.counterNum) + " counters";
    }
    return "";
}

// The module's threads may be at work on it.
template <typename Word>
Word Load(Word &word) {
    return std::atomic_ref(word).load(std::memory_order_relaxed);
}

template <class Operation>
PacketCounters Combined(const PacketCounters &one, const PacketCounters &other,
                        Operation operation) {
    PacketCounters result = one;
    for (size_t row = 0; row < result.size(); ++row) {
        for (const control::PacketCounter &counter : control::kPacketCounters) {
            uint32_t &value = result[row].*counter.value;
            value = operation(value, other[row].*counter.value);
        }
    }
    return result;
}

}  // namespace

std::optional<PacketCounters> ReadPacketCounters() {
    const control::Answer answer = CallModule(kReadCounters, {});
    if (IsNotOffered(answer)) {
        return std::nullopt;
    }
    LyrKesGetPktStatisticsRsp reply = {};
    std::memcpy(&reply, answer.reply.data(), std::min(answer.reply.size(), sizeof reply));
    if (const std::string flaw = Flaw(answer, reply); !flaw.empty()) {
        throw Failure(std::string("cannot read the module's counters: ") +
                      MundOperationName(kReadCounters) + ": " + flaw);
    }
    return std::to_array(reply.rows);
}

PacketCounters Between(const PacketCounters &earlier, const PacketCounters &later) {
    return Combined(later, earlier, std::minus<uint32_t>());
}

PacketCounters Sum(const PacketCounters &one, const PacketCounters &other) {
    return Combined(one, other, std::plus<uint32_t>());
}

std::vector<std::string> ContradictionsIn(const PacketCounters &counters,
                                          const ClassCounts &receivedByInstances,
                                          const Fates &fates) {
    std::vector<std::string> lines;
    for (size_t row = 0; row < counters.size(); ++row) {
        const auto compare = [&](const char *counter, uint32_t counted, const char *what,
                                 uint32_t expected) {
            if (counted != expected) {
                lines.push_back(std::string("counters of ") + control::kPacketClassWords[row] +
                                " packets: " + std::to_string(counted) + " " + counter + ", but " +
                                std::to_string(expected) + " " + what);
            }
        };
        const LyrKesPktStat &of = counters[row];
        compare("sent", of.sendOkCnt, "reached the instances", receivedByInstances[row]);
        compare("send failed", of.sendFailCnt, "were not delivered", fates.undeliveredByClass[row]);
        compare("received", of.rxCnt, "sent, send failed or processing failed",
                of.sendOkCnt + of.sendFailCnt + of.procFailCnt);
        if (row == LYR_KES_PKT_STAT_CONTROL) {
            compare("processing failed", of.procFailCnt, "on the control port were returned",
                    fates.returnedControl);
        }
    }
    return lines;
}

std::optional<MundDropWatch> ReadDropWatch(const standin::Module &module) {
    auto *object = static_cast<MundDropWatch *>(module.Symbol(MUND_OBJECT_DROP_WATCH));
    if (object == nullptr) {
        return std::nullopt;
    }
    MundDropWatch watch = {};
    for (const control::DropNumber &number : control::kDropNumbers) {
        watch.*number.value = Load(object->*number.value);
    }
    watch.periodStart = Load(object->periodStart);
    watch.alarmRaised = Load(object->alarmRaised);
    return watch;
}

}  // namespace kes_engine
