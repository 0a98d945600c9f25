#include "capwap_aps/crowd.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <stdexcept>
#include <system_error>

namespace capwap_aps {
namespace {

constexpr std::chrono::milliseconds kSlice{50};  // for which nobody asks whether to go on

void Watch(int events, const UdpSocket &socket, uint64_t tag) {
    epoll_event event = {.events = EPOLLIN, .data = {.u64 = tag}};
    if (epoll_ctl(events, EPOLL_CTL_ADD, socket.Descriptor(), &event) != 0) {
        throw std::runtime_error("cannot watch a socket: " +
                                 std::generic_category().message(errno));
    }
}

}  // namespace

Crowd::Crowd(const capwap_gen::TrafficOptions &options, const Timers &timers)
    : events_(epoll_create1(EPOLL_CLOEXEC)) {
    capwap_gen::Random random(options.seed);
    const Moment now = Clock::now();
    const auto within = std::min(timers.echo, std::chrono::milliseconds(1000));
    for (const capwap_gen::AccessPoint &ap : capwap_gen::MakeAccessPoints(options, random)) {
        members_.push_back(std::make_unique<LiveAccessPoint>(ap, options, timers));
        due_.push_back(now + within * ap.index / options.accessPoints);
        // The lowest bit tells the sockets of a member apart.
        Watch(events_, members_.back()->Control(), uint64_t{ap.index} * 2);
        Watch(events_, members_.back()->Data(), uint64_t{ap.index} * 2 + 1);
    }
}

Crowd::~Crowd() {
    close(events_);
}

void Crowd::RunUntil(Moment end, const std::function<bool()> &goOn) {
    for (Moment now = Clock::now(); now < end && goOn(); now = Clock::now()) {
        Moment next = std::min(end, now + kSlice);
        for (size_t i = 0; i < members_.size(); ++i) {
            if (due_[i] <= now) {
                due_[i] = members_[i]->Tick(now);
            }
            next = std::min(next, due_[i]);
        }
        Await(next);
    }
}

// What arrives until then. Whoever got something is due at once.
void Crowd::Await(Moment moment) {
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(moment - Clock::now()).count();
    std::array<epoll_event, 64> arrived;
    const int count = epoll_wait(events_, arrived.data(), static_cast<int>(arrived.size()),
                                 static_cast<int>(std::max<int64_t>(wait, 0)));
    const Moment now = Clock::now();
    for (int i = 0; i < count; ++i) {
        const uint64_t tag = arrived[static_cast<size_t>(i)].data.u64;
        LiveAccessPoint &member = *members_[tag / 2];
        if (tag % 2 == 0) {
            member.ReadControl(now);
        } else {
            member.ReadData();
        }
        due_[tag / 2] = now;
    }
}

Situation Crowd::Look(Moment now) const {
    Situation situation;
    for (const auto &member : members_) {
        situation.counts += member->Counts();
        if (member->IsServed(now)) {
            situation.served.push_back(member.get());
            ++situation.byController[member->ControllerName()];
        } else {
            situation.unserved.push_back(member.get());
        }
    }
    return situation;
}

}  // namespace capwap_aps
