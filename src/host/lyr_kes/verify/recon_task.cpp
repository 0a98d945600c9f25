#include "verify/recon_task.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "kes/diag.h"
#include "kes/thread.h"
#include "module/diag_log.h"
#include "module/instance_array.h"
#include "module/shared_word.h"
#include "module/status.h"
#include "verify/recon_queue.h"

uint8_t g_lyrKesReconThreadRunning = 0;
uint8_t *reconBeginFlag = nullptr;

namespace {

using lyr::kError;
using lyr::kFailed;
using lyr::kOk;

constexpr auto kIdleWait = std::chrono::seconds(60);
constexpr auto kWakeUpInterval = std::chrono::milliseconds(100);

// Whether the thread is to end, and whether it has: the stop waits for it, and one that comes
// before the thread has made itself known is not missed.
class Lifetime {
  public:
    void Begin() {
        const std::lock_guard lock(mutex_);
        stopping_ = false;
        alive_ = true;
    }

    void End() {
        const std::lock_guard lock(mutex_);
        alive_ = false;
        changed_.notify_all();
    }

    bool Stopping() {
        const std::lock_guard lock(mutex_);
        return stopping_;
    }

    void RequestStop() {
        const std::lock_guard lock(mutex_);
        stopping_ = true;
        changed_.notify_all();
    }

    bool Alive() {
        const std::lock_guard lock(mutex_);
        return alive_;
    }

    // Whether the thread has ended within that time.
    bool WaitForEnd(std::chrono::milliseconds longest) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, longest, [this] { return !alive_; });
    }

    void WaitForStop(std::chrono::seconds longest) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, longest, [this] { return stopping_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    bool stopping_ = false;
    bool alive_ = false;
};

Lifetime lifetime;

void SetRunning(uint8_t running) {
    lyr::StoreRelaxed(g_lyrKesReconThreadRunning, running);
}

void RunUntilStopped() {
    // What was queued before the thread had a name came without an event.
    LyrKes_ReadReconMsgQueue();
    while (!lifetime.Stopping()) {
        uint32_t events = 0;
        if (TOV_EventRead(&events) != 0) {
            continue;
        }
        if ((events & lyr::kReconEventQueued) != 0) {
            LyrKes_ReadReconMsgQueue();
        } else {
            lifetime.WaitForStop(kIdleWait);
        }
    }
}

uint32_t CreateBeginFlags() {
    reconBeginFlag = lyr::NewInstanceArray<uint8_t>(0, "LyrKes_InitReconInfo", __LINE__);
    if (reconBeginFlag == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Reconciliation init TovMemAlloc failed");
        TovOndAssert(lyr::kReconSource, __LINE__, 0);
        return kError;
    }
    return kOk;
}

// Wakes the thread until it has ended: a wake-up that fails is repeated.
void StopThread() {
    lifetime.RequestStop();
    do {
        TOV_EventWrite(TOV_ThreadInfoGetByName(lyr::kReconThreadName), lyr::kReconEventStop);
    } while (!lifetime.WaitForEnd(kWakeUpInterval));
}

}  // namespace

uint32_t LyrKes_InitReconInfo() {
    if (CreateBeginFlags() == kOk && LyrKes_CreateReconMsgQueue() == kOk &&
        LyrKes_CreateReconTask() == kOk) {
        return kOk;
    }
    LyrKes_DeinitReconInfo();
    return kError;
}

void LyrKes_DeinitReconInfo() {
    StopThread();
    lyr::FreeInstanceArray(reconBeginFlag);
    lyr::DeleteReconQueue();
}

uint32_t LyrKes_CreateReconTask() {
    if (lifetime.Alive()) {
        return kOk;
    }
    lifetime.Begin();
    if (TovThreadCreate(lyr::kReconThreadName, LyrKes_ReconTaskEntry, nullptr) == nullptr) {
        lifetime.End();
        TovOndAssert(lyr::kReconSource, __LINE__, 0);
        return kFailed;
    }
    return kOk;
}

void LyrKes_ReconTaskEntry(void * /*argument*/) {
    if (TOV_ThreadInfoRegByName(lyr::kReconThreadName) != 0) {
        TovOndAssert(lyr::kReconSource, __LINE__, 0);
    } else {
        SetRunning(1);
        RunUntilStopped();
        SetRunning(0);
    }
    lifetime.End();
}
