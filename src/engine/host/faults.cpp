#include <algorithm>
#include <array>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <set>
#include <stdexcept>

#include "standin/lasting.h"
#include "standin/runtime.h"

namespace standin {
namespace {

constexpr std::array<std::string_view, 35> kFallible = {
    "HostHookRegister",
    "HostHookUnregister",
    "RPC_IdlMsgCreate",
    "RavelRpcServerUnReg",
    "RegRavelRpcServerToKes",
    "TOV_ChannelDcSend",
    "TOV_ChannelGetIdByName",
    "TOV_DevmGetMasterBoardIp",
    "TOV_EventRead",
    "TOV_EventWrite",
    "TOV_ImAgentAddPara",
    "TOV_ImAgentMsgCreate",
    "TOV_ImAgentSend",
    "TOV_ImAgentSetAlarmComAttr",
    "TOV_ImSetMainBoardIP",
    "TOV_ThreadInfoGetByName",
    "TOV_ThreadInfoRegByName",
    "TovCapabilityQueryItem",
    "TovCreatePipeQue",
    "TovIMDebugReport",
    "TovMemAllocInner",
    "TovQueDeq",
    "TovQueEnq",
    "TovSLcoreTimerCreateAndStart",
    "TovSLcoreTimerDelete",
    "TovSpinlockInit",
    "TovThreadCreate",
    "TovTimeGetDatetime",
    "memcpy_s",
    "memset_s",
    "sprintf_s",
    "strcat_s",
    "strcpy_s",
    "vsnprintf_s",
    "vsnprintf_truncated_s",
};

struct Operation {
    uint32_t calls = 0;
    uint32_t countedFrom = 0;     // calls before the count began
    std::set<uint32_t> failures;  // the calls that fail, by number
    bool failsAlways = false;
    bool faultSet = false;
};

std::mutex mutex;
auto &operations = Lasting<std::array<Operation, kFallible.size()>>();
bool counting = false;
// While nothing is to fail or to be counted, a call costs one load.
std::atomic<bool> watching{false};

size_t IndexOf(std::string_view name) {
    const auto found = std::ranges::find(kFallible, name);
    return static_cast<size_t>(found - kFallible.begin());
}

// With the mutex held.
Operation &Lookup(std::string_view name) {
    const size_t index = IndexOf(name);
    if (index == kFallible.size()) {
        throw std::invalid_argument("no operation that can fail is called \"" + std::string(name) +
                                    "\"");
    }
    return operations[index];
}

Operation &SetFault(std::string_view name) {
    Operation &operation = Lookup(name);
    operation.faultSet = true;
    operation.countedFrom = operation.calls;
    watching = true;
    return operation;
}

bool CallFailsWatched(const char *name) {
    const size_t index = IndexOf(name);
    if (index == kFallible.size()) {
        std::fprintf(stderr, "%s is not in the table of operations that can fail\n", name);
        std::abort();
    }
    const std::lock_guard lock(mutex);
    Operation &operation = operations[index];
    if (!counting && !operation.faultSet) {
        return false;
    }
    ++operation.calls;
    return operation.failsAlways || operation.failures.erase(operation.calls) != 0;
}

}  // namespace

void FailCall(std::string_view operation, uint32_t n) {
    if (n == 0) {
        throw std::invalid_argument("FailCall: calls are counted from 1");
    }
    const std::lock_guard lock(mutex);
    Operation &target = SetFault(operation);
    target.failures.insert(target.calls + n);
}

void FailEveryCall(std::string_view operation) {
    const std::lock_guard lock(mutex);
    SetFault(operation).failsAlways = true;
}

void ClearFaults() {
    const std::lock_guard lock(mutex);
    watching = false;
    counting = false;
    operations.fill({});
}

void CountCalls() {
    const std::lock_guard lock(mutex);
    counting = true;
    watching = true;
    for (Operation &operation : operations) {
        operation.countedFrom = operation.calls;
    }
}

uint32_t CallCount(std::string_view operation) {
    const std::lock_guard lock(mutex);
    const Operation &target = Lookup(operation);
    return target.calls - target.countedFrom;
}

std::vector<std::pair<std::string, uint32_t>> CallCounts() {
    const std::lock_guard lock(mutex);
    std::vector<std::pair<std::string, uint32_t>> counts;
    for (size_t index = 0; index < kFallible.size(); ++index) {
        const Operation &operation = operations[index];
        if (operation.calls != operation.countedFrom) {
            counts.emplace_back(kFallible[index], operation.calls - operation.countedFrom);
        }
    }
    return counts;
}

bool CallFails(const char *operation) {
    return watching.load(std::memory_order_relaxed) && CallFailsWatched(operation);
}

}  // namespace standin
