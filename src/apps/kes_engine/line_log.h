// Where the engine's log, trace, print and alarm lines go.
#pragma once

#include <cstdio>
#include <mutex>
#include <string>

#include "standin/runtime.h"

namespace kes_engine {

class LineLog {
  public:
    // Opens the file, which keeps what it holds for now; without a path, standard error takes the
    // lines. Throws Failure.
    explicit LineLog(const std::string &path);
    // Takes the file away again if this object made it and nothing has begun.
    ~LineLog();
    LineLog(const LineLog &) = delete;
    LineLog &operator=(const LineLog &) = delete;

    // Empties the file and takes the engine's lines from now on, each behind its kind.
    void Begin();

    // Shows each line to `follower` as well; an empty one is shown none.
    void Follow(standin::LineSink follower);

    // Ends that. Returns what went wrong with the file, or an empty text.
    std::string End();

  private:
    const std::string path_;
    FILE *file_ = stderr;
    bool made_ = false;
    std::mutex mutex_;
    standin::LineSink follower_;
};

}  // namespace kes_engine
