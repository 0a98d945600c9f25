#include "hang_ups.h"

#include <csignal>
#include <utility>

namespace kes_engine {
namespace {

sigset_t HangUp() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGHUP);
    return signals;
}

}  // namespace

void HoldHangUps() {
    const sigset_t signals = HangUp();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

HangUps::HangUps(std::function<void()> handler)
    : handler_(std::move(handler)), thread_([this] {
          const sigset_t signals = HangUp();
          int signal = 0;
          while (sigwait(&signals, &signal) == 0 && !ending_) {
              handler_();
          }
      }) {}

HangUps::~HangUps() {
    ending_ = true;
    pthread_kill(thread_.native_handle(), SIGHUP);
    thread_.join();
}

}  // namespace kes_engine
