#include "dpdk/environment.h"

#include <pthread.h>
#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_ethdev.h>
#include <rte_lcore.h>
#include <sched.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string_view>

#include "dpdk/error.h"

namespace dpdk {
namespace {

namespace fs = std::filesystem;

// Pages of any size, of all memory nodes.
uint64_t FreeHugePages() {
    uint64_t pages = 0;
    std::error_code error;
    for (const fs::directory_entry &size :
         fs::directory_iterator("/sys/kernel/mm/hugepages", error)) {
        uint64_t ofSize = 0;
        std::ifstream(size.path() / "free_hugepages") >> ofSize;
        pages += ofSize;
    }
    return pages;
}

std::string LikelyReason(const std::vector<std::string> &arguments) {
    const bool wantsHuge = std::ranges::find(arguments, "--no-huge") == arguments.end();
    if (wantsHuge && FreeHugePages() == 0) {
        return "; no huge pages are free: set vm.nr_hugepages, or give --no-huge and -m";
    }
    return "; what DPDK says of it stands above";
}

// The names in "--vdev NAME,..." and "--vdev=NAME,...".
std::vector<std::string> VirtualDevices(const std::vector<std::string> &arguments) {
    constexpr std::string_view kOption = "--vdev";
    std::vector<std::string> names;
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string_view word = arguments[i];
        std::string_view value;
        if (word == kOption && i + 1 < arguments.size()) {
            value = arguments[i + 1];
        } else if (word.starts_with("--vdev=")) {
            value = word.substr(kOption.size() + 1);
        }
        if (value.starts_with("net_")) {
            names.emplace_back(value.substr(0, value.find(',')));
        }
    }
    return names;
}

// What a device needs that the process does not have, or nothing.
std::string LackingRight(const std::string &device) {
    constexpr struct {
        std::string_view driver;
        const char *right;
        unsigned bit;
    } kRights[] = {{"net_tap", "CAP_NET_ADMIN", 12}, {"net_af_packet", "CAP_NET_RAW", 13}};
    uint64_t held = 0;
    std::ifstream status("/proc/self/status");
    for (std::string word; status >> word;) {
        if (word == "CapEff:") {
            status >> std::hex >> held;
        }
    }
    for (const auto &[driver, right, bit] : kRights) {
        if (device.starts_with(driver) && (held >> bit & 1) == 0) {
            return "; it needs " + std::string(right) + ", which this process lacks";
        }
    }
    return "";
}

// DPDK itself goes on without a device that it could not make.
void ExpectVirtualDevices(const std::vector<std::string> &arguments) {
    for (const std::string &name : VirtualDevices(arguments)) {
        uint16_t port = 0;
        if (rte_eth_dev_get_port_by_name(name.c_str(), &port) != 0) {
            throw Error("cannot make the device '" + name + "'; what DPDK says of it stands above" +
                        LackingRight(name));
        }
    }
}

cpu_set_t AffinityOfThread() {
    cpu_set_t processors;
    CPU_ZERO(&processors);
    pthread_getaffinity_np(pthread_self(), sizeof processors, &processors);
    return processors;
}

// Of the processors that the program had, those that no worker has; all if there are none.
cpu_set_t WithoutWorkers(const cpu_set_t &before) {
    cpu_set_t rest = before;
    for (const unsigned lcore : Environment::Workers()) {
        const cpu_set_t worker = rte_lcore_cpuset(lcore);
        for (size_t processor = 0; processor < CPU_SETSIZE; ++processor) {
            if (CPU_ISSET(processor, &worker)) {
                CPU_CLR(processor, &rest);
            }
        }
    }
    return CPU_COUNT(&rest) > 0 ? rest : before;
}

}  // namespace

Environment::Environment(const std::string &program, const std::vector<std::string> &arguments) {
    const cpu_set_t before = AffinityOfThread();
    // The environment changes the texts and keeps them.
    static std::vector<std::string> texts;
    static std::vector<char *> words;
    texts = arguments;
    texts.insert(texts.begin(), program);
    std::ranges::transform(texts, std::back_inserter(words),
                           [](std::string &text) { return text.data(); });
    words.push_back(nullptr);
    const int known = rte_eal_init(static_cast<int>(texts.size()), words.data());
    if (known < 0) {
        throw Error("cannot start DPDK's environment: " + std::string(rte_strerror(rte_errno)) +
                    LikelyReason(arguments));
    }
    if (static_cast<size_t>(known) != arguments.size()) {
        const std::string &unknown = arguments[static_cast<size_t>(known)];
        rte_eal_cleanup();
        throw Error("'" + unknown + "' is no argument of DPDK's; the program's own follow '--'");
    }
    try {
        ExpectVirtualDevices(arguments);
    } catch (...) {
        rte_eal_cleanup();
        throw;
    }
    const cpu_set_t rest = WithoutWorkers(before);
    pthread_setaffinity_np(pthread_self(), sizeof rest, &rest);
}

Environment::~Environment() {
    rte_eal_cleanup();
}

std::vector<unsigned> Environment::Workers() {
    std::vector<unsigned> lcores;
    for (unsigned lcore = rte_get_next_lcore(UINT32_MAX, 1, 0); lcore < RTE_MAX_LCORE;
         lcore = rte_get_next_lcore(lcore, 1, 0)) {
        lcores.push_back(lcore);
    }
    return lcores;
}

}  // namespace dpdk
