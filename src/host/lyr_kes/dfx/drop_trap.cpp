#include "dfx/drop_trap.h"

#include <cstring>
#include <ctime>

#include "module/diag_log.h"
#include "module/status.h"

namespace {

using lyr::kError;
using lyr::kOk;

constexpr uint32_t kAlarmId = 0x0F2C2004;
constexpr uint32_t kSeverity = 4;
constexpr uint32_t kTimeKind = 1;

uint32_t ClearType(uint32_t alarmType) {
    switch (alarmType) {
        case IM_ALARM_RESTORE:
            return 1;
        case 4:
            return 2;
        default:
            return 0;
    }
}

uint32_t AddName(ImAgentMsg *message, const char *name) {
    return TOV_ImAgentAddPara(message, IM_PARA_TEXT, static_cast<uint32_t>(std::strlen(name) + 1),
                              name);
}

void Notify(const char *name, uint32_t alarmType) {
    const uint32_t result = LyrKes_SendCapwapTaskContinuousMessageDropTrap(name, alarmType);
    if (result != kOk) {
        LYR_KES_DiagLog(LYR_HOST_ERR,
                        "failed to send capwap task continuous message drop trap, name=%s, alarm "
                        "type=%u, ret=%d.",
                        name, alarmType, static_cast<int32_t>(result));
    }
}

}  // namespace

void LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrap(const char *name) {
    Notify(name, IM_ALARM_RAISE);
}

void LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrapRestore(const char *name) {
    Notify(name, IM_ALARM_RESTORE);
}

uint32_t LyrKes_SendCapwapTaskContinuousMessageDropTrap(const char *name, uint32_t alarmType) {
    ImAgentMsg *message = TOV_ImAgentMsgCreate(IM_MSG_ALARM, kAlarmId);
    if (message == nullptr) {
        return kError;
    }
    if (LyrKes_IMAgentSetAlarmAttr(kSeverity, alarmType, message) != 0 ||
        AddName(message, name) != 0) {
        TOV_ImAgentMsgFree(message);
        return kError;
    }
    return TOV_ImAgentSend(message) == 0 ? kOk : kError;
}

uint32_t LyrKes_IMAgentSetAlarmAttr(uint32_t severity, uint32_t alarmType, ImAgentMsg *message) {
    if (message == nullptr) {
        return kError;
    }
    ImSysTime time = {};
    LyrKes_IMSysTime(&time);
    ImAlarmComAttr attributes = {};
    attributes.alarmType = alarmType;
    attributes.clearType = ClearType(alarmType);
    attributes.severity = severity;
    attributes.time = &time;
    attributes.timeKind = kTimeKind;
    return TOV_ImAgentSetAlarmComAttr(message, &attributes);
}

void LyrKes_IMSysTime(ImSysTime *time) {
    timespec now = {};
    std::tm utc = {};
    if (clock_gettime(CLOCK_REALTIME, &now) != 0 || gmtime_r(&now.tv_sec, &utc) == nullptr) {
        return;
    }
    time->year = static_cast<uint16_t>(utc.tm_year + 1900);
    time->month = static_cast<uint8_t>(utc.tm_mon + 1);
    time->day = static_cast<uint8_t>(utc.tm_mday);
    time->hour = static_cast<uint8_t>(utc.tm_hour);
    time->minute = static_cast<uint8_t>(utc.tm_min);
    time->second = static_cast<uint8_t>(utc.tm_sec);
    time->weekDay = static_cast<uint8_t>(utc.tm_wday);
    time->milliseconds = static_cast<uint32_t>(now.tv_nsec / 1000000);
    time->reserved = 0;
    time->minuteMilliseconds = time->second * 1000u + time->milliseconds;
}
