#include "line_log.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "failure.h"

namespace kes_engine {

LineLog::LineLog(const std::string &path) : path_(path) {
    if (path_.empty()) {
        return;
    }
    std::error_code error;
    made_ = !std::filesystem::exists(path_, error);
    file_ = std::fopen(path_.c_str(), "a");
    if (file_ == nullptr) {
        throw Failure("--log: cannot write '" + path_ + "': " + std::strerror(errno));
    }
}

LineLog::~LineLog() {
    End();
    if (made_) {
        unlink(path_.c_str());
    }
}

void LineLog::Begin() {
    made_ = false;
    // A terminal or a pipe has nothing to empty, and says so.
    if (!path_.empty() && ftruncate(fileno(file_), 0) != 0 && errno != EINVAL) {
        throw Failure("--log: cannot empty '" + path_ + "': " + std::strerror(errno));
    }
    standin::SetLineSink([this](standin::LineKind kind, std::string_view line) {
        while (line.ends_with('\n')) {
            line.remove_suffix(1);
        }
        const std::string_view name = standin::LineKindName(kind);
        std::fprintf(file_, "%.*s: %.*s\n", static_cast<int>(name.size()), name.data(),
                     static_cast<int>(line.size()), line.data());
        const std::lock_guard lock(mutex_);
        if (follower_) {
            follower_(kind, line);
        }
    });
}

void LineLog::Follow(standin::LineSink follower) {
    const std::lock_guard lock(mutex_);
    follower_ = std::move(follower);
}

std::string LineLog::End() {
    standin::SetLineSink({});
    if (path_.empty() || file_ == nullptr) {
        return "";
    }
    const bool failed = std::fflush(file_) != 0 || std::ferror(file_) != 0;
    const std::string reason =
        failed ? "cannot write '" + path_ + "': " + std::strerror(errno) : "";
    std::fclose(file_);
    file_ = nullptr;
    return reason;
}

}  // namespace kes_engine
