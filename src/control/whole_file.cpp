#include "control/whole_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <filesystem>
#include <optional>
#include <system_error>

#include "mund/control_socket.h"

namespace control {
namespace {

using mund::Descriptor;

[[noreturn]] void Fail(const std::string &path, const std::string &what, int error) {
    throw WriteError("cannot write '" + path + "': " + what +
                     std::generic_category().message(error));
}

[[noreturn]] void Fail(const std::string &path) {
    Fail(path, "", errno);
}

// The file that a path leads to over symbolic links, whether it is there or not.
std::string TargetOf(const std::string &path) {
    std::string target = path;
    for (int links = 0; links < 40; ++links) {
        std::error_code error;
        const std::filesystem::path next = std::filesystem::read_symlink(target, error);
        if (error) {
            return target;
        }
        target = (std::filesystem::path(target).parent_path() / next).string();
    }
    Fail(path, "", ELOOP);
}

std::string DirectoryOf(const std::string &path) {
    const std::string directory = std::filesystem::path(path).parent_path().string();
    return directory.empty() ? "." : directory;
}

// What is there; nothing if there is nothing.
std::optional<struct stat> StatOf(const std::string &path) {
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0) {
        return status;
    }
    if (errno != ENOENT) {
        Fail(path);
    }
    return std::nullopt;
}

bool WriteAll(int file, std::string_view text) {
    while (!text.empty()) {
        const ssize_t written = write(file, text.data(), text.size());
        if (written < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(written < 0 ? 0 : static_cast<size_t>(written));
    }
    return true;
}

// A new file beside another one, until it takes its place.
class Successor {
  public:
    explicit Successor(const std::string &target)
        : target_(target), path_(target + "." + std::to_string(getpid()) + ".new") {
        file_ = Descriptor(open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (!file_.Open()) {
            Fail(target, "a file beside it cannot be made: ", errno);
        }
    }
    ~Successor() {
        if (!placed_) {
            unlink(path_.c_str());
        }
    }
    Successor(const Successor &) = delete;
    Successor &operator=(const Successor &) = delete;

    void TakeAfter(const struct stat &status) const {
        // Who may not give the file to its owner, keeps it.
        const bool owned = fchown(file_.Number(), status.st_uid, status.st_gid) == 0;
        const mode_t mode = status.st_mode & (owned ? 07777 : 0777);
        if (fchmod(file_.Number(), mode) != 0) {
            Fail(target_);
        }
    }
    void Write(std::string_view text) const {
        if (!WriteAll(file_.Number(), text) || fsync(file_.Number()) != 0) {
            Fail(target_);
        }
    }
    void Place() {
        if (rename(path_.c_str(), target_.c_str()) != 0) {
            Fail(target_);
        }
        placed_ = true;
        // The name is on the disk once its directory is.
        const Descriptor directory(
            open(DirectoryOf(target_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        fsync(directory.Number());
    }

  private:
    const std::string target_;
    const std::string path_;
    Descriptor file_;
    bool placed_ = false;
};

// Whether there is something that is not a file, and can be written to as it is.
bool IsDevice(const std::string &path, const std::optional<struct stat> &there) {
    if (there && S_ISDIR(there->st_mode)) {
        Fail(path, "", EISDIR);
    }
    if (there && access(path.c_str(), W_OK) != 0) {
        Fail(path);
    }
    return there && !S_ISREG(there->st_mode);
}

}  // namespace

void WriteWhole(const std::string &path, std::string_view text) {
    const std::optional<struct stat> there = StatOf(path);
    if (IsDevice(path, there)) {
        const Descriptor device(open(path.c_str(), O_WRONLY | O_CLOEXEC));
        if (!device.Open() || !WriteAll(device.Number(), text)) {
            Fail(path);
        }
        return;
    }
    Successor successor(TargetOf(path));
    if (there) {
        successor.TakeAfter(*there);
    }
    successor.Write(text);
    successor.Place();
}

void CheckWritable(const std::string &path) {
    if (!IsDevice(path, StatOf(path))) {
        const Successor successor(TargetOf(path));
    }
}

}  // namespace control
