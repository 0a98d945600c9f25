// Commands from a terminal, one after the other.
#pragma once

#include "client.h"
#include "options.h"

namespace lyrctl {

// Reads lines and runs them until the user has enough. Each is a command line of its own, with the
// options given here as its own to begin with. Throws control::InputError where there is no
// terminal, or no shell in this program.
ExitStatus RunShell(const Options &options);

}  // namespace lyrctl
