#include "mund/followers.h"

#include <sys/eventfd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <stdexcept>
#include <system_error>
#include <utility>

namespace mund {
namespace {

// What is taken at once; lines that were taken cannot be lost any more.
constexpr size_t kTakeBytes = size_t{16} * 1024;

uint64_t Now() {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::nanoseconds(now).count());
}

void AppendLine(std::vector<uint8_t> &frames, const Line &line, uint32_t lost) {
    const MundWireLine header = {.kind = line.kind, .lost = lost, .timeNs = line.timeNs};
    std::vector<uint8_t> payload(sizeof header + line.text.size());
    std::memcpy(payload.data(), &header, sizeof header);
    std::ranges::copy(line.text, payload.data() + sizeof header);
    AppendFrame(frames, MUND_WIRE_FOLLOW, payload);
}

}  // namespace

void Followers::Publish(uint32_t kind, std::string_view text) {
    if (count_.load(std::memory_order_relaxed) == 0) {
        return;
    }
    const auto line = std::make_shared<const Line>(
        Line{kind, Now(), std::string(text.substr(0, MUND_WIRE_MAX_LINE))});
    const std::lock_guard lock(mutex_);
    for (Follower *follower : followers_) {
        follower->Add(line);
    }
}

Follower::Follower(Followers &all) : all_(all), waiting_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (!waiting_.Open()) {
        throw std::runtime_error(std::string("cannot follow: ") +
                                 std::generic_category().message(errno));
    }
    const std::lock_guard lock(all_.mutex_);
    all_.followers_.push_back(this);
    ++all_.count_;
}

Follower::~Follower() {
    const std::lock_guard lock(all_.mutex_);
    std::erase(all_.followers_, this);
    --all_.count_;
}

void Follower::Add(std::shared_ptr<const Line> line) {
    if (lines_.empty()) {
        eventfd_write(Waiting(), 1);
    }
    lines_.push_back(std::move(line));
    // The newest stays, so a loss is told with a line that comes after it.
    if (lines_.size() > all_.limit_) {
        lines_.pop_front();
        ++lost_;
    }
}

std::vector<uint8_t> Follower::Take() {
    std::vector<uint8_t> frames;
    const std::lock_guard lock(all_.mutex_);
    while (!lines_.empty() && frames.size() < kTakeBytes) {
        AppendLine(frames, *lines_.front(), std::exchange(lost_, 0));
        lines_.pop_front();
    }
    if (lines_.empty()) {
        eventfd_t count;
        eventfd_read(Waiting(), &count);
    }
    return frames;
}

}  // namespace mund
