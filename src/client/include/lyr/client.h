/*
 * The client's side of an engine's control socket, for C and C++: what lyrctl talks through.
 *
 * A client is a connection to one engine. It belongs to one thread at a time; clients share
 * nothing, so every thread may have its own. No call raises a signal or touches the environment,
 * other than to read XDG_RUNTIME_DIR. What a call hands out (texts, bytes, lines) is the client's,
 * and holds until the next call with it.
 *
 * The layouts of requests, replies and objects are those of the headers below; all numbers are in
 * host byte order. Structures that a caller fills begin zeroed: `LyrKesCwpTunnelReq request =
 * {0};`.
 */
#ifndef LYR_CLIENT_H
#define LYR_CLIENT_H

#include "mund/messages.h"
#include "mund/module_objects.h"
#include "mund/operations.h"
#include "mund/reconciliation_messages.h"
#include "mund/statistics_messages.h"
#include "mund/table_entries.h"
#include "mund/wire.h"

KES_BEGIN_DECLS

typedef struct LyrClient LyrClient;

/* What became of a call. For all but OK and NOTHING, LyrClientError has a text. */
typedef enum LyrClientOutcome {
    LYR_CLIENT_OK = 0,
    /* The operation ran and returned something else than 0: see LyrClientResult. */
    LYR_CLIENT_FAILED,
    /* Nothing ran: see LyrClientStatus. The client stays connected. */
    LYR_CLIENT_REFUSED,
    /* An answer has another length than it must have, or contradicts itself. */
    LYR_CLIENT_BAD_REPLY,
    /* There is no engine, or it went away, was silent for too long, or speaks another version of
     * the protocol. The client is not connected any more; it may connect again. */
    LYR_CLIENT_NO_ENGINE,
    /* The call makes no sense, and nothing was sent. */
    LYR_CLIENT_INVALID,
    LYR_CLIENT_NO_MEMORY,
    /* No line has come in the time given. */
    LYR_CLIENT_NOTHING
} LyrClientOutcome;

/* A client that is not connected; null when there is no memory. */
KES_API LyrClient *LyrClientNew(void);
/* Closes the connection as well. Null is nothing. */
KES_API void LyrClientFree(LyrClient *client);

/* How long connecting may take, and how long an engine may be silent while it owes an answer, in
 * milliseconds; 0: as long as it likes. Both are 30,000 to begin with. For the next connection. */
KES_API void LyrClientSetLimits(LyrClient *client, uint32_t connectMs, uint32_t silenceMs);

/* Connects to the engine that serves `path`; null: the user's own, $XDG_RUNTIME_DIR/lyr_host.sock
 * or /tmp/lyr_host-UID.sock. A connection that there is already is closed before. */
KES_API LyrClientOutcome LyrClientConnect(LyrClient *client, const char *path);
KES_API void LyrClientDisconnect(LyrClient *client);

/* The connection as a file descriptor, to wait for lines together with other things; -1: none. */
KES_API int LyrClientDescriptor(const LyrClient *client);
/* Why the last call did not succeed, a sentence without a full stop; empty when it did. */
KES_API const char *LyrClientError(const LyrClient *client);
/* How the last request fared: MUND_WIRE_*. BUSY may fare better later. */
KES_API uint32_t LyrClientStatus(const LyrClient *client);
/* What the last operation that ran returned: MUND_RESULT_*, or 0xFFFFFFFF for a missing table. */
KES_API uint32_t LyrClientResult(const LyrClient *client);

/* An address from its usual text form: 0, or -1 for a text that is none; and the text of one. */
KES_API int LyrClientAddressFromText(const char *text, LyrKesRpcIpAddr *address);
enum { LYR_CLIENT_ADDRESS_LEN = 46 };
KES_API void LyrClientAddressToText(const LyrKesRpcIpAddr *address,
                                    char text[LYR_CLIENT_ADDRESS_LEN]);

/*
 * The operations. A reply is written where the operation made one, also when it FAILED, and is zero
 * otherwise. Some say in a `result` of the reply what became of the request, and return 0.
 */
KES_API LyrClientOutcome LyrClientCwpTunnel(LyrClient *client, const LyrKesCwpTunnelReq *request);
KES_API LyrClientOutcome LyrClientKaTunnel(LyrClient *client, const LyrKesKaTunnelReq *request);
KES_API LyrClientOutcome LyrClientWapiTunnel(LyrClient *client, const LyrKesWapiTunnelReq *request,
                                             LyrKesWapiTunnelRsp *reply);
KES_API LyrClientOutcome LyrClientLoadBalanceDfx(LyrClient *client, const LyrKesLbDfxReq *request,
                                                 LyrKesLbDfxRsp *reply);
