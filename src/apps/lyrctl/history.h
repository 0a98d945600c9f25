// The lines that the user has given, from one shell to the next.
#pragma once

#include <string>
#include <vector>

namespace lyrctl {

class History {
  public:
    // Kept in $XDG_STATE_HOME/lyrctl/history, or ~/.local/state/lyrctl/history; where neither can
    // be made there is none from the last time, and `Complaint` says why.
    History();

    // The lines so far, the oldest first.
    const std::vector<std::string> &Lines() const {
        return lines_;
    }
    // Keeps a line, unless it is the same as the one before. False if it is.
    bool Add(const std::string &line);
    // Why lines are not kept; empty when they are.
    const std::string &Complaint() const {
        return complaint_;
    }

  private:
    std::string path_;
    std::string complaint_;
    std::vector<std::string> lines_;
};

}  // namespace lyrctl
