#include "timeline.h"

namespace kes_engine {

Timeline::Timeline(Look look) : look_(std::move(look)) {
    Add();
    thread_ = std::thread(&Timeline::Run, this);
}

void Timeline::Run() {
    std::unique_lock lock(mutex_);
    while (!wake_.wait_until(lock, start_ + interval_ * points_.size(), [this] { return ends_; })) {
        Add();
    }
}

void Timeline::Add() {
    TimePoint point = look_();
    point.seconds = std::chrono::duration<double>(Clock::now() - start_).count();
    points_.push_back(point);
    if (points_.size() == kMostPoints) {
        for (size_t i = 1; i < kMostPoints / 2; ++i) {
            points_[i] = points_[2 * i];
        }
        points_.resize(kMostPoints / 2);
        interval_ *= 2;
    }
}

void Timeline::Stop() {
    {
        const std::lock_guard lock(mutex_);
        ends_ = true;
    }
    wake_.notify_one();
    if (thread_.joinable()) {
        thread_.join();
    }
}

std::vector<TimePoint> Timeline::End() {
    Stop();
    Add();
    return points_;
}

}  // namespace kes_engine
