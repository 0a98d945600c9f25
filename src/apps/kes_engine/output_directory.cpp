#include "output_directory.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>

#include "failure.h"

namespace kes_engine {
namespace {

namespace fs = std::filesystem;

bool IsOurName(std::string_view name) {
    constexpr std::string_view kPrefix = "instance-";
    for (const std::string_view suffix : {"-cwp.pcap", "-wapi.pcap"}) {
        const size_t around = kPrefix.size() + suffix.size();
        if (name.size() > around && name.starts_with(kPrefix) && name.ends_with(suffix)) {
            const std::string_view number = name.substr(kPrefix.size(), name.size() - around);
            return std::ranges::all_of(number, [](unsigned char c) { return std::isdigit(c); });
        }
    }
    return name == kReturnedCapture || name == kUndeliveredCapture || name == kTransmittedCapture;
}

}  // namespace

std::string InstanceCapture(unsigned instance, const std::string &packetType) {
    return "instance-" + std::to_string(instance) + "-" + packetType + ".pcap";
}

OutputDirectory::OutputDirectory(const std::string &path, const std::string &capture)
    : path_(path) {
    if (path_.empty()) {
        return;
    }
    std::error_code error;
    made_ = fs::create_directory(path_, error);
    if (error || !fs::is_directory(path_)) {
        throw Failure("--out: cannot make directory '" + path_ +
                      "': " + (error ? error.message() : "there is a file of that name"));
    }
    if (access(path_.c_str(), W_OK | X_OK) != 0) {
        throw Failure("--out: cannot write to '" + path_ +
                      "': " + std::generic_category().message(errno));
    }
    if (IsOurName(fs::path(capture).filename().native()) &&
        fs::equivalent(fs::absolute(capture).parent_path(), path_, error)) {
        throw Failure("--out: '" + capture + "' is being replayed and would be replaced");
    }
}

OutputDirectory::~OutputDirectory() {
    if (made_) {
        rmdir(path_.c_str());
    }
}

void OutputDirectory::Begin() {
    made_ = false;
    if (path_.empty()) {
        return;
    }
    std::error_code error;
    for (const fs::directory_entry &entry : fs::directory_iterator(path_, error)) {
        if (IsOurName(entry.path().filename().native()) && !fs::remove(entry.path(), error)) {
            break;
        }
    }
    if (error) {
        throw Failure("--out: cannot clear '" + path_ + "': " + error.message());
    }
}

std::string OutputDirectory::PathOf(const std::string &name) const {
    return path_.empty() ? "" : (fs::path(path_) / name).string();
}

}  // namespace kes_engine
