/* IM services: debug reports, log messages and alarms sent through the engine's IM agent. */
#ifndef KES_IM_H
#define KES_IM_H

#include <assert.h>

#include "kes/api.h"

KES_BEGIN_DECLS

/* Types of an IM agent message. */
enum { IM_MSG_ALARM = 5, IM_MSG_LOG = 9 };
/* Type of a text parameter. */
enum { IM_PARA_TEXT = 25 };
/* Alarm types. */
enum { IM_ALARM_RAISE = 1, IM_ALARM_RESTORE = 2 };

typedef struct ImAgentMsg ImAgentMsg;

/* Broken-down UTC time of an alarm. */
typedef struct ImSysTime {
    uint16_t year;
    uint8_t month; /* 1-12 */
    uint8_t day;   /* 1-31 */
    uint8_t hour;
    uint8_t minute;
    uint8_t second;
    uint8_t weekDay;       /* 0 = Sunday */
    uint32_t milliseconds; /* of the second */
    uint32_t reserved;
    uint32_t minuteMilliseconds; /* milliseconds since the full minute */
} ImSysTime;

static_assert(offsetof(ImSysTime, milliseconds) == 8, "milliseconds at 8");
static_assert(offsetof(ImSysTime, minuteMilliseconds) == 16, "milliseconds of the minute at 16");
static_assert(sizeof(ImSysTime) == 20, "time record of 20 bytes");

/* The attributes that every alarm has. */
typedef struct ImAlarmComAttr {
    uint32_t alarmType; /* IM_ALARM_* */
    uint32_t clearType; /* 1 for a restore, 2 for alarm type 4, else 0 */
    uint32_t severity;
    uint32_t reserved0;
    const ImSysTime *time; /* read during the call only */
    uint32_t timeKind;
    uint32_t reserved1[3];
} ImAlarmComAttr;

static_assert(offsetof(ImAlarmComAttr, time) == 16, "time address at 16");
static_assert(offsetof(ImAlarmComAttr, timeKind) == 24, "time kind at 24");
static_assert(sizeof(ImAlarmComAttr) == 40, "attribute record of 40 bytes");

/* Sends one line of text to the debug output. Returns 0, or 1 if that fails. */
KES_API uint32_t TovIMDebugReport(uint32_t module, uint32_t object, const char *label,
                                  const char *text);

/* Starts a message for the IM agent; null if that fails. */
KES_API ImAgentMsg *TOV_ImAgentMsgCreate(uint32_t type, uint32_t id);
/* Appends a parameter: a copy of `length` bytes. Returns 0, or 1 if that fails. */
KES_API uint32_t TOV_ImAgentAddPara(ImAgentMsg *message, uint32_t type, uint32_t length,
                                    const void *value);
/* Sets the attributes of an alarm: a copy. Returns 0, or 1 if that fails. */
KES_API uint32_t TOV_ImAgentSetAlarmComAttr(ImAgentMsg *message, const ImAlarmComAttr *attributes);
/* Gives the message to the agent, which owns it from then on, whatever the result.
 * Returns 0, or 1 if it could not be sent. */
KES_API uint32_t TOV_ImAgentSend(ImAgentMsg *message);
/* Drops a message that has not been sent. Returns 0, or 1 for null. */
KES_API uint32_t TOV_ImAgentMsgFree(ImAgentMsg *message);

/* Points the agent at the main board: its address in network byte order. Returns 0, or 1. */
KES_API uint32_t TOV_ImSetMainBoardIP(uint32_t address);

KES_END_DECLS

#endif
