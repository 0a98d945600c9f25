// What service instances got by and by, as lines of little bars.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>

namespace lyrctl {

class RateHistory {
  public:
    // The newest rates that are kept.
    static constexpr size_t kLength = 60;

    // Packets a second of every instance.
    void Add(const std::map<uint32_t, double> &rates);

    // Whether there is more to show than the present.
    bool IsWorthALine() const {
        return length_ > 1;
    }
    // An instance's rates, the newest on the right, as one character each: blocks, or signs of
    // ASCII. All instances have the same scale, up to the highest rate of any.
    std::string LineOf(uint32_t instance, size_t width, bool blocks) const;

  private:
    std::map<uint32_t, std::deque<double>> rates_;
    size_t length_ = 0;
};

// Whether the locale's characters are those of UTF-8.
bool LocaleHasUtf8();

// Characters of a text in UTF-8.
size_t CharactersOf(const std::string &text);
// The first of them.
std::string FirstCharacters(const std::string &text, size_t count);

}  // namespace lyrctl
