#include "rate_history.h"

#include <langinfo.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <iterator>
#include <string_view>

namespace lyrctl {
namespace {

constexpr const char *kBlocks[] = {" ", "▁", "▂", "▃", "▄", "▅", "▆", "▇", "█"};
constexpr const char *kSigns[] = {" ", "_", ".", ":", "-", "=", "+", "*", "#"};
constexpr size_t kLevels = std::size(kBlocks) - 1;
static_assert(std::size(kSigns) == std::size(kBlocks));

bool BeginsCharacter(char byte) {
    return (static_cast<unsigned char>(byte) & 0xC0) != 0x80;
}

}  // namespace

void RateHistory::Add(const std::map<uint32_t, double> &rates) {
    for (const auto &[instance, rate] : rates) {
        rates_.try_emplace(instance, length_, 0.0);
    }
    for (auto &[instance, row] : rates_) {
        const auto rate = rates.find(instance);
        row.push_back(rate == rates.end() ? 0 : rate->second);
        if (row.size() > kLength) {
            row.pop_front();
        }
    }
    length_ = std::min(length_ + 1, kLength);
}

std::string RateHistory::LineOf(uint32_t instance, size_t width, bool blocks) const {
    double highest = 0;
    for (const auto &[any, row] : rates_) {
        highest = std::max(highest, *std::ranges::max_element(row));
    }
    const auto found = rates_.find(instance);
    if (found == rates_.end() || highest == 0) {
        return "";
    }
    const std::deque<double> &row = found->second;
    std::string line;
    for (size_t i = row.size() - std::min(row.size(), width); i < row.size(); ++i) {
        // Whatever came can be seen.
        const auto level =
            static_cast<size_t>(std::ceil(row[i] / highest * static_cast<double>(kLevels)));
        line += blocks ? kBlocks[level] : kSigns[level];
    }
    return line;
}

bool LocaleHasUtf8() {
    const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
    if (locale == nullptr) {
        return false;
    }
    const bool utf8 = std::string_view(nl_langinfo_l(CODESET, locale)) == "UTF-8";
    freelocale(locale);
    return utf8;
}

size_t CharactersOf(const std::string &text) {
    return static_cast<size_t>(std::ranges::count_if(text, BeginsCharacter));
}

std::string FirstCharacters(const std::string &text, size_t count) {
    size_t at = 0;
    while (at < text.size() && (count > 0 || !BeginsCharacter(text[at]))) {
        count -= BeginsCharacter(text[at]) ? 1 : 0;
        ++at;
    }
    return text.substr(0, at);
}

}  // namespace lyrctl
