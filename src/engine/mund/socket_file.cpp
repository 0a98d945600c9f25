#include "mund/socket_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace mund {
namespace {

[[noreturn]] void Fail(const std::string &path, const std::string &reason) {
    throw std::runtime_error("control socket " + path + ": " + reason);
}

[[noreturn]] void FailWithErrno(const std::string &path, const std::string &what) {
    Fail(path, what + ": " + std::generic_category().message(errno));
}

// Between binding and listening a socket looks as one that nobody listens on; and one that looks so
// may have been replaced by the time it is removed. Engines therefore take turns, by a lock of the
// directory. Its descriptor holds it.
Descriptor LockDirectory(const std::string &path) {
    const std::string parent = std::filesystem::path(path).parent_path();
    Descriptor directory(
        open(parent.empty() ? "." : parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!directory.Open()) {
        FailWithErrno(path, "its directory");
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    while (flock(directory.Number(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() > deadline) {
            FailWithErrno(path, "cannot lock its directory");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return directory;
}

Descriptor NewSocket(const std::string &path) {
    Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!socket.Open()) {
        FailWithErrno(path, "cannot create a socket");
    }
    return socket;
}

// Throws unless the file is a socket that nobody listens on.
void RemoveStale(const std::string &path, const sockaddr_un &address) {
    struct stat file {};
    if (lstat(path.c_str(), &file) != 0) {
        FailWithErrno(path, "cannot be looked at");
    }
    if (!S_ISSOCK(file.st_mode)) {
        Fail(path, "there is a file already, and it is no socket");
    }
    const Descriptor probe = NewSocket(path);
    // A live engine with a queue of clients answers EAGAIN.
    if (connect(probe.Number(), reinterpret_cast<const sockaddr *>(&address), sizeof address) ==
            0 ||
        errno == EAGAIN) {
        Fail(path, "another engine is serving it");
    }
    if (errno != ECONNREFUSED) {
        FailWithErrno(path, "cannot tell whether an engine is serving it");
    }
    if (unlink(path.c_str()) != 0) {
        FailWithErrno(path, "cannot remove the socket of an engine that has ended");
    }
}

}  // namespace

SocketFile::SocketFile(const std::string &path, std::optional<gid_t> group) : path_(path) {
    if (const std::string complaint = SetAddress(address_, path); !complaint.empty()) {
        throw std::runtime_error("control socket: " + complaint);
    }
    const Descriptor lock = LockDirectory(path);
    listener_ = NewSocket(path);
    Bind(group);
    if (listen(listener_.Number(), SOMAXCONN) != 0) {
        FailWithErrno(path, "cannot listen");
    }
}

void SocketFile::Bind(std::optional<gid_t> group) {
    const auto *address = reinterpret_cast<const sockaddr *>(&address_);
    // The file is created with the mode that the socket has, less what the process's umask takes
    // away; a mode that is widened afterwards leaves no moment for others.
    if (fchmod(listener_.Number(), S_IRUSR | S_IWUSR) != 0) {
        FailWithErrno(path_, "cannot set its mode");
    }
    if (bind(listener_.Number(), address, sizeof address_) != 0) {
        if (errno != EADDRINUSE) {
            FailWithErrno(path_, "cannot be created");
        }
        RemoveStale(path_, address_);
        if (bind(listener_.Number(), address, sizeof address_) != 0) {
            FailWithErrno(path_, "cannot be created");
        }
    }
    if (fchmodat(AT_FDCWD, path_.c_str(), S_IRUSR | S_IWUSR, AT_SYMLINK_NOFOLLOW) != 0) {
        FailWithErrno(path_, "cannot set its mode");
    }
    if (group && (fchownat(AT_FDCWD, path_.c_str(), UINT32_MAX, *group, AT_SYMLINK_NOFOLLOW) != 0 ||
                  fchmodat(AT_FDCWD, path_.c_str(), S_IRUSR | S_IWUSR | S_IRGRP | S_IWGRP,
                           AT_SYMLINK_NOFOLLOW) != 0)) {
        FailWithErrno(path_, "cannot be given to group " + std::to_string(*group));
    }
    struct stat file {};
    if (lstat(path_.c_str(), &file) != 0) {
        FailWithErrno(path_, "cannot be looked at");
    }
    device_ = file.st_dev;
    inode_ = file.st_ino;
}

SocketFile::~SocketFile() {
    try {
        const Descriptor lock = LockDirectory(path_);
        struct stat file {};
        if (lstat(path_.c_str(), &file) == 0 && file.st_dev == device_ && file.st_ino == inode_) {
            unlink(path_.c_str());
        }
    } catch (const std::runtime_error &) {
        // The file stays; the next engine finds that nobody listens on it.
    }
}

}  // namespace mund
