/*
 * The entries of the distribution tables as they travel: what stands behind an entry's links. All
 * fields are in host byte order.
 */
#ifndef MUND_TABLE_ENTRIES_H
#define MUND_TABLE_ENTRIES_H

#include "mund/module_tables.h"

/* X(name, words): the tables that entries are listed of. */
#define MUND_TABLES(X)      \
    X(IPV4_TUNNELS, "IPv4") \
    X(IPV6_TUNNELS, "IPv6") \
    X(SESSIONS, "session")

enum {
#define MUND_TABLE(name, words) MUND_TABLE_##name,
    MUND_TABLES(MUND_TABLE) MUND_TABLE_NUM
#undef MUND_TABLE
};

/* MUND_TABLE_RECORD(name, key type) */
#define MUND_TABLE_RECORD(name, keyType)                                                           \
    typedef struct name {                                                                          \
        keyType key;                                                                               \
        uint32_t nodeId;    /* owning service instance */                                          \
        uint32_t reconMark; /* confirmations in the audit that is open for the node */             \
    } name;                                                                                        \
    static_assert(sizeof(name) + sizeof(MundTableLink) == sizeof(name##Entry),                     \
                  "an entry without its links");                                                   \
    static_assert(offsetof(name, nodeId) + sizeof(MundTableLink) == offsetof(name##Entry, nodeId), \
                  "the node id at its place behind the links")

MUND_TABLE_RECORD(MundIpv4Tunnel, MundIpv4TunnelKey);
MUND_TABLE_RECORD(MundIpv6Tunnel, MundIpv6TunnelKey);
MUND_TABLE_RECORD(MundSession, MundSessionKey);

#undef MUND_TABLE_RECORD

#endif
