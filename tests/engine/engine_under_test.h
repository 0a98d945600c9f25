// What differs between the engines that the tests are linked with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>

#include "kes/mbuf.h"
#include "standin/mbuf_pool.h"

namespace standin {

// A supply of packet buffers; buffers go back to it by Release().
class Buffers {
  public:
    Buffers() = default;
    virtual ~Buffers() = default;
    Buffers(const Buffers &) = delete;
    Buffers &operator=(const Buffers &) = delete;

    // A buffer with a copy of the frame, parsed and ready for the receive path. Waits for one.
    virtual HostMbuf *Receive(std::span<const uint8_t> frame, const Arrival &arrival) = 0;
    virtual uint32_t InUse() = 0;
};

// One supply exists at a time.
std::unique_ptr<Buffers> MakeBuffers(uint32_t count);

// Bytes that are taken from where the modules' memory comes from.
size_t OccupiedBytes();

}  // namespace standin
