// Packets of every kind the module knows, the instances that receive them, and who may get what.
#pragma once

#include <array>
#include <atomic>
#include <deque>
#include <string>

#include "capwap/packet_builder.h"
#include "crew.h"
#include "kes/channel.h"
#include "kes/thread.h"
#include "mund/messages.h"
#include "report.h"
#include "standin/channels.h"
#include "standin/mbuf_pool.h"
#include "standin/packet_path.h"

namespace stress {

// Instances that are up: they have a channel and a thread for CAPWAP, the first few for stations
// too. The module may have more, or fewer.
constexpr uint32_t kCapwapInstances = 4, kStationInstances = 2;
constexpr uint32_t kPlaces = kCapwapInstances + kStationInstances;
// Who gets the tunnels that are not registered.
constexpr uint32_t kDefaultInstance = 3;
// Tunnels and sessions: those below kFixed have one owner for good, the others move.
constexpr uint32_t kTunnels = 16, kFixed = 8;
// One more, of an instance that is not audited: once registered, it stays.
constexpr uint32_t kUnaudited = kTunnels;

constexpr uint32_t OwnerOf(uint32_t tunnel) {
    return tunnel == kUnaudited ? 2 : tunnel % kCapwapInstances;
}
inline LyrKesRpcIpAddr ControllerAddress(bool ipv6) {
    return {ipv6, 0x0A000001, {0x2001, 0xDB8, 0, 0, 0, 0, 0, 1}};
}
inline LyrKesRpcIpAddr TunnelAddress(uint32_t tunnel, bool ipv6) {
    const auto host = static_cast<uint16_t>(tunnel);
    return {ipv6, 0xAC100000u + host, {0x2001, 0xDB8, 1, 0, 0, 0, 0, host}};
}
inline capwap::SessionId SessionOf(uint32_t tunnel) {
    return {tunnel, 0x12345678, 0, 0xDEADBEEF};
}

// The table that a packet is looked up in.
enum class Table { kIpv4, kIpv6, kSession };

class Traffic {
  public:
    Traffic() {
        for (uint32_t tunnel = 0; tunnel <= kUnaudited; ++tunnel) {
            AddTunnel(tunnel);
        }
        AddOthers();
        for (uint32_t place = 0; place < kPlaces; ++place) {
            const bool capwap = place < kCapwapInstances;
            const std::string name = capwap ? "lyrcwp" + std::to_string(place)
                                            : "lyrwapi" + std::to_string(place - kCapwapInstances);
            channels_[place] = standin::OpenChannel("chn/kes2" + name, kChannelCapacity);
            // Nobody waits for the events: the crew looks into the channels by turns.
            Require(TOV_ThreadInfoRegByName(("thd/kes2" + name).c_str()) == 0, "instances open");
        }
    }

    // Sends a packet of some kind, perhaps damaged, on some way through the engine.
    void Forward(Random &random) {
        size_t kind = random.Below(static_cast<uint32_t>(kinds_.size() - 1));
        capwap::Bytes frame = kinds_[kind].frame;
        if (random.OneIn(16)) {
            kind = kinds_.size() - 1;
            Damage(frame, random);
        }
        HostMbuf *packet = pool_.Receive(
            frame, {.number = kind, .rxPort = random.Below(3), .diagnose = random.OneIn(16)});
        standin::HostMbufMeta &meta = standin::MetaOf(packet);
        meta.causeId = random.OneIn(16) ? 1769 : 0;
        meta.causeAction = random.OneIn(32) ? 57 : 0;
        meta.needTrace = random.OneIn(16);
        if (random.OneIn(4)) {
            const standin::Fate fate = standin::RunTransmitPath(packet);
            Require(fate != standin::Fate::kTaken, "nobody takes what is transmitted");
            return Count(fate, packet, kind);
        }
        if (const HostWlanIdFunc reader = standin::WlanIdReader(); reader && random.OneIn(16)) {
            uint16_t wlanId = 0;
            reader(packet, &wlanId);
        }
        Count(standin::RunReceivePath(packet), packet, kind);
    }

    // While nobody else is at work: whether the packet of a tunnel arrives at the instance.
    bool Arrives(Table table, uint32_t tunnel, uint32_t instance) {
        ExpectConservation();
        const size_t kind = tunnel * kKindsOfATunnel + static_cast<size_t>(table);
        HostMbuf *packet = pool_.Receive(kinds_[kind].frame, {.number = kind});
        Count(standin::RunReceivePath(packet), packet, kind);
        const uint64_t before = kinds_[kind].received;
        Drain(instance);
        return kinds_[kind].received == before + 1;
    }

    // Takes what an instance has got.
    void Drain(uint32_t place) {
        while (HostMbuf *packet = standin::ReceiveFromChannel(channels_[place])) {
            Kind &kind = kinds_.at(standin::MetaOf(packet).arrival.number);
            if ((kind.places >> place & 1) == 0 ||
                (place < kCapwapInstances && HostMbufGetLbKey(packet) != place)) {
                Fail("a packet with key %u arrives at the wrong place, %u: %s",
                     HostMbufGetLbKey(packet), place, kind.name.c_str());
            }
            ++kind.received;
            standin::MbufPool::Release(packet);
        }
    }

    // While nobody is at work: each packet that was taken for an instance has arrived.
    void ExpectConservation() {
        for (uint32_t place = 0; place < kPlaces; ++place) {
            Drain(place);
        }
        for (const Kind &kind : kinds_) {
            if (kind.taken != kind.received) {
                Fail("of '%s', %" PRIu64 " packets were taken and %" PRIu64 " arrived",
                     kind.name.c_str(), kind.taken.load(), kind.received.load());
            }
        }
        Require(pool_.InUse() == 0, "packets are not lost");
    }

