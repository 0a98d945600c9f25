// What surrounds a module in the stand-in engine: configuration, output, accounting, time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#pragma GCC visibility push(default)
namespace standin {

// --- capabilities ---

// The capabilities that the platform knows.
std::span<const std::string_view> KnownCapabilities();
// Configures a capability; false if the platform knows none of that name.
bool SetCapability(std::string_view name, uint32_t value);
void ClearCapabilities();

// --- interface indexes ---

// Maps a forwarding-plane index to a control-plane index. An unmapped index is its own.
void MapInterface(uint32_t forwardingIndex, uint32_t controlIndex);
void ClearInterfaceMap();

// --- board ---

// The master board's IPv4 address (host order) that TOV_DevmGetMasterBoardIp answers.
// 0: unknown, and the operation fails.
void SetMasterBoardIp(uint32_t address);
// The main board that the IM agent was last pointed at: network byte order, 0 before that.
uint32_t ImMainBoardIp();

// --- output ---

enum class LineKind {
    kReport,     // IM debug report: the module's log and trace lines
    kPrint,      // host diagnostic print
    kAgentLog,   // log message sent through the IM agent
    kAlarm,      // alarm sent through the IM agent: one line with every attribute
    kAssertion,  // broken invariant
};

std::string_view LineKindName(LineKind kind);

// Alarms that the IM agent has sent on since the program began.
struct AlarmCounts {
    uint64_t raised = 0;
    uint64_t restored = 0;
};
AlarmCounts SentAlarms();

using LineSink = std::function<void(LineKind, std::string_view)>;

// Where lines go; an empty sink drops them. The sink is called from any thread, one at a time.
void SetLineSink(LineSink sink);

// --- memory ---

struct MemoryUse {
    size_t blocks = 0;
    size_t bytes = 0;
};

// What a module holds of the engine's allocator.
MemoryUse ModuleMemory(uint32_t moduleId);
// What a module holds from one place of its source. Tags that are equal but stand at different
// addresses have places of their own.
struct MemoryOfPlace {
    std::string tag;
    uint32_t line = 0;
    MemoryUse use;
};
std::vector<MemoryOfPlace> ModuleMemoryByPlace(uint32_t moduleId);
// The same in order and in words: "tag:line blocks bytes", one text each.
std::vector<std::string> ModuleMemoryByTag(uint32_t moduleId);
// While a thread has one, the memory that it takes counts as held for requests, until anyone frees
// it. A thread has one at a time.
class RequestScope {
  public:
    RequestScope();
    ~RequestScope();
    RequestScope(const RequestScope &) = delete;
    RequestScope &operator=(const RequestScope &) = delete;
};
// The bytes that are held so.
size_t HeldForRequests();
// The allocator beneath TovMemAllocInner, which answers any tag and cannot be told to fail: null
// only when there is no memory. TovMemFreeInner takes the block back.
void *AllocateBlock(uint32_t moduleId, uint32_t size, const char *tag, uint32_t line);
// The bytes that the block was asked for.
size_t BlockSize(const void *block);

// --- other things a module may leave behind ---

// Queues, timers and hooks that exist now, and IM messages neither sent nor freed.
struct Holdings {
    size_t queues = 0;
    size_t timers = 0;
    size_t hooks = 0;
    size_t imMessages = 0;
    bool operator==(const Holdings &) const = default;
};
Holdings CurrentHoldings();

// --- threads ---

// Waits for the threads that TovThreadCreate has started.
void JoinCreatedThreads();
// Waits until each of them has ended or waits for an event with none unread: what they were woken
// for before this call is done.
void WaitUntilCreatedThreadsIdle();
// The same for a time at most; whether it has come to that.
bool WaitUntilCreatedThreadsIdle(std::chrono::milliseconds longest);

// --- timers ---

// Timers run by themselves on the engine's timer thread (the default), or only as time is advanced.
// Waits for a callback that is running.
void SetTimersManual(bool manual);
// Advances the time of manual timers; due callbacks run on the calling thread, in order. Throws
// std::logic_error while timers run by themselves.
void AdvanceTimers(uint32_t milliseconds);

// --- strictness ---

// Whether the engine does only what every engine has to do (by default it does more): null freed
// and an event for a null thread end the process with a line; an event read by a thread that
// TovThreadCreate has started returns at once, without events if none is unread; and the removal of
// a service does not wait for its operations, so that whoever unloads a module sees to it that none
// is running. Set while no module is started.
void SetStrict(bool strict);
bool Strict();

// --- faults ---

// Every `operation` is the name of an engine or RPC operation that can fail; another name, and a
// call number of 0, throws std::invalid_argument, so that no fault is set in vain.

// Makes the n-th call (from 1) of an operation, counted from now, fail; later calls succeed again.
void FailCall(std::string_view operation, uint32_t n = 1);
// Makes every call of an operation fail until the faults are cleared.
void FailEveryCall(std::string_view operation);
// Forgets all faults and counts, and stops counting.
void ClearFaults();
// Starts counting calls of operations that can fail.
void CountCalls();
// Calls of an operation since counting started, or since a fault was set for it.
uint32_t CallCount(std::string_view operation);
// The operations called since counting started, with their counts.
std::vector<std::pair<std::string, uint32_t>> CallCounts();

// True when this call of `operation` is to fail. For the engine's own operations.
bool CallFails(const char *operation);

}  // namespace standin
#pragma GCC visibility pop
