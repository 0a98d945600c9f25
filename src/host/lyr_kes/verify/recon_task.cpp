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
#include "module/wait_until.h"
#include "verify/recon_queue.h"

uint8_t g_lyrKesReconThreadRunning = 0;
uint8_t *reconBeginFlag = nullptr;

namespace {

using lyr::kError;
using lyr::kFailed;
using lyr::kOk;

constexpr auto kIdleWait = std::chrono::seconds(60);
constexpr auto kWakeUpInterval = std::chrono::milliseconds(100);

// What the thread and the others have to know of each other. A stop waits for the thread, and one
// that comes before the thread has made itself known is not missed.
class Lifetime {
  public:
    void Begin() {
        const std::lock_guard lock(mutex_);
        stopping_ = false;
        state_ = State::kCreated;
    }

    void BecomeKnown() {
        Change([this] { state_ = State::kKnown; });
    }

    void End() {
        Change([this] { state_ = State::kNone; });
    }

    void RequestStop() {
        Change([this] { stopping_ = true; });
    }

    void EndIdleWait() {
        Change([this] { woken_ = true; });
    }

    bool Stopping() {
        const std::lock_guard lock(mutex_);
        return stopping_;
    }

    bool Alive() {
        const std::lock_guard lock(mutex_);
        return state_ != State::kNone;
    }

    // Waits until a thread that has been created is known by its name. False if there is none, or
    // it ended without.
    bool WaitUntilKnown() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return state_ != State::kCreated; });
        return state_ == State::kKnown;
    }

    // Whether the thread has ended within that time.
    bool WaitForEnd(std::chrono::milliseconds longest) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, longest, [this] { return state_ == State::kNone; });
    }

    void WaitIdly(std::chrono::seconds longest) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, longest, [this] { return stopping_ || woken_; });
        woken_ = false;
    }

  private:
    enum class State { kNone, kCreated, kKnown };

    template <class Step>
    void Change(Step step) {
        const std::lock_guard lock(mutex_);
        step();
        changed_.notify_all();
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    State state_ = State::kNone;
    bool stopping_ = false;
    bool woken_ = false;
};

// Never destroyed: when the process exits, the thread may still wait.
union NeverDestroyed {
    NeverDestroyed() : lifetime() {}
    ~NeverDestroyed() {}
    Lifetime lifetime;
} lasting;
Lifetime &lifetime = lasting.lifetime;

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
            lifetime.WaitIdly(kIdleWait);
        }
    }
}

uint32_t CreateBeginFlags() {
    lyr::StoreRelease(reconBeginFlag,
                      lyr::NewInstanceArray<uint8_t>(0, "LyrKes_InitReconInfo", __LINE__));
    if (reconBeginFlag == nullptr) {
        LYR_KES_DiagLog(LYR_HOST_ERR, "Reconciliation init TovMemAlloc failed");
        TovOndAssert(lyr::kReconSource, __LINE__, 0);
        return kError;
    }
    return kOk;
}

// Ends the thread, and waits until its name no longer leads to it, so that the next one can bear
// the name. A look-up or a wake-up that fails is repeated.
void StopThread() {
    if (!lifetime.WaitUntilKnown()) {
        return;
    }
    TovThreadInfo *thread = nullptr;
    lyr::WaitUntil([&thread] {
        thread = TOV_ThreadInfoGetByName(lyr::kReconThreadName);
        return thread != nullptr;
    });
    lifetime.RequestStop();
    do {
        TOV_EventWrite(thread, lyr::kReconEventStop);
    } while (!lifetime.WaitForEnd(kWakeUpInterval));
    lyr::WaitUntil([thread] { return TOV_ThreadInfoGetByName(lyr::kReconThreadName) != thread; });
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

void lyr::EndReconIdleWait() {
    lifetime.EndIdleWait();
}

void LyrKes_ReconTaskEntry(void * /*argument*/) {
    if (TOV_ThreadInfoRegByName(lyr::kReconThreadName) != 0) {
        TovOndAssert(lyr::kReconSource, __LINE__, 0);
    } else {
        lifetime.BecomeKnown();
        SetRunning(1);
        RunUntilStopped();
        SetRunning(0);
    }
    lifetime.End();
}
