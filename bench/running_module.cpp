#include "running_module.h"

#include <array>
#include <future>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "burst_timing.h"
#include "channel/service_channel.h"
#include "dfx/message_type_stat.h"
#include "dfx/ping_stat.h"
#include "failure.h"
#include "lb/tunnel_registration.h"
#include "module/lifecycle.h"
#include "module/registration.h"
#include "packet/cwp_source.h"
#include "standin/channels.h"
#include "standin/mbuf_pool.h"
#include "standin/runtime.h"
#include "traffic.h"

namespace bench {
namespace {

constexpr uint32_t kModuleId = 42;
constexpr uint32_t kInstances = kMaxThreads + 1;
constexpr uint32_t kEchoRequest = 13;  // what the access points send

// A service instance whose thread is always awake: it never waits for the events that it is sent,
// so waking it is not part of any figure. What it owns is allocated on its own thread, which keeps
// instances off each other's cache lines.
class Instance {
  public:
    explicit Instance(uint32_t number) : thread_([this, number] { Run(number); }) {
        opened_.get_future().wait();
    }
    ~Instance() {
        stop_.set_value();
        thread_.join();
    }
    Instance(const Instance &) = delete;
    Instance &operator=(const Instance &) = delete;

    uint32_t Channel(uint32_t pktType) const {
        return channels_[pktType];
    }
    TovThreadInfo *Info() const {
        return info_;
    }

  private:
    void Run(uint32_t number) {
        for (uint32_t pktType = 0; pktType < LYR_PKT_TYPE_NUM; ++pktType) {
            const std::string digits = std::to_string(number);
            const std::string threadName = TOV_THD_KES2LYR(pktType) + digits;
            channels_[pktType] =
                standin::OpenChannel(TOV_CHN_KES2LYR(pktType) + digits, kMaxThreads * kBurst);
            TOV_ThreadInfoRegByName(threadName.c_str());
            info_ = TOV_ThreadInfoGetByName(threadName.c_str());
        }
        opened_.set_value();
        stop_.get_future().wait();
    }

    std::array<uint32_t, LYR_PKT_TYPE_NUM> channels_{};
    TovThreadInfo *info_ = nullptr;
    std::promise<void> opened_;
    std::promise<void> stop_;
    std::thread thread_;
};

std::array<std::unique_ptr<Instance>, kInstances> instances;
std::optional<ModuleSetup> running;

void OpenInstances() {
    for (uint32_t number = 0; number < kInstances; ++number) {
        if (instances[number] == nullptr) {
            instances[number] = std::make_unique<Instance>(number);
        }
    }
}

void Expect(uint32_t result, const char *what) {
    if (result != 0) {
        Fail("%s answers %u", what, result);
    }
}

CwpSrcRcd Ipv4Source(uint32_t address) {
    return {CWP_SRC_ADDRESS, 0, {lyr::kIpVersion4, {}, {address}}};
}

CwpSrcRcd Ipv6Source(const capwap::Ipv6Words &words) {
    return {CWP_SRC_ADDRESS, 0, {lyr::kIpVersion6, {}, {words[0], words[1], words[2], words[3]}}};
}

// The controller's IPv4 source at a position and its IPv6 source behind that (behind the last:
// first); others in the positions before, none in those after.
void SetSources(uint32_t position) {
    CwpSrcRcd sources[LYR_KES_CWP_SRC_NUM];
    for (uint32_t i = 0; i < LYR_KES_CWP_SRC_NUM; ++i) {
        sources[i] =
            i < position ? Ipv4Source(kController + 1 + i) : CwpSrcRcd{CWP_SRC_FREE, 0, {}};
    }
    sources[position] = Ipv4Source(kController);
    sources[(position + 1) % LYR_KES_CWP_SRC_NUM] = Ipv6Source(kController6);
    Expect(LyrKes_SetCwpSrcInfo(sources, sizeof(sources)), "setting the sources");
}

// Adds entries to a table: `add` is the operation, `keyOf` gives the key of a flow.
template <class Add, class KeyOf>
void AddEntries(uint32_t flows, uint32_t owners, Traffic traffic, Add add, KeyOf keyOf) {
    for (uint32_t flow = 0; flow < flows; ++flow) {
        const auto key = keyOf(flow);
        Expect(add(OwnerOf(traffic, flow, owners), &key), "adding an entry");
    }
}

void Register(const ModuleSetup &setup) {
    SetSources(setup.sourcePosition);
    for (uint32_t instance = 0; instance < kInstances; ++instance) {
        Expect(LyrKes_DistAddChannel(instance, LYR_PKT_TYPE_CAPWAP), "resolving a channel");
    }
    Expect(LyrKes_DistAddWapiTunnel(0, setup.owners), "setting the stations' instances");
    AddEntries(setup.ipv4Tunnels, setup.owners, Traffic::kControlIpv4, LyrKes_DistAddIPv4Tunnel,
               Ipv4Tunnel);
    AddEntries(setup.ipv6Tunnels, setup.owners, Traffic::kControlIpv6, LyrKes_DistAddIPv6Tunnel,
               Ipv6Tunnel);
    AddEntries(setup.sessions, setup.owners, Traffic::kKeepalive, LyrKes_DistAddKaTunnel, Session);
    if (setup.diagnostics) {
        Expect(LyrKes_SetCwpMsgTypeStat(kEchoRequest), "selecting a message type");
        LyrKes_UpdateCwpPingConfig(true, Ipv4Tunnel(0).srcIp, nullptr);
    }
    if (setup.defaultTunnels) {
        const LyrKesDistIpv4Key ipv4 = DefaultIpv4Tunnel();
        const LyrKesDistIpv6Key ipv6 = DefaultIpv6Tunnel();
        Expect(LyrKes_DistAddIPv4Tunnel(kDefaultInstance, &ipv4), "adding the default");
        Expect(LyrKes_DistAddIPv6Tunnel(kDefaultInstance, &ipv6), "adding the default");
    }
}

void Stop() {
    if (running) {
        LyrKes_Exit();
        standin::JoinCreatedThreads();
        tov_mod_dtr_mod_kes_lyrhost();
        running.reset();
    }
}

}  // namespace

void RunModule(const ModuleSetup &setup) {
    if (running == setup) {
        return;
    }
    Stop();
    OpenInstances();
    standin::SetCapability("WCWP_SPEC_SVC_NUM", 27);
    standin::SetCapability("WCWP_SPEC_MAX_LINK_NUM", setup.linkNum);
    standin::SetCapability("WCWP_SPEC_MAX_DATA_LINK_NUM", setup.dataLinkNum);
    mod_kes_lyrhost.moduleId = kModuleId;
    tov_mod_ctr_mod_kes_lyrhost();
    Expect(LyrKes_Init(), "starting the module");
    Register(setup);
    running = setup;
}

void StopModule() {
    Stop();
    instances = {};
}

uint32_t ChannelOf(uint32_t instance, uint32_t pktType) {
    return instances[instance]->Channel(pktType);
}

TovThreadInfo *ThreadOf(uint32_t instance) {
    return instances[instance]->Info();
}

size_t DrainChannel(uint32_t instance, uint32_t pktType) {
    const uint32_t channel = ChannelOf(instance, pktType);
    size_t count = 0;
    while (HostMbuf *packet = standin::ReceiveFromChannel(channel)) {
        standin::MbufPool::Release(packet);
        ++count;
    }
    return count;
}

}  // namespace bench
