// Reading the objects that the module exports.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "control/connection.h"
#include "control/message_bytes.h"

namespace lyrctl {

// Throws control::Refused unless the object has that many bytes.
void CheckSize(std::string_view name, size_t size, size_t wanted);

// An object of a known layout. Throws control::Refused and control::NoEngine, as the next one.
template <typename Layout>
Layout ReadObject(control::Connection &engine, std::string_view name) {
    const control::Bytes bytes = engine.Object(name);
    CheckSize(name, bytes.size(), sizeof(Layout));
    return control::MessageOf<Layout>(bytes);
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
