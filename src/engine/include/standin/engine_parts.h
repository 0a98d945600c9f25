// The parts that another engine brings of its own where it shares the rest with this one: where
// packet buffers go, what channels keep their packets in, and the memory of the modules' blocks.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "kes/mbuf.h"

#pragma GCC visibility push(default)
namespace standin {

// The packets of a channel: bounded, first in, first out. Many threads push at once, and one pops.
class ChannelRow {
  public:
    ChannelRow() = default;
    virtual ~ChannelRow() = default;
    ChannelRow(const ChannelRow &) = delete;
    ChannelRow &operator=(const ChannelRow &) = delete;

    // False when the row is full or closed.
    virtual bool Push(HostMbuf *packet) = 0;
    // The oldest packets, as many as there are and fit, in order. Returns how many.
    virtual size_t Pop(std::span<HostMbuf *> packets) = 0;
    virtual size_t Size() = 0;
    // No push that begins later succeeds. What is in the row can be popped.
    virtual void Close() = 0;
};

class EngineParts {
  public:
    EngineParts() = default;
    virtual ~EngineParts() = default;
    EngineParts(const EngineParts &) = delete;
    EngineParts &operator=(const EngineParts &) = delete;

    // Gives packet buffers back to where they came from. Called from any thread, as all of these.
    virtual void Release(std::span<HostMbuf *const> packets) = 0;

    // Memory that begins on a cache line; null if there is none.
    virtual void *TakeMemory(size_t size) = 0;
    virtual void GiveBackMemory(void *memory, size_t size) = 0;

    // A row for so many packets; null if there is no memory.
    virtual std::unique_ptr<ChannelRow> MakeRow(const std::string &channel, uint32_t capacity) = 0;
};

// Uses these parts instead of the stand-in's own, for the life of the program. To be called before
// any packet, channel or module.
void UseParts(EngineParts &parts);

// Gives packet buffers back to the engine that made them. Callable from any thread.
void Release(std::span<HostMbuf *const> packets);

}  // namespace standin
#pragma GCC visibility pop
