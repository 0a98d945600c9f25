// The module as an engine meets it: a shared library found by path, not linked to.
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "mund/call.h"
#include "mund/messages.h"
#include "mund/reconciliation_messages.h"
#include "standin/exported_objects.h"
#include "standin/module_loader.h"
#include "standin/packet_path.h"
#include "standin/runtime.h"

namespace {

using ::testing::IsEmpty;

constexpr const char *kLibrary = LYR_HOST_LIBRARY;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// What a command prints, or nothing if there is no such command.
std::string Output(const std::string &command) {
    const std::unique_ptr<FILE, int (*)(FILE *)> pipe(
        popen((command + " 2>/dev/null").c_str(), "r"), pclose);
    std::string output;
    char buffer[4096];
    for (size_t got; (got = fread(buffer, 1, sizeof(buffer), pipe.get())) > 0;) {
        output.append(buffer, got);
    }
    return output;
}

std::set<std::string> Names(const std::string &text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

// Everything that the module shows: its operations with their twins, other names, and names that
// begin with LyrKes_.
#define OPERATION_NAMES(name, requestSize, replySize) \
    "LyrHost_Kes_" #name " LyrHost_Kes_" #name "_free "
constexpr const char *kNames = MUND_OPERATIONS(OPERATION_NAMES)
    "LYR_KES_DiagLog LYR_KES_DiagPrintf LYR_KES_GetDiagLogSwitch LYR_KES_GetDiagTypeStr "
    "LYR_KES_SendDebugOutput LYR_KES_SendDiagLog LYR_KES_SetDiagMainBoardIp "
    "LyrHost_GetMundModuleId LyrHost_IsDstIpMatchCwpSrcRecord LyrHost_IsPktMatchCwpSrc "
    "LyrHost_IsRecvIfMatchCwpSrcRecord LyrHost_Kes_BatchReconciliationProc "
    "LyrHost_Kes_CwpSrcInfoGet LyrHost_Kes_GetIpv4LbEntryInfo LyrHost_Kes_GetIpv4LbEntryNum "
    "LyrHost_Kes_GetIpv6LbEntryInfo LyrHost_Kes_GetIpv6LbEntryNum LyrHost_Kes_LbEntryInfo "
    "LyrHost_Kes_LbEntryNum LyrHost_Kes_MsgQueueReconciliationProc LyrHost_Kes_ReconciliationProc "
    "LyrKesDebugTrace LyrKesNeedDebugging TOV_CHN_KES2LYR TOV_THD_KES2LYR g_LyrHostCwpPingStat "
    "g_LyrHostCwpSrcRcd g_LyrHostCwpTrace g_LyrHostPktMsgTypeStat g_LyrKes_DistIpv4Cap "
    "g_LyrKes_DistIpv4RwLocker g_LyrKes_DistIpv4Tbl g_LyrKes_DistIpv6Cap "
    "g_LyrKes_DistIpv6RwLocker g_LyrKes_DistIpv6Tbl g_LyrKes_DistKaCap g_LyrKes_DistKaRwLocker "
    "g_LyrKes_DistKaTbl g_cwpPktStats g_kes2lyrHostChnMap g_lyrHostThreadInfoId g_lyrHostsvcNum "
    "g_lyrKesChnSendFailPktCnt g_lyrKesChnSendSucceedPktCnt g_lyrKesDebugTrace "
    "g_lyrKesMsgDropStat g_lyrKesMsgDropStatTimer g_lyrKesReconMsgQueue "
    "g_lyrKesReconThreadRunning g_lyrKesStaSvcInfo g_lyrKesVerifyRcd g_lyrKesVerifyRcdLock "
    "g_lyrKesWapiPacket2Fail g_lyrKesWapiPacket2Svc liblyr_host_PAT_C2HSyncHookFunc "
    "mod_kes_lyrhost mod_kes_lyrhost_id mod_kes_lyrhost_usrctx mod_kes_lyrhost_usrctx_len "
    "mod_plugin_register per_lcore_mod_kes_lyrhost_usrid reconBeginFlag "
    "tov_mod_ctr_mod_kes_lyrhost tov_mod_dtr_mod_kes_lyrhost tov_mod_localctr_mod_kes_lyrhost "
    "tov_mod_localdtr_mod_kes_lyrhost tov_modregfn_mod_kes_lyrhost ";
constexpr const char *kLyrKesNames =
    "AddCwpSrc AddGlbCwpTraceRecord CalCwpPingStatByType CapwapPktProc CheckCwpPingStatConfig "
    "CheckIfFirstIpFrag CheckIsDtlsHandShakePkt CheckIsKaPkt ChnSendPktToLyr ClearCtrlPktStatic "
    "ClearMsgDropStat ConstructName CreateReconMsgQueue CreateReconTask CwpCtrlPktStatic "
    "CwpPingGetStat CwpPingStatProc CwpProbeTraceProc CwpStatRxInProc CwpStatRxOutProc "
    "CwpStatTxInProc CwpStatTxOutProc CwpTraceGet CwpTraceReset DebugOutPutPkt "
    "DebugTraceConfigClear DebugTraceConfigUpdate DeinitChannelInfo DeinitChannelInfoByPktType "
    "DeinitCwpSrcInfo DeinitCwpStatDfx DeinitPktMsgTypeStat DeinitReconInfo DeinitStaInfo "
    "DelCwpSrc DistAddChannel DistAddIPv4Tunnel DistAddIPv6Tunnel DistAddKaTunnel "
    "DistAddWapiTunnel DistCwp_PktProc DistDelIPv4Tunnel DistDelIPv6Tunnel DistDelKaTunnel "
    "DistIPv4SetKey DistIPv6SetKey DistIpv4_GetHashIndex DistIpv4_KeyCmp DistIpv4_PktProc "
    "DistIpv4_UseDefaultLbTable DistIpv6_GetHashIndex DistIpv6_KeyCmp DistIpv6_PktProc "
    "DistIpv6_UseDefaultLbTable DistKa_GetHashIndex DistKa_KeyCmp DistKa_PktProc DistReadLock "
    "DistReadUnlock DistWriteLock DistWriteUnlock Dist_CreateHashTable Dist_Deinit "
    "Dist_HashTblDeinit Dist_HashTblInit Dist_Init DjbHashCal Exit FillInCwpProbeInfo "
    "FillInCwpSrcInfo FillInHostIpAddr FindCwpSrc GetCapsetSpec GetCapwapHdr GetCapwapHeader "
    "GetCapwapMsgType GetCapwapMsgTypeFromCapwapHdr GetCapwapMsgTypeFromCapwapHeader "
    "GetCapwapPktMsgType GetChnMapByPktType GetCtrlPktStatic GetCurTime GetCwpMsgTypeStat "
    "GetCwpPingStatByType GetCwpPingStatConfig GetDebugTraceInfo GetGlbCwpTrace GetKaSessionid "
    "GetPeerMacFromCapwapProbeMsg GetPidByMac GetPktMsgTypeStat GetStaSvcInfo GetThdInfoByPktType "
    "GetVadoAcTunnelWlanId GetWlanIdFromCapwapHeader Hash IMAgentSetAlarmAttr IMSysTime "
    "IPv4HToStr IPv6HToStr IfPktMsgNeedStat IncrPktMsgTypeStatDropCnt IncrPktMsgTypeStatRecvCnt "
    "IncreaseMsgDropStat IncreaseMsgTotalStat IncreasePktType Init InitChannelInfo "
    "InitChannelInfoByPktType InitCwpPingStat InitCwpProbe InitCwpSrcInfo InitCwpStatDfx "
    "InitHashSize InitPktMsgTypeStat InitReconInfo InitStaSvcInfo InitSvcNum IsDebugTraceEnable "
    "IsLocalPkt IsPktMsgTypeStatEnabled LbIpv4VerifyExcptionRcdAdd LbIpv6VerifyExcptionRcdAdd "
    "MsgDropStatContinuousDropProc MsgDropStatContinuousNoDropProc MsgDropStatTimerProc "
    "NotifyVelCapwapTaskContinuousMessageDropTrap "
    "NotifyVelCapwapTaskContinuousMessageDropTrapRestore ParseCheckCwpType PatchC2hActivefunc "
    "PatchC2hDeactivefunc PktProc QueryCwpSrc RavelRpcServerCreate RavelRpcServerDestroy "
    "ReFillMbufPara ReadReconMsgQueue ReconTaskEntry Recon_BeginProc Recon_FinishProc "
    "Recon_FinishProcLoopIpv4Tbl Recon_FinishProcLoopIpv6Tbl Recon_FinishProcLoopKaTbl "
    "Recon_IPv4CwpProc Recon_IPv4SetKey Recon_IPv6CwpProc Recon_IPv6SetKey Recon_KaProc "
    "RegCwpStatTrace ResetCwpPingStat ResetPktMsgTypeStatCnt "
    "SendCapwapTaskContinuousMessageDropTrap SendPktToLyrStaByChannel SendPktToLyrSvcByChannel "
    "SetCwpMsgTypeStat SetCwpSrcInfo SetStaSvcInfo StartMsgDropStatTimer StopMsgDropStatTimer "
    "UnRegCwpStatTrace UpdateCwpPingConfig VerifyRcdAdd VerifyRcdClearAll VerifyRcdClearAllTable "
    "VerifyRcdGet VerifyRcdGetCnt VerifyRcdListGet VerifyRcdListInit VerifyRcdListLock "
    "VerifyRcdNodeAdd WapiPktProc WriteReconMsgQueue ";

TEST(ModuleLibrary, ShowsItsInterfaceAndNothingElse) {
    const std::string output =
        Output(std::string("nm -D --defined-only --format=just-symbols ") + kLibrary);
    if (output.empty()) {
        GTEST_SKIP() << "nm is not there";
    }
    const std::set<std::string> shown = Names(output);
    std::set<std::string> expected = Names(kNames);
    for (const std::string &name : Names(kLyrKesNames)) {
        expected.insert("LyrKes_" + name);
    }
    std::vector<std::string> missing, unexpected;
    std::ranges::set_difference(expected, shown, std::back_inserter(missing));
    std::ranges::set_difference(shown, expected, std::back_inserter(unexpected));
    EXPECT_THAT(missing, IsEmpty());
    EXPECT_THAT(unexpected, IsEmpty());
}

TEST(ModuleLibrary, NeedsTheEngineAndTheLanguageOnly) {
    const std::string output = Output(std::string("readelf -d ") + kLibrary);
    if (output.empty()) {
        GTEST_SKIP() << "readelf is not there";
    }
    const std::set<std::string> allowed = {
        "libkes_host.so", "libmund_ser_lyrhost.so", "libc.so.6",           "libm.so.6",
        "libgcc_s.so.1",  "libstdc++.so.6",         "ld-linux-x86-64.so.2"};
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") == std::string::npos) {
            continue;
        }
        const size_t from = line.find('[') + 1;
        const std::string name = line.substr(from, line.find(']') - from);
        const bool runtime = kSanitized && name.find("san.so") != std::string::npos;
        EXPECT_TRUE(allowed.contains(name) || runtime) << name;
    }
    EXPECT_NE(output.find("[libkes_host.so]"), std::string::npos);
    EXPECT_NE(output.find("[libmund_ser_lyrhost.so]"), std::string::npos);
}

