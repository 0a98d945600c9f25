// Frames as they come off the wire, before the readers of CAPWAP headers.
#include "frame_seeds.h"
#include "fuzz_target.h"
#include "reader_checks.h"
#include "standin/mbuf_pool.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static standin::MbufPool pool(1);
    const fuzz::ByteSpan frame(data, size);
    if (HostMbuf *packet = pool.Receive(frame, {.diagnose = true})) {
        fuzz::Require(
            packet->pktLen <= size && packet->dataLen == packet->pktLen &&
                HostMbufGetL2HeadLength(packet) + HostMbufGetIphdrHeadlen(packet) <= packet->pktLen,
            "a packet and its headers are within the frame");
        fuzz::Require(std::ranges::equal(standin::FrameAsReceived(packet), frame),
                      "a frame stays as it was received");
        fuzz::CheckReaders(packet);
        standin::MbufPool::Release(packet);
    }
    return 0;
}

std::vector<fuzz::Bytes> fuzz::Seeds() {
    return SeedFrames();
}
