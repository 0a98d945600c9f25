// Files that are written whole or not at all.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace control {

// Why a file could not be written; names it and the reason.
class WriteError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// Puts a text in the place of a file, which is there at any moment, as it was or as it will be, and
// is on the disk when this returns. It keeps its permissions and, where the process may see to it,
// its owner; behind a symbolic link, the file that the link leads to is replaced. What is neither a
// file nor a directory, as a pipe, is written to. Throws WriteError; nothing has changed then.
void WriteWhole(const std::string &path, std::string_view text);

// Throws WriteError if WriteWhole would have to, as far as can be known before.
void CheckWritable(const std::string &path);

}  // namespace control
