// The private area of a buffer, reached without a call.
#pragma once

#include "standin/mbuf_pool.h"

namespace standin {

static_assert(alignof(HostMbufMeta) <= alignof(HostMbuf), "the record's end aligns the area");
static_assert(sizeof(HostMbufMeta) % 8 == 0, "private areas come in multiples of 8 bytes");

inline HostMbufMeta &Meta(HostMbuf *mbuf) {
    return *reinterpret_cast<HostMbufMeta *>(mbuf + 1);
}

inline const HostMbufMeta &Meta(const HostMbuf *mbuf) {
    return *reinterpret_cast<const HostMbufMeta *>(mbuf + 1);
}

inline const uint8_t *FirstByte(const HostMbuf *mbuf) {
    return static_cast<const uint8_t *>(mbuf->bufAddr) + mbuf->dataOff;
}

}  // namespace standin
