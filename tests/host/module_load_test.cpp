// The module as an engine meets it: a shared library found by path, not linked to.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "mund/call.h"
#include "mund/messages.h"
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

// Everything that the module shows, by subject.
constexpr const char *kInterface =
    // registration, start and stop, capabilities, hot patch
    "mod_kes_lyrhost mod_kes_lyrhost_id per_lcore_mod_kes_lyrhost_usrid mod_kes_lyrhost_usrctx "
    "mod_kes_lyrhost_usrctx_len g_lyrHostsvcNum tov_modregfn_mod_kes_lyrhost mod_plugin_register "
    "tov_mod_ctr_mod_kes_lyrhost tov_mod_localctr_mod_kes_lyrhost tov_mod_dtr_mod_kes_lyrhost "
    "tov_mod_localdtr_mod_kes_lyrhost LyrKes_Init LyrKes_Exit LyrKes_GetCapsetSpec "
    "LyrKes_InitSvcNum liblyr_host_PAT_C2HSyncHookFunc LyrKes_PatchC2hActivefunc "
    "LyrKes_PatchC2hDeactivefunc "
    // diagnostic log
    "LYR_KES_DiagLog LYR_KES_DiagPrintf LYR_KES_GetDiagTypeStr LYR_KES_SendDebugOutput "
    "LYR_KES_GetDiagLogSwitch LYR_KES_SendDiagLog LYR_KES_SetDiagMainBoardIp "
    "LyrKes_IsDebugTraceEnable "
    // debug trace
    "g_lyrKesDebugTrace LyrKesDebugTrace LyrKesNeedDebugging LyrKes_DebugOutPutPkt "
    "LyrKes_IPv4HToStr LyrKes_IPv6HToStr LyrKes_GetDebugTraceInfo LyrKes_DebugTraceConfigClear "
    "LyrKes_DebugTraceConfigUpdate LyrHost_Kes_DebugTraceSet LyrHost_Kes_DebugTraceSet_free "
    // packet entry
    "LyrKes_PktProc LyrKes_IsLocalPkt LyrKes_WapiPktProc LyrKes_CapwapPktProc "
    // header reader
    "LyrKes_GetCapwapHdr LyrKes_GetCapwapHeader LyrKes_GetCapwapMsgTypeFromCapwapHdr "
    "LyrKes_GetCapwapMsgTypeFromCapwapHeader LyrKes_GetCapwapMsgType LyrKes_GetCapwapPktMsgType "
    "LyrKes_CheckIsDtlsHandShakePkt LyrKes_CheckIsKaPkt LyrKes_GetKaSessionid "
    "LyrKes_GetWlanIdFromCapwapHeader LyrKes_GetVadoAcTunnelWlanId LyrKes_CheckIfFirstIpFrag "
    // distribution tables
    "g_LyrKes_DistIpv4Tbl g_LyrKes_DistIpv4Cap g_LyrKes_DistIpv4RwLocker g_LyrKes_DistIpv6Tbl "
    "g_LyrKes_DistIpv6Cap g_LyrKes_DistIpv6RwLocker g_LyrKes_DistKaTbl g_LyrKes_DistKaCap "
    "g_LyrKes_DistKaRwLocker LyrKes_Dist_Init LyrKes_Dist_Deinit LyrKes_Dist_CreateHashTable "
    "LyrKes_InitHashSize LyrKes_Dist_HashTblInit LyrKes_Dist_HashTblDeinit LyrKes_Hash "
    "LyrKes_DistIpv4_GetHashIndex LyrKes_DistIpv6_GetHashIndex LyrKes_DistKa_GetHashIndex "
    "LyrKes_DistIpv4_KeyCmp LyrKes_DistIpv6_KeyCmp LyrKes_DistKa_KeyCmp LyrKes_DjbHashCal "
    "LyrKes_DistReadLock LyrKes_DistReadUnlock LyrKes_DistWriteLock LyrKes_DistWriteUnlock "
    // tunnel registration
    "LyrHost_Kes_CwpTunnel LyrHost_Kes_CwpTunnel_free LyrHost_Kes_KaTunnel "
    "LyrHost_Kes_KaTunnel_free LyrHost_Kes_WapiTunnel LyrHost_Kes_WapiTunnel_free "
    "LyrKes_DistIPv4SetKey LyrKes_DistIPv6SetKey LyrKes_DistAddIPv4Tunnel "
    "LyrKes_DistAddIPv6Tunnel LyrKes_DistAddKaTunnel LyrKes_DistDelIPv4Tunnel "
    "LyrKes_DistDelIPv6Tunnel LyrKes_DistDelKaTunnel LyrKes_DistAddWapiTunnel "
    "LyrKes_DistAddChannel "
    // packet lookup
    "LyrKes_DistCwp_PktProc LyrKes_DistIpv4_PktProc LyrKes_DistIpv6_PktProc "
    "LyrKes_DistIpv4_UseDefaultLbTable LyrKes_DistIpv6_UseDefaultLbTable LyrKes_DistKa_PktProc "
    // service channels and hand-off
    "g_kes2lyrHostChnMap g_lyrHostThreadInfoId g_lyrKesStaSvcInfo g_lyrKesChnSendSucceedPktCnt "
    "g_lyrKesChnSendFailPktCnt g_lyrKesWapiPacket2Svc g_lyrKesWapiPacket2Fail "
    "LyrKes_InitChannelInfo LyrKes_InitChannelInfoByPktType LyrKes_DeinitChannelInfo "
    "LyrKes_DeinitChannelInfoByPktType LyrKes_GetChnMapByPktType LyrKes_GetThdInfoByPktType "
    "TOV_CHN_KES2LYR TOV_THD_KES2LYR LyrKes_ConstructName LyrKes_ChnSendPktToLyr "
    "LyrKes_SendPktToLyrSvcByChannel LyrKes_SendPktToLyrStaByChannel LyrKes_GetPidByMac "
    "LyrKes_ReFillMbufPara LyrKes_SetStaSvcInfo LyrKes_GetStaSvcInfo LyrKes_InitStaSvcInfo "
    "LyrKes_DeinitStaInfo "
    // RPC server
    "LyrKes_RavelRpcServerCreate LyrKes_RavelRpcServerDestroy LyrHost_GetMundModuleId "
    // table queries
    "LyrHost_Kes_LoadBalanceDfx LyrHost_Kes_LoadBalanceDfx_free LyrHost_Kes_LbEntryNum "
    "LyrHost_Kes_LbEntryInfo LyrHost_Kes_GetIpv4LbEntryNum LyrHost_Kes_GetIpv6LbEntryNum "
    "LyrHost_Kes_GetIpv4LbEntryInfo LyrHost_Kes_GetIpv6LbEntryInfo "
    // packet counters and drop watch
    "g_cwpPktStats g_lyrKesMsgDropStat g_lyrKesMsgDropStatTimer LyrKes_CwpCtrlPktStatic "
    "LyrKes_IncreasePktType LyrKes_IncreaseMsgTotalStat LyrKes_IncreaseMsgDropStat "
    "LyrKes_StartMsgDropStatTimer LyrKes_StopMsgDropStatTimer LyrKes_MsgDropStatTimerProc "
    "LyrKes_MsgDropStatContinuousDropProc LyrKes_MsgDropStatContinuousNoDropProc "
    "LyrKes_ClearMsgDropStat LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrap "
    "LyrKes_NotifyVelCapwapTaskContinuousMessageDropTrapRestore "
    "LyrKes_SendCapwapTaskContinuousMessageDropTrap LyrKes_IMAgentSetAlarmAttr LyrKes_IMSysTime "
    "LyrKes_GetCtrlPktStatic LyrKes_ClearCtrlPktStatic LyrHost_Kes_GetPktStatistics "
    "LyrHost_Kes_GetPktStatistics_free LyrHost_Kes_ResetPktStatistics "
    "LyrHost_Kes_ResetPktStatistics_free "
    // statistics hooks and ping
    "g_LyrHostCwpPingStat LyrKes_RegCwpStatTrace LyrKes_UnRegCwpStatTrace LyrKes_CwpStatTxInProc "
    "LyrKes_CwpStatTxOutProc LyrKes_CwpStatRxInProc LyrKes_CwpStatRxOutProc "
    "LyrKes_ParseCheckCwpType LyrKes_CheckCwpPingStatConfig LyrKes_CwpPingStatProc "
    "LyrKes_CalCwpPingStatByType LyrKes_UpdateCwpPingConfig LyrKes_ResetCwpPingStat "
    "LyrKes_InitCwpPingStat LyrKes_GetCwpPingStatConfig LyrKes_GetCwpPingStatByType "
    "LyrKes_CwpPingGetStat LyrHost_Kes_CwpPingStat LyrHost_Kes_CwpPingStat_free "
    // probe trace
    "g_LyrHostCwpTrace LyrKes_CwpProbeTraceProc LyrKes_GetPeerMacFromCapwapProbeMsg "
    "LyrKes_FillInCwpProbeInfo LyrKes_AddGlbCwpTraceRecord LyrKes_GetGlbCwpTrace "
    "LyrKes_InitCwpProbe LyrKes_CwpTraceReset LyrKes_CwpTraceGet LyrHost_Kes_CwpTraceRecord "
    "LyrHost_Kes_CwpTraceRecord_free "
    // message type statistics, start and stop of the diagnostics
    "g_LyrHostPktMsgTypeStat LyrKes_IncrPktMsgTypeStatRecvCnt LyrKes_IncrPktMsgTypeStatDropCnt "
    "LyrKes_IsPktMsgTypeStatEnabled LyrKes_IfPktMsgNeedStat LyrKes_SetCwpMsgTypeStat "
    "LyrKes_GetCwpMsgTypeStat LyrKes_ResetPktMsgTypeStatCnt LyrKes_GetPktMsgTypeStat "
    "LyrKes_InitPktMsgTypeStat LyrKes_DeinitPktMsgTypeStat LyrKes_InitCwpStatDfx "
    "LyrKes_DeinitCwpStatDfx LyrHost_Kes_CwpMsgTypeStat LyrHost_Kes_CwpMsgTypeStat_free "
    // source table and match
    "g_LyrHostCwpSrcRcd LyrKes_InitCwpSrcInfo LyrKes_DeinitCwpSrcInfo LyrKes_SetCwpSrcInfo "
    "LyrKes_FindCwpSrc LyrKes_FillInHostIpAddr LyrKes_FillInCwpSrcInfo LyrKes_AddCwpSrc "
    "LyrKes_DelCwpSrc LyrKes_QueryCwpSrc LyrHost_Kes_CwpSrcInfoGet LyrHost_Kes_CwpSrc "
    "LyrHost_Kes_CwpSrc_free LyrHost_Kes_CwpSrcReconciliation "
    "LyrHost_Kes_CwpSrcReconciliation_free LyrHost_IsPktMatchCwpSrc "
    "LyrHost_IsRecvIfMatchCwpSrcRecord LyrHost_IsDstIpMatchCwpSrcRecord "
    // reconciliation
    "g_lyrKesReconMsgQueue g_lyrKesReconThreadRunning reconBeginFlag LyrKes_InitReconInfo "
    "LyrKes_DeinitReconInfo LyrKes_CreateReconMsgQueue LyrKes_CreateReconTask "
    "LyrKes_ReconTaskEntry LyrKes_WriteReconMsgQueue LyrKes_ReadReconMsgQueue "
    "LyrHost_Kes_MsgQueueReconciliationProc LyrHost_Kes_BatchReconciliationProc "
    "LyrHost_Kes_ReconciliationProc LyrHost_Kes_Reconciliation LyrHost_Kes_Reconciliation_free "
    "LyrHost_Kes_BatchReconciliation LyrHost_Kes_BatchReconciliation_free "
    "LyrKes_Recon_BeginProc LyrKes_Recon_IPv4SetKey LyrKes_Recon_IPv6SetKey "
    "LyrKes_Recon_IPv4CwpProc LyrKes_Recon_IPv6CwpProc LyrKes_Recon_KaProc "
    "LyrKes_Recon_FinishProc LyrKes_Recon_FinishProcLoopIpv4Tbl "
    "LyrKes_Recon_FinishProcLoopIpv6Tbl LyrKes_Recon_FinishProcLoopKaTbl "
    // verify records
    "g_lyrKesVerifyRcd g_lyrKesVerifyRcdLock LyrKes_VerifyRcdListInit LyrKes_VerifyRcdListGet "
    "LyrKes_VerifyRcdListLock LyrKes_VerifyRcdGetCnt LyrKes_VerifyRcdNodeAdd "
    "LyrKes_VerifyRcdClearAll LyrKes_VerifyRcdAdd LyrKes_VerifyRcdGet "
    "LyrKes_VerifyRcdClearAllTable LyrKes_LbIpv4VerifyExcptionRcdAdd "
    "LyrKes_LbIpv6VerifyExcptionRcdAdd LyrKes_GetCurTime LyrHost_Kes_VerifyRcdGet "
    "LyrHost_Kes_VerifyRcdGet_free LyrHost_Kes_VerifyRcdReset LyrHost_Kes_VerifyRcdReset_free ";

