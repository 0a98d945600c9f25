// The file of the control socket.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "mund/control_socket.h"

namespace mund {

class SocketFile {
  public:
    // Listens at the path; with a group, its members may connect. Throws std::runtime_error, which
    // names the path and the reason.
    SocketFile(const std::string &path, std::optional<gid_t> group);
    // Removes the file, unless it has been replaced.
    ~SocketFile();
    SocketFile(const SocketFile &) = delete;
    SocketFile &operator=(const SocketFile &) = delete;

    int Listener() const {
        return listener_.Number();
    }

  private:
    void Bind(std::optional<gid_t> group);

    std::string path_;
    sockaddr_un address_{};
    Descriptor listener_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace mund
