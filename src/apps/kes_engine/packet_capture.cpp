#include "packet_capture.h"

#include "standin/mbuf_pool.h"

namespace kes_engine {

void PacketCapture::Write(const HostMbuf *packet) {
    if (path_.empty()) {
        return;
    }
    const std::lock_guard lock(mutex_);
    if (!failure_.empty()) {
        return;
    }
    const standin::Arrival &arrival = standin::MetaOf(packet).arrival;
    try {
        if (!file_) {
            file_.emplace(path_);
        }
        file_->Write({.bytes = standin::FrameAsReceived(packet),
                      .timeNs = arrival.timeNs,
                      .wireLength = arrival.wireLength});
    } catch (const capture::Error &error) {
        failure_ = error.what();
    }
}

std::string PacketCapture::Close() {
    const std::lock_guard lock(mutex_);
    if (file_ && failure_.empty()) {
        try {
            file_->Close();
        } catch (const capture::Error &error) {
            failure_ = error.what();
        }
    }
    file_.reset();
    return failure_;
}

}  // namespace kes_engine
