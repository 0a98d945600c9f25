// What commands make of a module's state, without a module.
#pragma once

#include <string>

#include "control/command_table.h"
#include "control/module_state.h"
#include "mund/reconciliation_messages.h"

namespace control {

// What the commands of a file, in order, make of a module that has nothing. Commands that ask or
// audit change nothing. Throws InputError, "FILE:LINE: reason", also for an instance that there is
// not and for a ninth source.
ModuleState StateOfFile(const std::string &path, uint32_t lastInstance);

// The entry that a message speaks of: a request or a reconciliation record.
MundIpv4Tunnel Ipv4TunnelOf(const LyrKesReconRecord &record);
MundIpv6Tunnel Ipv6TunnelOf(const LyrKesReconRecord &record);
MundSession SessionOf(const LyrKesReconRecord &record);

}  // namespace control
