#include "standin/packet_path.h"

#include <initializer_list>

namespace standin {
namespace {

Fate RunPath(std::initializer_list<uint32_t> points, HostMbuf *packet) {
    for (const uint32_t point : points) {
        switch (RunHooks(point, packet)) {
            case HOST_HOOK_CONTINUE:
                break;
            case HOST_HOOK_TAKEN:
                return Fate::kTaken;
            default:
                return Fate::kUndelivered;
        }
    }
    return Fate::kReturned;
}

}  // namespace

Fate RunReceivePath(HostMbuf *packet) {
    return RunPath({HOST_HOOK_RX_IN, HOST_HOOK_RX_OUT, HOST_HOOK_HOST_RX}, packet);
}

Fate RunTransmitPath(HostMbuf *packet) {
    return RunPath({HOST_HOOK_TX_IN, HOST_HOOK_TX_OUT}, packet);
}

}  // namespace standin
