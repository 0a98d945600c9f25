// What a lookup costs, by the number of entries in its table.
#include "lb/packet_lookup.h"

#include <string>

#include "benchmarks.h"
#include "bursts.h"
#include "failure.h"
#include "running_module.h"
#include "traffic.h"

namespace bench {
namespace {

constexpr uint32_t kOwner = 0;

struct LookupCase {
    const char *name;
    Traffic traffic;
    uint32_t (*lookUp)(HostMbuf *packet);
    uint32_t owner;  // the instance that the packets must be given
    // The table that is looked in, filled and sized for so many entries; no other entries exist.
    ModuleSetup (*setup)(uint32_t entries);
};

ModuleSetup SizedFor(uint32_t entries) {
    return {.linkNum = entries - entries / 2, .dataLinkNum = entries / 2};
}

ModuleSetup Ipv4Table(uint32_t entries) {
    ModuleSetup setup = SizedFor(entries);
    setup.ipv4Tunnels = entries;
    return setup;
}

ModuleSetup Ipv4TableWithDefault(uint32_t entries) {
    ModuleSetup setup = Ipv4Table(entries);
    setup.defaultTunnels = true;
    return setup;
}

ModuleSetup Ipv6Table(uint32_t entries) {
    ModuleSetup setup = SizedFor(entries);
    setup.ipv6Tunnels = entries;
    return setup;
}

ModuleSetup SessionTable(uint32_t entries) {
    return {.linkNum = 0, .dataLinkNum = entries, .sessions = entries};
}

constexpr LookupCase kLookupCases[] = {
    {"ipv4", Traffic::kControlIpv4, LyrKes_DistIpv4_PktProc, kOwner, Ipv4Table},
    {"ipv6", Traffic::kControlIpv6, LyrKes_DistIpv6_PktProc, kOwner, Ipv6Table},
    {"keepalive", Traffic::kKeepalive, LyrKes_DistKa_PktProc, kOwner, SessionTable},
    {"default_ipv4", Traffic::kStrangerIpv4, LyrKes_DistIpv4_PktProc, kDefaultInstance,
     Ipv4TableWithDefault},
};

void RunLookup(benchmark::State &state, const LookupCase &lookupCase) {
    const auto thread = static_cast<uint32_t>(state.thread_index());
    const auto entries = static_cast<uint32_t>(state.range(0));
    if (thread == 0) {
        RunModule(lookupCase.setup(entries));
    }
    Bursts bursts(Frames::Of(lookupCase.traffic, entries), thread);
    size_t failures = 0;
    MeasureBursts(
        state, [&] { bursts.Receive(); },
        [&] {
            for (HostMbuf *packet : bursts.Packets()) {
                failures += lookupCase.lookUp(packet) != LYR_DIST_OK;
            }
        },
        [&] {
            for (const HostMbuf *packet : bursts.Packets()) {
                failures += HostMbufGetLbKey(packet) != lookupCase.owner;
            }
            if (failures != 0) {
                Fail("lookup/%s: %zu packets without their owner", lookupCase.name, failures);
            }
            bursts.Release();
        });
}

}  // namespace

void RegisterLookupBenchmarks() {
    for (const LookupCase &lookupCase : kLookupCases) {
        benchmark::RegisterBenchmark((std::string("lookup/") + lookupCase.name).c_str(), RunLookup,
                                     lookupCase)
            ->ArgName("entries")
            ->Arg(1000)
            ->Arg(18000)
            ->Arg(100000)
            ->Apply(OneAndTwoThreads);
    }
}

}  // namespace bench
