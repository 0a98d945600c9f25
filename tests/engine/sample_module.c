/*
 * A module with nothing but the interface: it notes what the engine calls, and leaves behind
 * whatever the test tells it to. Also proof that the interface headers are C.
 */
#include "kes/board.h"
#include "kes/bounded.h"
#include "kes/capability.h"
#include "kes/channel.h"
#include "kes/diag.h"
#include "kes/hook.h"
#include "kes/im.h"
#include "kes/interface_index.h"
#include "kes/memory.h"
#include "kes/module.h"
#include "kes/patch.h"
#include "kes/queue.h"
#include "kes/sync.h"
#include "kes/thread.h"
#include "kes/timer.h"
#include "mund/call.h"
#include "mund/messages.h"
#include "mund/operations.h"
#include "mund/rpc.h"

/* Set by the test before the start. */
KES_API uint32_t g_sampleInitStatus = 0;
KES_API uint32_t g_sampleExitStatus = 0;
KES_API uint32_t g_sampleLeaves = 0; /* non-zero: exit releases nothing */

/* For a runner: the last of its service instances. */
KES_API uint32_t g_lyrHostsvcNum = 0;

/* One letter for each entry that the engine calls. */
KES_API char g_sampleCalls[32] = "";
KES_API uint32_t g_sampleThreadRan = 0;
/* The first points at memory of the module's from the start on. */
KES_API void *g_sampleMemory[2];

static TovPipeQue *g_queue;
static ImAgentMsg *g_message;
static uint32_t g_timer;

static void Note(const char *letter) {
    strcat_s(g_sampleCalls, sizeof(g_sampleCalls), letter);
}

static void Ctr(void) {
    Note("c");
}
static void LocalCtr(void) {
    Note("l");
}
static void Dtr(void) {
    Note("D");
}
static void LocalDtr(void) {
    Note("L");
}

static uint64_t Hook(HostMbuf *packet) {
    (void)packet;
    return HOST_HOOK_TAKEN;
}

static uint32_t WlanId(HostMbuf *packet, uint16_t *wlanId) {
    (void)packet;
    *wlanId = 1;
    return 0;
}

static uint32_t Tick(void *argument) {
    (void)argument;
    return 0;
}

static void Thread(void *argument) {
    (void)argument;
    uint32_t events;
    if (TOV_ThreadInfoRegByName("thd/sample") == 0 && TOV_EventRead(&events) == 0) {
        g_sampleThreadRan = events;
    }
}

static uint32_t Init(void);
static uint32_t Exit(void);

static TovModRegRecord g_record = {
    .name = "sample",
    .init = Init,
    .exit = Exit,
    .kind = TOV_MOD_KIND_PLUGIN,
    .recordVersion = TOV_MOD_RECORD_VERSION,
    .ctr = Ctr,
    .localCtr = LocalCtr,
    .dtr = Dtr,
    .localDtr = LocalDtr,
};

static uint32_t Init(void) {
    Note("i");
    if (g_sampleInitStatus != 0) {
        return g_sampleInitStatus;
    }
    g_sampleMemory[0] = TovMemAllocInner(g_record.moduleId, 0, 48, 0, "Init", 7);
    g_queue = TovCreatePipeQue("SAMPLE", 1);
    g_message = TOV_ImAgentMsgCreate(IM_MSG_LOG, 1);
    TovSLcoreTimerCreateAndStart(3600000, TOV_TIMER_PERIODIC, Tick, NULL, &g_timer);
    HostHookRegister(HOST_HOOK_HOST_RX, 100, Hook, "sample");
    HostAcGetWlanIdRegFunc(WlanId);
    TovThreadCreate("sample", Thread, NULL);
    return 0;
}

static uint32_t Exit(void) {
    Note("e");
    TovThreadInfo *thread;
    while ((thread = TOV_ThreadInfoGetByName("thd/sample")) == NULL) {
    }
    TOV_EventWrite(thread, 8);
    if (g_sampleLeaves == 0) {
        TovMemFreeInner(g_sampleMemory[0]);
        TovQueDelete(g_queue);
        TOV_ImAgentMsgFree(g_message);
        TovSLcoreTimerDelete(g_timer);
        HostHookUnregister(HOST_HOOK_HOST_RX, Hook);
    }
    return g_sampleExitStatus;
}

#ifndef SAMPLE_SILENT
KES_API TovModRegRecord *mod_plugin_register(void) {
    return &g_record;
}
#endif

#ifndef SAMPLE_UNLINKED
__attribute__((constructor)) static void Link(void) {
#ifdef SAMPLE_BROKEN
    g_record = (TovModRegRecord){.kind = 3};
#endif
    g_record.next = g_pluginModRegHead;
    g_pluginModRegHead = &g_record;
}
#endif
