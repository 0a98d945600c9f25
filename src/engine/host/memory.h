// What the module loader asks of the allocator.
#pragma once

namespace standin {

// Gives memory that no block lies in back to the system.
void ReturnUnusedMemory();

}  // namespace standin
