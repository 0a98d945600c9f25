// The directory that takes the captures of a run.
#pragma once

#include <string>

namespace kes_engine {

class OutputDirectory {
  public:
    // Makes the directory unless it is there; an empty path means that nothing is kept. Throws
    // Failure when it cannot be written to, or when the capture to be replayed lies in it under
    // a name that this run may write.
    OutputDirectory(const std::string &path, const std::string &capture);
    // Takes the directory away again if this object made it and no run has begun.
    ~OutputDirectory();
    OutputDirectory(const OutputDirectory &) = delete;
    OutputDirectory &operator=(const OutputDirectory &) = delete;

    // Removes the captures of an earlier run, and nothing else. Throws Failure.
    void Begin();

    // Where a capture of this name goes; empty when nothing is kept.
    std::string PathOf(const std::string &name) const;

  private:
    const std::string path_;
    bool made_ = false;
};

// Names of the captures.
inline constexpr const char *kReturnedCapture = "returned.pcap";
inline constexpr const char *kUndeliveredCapture = "undelivered.pcap";
inline constexpr const char *kTransmittedCapture = "transmitted.pcap";
std::string InstanceCapture(unsigned instance, const std::string &packetType);

}  // namespace kes_engine