bool Mapped() {
    void *library = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}

template <class Request>
MundStatus Call(MundOperation operation, const Request &request, uint32_t *result) {
    uint32_t replySize = 0;
    return MundCall(operation, &request, sizeof(request), nullptr, 0, &replySize, result);
}

MundStatus AddSession(uint32_t *result) {
    const LyrKesKaTunnelReq request = {LYR_KES_OPERATION_ADD, {1, 2, 3, 4}, 5};
    return Call(MUND_OP_KaTunnel, request, result);
}

// Leaves one tunnel to an audit, which records it.
void RemoveATunnel() {
    LyrKesCwpTunnelReq tunnel = {};
    LyrKesReconRecord step = {};
    uint32_t result = 9;
    EXPECT_EQ(Call(MUND_OP_CwpTunnel, tunnel, &result), MUND_STATUS_OK);
    for (const uint32_t type : {LYR_KES_RECON_BEGIN, LYR_KES_RECON_FINISH}) {
        step.reconType = type;
        EXPECT_EQ(Call(MUND_OP_Reconciliation, step, &result), MUND_STATUS_OK);
    }
    standin::WaitUntilCreatedThreadsIdle();
}

uint32_t RecordCount(const standin::Module &module) {
    const auto count =
        reinterpret_cast<uint32_t (*)(uint32_t)>(module.Symbol("LyrKes_VerifyRcdGetCnt"));
    return count(0);
}

