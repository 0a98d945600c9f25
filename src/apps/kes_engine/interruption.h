// SIGINT and SIGTERM: the first asks the program to stop in order, the second ends it.
#pragma once

#include <chrono>

namespace kes_engine {

// Takes both signals from now on.
void ListenForInterruption();

// Whether the first has come.
bool Interrupted();

// Waits until it comes, or until a moment. Returns Interrupted().
bool SleepUntil(std::chrono::steady_clock::time_point moment);
void SleepUntilInterrupted();

}  // namespace kes_engine
