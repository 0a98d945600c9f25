// Frames as they come off the wire, before the readers of CAPWAP headers.
#include "fuzz_target.h"
#include "reader_checks.h"
#include "seed_frames.h"
#include "standin/mbuf_pool.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static standin::MbufPool pool(1);
    if (HostMbuf *packet = pool.Receive({data, size}, {.diagnose = true})) {
        fuzz::CheckReaders(packet);
        standin::MbufPool::Release(packet);
    }
    return 0;
}

std::vector<fuzz::Bytes> fuzz::Seeds() {
    return SeedFrames();
}
