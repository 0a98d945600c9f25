#include "client.h"

#include <iostream>

namespace lyrctl {

void Complain(const std::string &what) {
    std::cerr << "lyrctl: " << what << '\n';
}

control::Connection &Client::Engine() {
    if (!engine_) {
        engine_ = std::make_unique<control::Connection>(path_);
    }
    return *engine_;
}

control::Caller Client::Caller() {
    return [this](MundOperation operation, std::span<const uint8_t> request) {
        return Engine().Call(operation, request);
    };
}

}  // namespace lyrctl
