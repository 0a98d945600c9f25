/*
 * The module, made to miscount: a received frame with cause id N also counts in its N-th packet
 * counter (from 1), a transmitted one in the last but one on its way in and in the last on its way
 * out.
 */
#include "kes/hook.h"
#include "kes/module.h"

enum { COUNTERS = 21 };
extern uint32_t g_cwpPktStats[COUNTERS];
TovModRegRecord *mod_plugin_register(void);

static uint32_t (*g_init)(void);
static uint32_t (*g_exit)(void);

static uint64_t Count(uint32_t counter) {
    if (counter < COUNTERS) {
        __atomic_fetch_add(&g_cwpPktStats[counter], 1, __ATOMIC_RELAXED);
    }
    return HOST_HOOK_CONTINUE;
}

static uint64_t Receive(HostMbuf *packet) {
    return Count(HostMbufGetCauseId(packet) - 1);
}
static uint64_t TransmitIn(HostMbuf *packet) {
    (void)packet;
    return Count(COUNTERS - 2);
}
static uint64_t TransmitOut(HostMbuf *packet) {
    (void)packet;
    return Count(COUNTERS - 1);
}

static uint32_t Init(void) {
    HostHookRegister(HOST_HOOK_RX_IN, 1, Receive, "miscounting");
    HostHookRegister(HOST_HOOK_TX_IN, 1, TransmitIn, "miscounting");
    HostHookRegister(HOST_HOOK_TX_OUT, 1, TransmitOut, "miscounting");
    return g_init();
}

static uint32_t Exit(void) {
    HostHookUnregister(HOST_HOOK_RX_IN, Receive);
    HostHookUnregister(HOST_HOOK_TX_IN, TransmitIn);
    HostHookUnregister(HOST_HOOK_TX_OUT, TransmitOut);
    return g_exit();
}

__attribute__((constructor)) static void Wrap(void) {
    TovModRegRecord *record = mod_plugin_register();
    g_init = record->init;
    g_exit = record->exit;
    record->init = Init;
    record->exit = Exit;
}
