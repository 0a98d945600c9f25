// Random numbers that are the same on every machine, unlike the standard library's distributions.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

namespace capwap_gen {

// The SplitMix64 generator.
class Random {
  public:
    explicit Random(uint64_t seed) : state_(seed) {}

    uint64_t Next() {
        uint64_t z = state_ += 0x9E3779B97F4A7C15;
        z = (z ^ z >> 30) * 0xBF58476D1CE4E5B9;
        z = (z ^ z >> 27) * 0x94D049BB133111EB;
        return z ^ z >> 31;
    }

    uint32_t Word() {
        return static_cast<uint32_t>(Next() >> 32);
    }

    // From 0 to bound - 1; bound is not 0.
    uint32_t Below(uint32_t bound) {
        return static_cast<uint32_t>(uint64_t{Word()} * bound >> 32);
    }

    // From low to high, both included.
    template <typename Number>
    Number Between(Number low, Number high) {
        auto span = static_cast<uint32_t>(high - low);
        return static_cast<Number>(low + static_cast<Number>(Below(span + 1)));
    }

    bool OneIn(uint32_t count) {
        return Below(count) == 0;
    }

    template <typename Container>
    auto &Pick(Container &from) {
        return from[Below(static_cast<uint32_t>(std::size(from)))];
    }

    std::vector<uint8_t> Bytes(size_t size) {
        std::vector<uint8_t> bytes(size);
        for (uint8_t &byte : bytes) {
            byte = static_cast<uint8_t>(Next());
        }
        return bytes;
    }

    template <typename Element>
    void Shuffle(std::vector<Element> &elements) {
        for (size_t i = elements.size(); i > 1; i--) {
            std::swap(elements[i - 1], elements[Below(static_cast<uint32_t>(i))]);
        }
    }

  private:
    uint64_t state_;
};

}  // namespace capwap_gen
