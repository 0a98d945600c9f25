// The link types whose frames can be given the form of Ethernet.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "capture/frame.h"

namespace capture {

// The Ethernet type of a frame whose protocol has none: it is reserved, and means nothing to
// anybody.
inline constexpr uint16_t kNoEtherType = 0xFFFF;

// A link type's name in words. Link types are DLT_* throughout.
std::string LinkTypeName(int linkType);
// The link type that a number in a file stands for.
int LinkTypeOfFile(uint16_t number);

// Whether frames of a link type are Ethernet, or can be given its form: Linux cooked (both
// versions), raw IP, and the loopback of BSD.
bool HasEthernetForm(int linkType);
// Throws Error, with the link type's name, for those that have not.
void RequireEthernetForm(int linkType);

// A frame of a link type that has the form, with an Ethernet header in place of its own. `room`
// holds its bytes. The source's MAC address is the one that the frame tells, if it does; all other
// addresses that are not known are zero.
Frame AsEthernet(const Frame &frame, int linkType, std::vector<uint8_t> &room);

}  // namespace capture
