// The terminal as a screen of lines, for as long as a view has it.
#pragma once

#include <cstddef>
#include <vector>

#include "top_view.h"

namespace lyrctl {

// There is one at a time. However the program ends, the terminal is again as it was: an interrupt
// ends it with status 0.
class Terminal {
  public:
    // Throws std::runtime_error where standard input and output are no terminal.
    Terminal();
    ~Terminal();
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    struct Size {
        size_t width;
        size_t height;
        bool operator==(const Size &) const = default;
    };
    static Size CurrentSize();

    // Shows lines for a screen of this size, at once, and sends only those that have changed.
    void Show(const std::vector<Line> &lines, Size size);

    enum class Key { kNone, kQuit, kRedraw };
    // Waits for a key, a change of the size, or for the time to pass.
    Key Wait(int milliseconds);

  private:
    std::vector<Line> shown_;
    Size size_ = {};
};

}  // namespace lyrctl
