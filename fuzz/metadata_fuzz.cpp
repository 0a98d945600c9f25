// Packets of which the engine claims anything, before the readers of CAPWAP headers.
#include "packet_claims.h"
#include "reader_checks.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static standin::MbufPool pool(1);
    fuzz::Reader input(data, size);
    const auto claims = input.Take<fuzz::PacketClaims>();
    if (HostMbuf *packet = pool.Receive(input.Rest(), {})) {
        Claim(claims, packet);
        fuzz::CheckReaders(packet);
        standin::MbufPool::Release(packet);
    }
    return 0;
}

std::vector<fuzz::Bytes> fuzz::Seeds() {
    return SeedsWithClaims();
}
