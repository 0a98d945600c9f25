// The file of the control socket.
#pragma once

#include <sys/types.h>

#include <string>

#include "mund/control_socket.h"

namespace mund {

class SocketFile {
  public:
    // Listens at the path. Throws std::runtime_error, which names the path and the reason.
    explicit SocketFile(const std::string &path);
    // Removes the file, unless it has been replaced.
    ~SocketFile();
    SocketFile(const SocketFile &) = delete;
    SocketFile &operator=(const SocketFile &) = delete;

    int Listener() const {
        return listener_.Number();
    }

  private:
    void Bind();

    std::string path_;
    sockaddr_un address_{};
    Descriptor listener_;
    dev_t device_ = 0;
    ino_t inode_ = 0;
};

}  // namespace mund
