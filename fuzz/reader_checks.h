// What holds for the readers of CAPWAP headers on any packet.
#pragma once

#include "kes/mbuf.h"

namespace fuzz {

void CheckReaders(HostMbuf *packet);

}  // namespace fuzz
