/*
 * The frames of the control socket, a stream socket between programs of one machine. A frame is a
 * header and `length` bytes of payload; every number is in host byte order. A client sends requests
 * and gets one reply for each, in their order; only FOLLOW has more.
 */
#ifndef MUND_WIRE_H
#define MUND_WIRE_H

#include "mund/operations.h"
#include "mund/status.h"

enum { MUND_WIRE_VERSION = 1 };

/* What a frame is about: a code below MUND_OPERATION_COUNT is that operation of the module. */
enum {
    /* The state of the engine: no request payload; the reply is a JSON object. */
    MUND_WIRE_STATE = 0x100,
    /* The bytes of an object that the module exports: MundWireObjectReq; the reply is the bytes. */
    MUND_WIRE_OBJECT = 0x101,
    /* The engine's lines as they come: no request payload. The reply has no payload; after it come
     * frames of this code, each with MundWireLine and a text, until the client closes. */
    MUND_WIRE_FOLLOW = 0x102,
    /* What the module would do with a packet: MundWireExplainReq and a frame; the reply is a JSON
     * object. */
    MUND_WIRE_EXPLAIN = 0x103,
    /* A part of a table of the module: MundWireEntriesReq; the reply is MundWireEntriesRsp and the
     * entries. */
    MUND_WIRE_ENTRIES = 0x104,
    /* Waits, a second at most, for the module's own threads to do what they have been asked: no
     * request payload; the reply is a u32, 1 if they have done it. */
    MUND_WIRE_SETTLE = 0x105,
    /* Exchanges the module while packets come in: the path of the file to load, or no payload for
     * the one that was loaded last; the reply is a JSON object. */
    MUND_WIRE_RELOAD = 0x106
};

/* How a request fared. A reply of MUND_WIRE_BAD_VERSION is the connection's last; the payload of
 * MUND_WIRE_REFUSED is a text that says why. */
#define MUND_WIRE_ENUM(name, words) MUND_WIRE_##name,
enum { MUND_STATUSES(MUND_WIRE_ENUM) MUND_WIRE_STATUS_COUNT };
#undef MUND_WIRE_ENUM

typedef struct MundWireHeader {
    uint16_t version; /* MUND_WIRE_VERSION */
    uint16_t code;    /* in a reply, its request's */
    uint32_t length;  /* of the payload, at most MUND_WIRE_MAX_PAYLOAD */
    uint32_t status;  /* in a reply, MUND_WIRE_*; 0 in a request */
    uint32_t result;  /* in a reply to an operation that ran, its result; otherwise 0 */
} MundWireHeader;

static_assert(sizeof(MundWireHeader) == 16, "frame header of 16 bytes");

/* A longer frame is not read: it is answered with MUND_WIRE_BAD_LENGTH, and the connection closed.
 */
#define MUND_WIRE_MAX_PAYLOAD (8u << 20)

enum { MUND_WIRE_NAME_LEN = 60 };

#define MUND_WIRE_NO_SLOT 0xFFFFFFFFu

typedef struct MundWireObjectReq {
    char name[MUND_WIRE_NAME_LEN]; /* NUL-terminated */
    /* MUND_WIRE_NO_SLOT for the object itself; otherwise the block of the module's memory that the
     * pointer in this slot (from 0, eight bytes each) of the object points at. */
    uint32_t slot;
} MundWireObjectReq;

static_assert(sizeof(MundWireObjectReq) == 64, "object request of 64 bytes");

typedef struct MundWireLine {
    uint32_t
        kind; /* LineKind of the engine: 0 report, 1 print, 2 agent log, 3 alarm, 4 assertion */
    uint32_t lost;   /* lines before this one that the client was too slow for */
    uint64_t timeNs; /* since the epoch */
} MundWireLine;

static_assert(sizeof(MundWireLine) == 16, "line header of 16 bytes");

/* The longest text of a line. */
#define MUND_WIRE_MAX_LINE 4096u

/* How the packet comes in; the bytes of its frame follow. */
typedef struct MundWireExplainReq {
    uint32_t rxPort; /* forwarding-plane port index */
    uint32_t vrf;
    uint32_t causeAction;
    uint32_t reserved;
} MundWireExplainReq;

static_assert(sizeof(MundWireExplainReq) == 16, "explain request of 16 bytes");

/* The buckets of a table from one on, as many of them as make a page. */
typedef struct MundWireEntriesReq {
    uint32_t table;  /* MUND_TABLE_* */
    uint32_t bucket; /* 0 to begin with, then what the reply says */
} MundWireEntriesReq;

static_assert(sizeof(MundWireEntriesReq) == 8, "entries request of 8 bytes");

/* `count` entries of the table's own layout follow. A page has whole buckets: an entry that is
 * there all the time is listed once, one that comes or goes meanwhile is listed or not. */
typedef struct MundWireEntriesRsp {
    uint32_t buckets;    /* of the table */
    uint32_t nextBucket; /* where the next page begins; as many as there are: this was the last */
    uint32_t count;
    uint32_t entrySize; /* bytes of each entry */
} MundWireEntriesRsp;

static_assert(sizeof(MundWireEntriesRsp) == 16, "head of a page of 16 bytes");

/* The most entries of a page. A bucket with more of them cannot be listed. */
#define MUND_WIRE_MAX_ENTRIES 65536u

#endif
