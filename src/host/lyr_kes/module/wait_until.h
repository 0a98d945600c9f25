// Waiting for others, on the control path.
#pragma once

#include <chrono>
#include <thread>

namespace lyr {

// Waits until condition() holds.
template <class Condition>
void WaitUntil(Condition condition) {
    while (!condition()) {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
}

}  // namespace lyr