TEST(ModuleLibrary, ValuesBeforeTheFirstStart) {
    standin::Module module;
    ASSERT_EQ(module.Load(kLibrary), "");
    const std::map<std::string, std::vector<uint32_t>> set = {
        {"g_lyrHostsvcNum", {27}},
        {"g_LyrKes_DistIpv4Cap", {8999}},
        {"g_LyrKes_DistIpv6Cap", {8999}},
        {"g_LyrKes_DistKaCap", {8999}},
        {"g_lyrKesMsgDropStat", {0, 0, 0, 0, 0, 0xFFFFFFFF, 0}},
        {"g_lyrKesMsgDropStatTimer", {0xFFFFFFFF}},
        {"mod_kes_lyrhost_id", {module.Id()}},
    };
    size_t objects = 0;
    for (const std::string &name : Names(kNames)) {
        const standin::ObjectBytes object = standin::ReadObject(module, name);
        if (!object.error.empty() || name == "mod_kes_lyrhost") {
            continue;  // a function; the record
        }
        std::vector<uint8_t> expected(object.bytes.size());
        if (const auto found = set.find(name); found != set.end()) {
            ASSERT_EQ(found->second.size() * sizeof(uint32_t), expected.size()) << name;
            std::memcpy(expected.data(), found->second.data(), expected.size());
        }
        EXPECT_EQ(object.bytes, expected) << name;
        ++objects;
    }
    EXPECT_EQ(objects, 33u);
    EXPECT_THAT(module.Unload(), IsEmpty()) << "never started";
}