    struct Totals {
        uint64_t returned, taken, undelivered;
    };
    Totals Sum() const {
        Totals totals = {returned_, 0, undelivered_};
        for (const Kind &kind : kinds_) {
            totals.taken += kind.taken;
        }
        return totals;
    }
    // A kind of which nothing has arrived, but should have; empty if there is none.
    std::string NeverArrived() const {
        for (const Kind &kind : kinds_) {
            // Later fragments have no ports, and never arrive.
            if (kind.places != kNowhere && kind.received == 0 && kind.name != "fragment") {
                return kind.name;
            }
        }
        return {};
    }

  private:
    struct Kind {
        std::string name;
        capwap::Bytes frame;
        uint32_t places;  // a bit each: where it may arrive
        std::atomic<uint64_t> taken{0}, received{0};
    };

    static constexpr uint32_t kCapwapPlaces = (1u << kCapwapInstances) - 1;
    static constexpr uint32_t kStationPlaces = ((1u << kStationInstances) - 1) << kCapwapInstances;
    static constexpr uint32_t kNowhere = 0, kAnywhere = kCapwapPlaces | kStationPlaces;
    static constexpr uint32_t kChannelCapacity = 32, kKindsOfATunnel = 6;

    // A packet of a tunnel, from the access point's end.
    static capwap::FrameSpec Frame(uint32_t tunnel, bool ipv6, uint16_t port,
                                   capwap::Bytes payload) {
        const auto words = [](const LyrKesRpcIpAddr &address) {
            capwap::Ipv6Words all{};
            for (size_t group = 0; group < 8; ++group) {
                all[group / 2] = all[group / 2] << 16 | address.ipv6Addr[group];
            }
            return all;
        };
        capwap::FrameSpec spec;
        if (ipv6) {
            spec.srcIp6 = words(TunnelAddress(tunnel, true));
            spec.dstIp6 = words(ControllerAddress(true));
        } else {
            spec.srcIp = TunnelAddress(tunnel, false).ipv4Addr;
            spec.dstIp = ControllerAddress(false).ipv4Addr;
        }
        spec.srcPort = spec.dstPort = port;
        spec.payload = std::move(payload);
        return spec;
    }

    static void Damage(capwap::Bytes &frame, Random &random) {
        random.Pick(frame) ^= static_cast<uint8_t>(1u << random.Below(8));
        if (random.OneIn(2)) {
            frame.resize(random.Below(static_cast<uint32_t>(frame.size())));
        }
    }

    void Add(std::string name, const capwap::FrameSpec &spec, uint32_t places) {
        kinds_.emplace_back(std::move(name), capwap::BuildFrame(spec), places);
    }

    // The first three are those of Table.
    void AddTunnel(uint32_t tunnel) {
        const uint32_t owner =
            tunnel < kFixed || tunnel == kUnaudited ? 1u << OwnerOf(tunnel) : kCapwapPlaces;
        const uint32_t ownerOrDefault = owner | 1u << kDefaultInstance;
        const std::string suffix = " of tunnel " + std::to_string(tunnel);
        const capwap::Bytes echo = capwap::ControlMessage(13, 1, {});
        const capwap::Bytes ping =
            capwap::ControlMessage(LYR_KES_VENDOR_PEN * 256 + 117, 1, capwap::Bytes(60));
        Add("IPv4 control" + suffix, Frame(tunnel, false, 5246, echo), ownerOrDefault);
        Add("IPv6 control" + suffix, Frame(tunnel, true, 5246, echo), ownerOrDefault);
        Add("keepalive" + suffix, Frame(tunnel, false, 5247, capwap::Keepalive(SessionOf(tunnel))),
            owner);
        Add("DTLS handshake" + suffix,
            Frame(tunnel, false, 5247, capwap::DtlsRecord(22, capwap::Bytes(30))), ownerOrDefault);
        Add("ping" + suffix, Frame(tunnel, tunnel % 2 != 0, 5246, ping), ownerOrDefault);
        Add("data" + suffix, Frame(tunnel, false, 5247, capwap::DataFrame(capwap::Bytes(40))),
            kNowhere);
    }

    void AddOthers() {
        for (uint8_t station = 0; station < 4; ++station) {
            capwap::FrameSpec wapi;
            wapi.etherType = 0x88B4;
            wapi.srcMac[5] = station;
            Add("station's frame", wapi, kStationPlaces);
        }
        const capwap::Bytes probe = capwap::ControlMessage(LYR_KES_VENDOR_PEN * 256 + 77, 1,
                                                           capwap::Element(37, capwap::Bytes(32)));
        capwap::FrameSpec spec = Frame(0, false, 5246, probe);
        Add("probe", spec, 1u << OwnerOf(0) | 1u << kDefaultInstance);
        for (const capwap::Bytes &fragment : capwap::BuildFragments(spec, 16)) {
            kinds_.emplace_back("fragment", fragment, kCapwapPlaces);
        }
        spec.dstIp = capwap::Ipv4("10.9.9.9");
        Add("stranger", spec, kNowhere);
        spec.ipProtocol = 6;
        Add("unrelated", spec, kNowhere);
        kinds_.emplace_back("damaged", capwap::Bytes{}, kAnywhere);
    }

    void Count(standin::Fate fate, HostMbuf *packet, size_t kind) {
        if (fate == standin::Fate::kTaken) {
            ++kinds_[kind].taken;
        } else {
            ++(fate == standin::Fate::kReturned ? returned_ : undelivered_);
            standin::MbufPool::Release(packet);
        }
    }

    standin::MbufPool pool_{4096};
    std::deque<Kind> kinds_;
    std::array<uint32_t, kPlaces> channels_{};
    std::atomic<uint64_t> returned_{0}, undelivered_{0};
};

}  // namespace stress
