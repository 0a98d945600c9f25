// The forwarding threads.
#pragma once

#include <cstdint>
#include <latch>
#include <memory>
#include <mutex>
#include <span>
#include <thread>
#include <vector>

#include "fates.h"
#include "output_directory.h"
#include "packet_queue.h"
#include "standin/module_loader.h"
#include "standin/packet_path.h"

namespace kes_engine {

// What forwarding threads share.
struct ForwardingPath {
    const standin::Module &module;
    FateCaptures captures;
};

// One thread with its queue. It is an lcore of the module from its construction until Stop().
class ForwardingThread {
  public:
    // The thread is woken when so many packets wait.
    ForwardingThread(ForwardingPath &path, size_t wakeAfter);
    ~ForwardingThread() {
        Stop();
    }

    // Gives the thread a packet; waits while its queue is full. The thread gets it with others, at
    // the latest by Flush(). These three are called from one thread.
    void Push(HostMbuf *packet) {
        queue_.Give(packet);
    }
    void Flush() {
        queue_.Flush();
    }
    // Waits until all that was pushed has met its fate; the fates so far.
    Fates WaitUntilIdle();

    // The fates up to the last burst. Called from any thread.
    Fates FatesSoFar();

    // Finishes what is queued, and ends the thread.
    void Stop();

  private:
    void Run();
    void Forward(std::span<HostMbuf *const> packets);

    PacketQueue queue_;
    ForwardingPath &path_;
    Fates fates_;  // the thread's own
    std::mutex mutex_;
    Fates published_;  // what the others may know of it
    std::latch entered_{1};
    std::thread thread_;
};

class ForwardingThreads {
  public:
    // Starts the threads. The module must be loaded, and must stay so until Stop().
    // Of so many packet buffers, a quarter at most waits for others to be forwarded with.
    ForwardingThreads(const standin::Module &module, uint32_t count, uint32_t buffers,
                      const OutputDirectory &out);

    // Hands a packet to a thread, the same for all packets between two addresses, so that
    // fragments and both directions of a conversation stay in order. Called from one thread.
    void Forward(HostMbuf *packet);
    // Lets no packet wait for others. Called from the same thread.
    void Flush();
    // Waits until every packet has met its fate; the fates so far.
    Fates WaitUntilIdle();
    // The fates so far, or a little less. Called from any thread.
    Fates FatesSoFar() const;
    void Stop();
    FateCaptures &Captures() {
        return path_.captures;
    }
    // Completes the captures. Returns what went wrong with them.
    std::vector<std::string> CloseCaptures();

  private:
    ForwardingPath path_;
    std::vector<std::unique_ptr<ForwardingThread>> threads_;
};

}  // namespace kes_engine
