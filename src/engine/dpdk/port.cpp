#include "dpdk/port.h"

#include <rte_errno.h>
#include <rte_log.h>

#include <algorithm>
#include <charconv>
#include <cstring>

#include "dpdk/error.h"

namespace dpdk {
namespace {

// Both directions of a conversation, and fragments, stay together where only addresses count.
constexpr uint64_t kByAddresses = RTE_ETH_RSS_IP;

std::string NameOf(uint16_t id) {
    char name[RTE_ETH_NAME_MAX_LEN] = "";
    rte_eth_dev_get_name_by_port(id, name);
    return name;
}

// Drivers whose queues are all to be asked, since each brings other frames.
bool HasQueuesOfItsOwn(const rte_eth_dev_info &info) {
    constexpr const char *kDrivers[] = {"net_pcap", "net_ring", "net_af_packet"};
    return std::ranges::any_of(
        kDrivers, [&](const char *driver) { return std::strcmp(info.driver_name, driver) == 0; });
}

constexpr const char *kMemifLog = "pmd.net.memif";

bool MayWait(const rte_eth_dev_info &info) {
    return std::strcmp(info.driver_name, "net_memif") == 0;
}

// Drivers that want as many queues of one kind as of the other.
bool WantsPairs(const rte_eth_dev_info &info) {
    return std::strcmp(info.driver_name, "net_tap") == 0;
}

// The usual one, unless buffers are made for longer frames.
uint16_t MtuFor(uint16_t longestFrame, const rte_eth_dev_info &info) {
    constexpr uint32_t kUsualBuffer = 2048;
    constexpr uint32_t kOverhead = RTE_ETHER_HDR_LEN + RTE_ETHER_CRC_LEN;
    if (longestFrame <= kUsualBuffer) {
        return RTE_ETHER_MTU;
    }
    const uint32_t mtu = std::min<uint32_t>(longestFrame, info.max_rx_pktlen) - kOverhead;
    return static_cast<uint16_t>(std::min<uint32_t>(mtu, info.max_mtu));
}

}  // namespace

std::vector<std::string> KnownPorts() {
    std::vector<std::string> names;
    for (uint16_t id = 0; id < RTE_MAX_ETHPORTS; ++id) {
        if (rte_eth_dev_is_valid_port(id) != 0) {
            names.push_back(NameOf(id));
        }
    }
    return names;
}

uint16_t Port::Find(const std::string &text) {
    uint16_t id = RTE_MAX_ETHPORTS;
    if (rte_eth_dev_get_port_by_name(text.c_str(), &id) == 0) {
        return id;
    }
    const char *const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data(), end, id);
    if (error != std::errc() || rest != end || rte_eth_dev_is_valid_port(id) == 0) {
        std::string known;
        for (const std::string &name : KnownPorts()) {
            known += (known.empty() ? "" : ", ") + name;
        }
        throw Error("there is no port '" + text + "'; " +
                    (known.empty() ? "DPDK's arguments have made none" : "there are: " + known));
    }
    return id;
}

Port::Port(const std::string &text) : id_(Find(text)), name_(NameOf(id_)) {
    if (const int status = rte_eth_dev_info_get(id_, &info_); status != 0) {
        throw Error("port '" + name_ + "': " + rte_strerror(-status));
    }
}

Port::~Port() {
    if (started_) {
        rte_eth_dev_stop(id_);
    }
    rte_eth_dev_close(id_);
}

