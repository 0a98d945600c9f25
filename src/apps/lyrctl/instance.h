// Service instances that words name.
#pragma once

#include <cstdint>
#include <string>

#include "client.h"
#include "control/arguments.h"

namespace lyrctl {

uint32_t LastInstanceOf(Client &client);

// The value of an option or word that names a service instance. Throws control::InputError for what
// is no number, and control::Refused for an instance beyond the last one.
uint32_t ParseInstance(Client &client, std::string_view name, const std::string &text);

}  // namespace lyrctl
