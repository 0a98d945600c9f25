#include "instance.h"

#include "control/module_object.h"
#include "control/values.h"
#include "mund/module_objects.h"

namespace lyrctl {

uint32_t LastInstanceOf(Client &client) {
    return control::ReadObject<uint32_t>(client.Engine(), MUND_OBJECT_LAST_INSTANCE);
}

uint32_t ParseInstance(Client &client, std::string_view name, const std::string &text) {
    const uint32_t instance = control::ParseNumber(name, text);
    if (const uint32_t last = LastInstanceOf(client); instance > last) {
        throw control::Refused("instance " + text + " is beyond the service instances, 0 to " +
                               std::to_string(last));
    }
    return instance;
}

}  // namespace lyrctl
