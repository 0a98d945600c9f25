// The control commands that prepare a module for a capture.
#pragma once

#include <ostream>

#include "capwap_gen/traffic.h"

namespace capwap_gen {

// Writes one command a line: the controller's CAPWAP sources, default entries, the tunnels and
// sessions of the registered access points, and the instances for stations.
void WriteCommands(std::ostream &out, const Traffic &traffic);

}  // namespace capwap_gen
