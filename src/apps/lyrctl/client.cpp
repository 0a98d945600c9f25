#include "client.h"

#include <iostream>

#include "control/module_object.h"
#include "control/printable.h"
#include "mund/module_objects.h"

namespace lyrctl {

void Complain(const std::string &what) {
    std::cerr << "lyrctl: " << control::Printable(what, "\n") << '\n';
}

control::Connection &Client::Engine() {
    if (!engine_) {
        if (!asks_) {
            throw NobodyToAsk();
        }
        engine_ = std::make_unique<control::Connection>(path_);
    }
    return *engine_;
}

std::optional<uint32_t> Client::LastInstance() {
    if (!lastInstance_) {
        try {
            lastInstance_ = control::ReadObject<uint32_t>(Engine(), MUND_OBJECT_LAST_INSTANCE);
        } catch (const control::Refused &) {
            lastInstance_.emplace();
        }
    }
    return *lastInstance_;
}

control::Caller Client::Caller() {
    return [this](MundOperation operation, std::span<const uint8_t> request) {
        return Engine().Call(operation, request);
    };
}

}  // namespace lyrctl
