/*
 * The distribution tables as the module exports them, for whoever runs in its process: layouts of
 * what hangs in a bucket. All fields are in host byte order; keys are hashed and compared as bytes.
 * Links are read under the table's locker.
 */
#ifndef MUND_MODULE_TABLES_H
#define MUND_MODULE_TABLES_H

#include <assert.h>

#include "kes/api.h"

/* A link of a circular list. A table is an array of buckets, each the head of one; an empty
 * bucket's links point at itself. */
typedef struct MundTableLink {
    struct MundTableLink *prev;
    struct MundTableLink *next;
} MundTableLink;

static_assert(sizeof(MundTableLink) == 16, "two links");

typedef struct MundIpv4TunnelKey {
    uint32_t srcIp;
    uint32_t dstIp;
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t vpnId;
} MundIpv4TunnelKey;

static_assert(offsetof(MundIpv4TunnelKey, srcPort) == 8, "source port at 8");
static_assert(offsetof(MundIpv4TunnelKey, vpnId) == 12, "VPN id at 12");
static_assert(sizeof(MundIpv4TunnelKey) == 16, "IPv4 key of 16 bytes");

/* An address is four words, the most significant first. */
typedef struct MundIpv6TunnelKey {
    uint32_t srcIpv6[4];
    uint32_t dstIpv6[4];
    uint16_t srcPort;
    uint16_t dstPort;
    uint32_t vpnId;
} MundIpv6TunnelKey;

static_assert(offsetof(MundIpv6TunnelKey, dstIpv6) == 16, "destination at 16");
static_assert(offsetof(MundIpv6TunnelKey, srcPort) == 32, "source port at 32");
static_assert(offsetof(MundIpv6TunnelKey, vpnId) == 36, "VPN id at 36");
static_assert(sizeof(MundIpv6TunnelKey) == 40, "IPv6 key of 40 bytes");

typedef struct MundSessionKey {
    uint32_t sessionId[4];
} MundSessionKey;

static_assert(sizeof(MundSessionKey) == 16, "session key of 16 bytes");

/* MUND_TABLE_ENTRY(name, key type): an entry that hangs in a bucket. */
#define MUND_TABLE_ENTRY(name, keyType)                                                      \
    typedef struct name {                                                                    \
        MundTableLink link;                                                                  \
        keyType key;                                                                         \
        uint32_t nodeId;    /* owning service instance */                                    \
        uint32_t reconMark; /* confirmations in the audit that is open for the node */       \
    } name;                                                                                  \
    static_assert(offsetof(name, key) == 16, "key at 16");                                   \
    static_assert(offsetof(name, nodeId) == 16 + sizeof(keyType), "node id behind the key"); \
    static_assert(sizeof(name) == 24 + sizeof(keyType), "an entry ends behind its mark")

MUND_TABLE_ENTRY(MundIpv4TunnelEntry, MundIpv4TunnelKey);
MUND_TABLE_ENTRY(MundIpv6TunnelEntry, MundIpv6TunnelKey);
MUND_TABLE_ENTRY(MundSessionEntry, MundSessionKey);

#undef MUND_TABLE_ENTRY

#endif
