// Reading the objects that the module exports.
#pragma once

#include <cstring>
#include <string_view>
#include <vector>

#include "control/engine_view.h"
#include "control/message_bytes.h"

namespace control {

// Throws Refused unless the object has that many bytes.
void CheckSize(std::string_view name, size_t size, size_t wanted);

// An object of a known layout. Throws what the engine's Object throws, and Refused for another
// size.
template <typename Layout>
Layout ReadObject(EngineView &engine, std::string_view name) {
    const Bytes bytes = engine.Object(name);
    CheckSize(name, bytes.size(), sizeof(Layout));
    return MessageOf<Layout>(bytes);
}

// The array that a pointer of an object points at.
template <typename Element>
std::vector<Element> ReadArray(EngineView &engine, std::string_view name, uint32_t slot) {
    const Bytes bytes = engine.Object(name, slot);
    std::vector<Element> elements(bytes.size() / sizeof(Element));
    std::memcpy(elements.data(), bytes.data(), elements.size() * sizeof(Element));
    return elements;
}

}  // namespace control
