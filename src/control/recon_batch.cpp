#include "control/recon_batch.h"

#include <algorithm>
#include <iterator>
#include <optional>
#include <vector>

#include "client/recon_frame.h"
#include "control/command.h"
#include "control/command_lines.h"
#include "control/input_error.h"
#include "control/message_bytes.h"

namespace control {
namespace {

template <typename Message>
std::optional<LyrKesReconRecord> ConfirmationOfAdd(const Bytes &bytes) {
    const auto request = MessageOf<Message>(bytes);
    if (request.operation != LYR_KES_OPERATION_ADD) {
        return std::nullopt;
    }
    return Confirmation(request);
}

// The record that confirms what a command registers, if it registers anything. A file that audits
// itself is not read over and over.
std::optional<LyrKesReconRecord> ConfirmationOf(std::span<const std::string> words) {
    const CommandSpec &spec = *FindSpec(Operations().Find(words));
    if (spec.operation == MUND_OP_BatchReconciliation) {
        Fit(spec.text, words);
        return std::nullopt;
    }
    const Command command = ParseWords(words);
    switch (spec.operation) {
        case MUND_OP_CwpTunnel:
            return ConfirmationOfAdd<LyrKesCwpTunnelReq>(command.request.bytes);
        case MUND_OP_KaTunnel:
            return ConfirmationOfAdd<LyrKesKaTunnelReq>(command.request.bytes);
        default:
            return std::nullopt;
    }
}

}  // namespace

LyrKesReconRecord AuditRecord(uint32_t reconType, uint32_t node) {
    LyrKesReconRecord record = {};
    record.reconType = reconType;
    record.nodeId = node;
    return record;
}

LyrKesReconRecord Confirmation(const LyrKesCwpTunnelReq &tunnel) {
    LyrKesReconRecord record = AuditRecord(LYR_KES_RECON_TUNNEL, tunnel.nodeId);
    record.srcAddr = tunnel.srcAddr;
    record.dstAddr = tunnel.dstAddr;
    record.srcPort = tunnel.srcPort;
    record.dstPort = tunnel.dstPort;
    record.vpnId = tunnel.vpnId;
    return record;
}

LyrKesReconRecord Confirmation(const LyrKesKaTunnelReq &session) {
    LyrKesReconRecord record = AuditRecord(LYR_KES_RECON_SESSION, session.nodeId);
    std::ranges::copy(session.sessionId, record.sessionId);
    return record;
}

std::vector<LyrKesReconRecord> ConfirmationsOf(const std::string &path) {
    std::vector<LyrKesReconRecord> records;
    ForEachLine(path, [&](uint32_t, std::span<const std::string> words) {
        if (const std::optional<LyrKesReconRecord> record = ConfirmationOf(words)) {
            records.push_back(*record);
        }
    });
    return records;
}

Request ReconBatch(uint32_t node, const std::string &path, bool mayBeEmpty) {
    std::vector<LyrKesReconRecord> records = {AuditRecord(LYR_KES_RECON_BEGIN, node)};
    const std::vector<LyrKesReconRecord> all = ConfirmationsOf(path);
    std::ranges::copy_if(all, std::back_inserter(records),
                         [node](const LyrKesReconRecord &record) { return record.nodeId == node; });
    const auto leftOut = static_cast<uint32_t>(all.size() + 1 - records.size());
    if (records.size() == 1 && !mayBeEmpty) {
        throw InputError("'" + path + "' has nothing for instance " + std::to_string(node) +
                         ", and the audit would take away all that the instance has; --empty says "
                         "that this is meant");
    }
    records.push_back(AuditRecord(LYR_KES_RECON_FINISH, node));
    return {client::BatchOf(records), node,
            BatchTally{static_cast<uint32_t>(records.size()), leftOut}};
}

}  // namespace control
