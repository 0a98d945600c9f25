#include "control/state_model.h"

#include <algorithm>
#include <cstring>
#include <map>
#include <utility>

#include "control/command.h"
#include "control/command_lines.h"
#include "control/input_error.h"
#include "control/message_bytes.h"
#include "control/recon_batch.h"
#include "control/settings.h"
#include "control/values.h"

namespace control {
namespace {

using Words = uint32_t[4];

void ToWords(const LyrKesRpcIpAddr &address, Words &words) {
    for (size_t i = 0; i < 4; ++i) {
        words[i] = uint32_t{address.ipv6Addr[2 * i]} << 16 | address.ipv6Addr[2 * i + 1];
    }
}

MundModuleAddress ModuleAddress(const LyrKesRpcIpAddr &address) {
    MundModuleAddress stored = {};
    if (address.ipVer == 0) {
        stored.ipVer = 4;
        stored.words[0] = address.ipv4Addr;
    } else {
        stored.ipVer = 6;
        ToWords(address, stored.words);
    }
    return stored;
}

template <typename Key>
Key TunnelKeyOf(const LyrKesReconRecord &record) {
    Key key = {};
    key.srcPort = record.srcPort;
    key.dstPort = record.dstPort;
    key.vpnId = record.vpnId;
    return key;
}

// Whether a source of a type is known by these.
bool IsKnownBy(const MundSourceRecord &source, const MundSourceRecord &other) {
    if (source.srcType != other.srcType) {
        return false;
    }
    const bool byInterface =
        source.srcType == MUND_SOURCE_INTERFACE_A || source.srcType == MUND_SOURCE_INTERFACE_B;
    return byInterface
               ? source.ifIndex == other.ifIndex && source.address.ipVer == other.address.ipVer
               : std::memcmp(&source.address, &other.address, sizeof source.address) == 0;
}

MundSourceRecord RecordOf(const LyrKesCwpSrcEntry &entry) {
    return {
        .srcType = entry.cwpType, .ifIndex = entry.srcIf, .address = ModuleAddress(entry.srcAddr)};
}

// A state that commands are applied to.
class Model {
  public:
    void Apply(MundOperation operation, const Bytes &request) {
        switch (operation) {
            case MUND_OP_CwpTunnel:
                return ApplyTunnel(MessageOf<LyrKesCwpTunnelReq>(request));
            case MUND_OP_KaTunnel:
                return ApplySession(MessageOf<LyrKesKaTunnelReq>(request));
            case MUND_OP_WapiTunnel: {
                const auto range = MessageOf<LyrKesWapiTunnelReq>(request);
                state_.stations = uint64_t{range.instSpec} << 32 | range.startVcpuId;
                return;
            }
            case MUND_OP_CwpSrc:
                return ApplySource(MessageOf<LyrKesCwpSrcReq>(request));
            case MUND_OP_CwpSrcReconciliation:
                return ReplaceSources(MessageOf<LyrKesCwpSrcReconReq>(request));
            case MUND_OP_DebugTraceSet:
                return ApplyTrace(MessageOf<LyrKesDebugTraceReq>(request));
            case MUND_OP_CwpPingStat:
                return ApplyPing(MessageOf<LyrKesCwpPingStatReq>(request));
            case MUND_OP_CwpMsgTypeStat:
                return ApplyMessageType(MessageOf<LyrKesCwpMsgTypeStatReq>(request));
            default:
                return;
        }
    }

    ModuleState Take() {
        const auto collect = [](const auto &from, auto &to) {
            for (const auto &[key, entry] : from) {
                to.push_back(entry);
            }
        };
        collect(ipv4Tunnels_, state_.ipv4Tunnels);
        collect(ipv6Tunnels_, state_.ipv6Tunnels);
        collect(sessions_, state_.sessions);
        return std::move(state_);
    }

  private:
    template <typename Entry>
    using Entries = std::map<std::string, Entry>;

    template <typename Entry>
    static void Change(Entries<Entry> &entries, uint32_t operation, const Entry &entry) {
        if (operation == LYR_KES_OPERATION_ADD) {
            entries.insert_or_assign(SortKey(entry.key), entry);
        } else {
            entries.erase(SortKey(entry.key));
        }
    }

    void ApplyTunnel(const LyrKesCwpTunnelReq &request) {
        const LyrKesReconRecord record = Confirmation(request);
        if (request.srcAddr.ipVer == 0) {
            Change(ipv4Tunnels_, request.operation, Ipv4TunnelOf(record));
        } else {
            Change(ipv6Tunnels_, request.operation, Ipv6TunnelOf(record));
        }
    }

    void ApplySession(const LyrKesKaTunnelReq &request) {
        Change(sessions_, request.operation, SessionOf(Confirmation(request)));
    }

