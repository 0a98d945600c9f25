#include "capture_reader.h"

#include <pcap/pcap.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ratio>

#include "failure.h"

namespace kes_engine {
namespace {

std::string LinkTypeName(int linkType) {
    const char *name = pcap_datalink_val_to_description(linkType);
    return name != nullptr ? name : "link type " + std::to_string(linkType);
}

int64_t SizeOf(FILE *file) {
    struct stat status;
    return fstat(fileno(file), &status) == 0 && S_ISREG(status.st_mode) ? status.st_size : 0;
}

}  // namespace

CaptureReader::CaptureReader(const std::string &path) : path_(path) {
    const std::string what = "cannot replay '" + path + "': ";
    FILE *file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) {
        throw Failure(what + std::strerror(errno));
    }
    fileSize_ = SizeOf(file);
    char reason[PCAP_ERRBUF_SIZE] = "";
    capture_ = pcap_fopen_offline_with_tstamp_precision(file, PCAP_TSTAMP_PRECISION_NANO, reason);
    if (capture_ == nullptr) {
        std::fclose(file);
        throw Failure(what + reason);
    }
    if (const int linkType = pcap_datalink(capture_); linkType != DLT_EN10MB) {
        pcap_close(capture_);
        throw Failure(what + "its frames are not Ethernet but " + LinkTypeName(linkType));
    }
}

CaptureReader::~CaptureReader() {
    pcap_close(capture_);
}

std::optional<Frame> CaptureReader::Next() {
    pcap_pkthdr *header = nullptr;
    const u_char *bytes = nullptr;
    const int outcome = pcap_next_ex(capture_, &header, &bytes);
    if (outcome == PCAP_ERROR_BREAK) {
        return std::nullopt;
    }
    if (outcome != 1) {
        throw Failure("'" + path_ + "' breaks off after frame " + std::to_string(frames_) + ": " +
                      pcap_geterr(capture_));
    }
    // With the precision asked for, the microseconds' field counts nanoseconds.
    return Frame{.bytes = {bytes, header->caplen},
                 .timeNs = header->ts.tv_sec * std::nano::den + header->ts.tv_usec,
                 .wireLength = header->len,
                 .number = ++frames_};
}

std::optional<double> CaptureReader::Share() const {
    const long read = std::ftell(pcap_file(capture_));
    if (fileSize_ == 0 || read < 0) {
        return std::nullopt;
    }
    return std::min(1.0, static_cast<double>(read) / static_cast<double>(fileSize_));
}

}  // namespace kes_engine
