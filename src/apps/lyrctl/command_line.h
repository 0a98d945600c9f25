// A command line from its words to its exit status.
#pragma once

#include <string>
#include <vector>

#include "client.h"
#include "options.h"

namespace lyrctl {

// Runs what the words say, on top of what has been said before, and tells what went wrong.
ExitStatus RunCommandLine(const std::vector<std::string> &words, const Options &before);

}  // namespace lyrctl
