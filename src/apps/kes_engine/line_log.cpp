#include "line_log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <system_error>
#include <utility>

#include "control/line_decoder.h"
#include "control/values.h"
#include "failure.h"

namespace kes_engine {
namespace {

constexpr mode_t kReadWriteForAll = 0666;  // less the umask

std::string Now() {
    using std::chrono::milliseconds;
    const auto now = std::chrono::duration_cast<milliseconds>(
                         std::chrono::system_clock::now().time_since_epoch())
                         .count();
    return control::TimeText(now / 1000, static_cast<uint32_t>(now % 1000));
}

// How many of the bytes could be written; errno says why not all.
size_t WriteTo(int file, std::string_view text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t part = write(file, text.data() + done, text.size() - done);
        if (part < 0 && errno != EINTR) {
            break;
        }
        done += static_cast<size_t>(std::max<ssize_t>(part, 0));
    }
    return done;
}

}  // namespace

LineLog::LineLog(const std::string &path, bool decode) : path_(path), decode_(decode) {
    if (path_.empty()) {
        file_ = mund::Descriptor(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        return;
    }
    std::error_code error;
    made_ = !std::filesystem::exists(path_, error);
    file_ = OpenFile();
    if (!file_.Open()) {
        throw Failure("--log: cannot write '" + path_ +
                      "': " + std::generic_category().message(errno));
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
    standin::SetLineSink(
        [this](standin::LineKind kind, std::string_view line) { Write(kind, line); });
}

void LineLog::Reopen() {
    if (path_.empty()) {
        return;
    }
    mund::Descriptor file = OpenFile();
    const std::lock_guard lock(mutex_);
    if (!file.Open()) {
        Complain("the file that was open goes on");
        return;
    }
    file_ = std::move(file);
    torn_ = complained_ = false;
}

void LineLog::Follow(standin::LineSink follower) {
    const std::lock_guard lock(mutex_);
    follower_ = std::move(follower);
}

uint64_t LineLog::End() {
    standin::SetLineSink({});
    const std::lock_guard lock(mutex_);
    return path_.empty() ? 0 : lost_;
}

mund::Descriptor LineLog::OpenFile() const {
    return mund::Descriptor(
        open(path_.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, kReadWriteForAll));
}

void LineLog::Write(standin::LineKind kind, std::string_view line) {
    while (line.ends_with('\n')) {
        line.remove_suffix(1);
    }
    std::string text = Now();
    text.append(" ").append(standin::LineKindName(kind)).append(": ");
    if (const auto decoded = decode_ ? control::DecodeLine(line) : std::nullopt) {
        text.append(*decoded).append(control::kDecodedFrom);
    }
    text.append(line).append("\n");
    const std::lock_guard lock(mutex_);
    if (torn_) {
        text.insert(0, "\n");
    }
    if (const size_t written = WriteTo(file_.Number(), text); written < text.size()) {
        torn_ = torn_ || written > 0;
        ++lost_;
        Complain("its lines are lost");
    } else {
        torn_ = false;
    }
    if (follower_) {
        follower_(kind, line);
    }
}

void LineLog::Complain(const std::string &consequence) {
    const std::string reason = std::generic_category().message(errno);
    if (!path_.empty() && !std::exchange(complained_, true)) {
        std::cerr << "kes_engine: cannot write the log '" + path_ + "': " + reason + "; " +
                         consequence + "\n";
    }
}

}  // namespace kes_engine