    void ApplySource(const LyrKesCwpSrcReq &request) {
        const MundSourceRecord source = RecordOf(request.source);
        auto *place = std::ranges::find_if(
            state_.sources, [&](const auto &known) { return IsKnownBy(known, source); });
        if (request.operation != LYR_KES_OPERATION_ADD) {
            if (place != state_.sources.end()) {
                *place = {.srcType = MUND_SOURCE_FREE, .ifIndex = 0, .address = {}};
            }
            return;
        }
        if (place == state_.sources.end()) {
            place = std::ranges::find(state_.sources, uint32_t{MUND_SOURCE_FREE},
                                      &MundSourceRecord::srcType);
        }
        if (place == state_.sources.end()) {
            throw InputError("all eight sources are in use");
        }
        *place = source;
    }

    void ReplaceSources(const LyrKesCwpSrcReconReq &request) {
        state_.sources = ModuleState().sources;
        for (size_t i = 0; i < state_.sources.size(); ++i) {
            if (request.entries[i].cwpType != MUND_SOURCE_NONE) {
                state_.sources[i] = RecordOf(request.entries[i]);
            }
        }
    }

    void ApplyTrace(const LyrKesDebugTraceReq &request) {
        state_.trace = {};
        if (request.msgType != LYR_KES_TRACE_SET) {
            return;
        }
        state_.trace.enable = 1;
        state_.trace.debugLevel = request.debugLevel;
        const MundModuleAddress source = ModuleAddress(request.srcAddr);
        const MundModuleAddress destination = ModuleAddress(request.dstAddr);
        state_.trace.srcIpFamily = source.ipVer;
        std::ranges::copy(source.words, state_.trace.srcIp);
        state_.trace.dstIpFamily = destination.ipVer;
        std::ranges::copy(destination.words, state_.trace.dstIp);
        state_.trace.srcPort = request.srcPort;
        state_.trace.dstPort = request.dstPort;
        std::ranges::copy(request.mac, state_.trace.mac);
        state_.trace.capwapMsgType = request.capwapMsgType;
    }

    void ApplyPing(const LyrKesCwpPingStatReq &request) {
        if (request.msgType == LYR_KES_PING_SET) {
            state_.ping = IsUnspecified(request.peerAddr) ? MundModuleAddress{}
                                                          : ModuleAddress(request.peerAddr);
        }
    }

    void ApplyMessageType(const LyrKesCwpMsgTypeStatReq &request) {
        if (request.msgType == LYR_KES_MSG_TYPE_SELECT) {
            state_.messageType = request.cwpMsgType;
        }
    }

    ModuleState state_;
    Entries<MundIpv4Tunnel> ipv4Tunnels_;
    Entries<MundIpv6Tunnel> ipv6Tunnels_;
    Entries<MundSession> sessions_;
};

}  // namespace

MundIpv4Tunnel Ipv4TunnelOf(const LyrKesReconRecord &record) {
    MundIpv4Tunnel tunnel = {
        .key = TunnelKeyOf<MundIpv4TunnelKey>(record), .nodeId = record.nodeId, .reconMark = 0};
    tunnel.key.srcIp = record.srcAddr.ipv4Addr;
    tunnel.key.dstIp = record.dstAddr.ipv4Addr;
    return tunnel;
}

MundIpv6Tunnel Ipv6TunnelOf(const LyrKesReconRecord &record) {
    MundIpv6Tunnel tunnel = {
        .key = TunnelKeyOf<MundIpv6TunnelKey>(record), .nodeId = record.nodeId, .reconMark = 0};
    ToWords(record.srcAddr, tunnel.key.srcIpv6);
    ToWords(record.dstAddr, tunnel.key.dstIpv6);
    return tunnel;
}

MundSession SessionOf(const LyrKesReconRecord &record) {
    MundSession session = {.key = {}, .nodeId = record.nodeId, .reconMark = 0};
    std::ranges::copy(record.sessionId, session.key.sessionId);
    return session;
}

ModuleState StateOfFile(const std::string &path, uint32_t lastInstance) {
    Model model;
    ForEachLine(path, [&](uint32_t, std::span<const std::string> words) {
        const CommandSpec &spec = *FindSpec(Operations().Find(words));
        // A file that audits itself is not read over and over.
        if (spec.operation == MUND_OP_BatchReconciliation) {
            Fit(spec.text, words);
            return;
        }
        const Command command = ParseWords(words);
        if (const std::string beyond = BeyondInstances(command.request, lastInstance);
            !beyond.empty()) {
            throw InputError(beyond);
        }
        model.Apply(spec.operation, command.request.bytes);
    });
    return model.Take();
}

}  // namespace control