TEST(ModuleLibrary, LoadsStartsAndLeavesAgain) {
    standin::SetStrict(true);
    for (int round = 1; round <= 3; ++round) {
        standin::Module module;
        ASSERT_EQ(module.Load(kLibrary), "") << "round " << round;
        const auto *id = static_cast<const uint32_t *>(module.Symbol("mod_kes_lyrhost_id"));
        EXPECT_EQ(*id, module.Id());
        std::thread([&] {
            const auto *own =
                static_cast<const uint32_t *>(module.Symbol("per_lcore_mod_kes_lyrhost_usrid"));
            EXPECT_EQ(*own, 0u);
            module.EnterLcore();
            EXPECT_EQ(*own, module.Id());
            module.LeaveLcore();
            EXPECT_EQ(*own, 0u);
        }).join();

        uint32_t result = 9;
        EXPECT_EQ(AddSession(&result), MUND_STATUS_NO_SERVICE);
        ASSERT_EQ(module.Start(), "");
        EXPECT_EQ(AddSession(&result), MUND_STATUS_OK);
        EXPECT_EQ(result, 0u);
        RemoveATunnel();
        if (round == 2) {  // stopped and started once more
            module.Stop();
            EXPECT_EQ(RecordCount(module), 1u);
            ASSERT_EQ(module.Start(), "");
            EXPECT_EQ(RecordCount(module), 0u);
            EXPECT_EQ(AddSession(&result), MUND_STATUS_OK);
            RemoveATunnel();
        }
        EXPECT_EQ(RecordCount(module), 1u);
        EXPECT_THAT(module.Unload(), IsEmpty());
        EXPECT_FALSE(Mapped()) << "round " << round;
        EXPECT_EQ(g_pluginModRegHead, nullptr);
        EXPECT_EQ(standin::WlanIdReader(), nullptr);
        EXPECT_EQ(AddSession(&result), MUND_STATUS_NO_SERVICE);
    }
}

}  // namespace
