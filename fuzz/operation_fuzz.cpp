// Programs of operations with any messages, called as the engine calls them, before a started
// module.
//
// A program is steps of two bytes, an operation and a Control, each followed by the patches of the
// message. All messages are the front of one draft that the steps go on writing, so that later
// ones mean what earlier ones have made.
#include <array>

#include "channel/service_channel.h"
#include "dfx/debug_trace.h"
#include "dfx/ping_stat.h"
#include "fuzz_target.h"
#include "lb/dist_lifecycle.h"
#include "module/capability.h"
#include "mund/call.h"
#include "packet/cwp_source.h"
#include "standin/runtime.h"
#include "started_module.h"
#include "table_model.h"
#include "verify/recon_queue.h"

namespace {

using fuzz::Require;

struct Patch {
    uint8_t at;
    uint8_t value;
};

enum Control : uint8_t {
    kPatches = 7,        // how many follow
    kFromZero = 1 << 3,  // the draft is wiped first
    kLength = 3 << 4,    // all set: a byte too many; the higher alone: one too few
    kTooLong = 3 << 4,
    kTooShort = 2 << 4,
    kMoreRecords = 3 << 6,  // records of a batch beyond the first
};
constexpr uint32_t kMostRecords = 4;

using Draft = std::array<uint8_t, 256>;

template <class Message>
Message As(fuzz::ByteSpan bytes) {
    Message message;
    std::memcpy(&message, bytes.data(), sizeof message);
    return message;
}

struct Reply {
    MundStatus status;
    uint32_t result = 0xA5A5A5A5;
    uint32_t size = 0;
    fuzz::ByteSpan bytes;

    template <class Message>
    Message As() const {
        return ::As<Message>(bytes);
    }
};

Reply Call(uint32_t operation, fuzz::ByteSpan request) {
    static uint8_t bytes[sizeof(LyrKesCwpTraceRecordRsp)];
    Reply reply = {};
    reply.status = MundCall(operation, request.data(), static_cast<uint32_t>(request.size()), bytes,
                            sizeof bytes, &reply.size, &reply.result);
    reply.bytes = {bytes, reply.size};
    return reply;
}

// What the module has been asked so far, and what it must have made of it.
class Program {
  public:
    void Run(fuzz::Reader input) {
        while (!input.AtEnd()) {
            Step(input);
        }
        tables_.CheckTables();
        CheckMemory();
        Clear();
    }

  private:
    void Step(fuzz::Reader &input);
    void PatchDraft(fuzz::Reader &input, uint8_t control);
    fuzz::ByteSpan Message(uint32_t operation, fuzz::Reader &input, uint8_t control);
    void Check(uint32_t operation, fuzz::ByteSpan message, const Reply &reply);
    template <class Request>
    void CheckChange(const Request &request, uint32_t result);
    void CheckQuery(const LyrKesLbDfxReq &request, const Reply &reply) const;
    void CheckVerifyRecords(uint8_t listIndex, const LyrKesVerifyRcdGetRsp &reply) const;
    void Audit(fuzz::ByteSpan records);
    void CheckMemory() const;
    void Clear();

