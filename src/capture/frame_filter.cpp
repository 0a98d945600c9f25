#include "capture/frame_filter.h"

#include <pcap/pcap.h>

#include "capture/error.h"
#include "capture/link_layer.h"

namespace capture {
namespace {

constexpr int kSnapLength = 262144;

}  // namespace

void FrameFilter::Release::operator()(bpf_program *program) const {
    pcap_freecode(program);
    delete program;
}

std::string FrameFilter::Complaint(const std::string &expression, const std::string &reason) {
    return "--filter '" + expression + "': " + reason;
}

FrameFilter::FrameFilter(const std::string &expression, int linkType)
    : program_(new bpf_program{}) {
    constexpr int kOptimize = 1;
    pcap_t *shape = pcap_open_dead(linkType, kSnapLength);
    if (pcap_compile(shape, program_.get(), expression.c_str(), kOptimize, PCAP_NETMASK_UNKNOWN) !=
        0) {
        std::string reason = pcap_geterr(shape);
        pcap_close(shape);
        if (linkType != DLT_EN10MB) {
            reason += " (for frames of " + LinkTypeName(linkType) + ")";
        }
        throw Error(Complaint(expression, reason));
    }
    pcap_close(shape);
}

bool FrameFilter::Matches(const Frame &frame) const {
    pcap_pkthdr header = {};
    header.caplen = static_cast<bpf_u_int32>(frame.bytes.size());
    header.len = frame.wireLength;
    return pcap_offline_filter(program_.get(), &header, frame.bytes.data()) != 0;
}

}  // namespace capture
