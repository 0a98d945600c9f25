#include "standin/exported_objects.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <algorithm>
#include <cstring>

#include "host/live_bytes.h"

namespace standin {
namespace {

struct Object {
    std::string error;
    const uint8_t *address = nullptr;
    size_t size = 0;
};

const link_map *LibraryOf(const void *address) {
    Dl_info info;
    link_map *library = nullptr;
    return dladdr1(address, &info, reinterpret_cast<void **>(&library), RTLD_DL_LINKMAP) == 0
               ? nullptr
               : library;
}

const ElfW(Sym) * SymbolAt(const void *address) {
    Dl_info info;
    const ElfW(Sym) *symbol = nullptr;
    return dladdr1(address, &info, reinterpret_cast<void **>(const_cast<ElfW(Sym) **>(&symbol)),
                   RTLD_DL_SYMENT) == 0
               ? nullptr
               : symbol;
}

Object FindObject(const Module &module, const std::string &name) {
    const auto *address = static_cast<const uint8_t *>(module.Symbol(name.c_str()));
    if (address == nullptr) {
        return {"the module exports no object '" + name + "'"};
    }
    // What the module itself needs is found by its name too.
    if (LibraryOf(address) != LibraryOf(module.Symbol("mod_plugin_register"))) {
        return {"'" + name + "' is not the module's own"};
    }
    const ElfW(Sym) *symbol = SymbolAt(address);
    if (symbol == nullptr || ELF64_ST_TYPE(symbol->st_info) != STT_OBJECT) {
        return {"'" + name + "' is a function or thread-local, not a data object"};
    }
    return {{}, address, symbol->st_size};
}

std::string Hexadecimal(uint64_t value) {
    char text[19];
    snprintf(text, sizeof text, "0x%llx", static_cast<unsigned long long>(value));
    return text;
}

}  // namespace

std::vector<uint8_t> CopyLive(const void *memory, size_t size) {
    constexpr size_t kWord = sizeof(uint64_t);
    const auto *from = static_cast<const uint8_t *>(memory);
    std::vector<uint8_t> bytes(size);
    const size_t head = std::min(size, -reinterpret_cast<uintptr_t>(from) % kWord);
    const size_t tail = head + (size - head) / kWord * kWord;
    const auto copyBytes = [&](size_t begin, size_t end) {
        for (size_t i = begin; i < end; ++i) {
            bytes[i] = __atomic_load_n(from + i, __ATOMIC_RELAXED);
        }
    };
    copyBytes(0, head);
    for (size_t i = head; i < tail; i += kWord) {
        const uint64_t word =
            __atomic_load_n(reinterpret_cast<const uint64_t *>(from + i), __ATOMIC_RELAXED);
        std::memcpy(&bytes[i], &word, kWord);
    }
    copyBytes(tail, size);
    return bytes;
}

ObjectBytes ReadObject(const Module &module, const std::string &name,
                       std::optional<uint32_t> slot) {
    const Object object = FindObject(module, name);
    if (!object.error.empty()) {
        return {object.error, {}};
    }
    if (!slot) {
        return {{}, CopyLive(object.address, object.size)};
    }
    const auto *slots = reinterpret_cast<const uint64_t *>(object.address);
    const size_t slotNum = object.size / sizeof *slots;
    if (reinterpret_cast<uintptr_t>(slots) % alignof(uint64_t) != 0 || *slot >= slotNum) {
        return {"'" + name + "' has no pointer at slot " + std::to_string(*slot) + ": it has " +
                    std::to_string(object.size) + " bytes",
                {}};
    }
    ObjectBytes block;
    uint64_t value = 0;
    if (!CopyBlockAt(module.Id(), slots + *slot, block.bytes, value)) {
        block.error = "slot " + std::to_string(*slot) + " of '" + name + "' holds " +
                      Hexadecimal(value) + ", which is no block of the module's memory";
    }
    return block;
}

}  // namespace standin
