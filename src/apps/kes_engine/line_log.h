// Where the engine's log, trace, print and alarm lines go.
#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>

#include "mund/control_socket.h"
#include "standin/runtime.h"

namespace kes_engine {

class LineLog {
  public:
    // Opens the file, to append to it; without a path, standard error takes the lines. Where there
    // is something to decode in a line, it is written so, and as it came behind that. Throws
    // Failure.
    explicit LineLog(const std::string &path, bool decode = false);
    // Takes the file away again if this object made it and nothing has begun.
    ~LineLog();
    LineLog(const LineLog &) = delete;
    LineLog &operator=(const LineLog &) = delete;

    // Takes the engine's lines from now on, and writes each at once, behind local time and kind.
    // Those that cannot be written are lost, which is said on standard error, once.
    void Begin();

    // Goes on in the file that now has the name, which is made if there is none. Where that fails,
    // the old one goes on. Callable from any thread.
    void Reopen();

    // Shows each line to `follower` as well; an empty one is shown none.
    void Follow(standin::LineSink follower);

    // Ends that. Returns how many lines the file has lost.
    uint64_t End();

  private:
    mund::Descriptor OpenFile() const;
    void Write(standin::LineKind kind, std::string_view line);
    void Complain(const std::string &consequence);

    const std::string path_;
    const bool decode_;
    bool made_ = false;
    std::mutex mutex_;
    mund::Descriptor file_;
    standin::LineSink follower_;
    uint64_t lost_ = 0;
    bool torn_ = false;        // the last line has no end
    bool complained_ = false;  // since the file was opened
};

}  // namespace kes_engine
