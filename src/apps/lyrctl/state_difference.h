// How something that a file and the module have differently is told.
#pragma once

#include "client.h"
#include "control/settings.h"

namespace lyrctl {

// {"difference": kind, "file": what the file has of it or null, "module": what the module has}
inline ordered_json DifferenceToJson(const char *kind, const control::Setting *file,
                                     const control::Setting *module) {
    const auto text = [](const control::Setting *setting) {
        return setting != nullptr ? ordered_json(setting->command) : ordered_json();
    };
    return {{"difference", kind}, {"file", text(file)}, {"module", text(module)}};
}

}  // namespace lyrctl
