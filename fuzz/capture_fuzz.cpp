// Files of any bytes before the reader of captures, and what describes their frames.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "capture/reader.h"
#include "capture/writer.h"
#include "capwap/describe.h"
#include "frame_seeds.h"

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
    fuzz::Bytes Content() const {
        fuzz::Bytes bytes(static_cast<size_t>(lseek(descriptor_, 0, SEEK_END)));
        Require(
            pread(descriptor_, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size()),
            "the file is read");
        return bytes;
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

namespace {

fuzz::Bytes CaptureOf(const std::vector<fuzz::Bytes> &frames, capture::Times times) {
    const File file;
    capture::Writer writer(file.Path(), times);
    int64_t timeNs = 1'735'689'600'123'456'789;
    for (const fuzz::Bytes &frame : frames) {
        writer.Write({.bytes = frame,
                      .timeNs = timeNs++,
                      .wireLength = static_cast<uint32_t>(frame.size())});
    }
    writer.Close();
    return file.Content();
}

void AppendBlock(fuzz::Bytes &capture, uint32_t type, const fuzz::Bytes &body) {
    const auto length = static_cast<uint32_t>(12 + body.size());
    fuzz::Append(capture, type);
    fuzz::Append(capture, length);
    capture.insert(capture.end(), body.begin(), body.end());
    fuzz::Append(capture, length);
}

// The same frame as the other format keeps it: a section, an interface, a packet with its time and
// one without.
fuzz::Bytes BlockCaptureOf(fuzz::Bytes frame) {
    const auto length = static_cast<uint32_t>(frame.size());
    frame.resize((frame.size() + 3) / 4 * 4);
    fuzz::Bytes section, interface, enhanced, simple;
    fuzz::Append(section, uint32_t{0x1A2B3C4D});
    fuzz::Append(section, uint32_t{1});
    fuzz::Append(section, UINT64_MAX);
    fuzz::Append(interface, uint32_t{1});
    fuzz::Append(interface, uint32_t{65535});
    // Nanoseconds, and no more options.
    interface.insert(interface.end(), {9, 0, 1, 0, 9, 0, 0, 0, 0, 0, 0, 0});
    for (const uint32_t word : {0u, 0x00055E00u, 1u, length, length}) {
        fuzz::Append(enhanced, word);
    }
    fuzz::Append(simple, length);
    for (fuzz::Bytes *body : {&enhanced, &simple}) {
        body->insert(body->end(), frame.begin(), frame.end());
    }
    fuzz::Bytes capture;
    AppendBlock(capture, 0x0A0D0D0A, section);
    AppendBlock(capture, 1, interface);
    AppendBlock(capture, 6, enhanced);
    AppendBlock(capture, 3, simple);
    return capture;
}

}  // namespace

std::vector<fuzz::Bytes> fuzz::Seeds() {
    std::vector<Bytes> inputs = {CaptureOf({}, capture::Times::kMicroseconds)};
    for (const Bytes &frame : SeedFrames()) {
        inputs.push_back(CaptureOf({frame}, capture::Times::kNanoseconds));
        inputs.push_back(BlockCaptureOf(frame));
    }
    inputs.push_back(CaptureOf({{}, Bytes(14), Bytes(60)}, capture::Times::kMicroseconds));
    return inputs;
}