KES_API LyrClientOutcome LyrClientCwpSrc(LyrClient *client, const LyrKesCwpSrcReq *request);
KES_API LyrClientOutcome LyrClientCwpSrcReconciliation(LyrClient *client,
                                                       const LyrKesCwpSrcReconReq *request);
KES_API LyrClientOutcome LyrClientDebugTraceSet(LyrClient *client,
                                                const LyrKesDebugTraceReq *request);
KES_API LyrClientOutcome LyrClientReconciliation(LyrClient *client,
                                                 const LyrKesReconRecord *record);
/* As many records as a frame takes (104,857), or INVALID. */
KES_API LyrClientOutcome LyrClientBatchReconciliation(LyrClient *client,
                                                      const LyrKesReconRecord *records,
                                                      uint32_t count);
KES_API LyrClientOutcome LyrClientVerifyRcdGet(LyrClient *client,
                                               const LyrKesVerifyRcdGetReq *request,
                                               LyrKesVerifyRcdGetRsp *reply);
KES_API LyrClientOutcome LyrClientVerifyRcdReset(LyrClient *client);
KES_API LyrClientOutcome LyrClientCwpPingStat(LyrClient *client,
                                              const LyrKesCwpPingStatReq *request,
                                              LyrKesCwpPingStatRsp *reply);
KES_API LyrClientOutcome LyrClientCwpTraceRecord(LyrClient *client,
                                                 const LyrKesCwpTraceRecordReq *request,
                                                 LyrKesCwpTraceRecordRsp *reply);
KES_API LyrClientOutcome LyrClientCwpMsgTypeStat(LyrClient *client,
                                                 const LyrKesCwpMsgTypeStatReq *request,
                                                 LyrKesCwpMsgTypeStatRsp *reply);
KES_API LyrClientOutcome LyrClientGetPktStatistics(LyrClient *client,
                                                   LyrKesGetPktStatisticsRsp *reply);
KES_API LyrClientOutcome LyrClientResetPktStatistics(LyrClient *client,
                                                     LyrKesResetPktStatisticsRsp *reply);

/*
 * Queries of several pages, a call of the visitor for each entry. Anything but 0 from a visitor
 * ends the query, which has succeeded then. A visitor may use the client, and throws nothing.
 */
typedef int (*LyrClientTunnelVisitor)(void *context, const LyrKesLbDfxEntry *tunnel);
typedef int (*LyrClientProbeVisitor)(void *context, uint32_t position,
                                     const LyrKesCwpTraceEntry *probe);
/* The tunnels that have a port at either end, of the IPv4 table (ipVer 0) or the IPv6 table. */
KES_API LyrClientOutcome LyrClientVisitTunnels(LyrClient *client, uint32_t ipVer, uint16_t port,
                                               LyrClientTunnelVisitor visit, void *context);
/* The probes from a position on; 0 is the oldest that is held. */
KES_API LyrClientOutcome LyrClientVisitProbes(LyrClient *client, uint32_t from,
                                              LyrClientProbeVisitor visit, void *context);

typedef int (*LyrClientIpv4TunnelVisitor)(void *context, const MundIpv4Tunnel *tunnel);
typedef int (*LyrClientIpv6TunnelVisitor)(void *context, const MundIpv6Tunnel *tunnel);
typedef int (*LyrClientSessionVisitor)(void *context, const MundSession *session);
/* All that is in a table of the module, in no order: the tunnels of either family, the sessions. An
 * entry that is there all the time comes once, one that comes or goes meanwhile may come or not.
 * The engine reads the table for it; no operation does. */
KES_API LyrClientOutcome LyrClientVisitIpv4Tunnels(LyrClient *client,
                                                   LyrClientIpv4TunnelVisitor visit, void *context);
KES_API LyrClientOutcome LyrClientVisitIpv6Tunnels(LyrClient *client,
                                                   LyrClientIpv6TunnelVisitor visit, void *context);
KES_API LyrClientOutcome LyrClientVisitSessions(LyrClient *client, LyrClientSessionVisitor visit,
                                                void *context);

/*
 * Objects that the module exports. LyrClientObject hands out the bytes of one by its name; with
 * another `slot` than MUND_WIRE_NO_SLOT those of the memory that the pointer in this slot of it
 * (from 0, eight bytes each) points at.
 */
KES_API LyrClientOutcome LyrClientObject(LyrClient *client, const char *name, uint32_t slot,
                                         const void **bytes, size_t *size);
/* Reads an object into a layout of its own size: BAD_REPLY, and nothing is written, for any other.
 */
KES_API LyrClientOutcome LyrClientReadObject(LyrClient *client, const char *name, void *layout,
                                             size_t size);

/* X(what, object, layout, how many): what is known of them. LyrClientGetDropWatch(client, &watch)
 * reads the watch over drops, LyrClientGetSources(client, sources) eight records. */
