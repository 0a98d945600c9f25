#include "control/module_object.h"

namespace control {

void CheckSize(std::string_view name, size_t size, size_t wanted) {
    if (size != wanted) {
        throw Refused(std::string(name) + " has " + std::to_string(size) + " bytes, not " +
                      std::to_string(wanted));
    }
}

}  // namespace control
