// Reading the objects that the module exports.
#pragma once

#include <cstring>
#include <string_view>
#include <vector>

#include "control/connection.h"

namespace lyrctl {

// An object of a known layout. Throws control::Refused and control::NoEngine, as the next one.
template <typename Layout>
Layout ReadObject(control::Connection &engine, std::string_view name) {
    Layout object;
    engine.ReadObject(name, {reinterpret_cast<uint8_t *>(&object), sizeof object});
    return object;
}

// The array that a pointer of an object points at.
template <typename Element>
std::vector<Element> ReadArray(control::Connection &engine, std::string_view name, uint32_t slot) {
    const control::Bytes bytes = engine.Object(name, slot);
    std::vector<Element> elements(bytes.size() / sizeof(Element));
    std::memcpy(elements.data(), bytes.data(), elements.size() * sizeof(Element));
    return elements;
}

}  // namespace lyrctl