#define LYR_CLIENT_OBJECTS(X)                                                               \
    X(Sources, MUND_OBJECT_SOURCES, MundSourceRecord, LYR_KES_CWP_SRC_NUM)                  \
    X(Trace, MUND_OBJECT_TRACE, MundTraceConfig, 1)                                         \
    X(StationService, MUND_OBJECT_STATION_SERVICE, uint64_t, 1)                             \
    X(LastInstance, MUND_OBJECT_LAST_INSTANCE, uint32_t, 1)                                 \
    X(Ipv4Buckets, MUND_OBJECT_IPV4_BUCKETS, uint32_t, 1)                                   \
    X(Ipv6Buckets, MUND_OBJECT_IPV6_BUCKETS, uint32_t, 1)                                   \
    X(SessionBuckets, MUND_OBJECT_KA_BUCKETS, uint32_t, 1)                                  \
    X(Ipv4Lock, MUND_OBJECT_IPV4_LOCK, uint32_t, 1)                                         \
    X(Ipv6Lock, MUND_OBJECT_IPV6_LOCK, uint32_t, 1)                                         \
    X(SessionLock, MUND_OBJECT_KA_LOCK, uint32_t, 1)                                        \
    X(HandedOver, MUND_OBJECT_HANDED_OVER, uint32_t, MUND_PACKET_TYPE_NUM)                  \
    X(HandOffFailed, MUND_OBJECT_HAND_OFF_FAILED, uint32_t, MUND_PACKET_TYPE_NUM)           \
    X(WapiFrames, MUND_OBJECT_WAPI_FRAMES, uint32_t, 1)                                     \
    X(WapiFailed, MUND_OBJECT_WAPI_FAILED, uint32_t, 1)                                     \
    X(PacketCounters, MUND_OBJECT_PACKET_COUNTERS, LyrKesPktStat, LYR_KES_PKT_STAT_ROW_NUM) \
    X(DropWatch, MUND_OBJECT_DROP_WATCH, MundDropWatch, 1)                                  \
    X(DropTimer, MUND_OBJECT_DROP_TIMER, uint32_t, 1)                                       \
    X(Ping, MUND_OBJECT_PING, MundPingStat, 1)                                              \
    X(MsgType, MUND_OBJECT_MSG_TYPE, MundMsgTypeStat, 1)                                    \
    X(Probes, MUND_OBJECT_PROBES, MundProbeRing, 1)

#define LYR_CLIENT_GET(what, object, layout, number) \
    KES_API LyrClientOutcome LyrClientGet##what(LyrClient *client, layout *value);
LYR_CLIENT_OBJECTS(LYR_CLIENT_GET)
#undef LYR_CLIENT_GET

/* By service instance, of a packet type (MUND_PACKET_*): channel ids (MUND_NO_CHANNEL: none yet),
 * and handles of threads (0: none). Writes `capacity` elements at most; `count` is how many there
 * are. */
KES_API LyrClientOutcome LyrClientGetChannels(LyrClient *client, uint32_t packetType, uint32_t *ids,
                                              size_t capacity, size_t *count);
KES_API LyrClientOutcome LyrClientGetThreads(LyrClient *client, uint32_t packetType,
                                             uint64_t *handles, size_t capacity, size_t *count);

/* The state of the engine, a JSON object. */
KES_API LyrClientOutcome LyrClientState(LyrClient *client, const char **json);
/* What the module would do with a packet, a JSON object: how the packet comes in, and its frame
 * from the Ethernet header on. */
KES_API LyrClientOutcome LyrClientExplain(LyrClient *client, const MundWireExplainReq *arrival,
                                          const void *frame, size_t size, const char **json);

/* Waits, a second at most, for the module's own threads to do what they have been asked, as audits
 * are: `settled` is 1 if they have. */
KES_API LyrClientOutcome LyrClientSettle(LyrClient *client, int *settled);

/* A line of the engine's. */
typedef struct LyrClientLine {
    MundWireLine header;
    const char *text; /* NUL-terminated */
    size_t length;    /* bytes of the text */
} LyrClientLine;

/* Begins to follow the engine's lines. The connection serves for nothing else any more: every other
 * request is INVALID until it is closed. */
KES_API LyrClientOutcome LyrClientFollow(LyrClient *client);
/* The next line. NOTHING when none has come in `timeoutMs` milliseconds (-1: as long as it takes),
 * or when a signal came first. */
KES_API LyrClientOutcome LyrClientNextLine(LyrClient *client, int timeoutMs, LyrClientLine *line);

/* Any request of the protocol: one of a code (MUND_OP_*, MUND_WIRE_*) with its payload, and the
 * bytes of its reply. */
KES_API LyrClientOutcome LyrClientAsk(LyrClient *client, uint16_t code, const void *request,
                                      size_t requestSize, const void **reply, size_t *replySize);

KES_END_DECLS

#endif