    Draft draft_ = {};
    std::array<uint8_t, 8 + kMostRecords * sizeof(LyrKesReconRecord) + 1> wire_ = {};
    fuzz::TableModel tables_;
    const size_t blocksBefore_ = standin::ModuleMemory(fuzz::StartedModule::kId).blocks;
};

void Program::PatchDraft(fuzz::Reader &input, uint8_t control) {
    for (int patches = control & kPatches; patches > 0; --patches) {
        const auto patch = input.Take<Patch>();
        draft_[patch.at] = patch.value;
    }
}

// The message that a step sends, whole or not.
fuzz::ByteSpan Program::Message(uint32_t operation, fuzz::Reader &input, uint8_t control) {
    size_t size = MundRequestSize(operation);
    PatchDraft(input, control);
    std::ranges::copy(draft_, wire_.begin());
    if (operation == MUND_OP_BatchReconciliation) {
        const uint32_t count = 1 + (control & kMoreRecords) / (kMoreRecords / 3);
        size = 8 + count * sizeof(LyrKesReconRecord);
        std::memcpy(wire_.data(), &count, sizeof count);
        for (uint32_t i = 0; i < count; ++i) {
            std::memcpy(&wire_[8 + i * sizeof(LyrKesReconRecord)], draft_.data(),
                        sizeof(LyrKesReconRecord));
            PatchDraft(input, control);
        }
    }
    if ((control & kLength) == kTooLong) {
        ++size;
    } else if ((control & kLength) == kTooShort && size > 0) {
        --size;
    }
    return {wire_.data(), size};
}

bool HasRightLength(uint32_t operation, uint8_t control) {
    return (control & kLength) != kTooLong &&
           ((control & kLength) != kTooShort || MundRequestSize(operation) == 0);
}

void Program::Step(fuzz::Reader &input) {
    const uint32_t operation = input.Take<uint8_t>() % (MUND_OPERATION_COUNT + 1);
    const auto control = input.Take<uint8_t>();
    if ((control & kFromZero) != 0) {
        draft_ = {};
    }
    const fuzz::ByteSpan message = Message(operation, input, control);
    const bool audits =
        operation == MUND_OP_Reconciliation || operation == MUND_OP_BatchReconciliation;
    if (audits) {
        // The thread of the audits stays asleep: they run when the fuzzer says so.
        standin::FailCall("TOV_EventWrite");
    }
    const Reply reply = Call(operation, message);
    if (audits) {
        standin::ClearFaults();
        LyrKes_ReadReconMsgQueue();
    }
    if (operation == MUND_OPERATION_COUNT) {
        Require(reply.status == MUND_STATUS_NO_OPERATION, "there are sixteen operations");
    } else if (!HasRightLength(operation, control)) {
        Require(reply.status == MUND_STATUS_BAD_LENGTH, "a wrong length is refused");
    } else {
        Require(reply.status == MUND_STATUS_OK && reply.size == MundReplySize(operation),
                "an operation that makes replies makes them whole");
        Check(operation, message, reply);
    }
    Require(MundMessagesInUse() == 0, "replies are given back");
}

void Program::Check(uint32_t operation, fuzz::ByteSpan message, const Reply &reply) {
    switch (operation) {
        case MUND_OP_CwpTunnel:
            CheckChange(As<LyrKesCwpTunnelReq>(message), reply.result);
            return;
        case MUND_OP_KaTunnel:
            CheckChange(As<LyrKesKaTunnelReq>(message), reply.result);
            return;
        case MUND_OP_LoadBalanceDfx:
            CheckQuery(As<LyrKesLbDfxReq>(message), reply);
            return;
        case MUND_OP_Reconciliation:
            Require(reply.result == 0, "an audit's record is taken");
            Audit(message);
            return;
        case MUND_OP_BatchReconciliation:
            Require(reply.result == 0, "an audit's records are taken");
            Audit(message.subspan(8));
            return;
        case MUND_OP_VerifyRcdGet:
            Require(reply.result == 0, "verify records are told");
            CheckVerifyRecords(message[2], reply.As<LyrKesVerifyRcdGetRsp>());
            return;
        case MUND_OP_VerifyRcdReset:
            tables_.ForgetRemoved();
            Require(reply.result == 0, "records can be cleared");
            return;
        default:
            Require(reply.result <= MUND_RESULT_REFUSED, "operations have three results");
    }
}

template <class Request>
void Program::CheckChange(const Request &request, uint32_t result) {
    if (request.operation > LYR_KES_OPERATION_DELETE) {
        Require(result == MUND_RESULT_REFUSED, "there are two changes");
    } else if (request.operation == LYR_KES_OPERATION_DELETE) {
        Require(result == MUND_RESULT_OK, "a delete succeeds, whether the key is there or not");
        tables_.Delete(request);
    } else if (request.nodeId > g_lyrHostsvcNum) {
        Require(result == MUND_RESULT_FAILED, "a node beyond the instances is refused");
    } else {
        Require(result == MUND_RESULT_OK, "an add succeeds");
        tables_.Add(request);
    }
}

void Program::CheckQuery(const LyrKesLbDfxReq &request, const Reply &reply) const {
    const auto page = reply.As<LyrKesLbDfxRsp>();
    if (request.msgType == LYR_KES_LB_LIST) {
        Require(reply.result == 0 && page.entryNum == 0, "a listing succeeds");
    } else if (request.msgType == LYR_KES_LB_COUNT) {
        const auto table = request.ipVer == 0 ? fuzz::Table::kIpv4 : fuzz::Table::kIpv6;
        const auto count = std::ranges::count_if(tables_.Entries(), [&](const auto &entry) {
            return entry.key.table == table && entry.HasPort(request.tunnelPort);
        });
        Require(reply.result == 0 && page.entryNum == count && page.nextIndex == 0,
                "a port's tunnels are counted");
    } else {
        Require(reply.result == 1, "there are two queries");
    }
}

void Program::CheckVerifyRecords(uint8_t listIndex, const LyrKesVerifyRcdGetRsp &reply) const {
    const auto &removed = tables_.Removed();
    const size_t expected =
        listIndex == 0 ? std::min<size_t>(removed.size(), LYR_KES_VERIFY_RCD_NUM) : 0;
    Require(reply.rcdNum == expected && reply.msgLen == sizeof reply,
            "what audits have removed is on record");
    for (size_t i = 0; i < expected; ++i) {
        Require(reply.records[i].excptType == 1 &&
                    std::ranges::any_of(removed,
                                        [&](const LyrKesVerifyTunnel &tunnel) {
                                            return std::memcmp(&tunnel, &reply.records[i].tunnel,
                                                               sizeof tunnel) == 0;
                                        }),
                "a verify record is of a tunnel that was removed");
    }
}

void Program::Audit(fuzz::ByteSpan records) {
    for (; !records.empty(); records = records.subspan(sizeof(LyrKesReconRecord))) {
        tables_.Audit(As<LyrKesReconRecord>(records));
    }
}

// Entries and records are one block each.
void Program::CheckMemory() const {
    const size_t records = std::min<size_t>(tables_.Removed().size(), LYR_KES_VERIFY_RCD_NUM);
    Require(standin::ModuleMemory(fuzz::StartedModule::kId).blocks ==
                blocksBefore_ + tables_.Entries().size() + records,
            "the module holds a block for each entry and record");
}

// Leaves the module as the next program is to find it.
void Program::Clear() {
    LyrKes_Dist_Deinit();
    Require(LyrKes_Dist_Init() == 0, "tables can be made");
    for (const uint32_t nodeId : tables_.OpenAudits()) {
        LyrKesReconRecord finish = {};
        finish.reconType = LYR_KES_RECON_FINISH;
        finish.nodeId = nodeId;
        LyrHost_Kes_ReconciliationProc(&finish);
    }
    Call(MUND_OP_VerifyRcdReset, {});
    LyrKes_InitCwpSrcInfo();
    LyrKes_InitCwpPingStat();
    LyrKes_DebugTraceConfigClear();
    tables_.Clear();
    tables_.CheckTables();
    CheckMemory();
}

// With a channel for every instance: to look for what is not there takes longer than all else.
struct ServedModule : fuzz::StartedModule {
    ServedModule() {
        for (uint32_t number = 0; number < kInstances; ++number) {
            OpenInstance(number, LYR_PKT_TYPE_CAPWAP);
            OpenInstance(number, LYR_PKT_TYPE_WAPI);
        }
    }
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const ServedModule module;
    Program().Run({data, size});
    return 0;
}
