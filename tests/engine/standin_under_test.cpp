// The stand-in as the engine under test.
#include <fstream>

#include "engine_under_test.h"

namespace standin {
namespace {

class StandinBuffers : public Buffers {
  public:
    explicit StandinBuffers(uint32_t count) : pool_(count) {}

    HostMbuf *Receive(std::span<const uint8_t> frame, const Arrival &arrival) override {
        return pool_.Receive(frame, arrival);
    }
    uint32_t InUse() override {
        return pool_.InUse();
    }

  private:
    MbufPool pool_;
};

}  // namespace

std::unique_ptr<Buffers> MakeBuffers(uint32_t count) {
    return std::make_unique<StandinBuffers>(count);
}

// All of the process: memory comes from the system.
size_t OccupiedBytes() {
    size_t pages = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * 4096;
}

}  // namespace standin
