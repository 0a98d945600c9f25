// Packets that are broken in one way each.
#pragma once

#include "capwap_gen/link.h"

namespace capwap_gen {

// One damaged packet from the access point: cut off, or with a length or a version that lies.
void EmitDamaged(AccessPoint &ap, Link &link, Random &random);

}  // namespace capwap_gen