TEST(ModuleLibrary, ShowsItsInterfaceAndNothingElse) {
    const std::string output =
        Output(std::string("nm -D --defined-only --format=just-symbols ") + kLibrary);
    if (output.empty()) {
        GTEST_SKIP() << "nm is not there";
    }
    const std::set<std::string> shown = Names(output), expected = Names(kInterface);
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
    std::set<std::string> needed;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") == std::string::npos) {
            continue;
        }
        const size_t from = line.find('[') + 1;
        const std::string name = line.substr(from, line.find(']') - from);
        const bool runtime = kSanitized && name.find("san.so") != std::string::npos;
        EXPECT_TRUE(allowed.contains(name) || runtime) << name;
        needed.insert(name);
    }
    EXPECT_TRUE(needed.contains("libkes_host.so"));
    EXPECT_TRUE(needed.contains("libmund_ser_lyrhost.so"));
}

bool Mapped() {
    void *library = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}

MundStatus AddSession(uint32_t *result) {
    const LyrKesKaTunnelReq request = {LYR_KES_OPERATION_ADD, {1, 2, 3, 4}, 5};
    uint32_t replySize = 0;
    return MundCall(MUND_OP_KaTunnel, &request, sizeof(request), nullptr, 0, &replySize, result);
}

TEST(ModuleLibrary, LoadsStartsAndLeavesAgain) {
    for (int round = 1; round <= 3; ++round) {
        standin::Module module;
        ASSERT_EQ(module.Load(kLibrary), "") << "round " << round;
        const auto *id = static_cast<const uint32_t *>(module.Symbol("mod_kes_lyrhost_id"));
        EXPECT_EQ(*id, module.Id());
        EXPECT_EQ(standin::ModuleMemory(module.Id()).blocks, 0u) << "before it has started";
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
        EXPECT_GT(standin::ModuleMemory(module.Id()).blocks, 0u);
        if (round == 2) {  // stopped and started once more
            module.Stop();
            ASSERT_EQ(module.Start(), "");
            EXPECT_EQ(AddSession(&result), MUND_STATUS_OK);
        }
        EXPECT_THAT(module.Unload(), IsEmpty());
        EXPECT_FALSE(Mapped()) << "round " << round;
        EXPECT_EQ(g_pluginModRegHead, nullptr);
        EXPECT_EQ(standin::WlanIdReader(), nullptr);
        EXPECT_EQ(AddSession(&result), MUND_STATUS_NO_SERVICE);
    }
}

TEST(ModuleLibrary, StartThatFailsCanBeRepeated) {
    standin::Module module;
    ASSERT_EQ(module.Load(kLibrary), "");
    standin::FailCall("HostHookRegister", 5);  // the packet hook, after those of the statistics
    EXPECT_EQ(module.Start(), "kes_lyrhost: the initialisation entry returned 1");
    standin::ClearFaults();
    EXPECT_FALSE(module.Started());
    EXPECT_EQ(module.Start(), "");
    EXPECT_THAT(module.Unload(), IsEmpty());
    EXPECT_FALSE(Mapped());
}

}  // namespace
