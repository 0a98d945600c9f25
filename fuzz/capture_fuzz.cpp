// Files of any bytes before the reader of captures, and what describes their frames.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "capture/reader.h"
#include "capwap/describe.h"
#include "fuzz_target.h"

namespace {

using fuzz::Require;

// A file that is nowhere on disk.
class File {
  public:
    File() : descriptor_(memfd_create("capture", MFD_CLOEXEC)) {
        Require(descriptor_ >= 0, "there is a file");
    }
    ~File() {
        close(descriptor_);
    }
    File(const File &) = delete;
    File &operator=(const File &) = delete;

    std::string Path() const {
        return "/proc/self/fd/" + std::to_string(descriptor_);
    }
    void Fill(fuzz::ByteSpan bytes) const {
        Require(ftruncate(descriptor_, 0) == 0 && pwrite(descriptor_, bytes.data(), bytes.size(),
                                                         0) == static_cast<ssize_t>(bytes.size()),
                "the file is filled");
    }

  private:
    const int descriptor_;
};

void ReadAll(capture::Reader &reader) {
    double share = 0;
    uint64_t number = 0;
    while (const auto frame = reader.Next()) {
        Require(frame->number == ++number, "frames are counted from 1");
        Require(!capwap::Describe(frame->bytes).empty(), "every frame can be described");
        const double now = reader.Share().value_or(0);
        Require(now >= share && now <= 1, "a file is read from its begin to its end");
        share = now;
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const File file;
    static const std::string path = file.Path();
    file.Fill({data, size});
    try {
        capture::Reader reader(path);
        ReadAll(reader);
    } catch (const capture::Error &error) {
        Require(std::string_view(error.what()).find(path) != std::string_view::npos,
                "an error names the file");
    }
    return 0;
}
