// What the packet path and the accounting see of the registered hooks.
#pragma once

#include <cstddef>

#include "kes/hook.h"

namespace standin {

size_t HookCount();

// Withdraws the WLAN-id reader if it lies in the shared object that contains `address`.
void ForgetWlanIdReaderOf(const void *address);

}  // namespace standin
