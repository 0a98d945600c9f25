#include "history.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <system_error>

namespace lyrctl {
namespace {

namespace fs = std::filesystem;

constexpr size_t kMost = 1000;

std::string Variable(const char *name) {
    // Nobody changes the environment.
    const char *value = std::getenv(name);  // NOLINT(concurrency-mt-unsafe)
    return value != nullptr ? value : "";
}

// Empty where the user has no place for it.
fs::path Directory() {
    if (const std::string state = Variable("XDG_STATE_HOME"); state.starts_with('/')) {
        return fs::path(state) / "lyrctl";
    }
    const std::string home = Variable("HOME");
    return home.empty() ? fs::path() : fs::path(home) / ".local/state/lyrctl";
}

std::vector<std::string> ReadLines(const fs::path &path) {
    std::vector<std::string> lines;
    std::ifstream file(path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    return lines;
}

// In one piece, so that shells that run side by side lose none of each other's lines.
bool Append(const std::string &path, const std::string &text) {
    std::ofstream file(path, std::ios::app);
    return static_cast<bool>(file << text << std::flush);
}

// Leaves out what is too old. Another name first: a full disk takes nothing away.
void Shorten(const fs::path &path, std::vector<std::string> &lines) {
    lines.erase(lines.begin(), lines.end() - static_cast<ptrdiff_t>(kMost / 2));
    const fs::path shorter = path.string() + ".new";
    std::string text;
    for (const std::string &line : lines) {
        text += line + '\n';
    }
    std::error_code error;
    fs::remove(shorter, error);
    if (Append(shorter, text)) {
        fs::rename(shorter, path, error);
    } else {
        fs::remove(shorter, error);
    }
}

}  // namespace

History::History() {
    const fs::path directory = Directory();
    if (directory.empty()) {
        complaint_ = "HOME is not set";
        return;
    }
    const mode_t mask = umask(S_IRWXG | S_IRWXO);
    std::error_code error;
    fs::create_directories(directory, error);
    path_ = directory / "history";
    if (error || !Append(path_, "")) {
        complaint_ =
            path_ + ": " + (error ? error.message() : std::generic_category().message(errno));
        path_.clear();
    } else {
        lines_ = ReadLines(path_);
        if (lines_.size() > kMost) {
            Shorten(path_, lines_);
        }
    }
    umask(mask);
}

bool History::Add(const std::string &line) {
    if (!lines_.empty() && lines_.back() == line) {
        return false;
    }
    lines_.push_back(line);
    if (!path_.empty()) {
        Append(path_, line + '\n');
    }
    return true;
}

}  // namespace lyrctl
