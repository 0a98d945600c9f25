// Packets of several kinds that travel to instances while the module starts, stops and changes.
#pragma once

#include <algorithm>
#include <atomic>

#include "dist_tables.h"
#include "standin/packet_path.h"

namespace host_test {

// An instance that is up.
struct Place {
    uint32_t pktType, number;
};

// A kind of packet, and the places where it may arrive.
struct Kind {
    std::string name;
    capwap::FrameSpec frame;
    std::vector<size_t> places;
};

class Traffic {
  public:
    Traffic(const std::vector<Kind> &kinds, std::span<const Place> places)
        : kinds_(kinds), taken_(kinds.size()), received_(kinds.size() * places.size()) {
        for (const auto &[pktType, number] : places) {
            instances_.push_back(std::make_unique<Instance>(number, pktType));
        }
        for (const Kind &kind : kinds_) {
            frames_.push_back(capwap::BuildFrame(kind.frame));
        }
    }

    // Runs a packet through the receive path: of each kind in turn, as the number goes up.
    void Forward(uint64_t number) {
        const size_t kind = number % kinds_.size();
        HostMbuf *packet =
            pool_.Receive(frames_[kind], {.number = kind, .diagnose = number % 16 == 0});
        standin::MetaOf(packet).causeId = number % 8 == 0 ? 1769 : 0;
        standin::MetaOf(packet).needTrace = number % 16 == 1;
        standin::RunTransmitPath(packet);  // as if it went out before it came in
        if (standin::RunReceivePath(packet) == standin::Fate::kTaken) {
            ++taken_[kind];
        } else {
            standin::MbufPool::Release(packet);
        }
    }

    // Takes what the instances have got.
    void Receive() {
        for (size_t place = 0; place < instances_.size(); ++place) {
            while (const Packet packet = instances_[place]->Receive()) {
                ++Received(standin::MetaOf(packet.get()).arrival.number, place);
            }
        }
    }

    bool EveryKindArrived() {
        for (size_t kind = 0; kind < kinds_.size(); ++kind) {
            if (!kinds_[kind].places.empty() && Received(kind) == 0) {
                return false;
            }
        }
        return true;
    }

    void ExpectConservation() {
        EXPECT_EQ(pool_.InUse(), 0u) << "packets lost";
        for (size_t kind = 0; kind < kinds_.size(); ++kind) {
            SCOPED_TRACE(kinds_[kind].name);
            EXPECT_EQ(Received(kind), taken_[kind]);
            for (size_t place = 0; place < instances_.size(); ++place) {
                const bool allowed = std::ranges::count(kinds_[kind].places, place) != 0;
                EXPECT_TRUE(allowed || Received(kind, place) == 0) << "at place " << place;
            }
        }
    }

  private:
    std::atomic<uint64_t> &Received(size_t kind, size_t place) {
        return received_[kind * instances_.size() + place];
    }
    uint64_t Received(size_t kind) {
        uint64_t sum = 0;
        for (size_t place = 0; place < instances_.size(); ++place) {
            sum += Received(kind, place);
        }
        return sum;
    }

    standin::MbufPool pool_{1024};
    std::vector<Kind> kinds_;
    std::vector<std::unique_ptr<Instance>> instances_;
    std::vector<capwap::Bytes> frames_;            // by kind
    std::vector<std::atomic<uint64_t>> taken_;     // by kind
    std::vector<std::atomic<uint64_t>> received_;  // by kind and place
};

}  // namespace host_test
