// Audits of a service instance's tunnels and sessions: the records that they are made of.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control/command_table.h"
#include "mund/reconciliation_messages.h"

namespace control {

// A record that begins or finishes the audit of a node.
LyrKesReconRecord AuditRecord(uint32_t reconType, uint32_t node);

// The record that confirms what the request registers.
LyrKesReconRecord Confirmation(const LyrKesCwpTunnelReq &tunnel);
LyrKesReconRecord Confirmation(const LyrKesKaTunnelReq &session);

// The records that confirm what a command file registers, for whatever node, in its order; its
// other commands only have to make sense. Throws InputError.
std::vector<LyrKesReconRecord> ConfirmationsOf(const std::string &path);

// A whole audit of a node as one batch: its begin, what a command file registers for the node, its
// finish. What the file registers for other instances is left out, and counted; its other commands
// only have to make sense. A file that registers nothing for the node takes all that the node has
// away, and that has to be meant. Throws InputError.
Request ReconBatch(uint32_t node, const std::string &path, bool mayBeEmpty);

}  // namespace control
