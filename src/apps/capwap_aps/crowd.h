// Many access points at once.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "capwap_aps/live_access_point.h"

namespace capwap_aps {

// How the access points fare at a moment.
struct Situation {
    std::vector<const LiveAccessPoint *> served;
    std::vector<const LiveAccessPoint *> unserved;
    std::map<std::string, uint32_t> byController;  // the served ones
    Exchanges counts;
};

class Crowd {
  public:
    // Throws std::runtime_error.
    Crowd(const capwap_gen::TrafficOptions &options, const Timers &timers);
    ~Crowd();
    Crowd(const Crowd &) = delete;
    Crowd &operator=(const Crowd &) = delete;

    // Lets all of them work until then. The first time they start one after the other, within the
    // time of an echo or a second, whichever is shorter.
    void RunUntil(Moment end, const std::function<bool()> &goOn);

    Situation Look(Moment now) const;

  private:
    void Await(Moment moment);

    std::vector<std::unique_ptr<LiveAccessPoint>> members_;
    std::vector<Moment> due_;  // by member
    int events_;               // epoll
};

}  // namespace capwap_aps
