#include "kes/board.h"

#include <atomic>
#include <ctime>

#include "standin/runtime.h"

namespace standin {
namespace {

constexpr uint32_t kSlot = 0;
constexpr uint32_t kCpu = 0;

// This board is the master unless configured otherwise.
std::atomic<uint32_t> masterBoardIp{0x7F000001};

}  // namespace

void SetMasterBoardIp(uint32_t address) {
    masterBoardIp = address;
}

}  // namespace standin

using namespace standin;

uint32_t TOV_DevmGetMasterBoardIp(uint32_t *address) {
    if (CallFails("TOV_DevmGetMasterBoardIp") || address == nullptr || masterBoardIp == 0) {
        return 1;
    }
    *address = masterBoardIp;
    return 0;
}

uint32_t TovCurrentSlotId(void) {
    return kSlot;
}

uint32_t TovCurrentCpuId(void) {
    return kCpu;
}

uint32_t TovTimeGetDatetime(TovDate *date, TovTime *time) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (CallFails("TovTimeGetDatetime") || date == nullptr || time == nullptr ||
        localtime_r(&now, &local) == nullptr) {
        return 1;
    }
    *date = {static_cast<uint16_t>(local.tm_year + 1900), static_cast<uint16_t>(local.tm_mon + 1),
             static_cast<uint32_t>(local.tm_mday)};
    *time = {static_cast<uint16_t>(local.tm_hour), static_cast<uint16_t>(local.tm_min),
             static_cast<uint16_t>(local.tm_sec)};
    return 0;
}
