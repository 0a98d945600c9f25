// Packet bytes in network order, written and read.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <utility>
#include <vector>

namespace capwap {

// Appends fields in network order; calls chain, and Take() ends the chain with the bytes.
class Writer {
  public:
    Writer &U8(uint32_t value) {
        bytes_.push_back(static_cast<uint8_t>(value));
        return *this;
    }
    Writer &U16(uint32_t value) {
        return U8(value >> 8).U8(value);
    }
    Writer &U32(uint32_t value) {
        return U16(value >> 16).U16(value);
    }
    Writer &U64(uint64_t value) {
        return U32(static_cast<uint32_t>(value >> 32)).U32(static_cast<uint32_t>(value));
    }
    Writer &Words(std::span<const uint32_t> words) {
        for (uint32_t word : words) {
            U32(word);
        }
        return *this;
    }
    Writer &Raw(std::span<const uint8_t> raw) {
        bytes_.insert(bytes_.end(), raw.begin(), raw.end());
        return *this;
    }
    Writer &Text(std::string_view text) {
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return *this;
    }
    // Zeros up to a total of `size` bytes.
    Writer &PadTo(size_t size) {
        bytes_.resize(std::max(bytes_.size(), size));
        return *this;
    }
    Writer &Reserve(size_t size) {
        bytes_.reserve(size);
        return *this;
    }
    void Patch16(size_t at, uint32_t value) {
        bytes_[at] = static_cast<uint8_t>(value >> 8);
        bytes_[at + 1] = static_cast<uint8_t>(value);
    }
    size_t Size() const {
        return bytes_.size();
    }
    // The bytes written from position `at` on; valid until the next write.
    std::span<const uint8_t> From(size_t at) const {
        return std::span(bytes_).subspan(at);
    }
    std::vector<uint8_t> Take() {
        return std::move(bytes_);
    }

  private:
    std::vector<uint8_t> bytes_;
};

// Reads fields in network order. Reading past the end gives zeros and is remembered.
class Reader {
  public:
    explicit Reader(std::span<const uint8_t> bytes) : left_(bytes) {}

    uint32_t U8() {
        auto byte = Take(1);
        return byte.empty() ? 0 : byte[0];
    }
    uint32_t U16() {
        uint32_t high = U8();
        return high << 8 | U8();
    }
    uint32_t U32() {
        uint32_t high = U16();
        return high << 16 | U16();
    }
    // The next `size` bytes, or none when there are fewer.
    std::span<const uint8_t> Take(size_t size) {
        if (size > left_.size()) {
            failed_ = true;
            left_ = {};
            return {};
        }
        auto taken = left_.first(size);
        left_ = left_.subspan(size);
        return taken;
    }
    std::span<const uint8_t> Left() const {
        return left_;
    }
    bool Failed() const {
        return failed_;
    }

  private:
    std::span<const uint8_t> left_;
    bool failed_ = false;
};

}  // namespace capwap