void Port::Configure(unsigned receivers, unsigned senders, uint16_t longestFrame) {
    const uint64_t hash = info_.flow_type_rss_offloads & kByAddresses;
    const auto limited = [](unsigned wanted, uint16_t most) {
        return static_cast<uint16_t>(std::clamp<unsigned>(wanted, 1, std::max<uint16_t>(most, 1)));
    };
    spreadsFlows_ = receivers > 1 && hash != 0 && info_.max_rx_queues >= receivers;
    receiveQueues_ = spreadsFlows_              ? receivers
                     : HasQueuesOfItsOwn(info_) ? limited(info_.max_rx_queues, 64)
                                                : 1;
    sendQueueCount_ = WantsPairs(info_) ? receiveQueues_ : limited(senders, info_.max_tx_queues);
    sharesQueues_ = sendQueueCount_ < senders;
    sendQueues_ = std::make_unique<SendQueue[]>(sendQueueCount_);

    rte_eth_conf configuration = {};
    if (spreadsFlows_) {
        configuration.rxmode.mq_mode = RTE_ETH_MQ_RX_RSS;
        configuration.rx_adv_conf.rss_conf.rss_hf = hash;
    }
    configuration.rxmode.mtu = MtuFor(longestFrame, info_);
    int status = rte_eth_dev_configure(id_, static_cast<uint16_t>(receiveQueues_),
                                       static_cast<uint16_t>(sendQueueCount_), &configuration);
    if (status == 0) {
        status = rte_eth_dev_adjust_nb_rx_tx_desc(id_, &receiveDescriptors_, &sendDescriptors_);
    }
    if (status != 0) {
        throw Error("port '" + name_ + "' cannot have " + std::to_string(receiveQueues_) +
                    " queues to receive and " + std::to_string(sendQueueCount_) +
                    " to send: " + rte_strerror(-status));
    }
}

uint32_t Port::BuffersHeld() const {
    return receiveQueues_ * receiveDescriptors_ + sendQueueCount_ * sendDescriptors_;
}

bool Port::Start(const PacketPool &pool) {
    int status = 0;
    const int socket = rte_eth_dev_socket_id(id_);
    const auto node = static_cast<unsigned>(socket < 0 ? SOCKET_ID_ANY : socket);
    for (uint16_t queue = 0; queue < receiveQueues_ && status == 0; ++queue) {
        status = rte_eth_rx_queue_setup(id_, queue, receiveDescriptors_, node, nullptr, pool.Raw());
    }
    for (uint16_t queue = 0; queue < sendQueueCount_ && status == 0; ++queue) {
        status = rte_eth_tx_queue_setup(id_, queue, sendDescriptors_, node, nullptr);
    }
    const bool hasQueues = status == 0;
    if (hasQueues) {
        status = StartDevice();
    }
    if (hasQueues && status != 0 && MayWait(info_)) {
        return false;
    }
    if (status != 0) {
        throw Error("port '" + name_ + "' does not start: " + rte_strerror(-status));
    }
    return true;
}

bool Port::TryAgain() {
    // The driver says each time that nobody is there.
    const int type = rte_log_register(kMemifLog);
    const int level = rte_log_get_level(static_cast<uint32_t>(type));
    rte_log_set_level(static_cast<uint32_t>(type), RTE_LOG_CRIT);
    const bool started = StartDevice() == 0;
    rte_log_set_level(static_cast<uint32_t>(type), static_cast<uint32_t>(level));
    return started;
}

int Port::StartDevice() {
    const int status = rte_eth_dev_start(id_);
    if (status == 0) {
        rte_eth_promiscuous_enable(id_);
        rte_eth_allmulticast_enable(id_);
        started_.store(true, std::memory_order_release);
    }
    return status;
}

size_t Port::Send(unsigned lcore, std::span<HostMbuf *const> packets) {
    if (!started_.load(std::memory_order_acquire)) {
        return 0;
    }
    const auto queue = static_cast<uint16_t>(lcore % sendQueueCount_);
    const auto send = [&] {
        return rte_eth_tx_burst(id_, queue, Rte(packets), static_cast<uint16_t>(packets.size()));
    };
    if (!sharesQueues_) {
        return send();
    }
    rte_spinlock_lock(&sendQueues_[queue].lock);
    const size_t sent = send();
    rte_spinlock_unlock(&sendQueues_[queue].lock);
    return sent;
}

bool Port::IsUp() const {
    rte_eth_link link = {};
    return rte_eth_link_get_nowait(id_, &link) == 0 && link.link_status == RTE_ETH_LINK_UP;
}

PortCounts Port::Counts() const {
    rte_eth_stats stats = {};
    rte_eth_stats_get(id_, &stats);
    return {.receivedPackets = stats.ipackets,
            .receivedBytes = stats.ibytes,
            .receiveErrors = stats.ierrors,
            .missed = stats.imissed,
            .noBuffer = stats.rx_nombuf,
            .sentBytes = stats.obytes,
            .sendErrors = stats.oerrors};
}

}  // namespace dpdk
