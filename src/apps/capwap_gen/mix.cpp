#include "capwap_gen/mix.h"

#include <algorithm>
#include <charconv>
#include <sstream>
#include <stdexcept>

namespace capwap_gen {
namespace {

constexpr uint32_t kMaxWeight = 1'000'000;

uint32_t ParseWeight(std::string_view text, const std::string &item) {
    uint32_t weight = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), weight);
    if (error != std::errc() || end != text.data() + text.size() || weight > kMaxWeight) {
        throw std::invalid_argument("not NAME=WEIGHT with a weight from 0 to " +
                                    std::to_string(kMaxWeight) + ": " + item);
    }
    return weight;
}

const KindInfo &FindKind(std::string_view name, const std::string &item) {
    auto kind = std::ranges::find(kKinds, name, &KindInfo::name);
    if (kind == kKinds.end()) {
        throw std::invalid_argument("no kind of traffic has the name of: " + item);
    }
    return *kind;
}

}  // namespace

Mix Mix::All() {
    Mix mix;
    for (const KindInfo &info : kKinds) {
        mix.Set(info.kind, info.weight);
    }
    return mix;
}

Mix Mix::Parse(const std::string &text) {
    Mix mix;
    std::istringstream items(text);
    for (std::string item; std::getline(items, item, ',');) {
        size_t equals = item.find('=');
        if (item == "all") {
            mix = All();
            continue;
        }
        const KindInfo &info = FindKind(item.substr(0, equals), item);
        std::string_view weight =
            equals == item.npos ? "" : std::string_view(item).substr(equals + 1);
        mix.Set(info.kind, ParseWeight(weight, item));
    }
    if (std::ranges::all_of(mix.weights_, [](uint32_t weight) { return weight == 0; })) {
        throw std::invalid_argument("no kind has a weight in: " + text);
    }
    return mix;
}

}  // namespace capwap_gen
