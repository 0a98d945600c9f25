// What the engine brings of DPDK's where it shares the rest with the stand-in.
#pragma once

#include "standin/engine_parts.h"

namespace dpdk {

// Buffers go back to their mempools, channels are rings, the modules' memory is DPDK's heap. Usable
// once the environment has started, and until it ends.
class Parts : public standin::EngineParts {
  public:
    void Release(std::span<HostMbuf *const> packets) override;
    void *TakeMemory(size_t size) override;
    void GiveBackMemory(void *memory, size_t size) override;
    std::unique_ptr<standin::ChannelRow> MakeRow(const std::string &channel,
                                                 uint32_t capacity) override;
};

}  // namespace dpdk
