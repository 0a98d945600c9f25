// Threads that do one action after another, each drawn from a stream of its own, as many together
// as they are allowed: they never keep the processors from the thread that starts and stops.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/capwap_gen/random.h"

namespace stress {

using capwap_gen::Random;
using Doing = std::atomic<const char *>;

class Crew {
  public:
    struct Trade {
        std::function<void()> enter, leave;              // before and after work
        std::function<void(Random &, Doing &)> perform;  // draws an action, names it, does it
    };

    // Parked to begin with.
    Crew(uint32_t threads, Trade trade) : trade_(std::move(trade)), workers_(threads) {
        for (Worker &worker : workers_) {
            worker.number = static_cast<uint64_t>(&worker - workers_.data());
            worker.thread = std::thread(&Crew::Run, this, std::ref(worker));
        }
        Park();
    }
    ~Crew() {
        Change([this] {
            ending_ = true;
            working_ = false;
        });
        for (Worker &worker : workers_) {
            worker.thread.join();
        }
    }
    Crew(const Crew &) = delete;
    Crew &operator=(const Crew &) = delete;

    // Begins new streams, which depend on the seed and the worker's number alone, with the next
    // action of each.
    void Reseed(uint64_t seed) {
        Change([&] { seed_ = seed; });
    }
    // Goes to work, unless at it already. Nothing is allowed to begin with.
    void Work() {
        Change([this] {
            if (!working_) {
                allowed_ = begun_ = done_ = 0;
                working_ = true;
            }
        });
    }
    // Returns when nobody is in an action any more; what is allowed and not begun is forgotten.
    void Park() {
        Change([this] { working_ = false; });
        Await([this] { return parked_ == workers_.size(); });
        allowed_ = done_;
    }
    // Allows so many more actions, if at work.
    void Allow(uint64_t actions) {
        Change([&] { allowed_ += working_ ? actions : 0; });
    }
    // Waits until all that is allowed is done.
    void Finish() {
        Await([this] { return done_ == allowed_; });
    }
    std::string Activities() const {
        std::string text = "workers at:";
        for (const Worker &worker : workers_) {
            text += std::string(" ") + worker.doing.load() + ";";
        }
        return text;
    }

  private:
    struct Worker {
        uint64_t number = 0;
        uint64_t seed = 0;  // that its stream began with
        Random random{0};
        Doing doing{"nothing"};
        std::thread thread;
    };

    template <class Action>
    void Change(Action action) {
        const std::lock_guard lock(mutex_);
        action();
        changed_.notify_all();
    }
    template <class Condition>
    void Await(Condition condition) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, condition);
    }

    void Run(Worker &worker) {
        while (BeginWork()) {
            trade_.enter();
            while (NextTurn(worker)) {
                trade_.perform(worker.random, worker.doing);
                EndTurn();
            }
            trade_.leave();
            worker.doing = "nothing";
        }
    }
    // Waits, parked, for work; false if there will be none.
    bool BeginWork() {
        std::unique_lock lock(mutex_);
        ++parked_;
        changed_.notify_all();
        changed_.wait(lock, [this] { return working_ || ending_; });
        parked_ -= working_;
        return working_;
    }
    // Waits for another action to be allowed; false if there is no more work.
    bool NextTurn(Worker &worker) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [this] { return begun_ < allowed_ || !working_; });
        begun_ += working_;
        if (worker.seed != seed_) {
            worker.seed = seed_;
            worker.random = Random(seed_ + worker.number);
        }
        return working_;
    }
    void EndTurn() {
        const std::lock_guard lock(mutex_);
        if (++done_ == allowed_) {
            changed_.notify_all();
        }
    }

    const Trade trade_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool working_ = false, ending_ = false;
    uint64_t parked_ = 0, seed_ = 0, allowed_ = 0, begun_ = 0, done_ = 0;
    std::vector<Worker> workers_;
};

}  // namespace stress
