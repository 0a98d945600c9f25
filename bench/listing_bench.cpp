// How long a writer of the tunnels' table waits, and the packets that meet it with him, while
// somebody reads the table: lists it as lyrctl does, or runs the module's own table query. Readers
// take turns; one is on one processor, the writer on another.
//
// listing_bench MODULE [TURNS]
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "client/pages.h"
#include "control/message_bytes.h"
#include "failure.h"
#include "kes_engine/module_caller.h"
#include "kes_engine/module_run.h"
#include "kes_engine/module_view.h"
#include "kes_engine/table_page.h"
#include "own_processor.h"

namespace {

using Clock = std::chrono::steady_clock;
using kes_engine::ModuleView;

constexpr uint32_t kTunnels = 18000;
constexpr uint16_t kPort = 5246;
constexpr auto kTurn = std::chrono::milliseconds(400);
constexpr auto kPause = std::chrono::microseconds(50);

void Wait(Clock::duration duration) {
    const auto end = Clock::now() + duration;
    while (Clock::now() < end) {
    }
}

void Register() {
    LyrKesCwpTunnelReq request = {};
    request.dstAddr.ipv4Addr = 0x0A000001;
    request.dstPort = kPort;
    for (uint32_t i = 0; i < kTunnels; ++i) {
        request.srcAddr.ipv4Addr = 0x0A400000 + i;
        request.srcPort = static_cast<uint16_t>(20000 + i % 40000);
        if (kes_engine::CallModule(MUND_OP_CwpTunnel, control::BytesOf(request)).result != 0) {
            bench::Fail("tunnel %u is not added", i);
        }
    }
}

LyrKesLbDfxRsp Query(const LyrKesLbDfxReq &request) {
    const control::Answer answer =
        kes_engine::CallModule(MUND_OP_LoadBalanceDfx, control::BytesOf(request));
    if (answer.result != 0 || answer.reply.size() != sizeof(LyrKesLbDfxRsp)) {
        bench::Fail("the table query answers %u", answer.result);
    }
    return control::MessageOf<LyrKesLbDfxRsp>(answer.reply);
}

LyrKesLbDfxReq QueryOf(uint32_t kind) {
    LyrKesLbDfxReq request = {};
    request.tunnelPort = kPort;
    request.msgType = static_cast<uint8_t>(kind);
    return request;
}

void Expect(const char *reader, size_t tunnels) {
    if (tunnels != kTunnels) {
        bench::Fail("%s: %zu tunnels of %u", reader, tunnels, kTunnels);
    }
}

// What reads the whole table once.
struct Reader {
    const char *name;
    std::function<void()> read;
};

std::vector<Reader> ReadersOf(const ModuleView &view) {
    return {
        {"nobody", [] { Wait(kPause); }},
        {"table query, pages",
         [] {
             size_t tunnels = 0;
             client::ForEachTunnel(QueryOf(LYR_KES_LB_LIST), Query,
                                   [&](const auto &) { return ++tunnels > 0; });
             Expect("pages", tunnels);
         }},
        {"table query, count", [] { Expect("count", Query(QueryOf(LYR_KES_LB_COUNT)).entryNum); }},
        {"list", [&view] {
             size_t tunnels = 0;
             client::ForEachEntry<MundIpv4Tunnel>(
                 [&view](const auto &request) { return ReadTablePage(view, request); },
                 [&](const auto &) { return ++tunnels > 0; });
             Expect("list", tunnels);
         }}};
}

// Microseconds from the writer's bid until he has given the table up, sorted.
struct Waits {
    std::vector<double> sorted;
    double At(double part) const {
        return sorted[static_cast<size_t>(part * static_cast<double>(sorted.size() - 1))];
    }
};

Waits WriteBeside(const Reader &reader, void (*lock)(uint32_t *), void (*unlock)(uint32_t *),
                  uint32_t *locker) {
    std::atomic<bool> reading = false, done = false;
    std::thread other([&] {
        const bench::OwnProcessor bound(1);
        while (!done) {
            reader.read();
            reading = true;
        }
    });
    const bench::OwnProcessor bound(0);
    while (!reading) {
    }
    Waits waits;
    for (const auto end = Clock::now() + kTurn; Clock::now() < end; Wait(kPause)) {
        const auto bid = Clock::now();
        lock(locker);
        unlock(locker);
        waits.sorted.push_back(
            std::chrono::duration<double, std::micro>(Clock::now() - bid).count());
    }
    done = true;
    other.join();
    std::ranges::sort(waits.sorted);
    return waits;
}

double Median(std::vector<double> values) {
    std::ranges::sort(values);
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char **argv) {
    const int turns = argc > 2 ? std::atoi(argv[2]) : 9;
    if (argc < 2 || turns < 1 || bench::Processors().size() < 2) {
        bench::Fail("needs the module's path, a number of turns above 0, and two processors");
    }
    kes_engine::ModuleRun run(argv[1]);
    run.Start();
    Register();
    const ModuleView view(run.Module());
    const auto lock =
        reinterpret_cast<void (*)(uint32_t *)>(run.Module().Symbol("LyrKes_DistWriteLock"));
    const auto unlock =
        reinterpret_cast<void (*)(uint32_t *)>(run.Module().Symbol("LyrKes_DistWriteUnlock"));
    if (lock == nullptr || unlock == nullptr) {
        bench::Fail("'%s' lacks the locker's write side", argv[1]);
    }
    const std::vector<Reader> readers = ReadersOf(view);
    constexpr double kParts[] = {0.5, 0.99, 1};
    std::vector<std::vector<double>> figures(readers.size() * std::size(kParts));
    for (int turn = 0; turn < turns; ++turn) {
        for (size_t i = 0; i < readers.size(); ++i) {
            const Waits waits = WriteBeside(readers[i], lock, unlock, view.ipv4Tunnels.locker);
            for (size_t part = 0; part < std::size(kParts); ++part) {
                figures[i * std::size(kParts) + part].push_back(waits.At(kParts[part]));
            }
        }
    }
    std::printf("| %u tunnels, read by | median, µs | slowest hundredth | longest |\n", kTunnels);
    std::printf("|---|---:|---:|---:|\n");
    for (size_t i = 0; i < readers.size(); ++i) {
        const auto *of = &figures[i * std::size(kParts)];
        std::printf("| %s | %.1f | %.1f | %.1f |\n", readers[i].name, Median(of[0]), Median(of[1]),
                    Median(of[2]));
    }
    run.Module().Stop();
    run.Unload();
    return 0;
}
