#include "module/diag_log.h"

#include <cstdarg>
#include <cstring>
#include <iterator>

#include "dfx/debug_trace.h"
#include "kes/board.h"
#include "kes/bounded.h"
#include "kes/diag.h"
#include "kes/im.h"
#include "module/shared_word.h"
#include "module/status.h"

namespace {

using lyr::kError;
using lyr::kOk;

constexpr size_t kLogLineSize = 256;
constexpr size_t kAgentLineSize = 512;
constexpr size_t kPrintLineSize = 1024;

constexpr uint32_t kDebugReportId = 0xF2CB826B;
constexpr uint32_t kAgentLogId = 0x0F2C1008;

constexpr const char *kLevelNames[] = {
    "LYR_HOST_EMER", "LYR_HOST_ERR", "LYR_HOST_WARN", "LYR_HOST_INFO", "LYR_HOST_DEBUG",
};
static_assert(std::size(kLevelNames) == LYR_HOST_DEBUG + 1, "a name per level");

uint32_t AddText(ImAgentMsg *message, const char *text) {
    return TOV_ImAgentAddPara(message, IM_PARA_TEXT, static_cast<uint32_t>(std::strlen(text)),
                              text);
}

}  // namespace

void LYR_KES_DiagLog(uint32_t level, const char *format, ...) {
    if (level > LYR_HOST_WARN || format == nullptr) {
        return;
    }
    char line[kLogLineSize] = {};
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_s(line, sizeof(line), sizeof(line) - 1, format, arguments);
    va_end(arguments);
    if (length < 0) {
        return;
    }
    LYR_KES_SendDebugOutput(line);
    if (LYR_KES_GetDiagLogSwitch() == 1) {
        LYR_KES_SendDiagLog(level, line);
    }
}

void LYR_KES_DiagPrintf(const char *format, ...) {
    char line[kPrintLineSize] = {};
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf_truncated_s(line, sizeof(line), format, arguments);
    va_end(arguments);
    if (length >= 0) {
        HostDiagPrintf("%s", line);
    }
}

const char *LYR_KES_GetDiagTypeStr(uint32_t level) {
    return level < std::size(kLevelNames) ? kLevelNames[level] : nullptr;
}

uint32_t LYR_KES_SendDebugOutput(const char *text) {
    if (!LyrKes_IsDebugTraceEnable()) {
        return kOk;
    }
    return TovIMDebugReport(kDebugReportId, kDebugReportId, "NULL", text) == 0 ? kOk : kError;
}

uint32_t LYR_KES_GetDiagLogSwitch() {
    return 0;
}

uint32_t LYR_KES_SendDiagLog(uint32_t level, const char *text) {
    const char *name = LYR_KES_GetDiagTypeStr(level);
    if (text == nullptr || name == nullptr || LYR_KES_SetDiagMainBoardIp() != kOk) {
        return kError;
    }
    const uint32_t slot = TovCurrentSlotId();
    const uint32_t cpu = TovCurrentCpuId();
    char line[kAgentLineSize] = {};
    if (sprintf_s(line, sizeof(line), "[slot:%u cpu:%u] %s", slot, cpu, text) < 0) {
        return kError;
    }
    ImAgentMsg *message = TOV_ImAgentMsgCreate(IM_MSG_LOG, kAgentLogId);
    if (message == nullptr) {
        return kError;
    }
    if (AddText(message, name) != 0 || AddText(message, line) != 0) {
        TOV_ImAgentMsgFree(message);
        return kError;
    }
    return TOV_ImAgentSend(message) == 0 ? kOk : kError;
}

uint32_t LYR_KES_SetDiagMainBoardIp() {
    uint32_t address = 0;
    if (TOV_DevmGetMasterBoardIp(&address) != 0) {
        return kError;
    }
    return TOV_ImSetMainBoardIP(__builtin_bswap32(address)) == 0 ? kOk : kError;
}

bool LyrKes_IsDebugTraceEnable() {
    return (lyr::LoadRelaxed(g_lyrKesDebugTrace.enable) & 1) != 0;
}
