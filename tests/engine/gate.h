// Threads that are held, and what has to wait for them.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <thread>

// Holds the thread that passes until it may leave.
struct Gate {
    std::latch entered{1};
    std::latch mayLeave{1};

    void Pass() {
        entered.count_down();
        mayLeave.wait();
    }
};

// Expects `waiting` to return after `release`, and not before.
template <typename Waiting, typename Release>
void ExpectWaitsFor(Release release, Waiting waiting) {
    std::atomic<bool> returned{false};
    std::thread thread([&] {
        waiting();
        returned = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_FALSE(returned);
    release();
    thread.join();
}
