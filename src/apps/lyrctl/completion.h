// What may stand next on a command line.
#pragma once

#include <span>
#include <string>
#include <vector>

#include "client.h"

namespace lyrctl {

struct Choices {
    std::vector<std::string> words;  // sorted; those that the word begins
    bool files = false;              // the name of a file may stand there as well
};

// What the word that has been begun may become, behind the words of a command so far. Service
// instances are asked for where they are wanted; no engine, no instances.
Choices Complete(Client &client, std::span<const std::string> words, const std::string &begun);

}  // namespace lyrctl
