// The alarm for packets that keep being dropped, sent through the engine's IM agent.
#pragma once

#include <cstdint>

#include "kes/im.h"
#include "module/export.h"

// Raise and restore the alarm of a source; a failure is logged.
LYR_API void LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrap(const char *name);
LYR_API void LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrapRestore(const char *name);

// Sends the alarm with an alarm type (IM_ALARM_*). Returns 0 or 0xFFFFFFFF.
LYR_API uint32_t LyrKes_SendCapwapTaskContinuousMessageDropTrap(const char *name,
                                                                uint32_t alarmType);

// Gives an alarm message the common attributes, the current time among them. Returns the agent's
// result, or 0xFFFFFFFF for a null message.
LYR_API uint32_t LyrKes_IMAgentSetAlarmAttr(uint32_t severity, uint32_t alarmType,
                                            ImAgentMsg *message);

// The current UTC time; the record stays as it is when the clock cannot be read.
LYR_API void LyrKes_IMSysTime(ImSysTime *time);
