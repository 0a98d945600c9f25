#include "peer_tables.h"

#include <rte_eal.h>
#include <rte_errno.h>
#include <rte_memory.h>
#include <rte_version.h>

#include <algorithm>
#include <vector>

#include "failure.h"
#include "own_processor.h"

namespace bench {

DpdkEnvironment::DpdkEnvironment(uint32_t megabytes) {
    // The environment binds this thread to its first processor.
    const OwnProcessor bound(0);
    std::vector<std::string> texts = {program_invocation_short_name, "--no-huge", "--no-pci",
                                      "--no-shconf", "--no-telemetry", "--log-level=warning", "-m",
                                      std::to_string(megabytes),
                                      // No worker threads: one processor, whatever its number.
                                      "--lcores", "0@" + std::to_string(Processors()[0])};
    std::vector<char *> arguments(texts.size());
    std::ranges::transform(texts, arguments.begin(), [](std::string &text) { return text.data(); });
    if (rte_eal_init(static_cast<int>(arguments.size()), arguments.data()) < 0) {
        Fail("DPDK's environment does not start: %s", rte_strerror(rte_errno));
    }
}

DpdkEnvironment::~DpdkEnvironment() {
    rte_eal_cleanup();
}

std::string DpdkEnvironment::Version() {
    return rte_version();
}

PeerTable::PeerTable(const char *name, uint32_t entries, Readers readers) {
    rte_hash_parameters parameters = {};
    parameters.name = name;
    parameters.entries = entries + entries / 4;
    parameters.key_len = sizeof(LyrKesDistIpv4Key);
    parameters.hash_func = rte_hash_crc;
    parameters.socket_id = SOCKET_ID_ANY;
    parameters.extra_flag = readers == Readers::kLockFree ? RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY_LF
                                                          : RTE_HASH_EXTRA_FLAGS_RW_CONCURRENCY;
    table_ = rte_hash_create(&parameters);
    if (table_ == nullptr) {
        Fail("creating the table %s for %u entries: %s", name, entries, rte_strerror(rte_errno));
    }
}

PeerTable::~PeerTable() {
    rte_hash_free(table_);
}

void PeerTable::Add(const LyrKesDistIpv4Key &key, uint32_t node) {
    if (const int result = rte_hash_add_key_data(table_, &key, ToData(node)); result != 0) {
        Fail("adding an entry to a peer's table: %s", rte_strerror(-result));
    }
}

}  // namespace bench
