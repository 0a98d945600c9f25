#include "host/im_agent.h"

#include <atomic>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/line_sink.h"
#include "kes/im.h"
#include "standin/runtime.h"

namespace standin {
namespace {

std::atomic<size_t> messageCount{0};
std::atomic<uint32_t> mainBoardIp{0};
std::atomic<uint64_t> alarmsRaised{0};
std::atomic<uint64_t> alarmsRestored{0};

struct Parameter {
    uint32_t type;
    std::string value;
};

struct Alarm {
    ImAlarmComAttr attributes;
    ImSysTime time;
};

}  // namespace
}  // namespace standin

struct ImAgentMsg {
    ImAgentMsg(uint32_t type, uint32_t id) : type(type), id(id) {
        ++standin::messageCount;
    }
    ~ImAgentMsg() {
        --standin::messageCount;
    }
    ImAgentMsg(const ImAgentMsg &) = delete;
    ImAgentMsg &operator=(const ImAgentMsg &) = delete;

    const uint32_t type;
    const uint32_t id;
    std::optional<standin::Alarm> alarm;
    std::vector<standin::Parameter> parameters;
};

namespace standin {
namespace {

KES_PRINTF(2, 3) void Append(std::string &line, const char *format, ...) {
    char piece[160];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(piece, sizeof(piece), format, arguments);
    va_end(arguments);
    line += piece;
}

// Bytes as text: a final NUL is left to the length, other unprintable bytes are escaped.
void AppendText(std::string &line, std::string_view value) {
    if (value.ends_with('\0')) {
        value.remove_suffix(1);
    }
    for (const char character : value) {
        const auto byte = static_cast<unsigned char>(character);
        if (std::isprint(byte) != 0) {
            line += character;
        } else {
            Append(line, "\\x%02X", byte);
        }
    }
}

void AppendParameters(std::string &line, const std::vector<Parameter> &parameters) {
    for (const auto &[type, value] : parameters) {
        Append(line, " para-type=%u length=%zu \"", type, value.size());
        AppendText(line, value);
        line += '"';
    }
}

// What the agent does not know yet has to be zero.
bool HasReserved(const ImAlarmComAttr &attributes) {
    const auto &more = attributes.reserved1;
    return (attributes.reserved0 | more[0] | more[1] | more[2] | attributes.time->reserved) != 0;
}

const char *AlarmName(uint32_t type) {
    switch (type) {
        case IM_ALARM_RAISE:
            return "raise";
        case IM_ALARM_RESTORE:
            return "restore";
        default:
            return "alarm";
    }
}

void AppendAlarm(std::string &line, const ImAgentMsg &message) {
    const auto &[attributes, time] = *message.alarm;
    Append(line, "%s id=0x%08X type=%u severity=%u clear-type=%u", AlarmName(attributes.alarmType),
           message.id, attributes.alarmType, attributes.severity, attributes.clearType);
    Append(line, " time=%04u-%02u-%02uT%02u:%02u:%02u.%03uZ weekday=%u minute-ms=%u time-kind=%u",
           time.year, time.month, time.day, time.hour, time.minute, time.second, time.milliseconds,
           time.weekDay, time.minuteMilliseconds, attributes.timeKind);
}

void CountAlarm(uint32_t type) {
    alarmsRaised += type == IM_ALARM_RAISE ? 1 : 0;
    alarmsRestored += type == IM_ALARM_RESTORE ? 1 : 0;
}

// Everything that the agent is told, in one line. Nothing if an alarm lacks its attributes.
bool EmitMessage(const ImAgentMsg &message) {
    std::string line;
    if (message.type == IM_MSG_ALARM) {
        if (!message.alarm) {
            return false;
        }
        CountAlarm(message.alarm->attributes.alarmType);
        AppendAlarm(line, message);
    } else {
        Append(line, "log id=0x%08X", message.id);
    }
    AppendParameters(line, message.parameters);
    EmitLine(message.type == IM_MSG_ALARM ? LineKind::kAlarm : LineKind::kAgentLog, line);
    return true;
}

}  // namespace

size_t ImMessageCount() {
    return messageCount;
}

AlarmCounts SentAlarms() {
    return {alarmsRaised, alarmsRestored};
}

uint32_t ImMainBoardIp() {
    return mainBoardIp;
}

}  // namespace standin

using namespace standin;

uint32_t TovIMDebugReport(uint32_t /*module*/, uint32_t /*object*/, const char * /*label*/,
                          const char *text) {
    if (CallFails("TovIMDebugReport") || text == nullptr) {
        return 1;
    }
    EmitLine(LineKind::kReport, text);
    return 0;
}

ImAgentMsg *TOV_ImAgentMsgCreate(uint32_t type, uint32_t id) {
    if (CallFails("TOV_ImAgentMsgCreate") || (type != IM_MSG_ALARM && type != IM_MSG_LOG)) {
        return nullptr;
    }
    return new ImAgentMsg(type, id);
}

uint32_t TOV_ImAgentAddPara(ImAgentMsg *message, uint32_t type, uint32_t length,
                            const void *value) {
    if (CallFails("TOV_ImAgentAddPara") || message == nullptr || value == nullptr) {
        return 1;
    }
    message->parameters.push_back({type, {static_cast<const char *>(value), length}});
    return 0;
}

uint32_t TOV_ImAgentSetAlarmComAttr(ImAgentMsg *message, const ImAlarmComAttr *attributes) {
    if (CallFails("TOV_ImAgentSetAlarmComAttr") || message == nullptr ||
        message->type != IM_MSG_ALARM || attributes == nullptr || attributes->time == nullptr ||
        HasReserved(*attributes)) {
        return 1;
    }
    message->alarm = {*attributes, *attributes->time};
    message->alarm->attributes.time = nullptr;
    return 0;
}

uint32_t TOV_ImAgentSend(ImAgentMsg *message) {
    const std::unique_ptr<ImAgentMsg> owned(message);
    return !CallFails("TOV_ImAgentSend") && owned != nullptr && EmitMessage(*owned) ? 0 : 1;
}

uint32_t TOV_ImAgentMsgFree(ImAgentMsg *message) {
    const std::unique_ptr<ImAgentMsg> owned(message);
    return owned != nullptr ? 0 : 1;
}

uint32_t TOV_ImSetMainBoardIP(uint32_t address) {
    if (CallFails("TOV_ImSetMainBoardIP") || address == 0) {
        return 1;
    }
    mainBoardIp = address;
    return 0;
}
