// The module's lookups against DPDK's hash table on the same packets, in turns.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <iterator>
#include <numeric>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "burst_timing.h"
#include "contenders.h"
#include "failure.h"
#include "own_processor.h"
#include "running_module.h"

namespace bench {
namespace {

constexpr uint32_t kEnvironmentMegabytes = 512;

struct Options {
    std::vector<uint32_t> entries = {1000, 18000, 100000};
    std::vector<int> threads = {1, 2};
    uint32_t rounds = 9;
    double seconds = 0.1;
    size_t burst = 32;
    bool mean = false;
};

// A contender on a number of threads; what it cost in each round, in nanoseconds a packet.
struct Entrant {
    const Contender *contender;
    int threads;
    std::vector<double> costs;
};

// One contender's turn: bursts after bursts on each thread. Those that go once round all flows are
// not counted: they bring the contender's table back to where turns of its own leave it.
class Turn {
  public:
    Turn(const Contest &contest, const Contender &contender, int threads, const Options &options)
        : contest_(contest), contender_(contender), threads_(threads), options_(options) {}

    // Nanoseconds that a packet cost its thread.
    double Run() {
        std::vector<double> costs(static_cast<size_t>(threads_));
        std::vector<std::thread> threads;
        for (size_t i = 0; i < costs.size(); ++i) {
            threads.emplace_back([this, i, &costs] { costs[i] = RunThread(i); });
        }
        for (std::thread &thread : threads) {
            thread.join();
        }
        return std::accumulate(costs.begin(), costs.end(), 0.0) / threads_;
    }

  private:
    using Clock = std::chrono::steady_clock;

    double RunThread(size_t thread) {
        const OwnProcessor bound(thread);
        Bursts bursts(Frames::Of(contender_.traffic, contest_.Entries()),
                      static_cast<uint32_t>(thread));
        std::array<uint32_t, kBurst> hashes{};
        std::vector<double> seconds;
        const size_t uncounted = contest_.Entries() / kBurst + 1;
        Clock::time_point end = Clock::time_point::max();
        for (size_t burst = 0; burst <= last_; ++burst) {
            if (burst == uncounted) {
                seconds.clear();
                end = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                         std::chrono::duration<double>(options_.seconds));
            }
            // Known to all before any of them can come to the next burst.
            if (thread == 0 && Clock::now() >= end) {
                last_ = burst;
            }
            bursts.Receive();
            seconds.push_back(
                TimeWork(threads_, [&] { contender_.work(bursts.Packets(), hashes); }));
            contest_.Check(contender_, bursts, hashes);
            bursts.Release();
        }
        const double sum = std::accumulate(seconds.begin(), seconds.end(), 0.0);
        return NanosecondsPerItem(options_.mean ? sum / static_cast<double>(seconds.size())
                                                : Median(seconds));
    }

    const Contest &contest_;
    const Contender &contender_;
    const int threads_;
    const Options &options_;
    std::atomic<size_t> last_ = SIZE_MAX;
};

// All entrants' turns, each round in another order.
std::vector<Entrant> RunRounds(const Contest &contest, const Options &options) {
    std::vector<Entrant> entrants;
    for (const Contender &contender : contest.Contenders()) {
        for (const int threads : options.threads) {
            entrants.push_back({&contender, threads, {}});
        }
    }
    std::vector<size_t> order(entrants.size());
    std::iota(order.begin(), order.end(), size_t{0});
    std::mt19937 random(contest.Entries());
    for (uint32_t round = 0; round < options.rounds; ++round) {
        std::ranges::shuffle(order, random);
        for (const size_t i : order) {
            Entrant &entrant = entrants[i];
            entrant.costs.push_back(
                Turn(contest, *entrant.contender, entrant.threads, options).Run());
        }
        std::fprintf(stderr, "%u entries: round %u of %u\n", contest.Entries(), round + 1,
                     options.rounds);
    }
    return entrants;
}

// The median of figures with their lowest and highest.
std::string Cell(std::vector<double> figures, int digits) {
    char text[64];
    const double median = Median(figures);
    const auto [low, high] = std::ranges::minmax(figures);
    std::snprintf(text, sizeof(text), "%.*f (%.*f–%.*f)", digits, median, digits, low, digits,
                  high);
    return text;
}

// By round, so that what slowed all of a round stands on both sides.
std::string RatioCell(const Entrant &entrant, const Entrant &to) {
    std::vector<double> ratios;
    std::ranges::transform(entrant.costs, to.costs, std::back_inserter(ratios), std::divides<>());
    return Cell(ratios, 2);
}

const Entrant *FindEntrant(const std::vector<Entrant> &entrants, const Contender *contender,
                           int threads) {
    const auto found = std::ranges::find_if(entrants, [&](const Entrant &entrant) {
        return entrant.contender == contender && entrant.threads == threads;
    });
    return found != entrants.end() ? &*found : nullptr;
}

std::string ThreadsTitle(int threads) {
    return std::to_string(threads) + (threads == 1 ? " thread" : " threads");
}

void PrintRow(const std::vector<std::string> &cells) {
    for (const std::string &cell : cells) {
        std::printf("| %s ", cell.c_str());
    }
    std::puts("|");
}

void PrintRule(size_t columns) {
    std::fputs("|---|", stdout);
    for (size_t i = 1; i < columns; ++i) {
        std::fputs("---:|", stdout);
    }
    std::puts("");
}

void PrintCosts(const Contest &contest, const std::vector<Entrant> &entrants,
                const std::vector<int> &threads) {
    std::vector<std::string> row = {"ns/packet, " + std::to_string(contest.Entries()) + " entries"};
    std::ranges::transform(threads, std::back_inserter(row), ThreadsTitle);
    for (size_t i = 1; i < threads.size(); ++i) {
        row.push_back(std::to_string(threads[i]) + " threads / " + std::to_string(threads[0]));
    }
    PrintRow(row);
    PrintRule(row.size());
    for (const Contender &contender : contest.Contenders()) {
        row = {contender.name};
        for (const int number : threads) {
            row.push_back(Cell(FindEntrant(entrants, &contender, number)->costs, 1));
        }
        const Entrant &first = *FindEntrant(entrants, &contender, threads[0]);
        for (size_t i = 1; i < threads.size(); ++i) {
            row.push_back(RatioCell(*FindEntrant(entrants, &contender, threads[i]), first));
        }
        PrintRow(row);
    }
    std::puts("");
}

// What the module's IPv4 lookups cost, in what the others do: those have IPv4 keys.
void PrintRatios(const Contest &contest, const std::vector<Entrant> &entrants,
                 const std::vector<int> &threads) {
    std::vector<std::string> row = {"ours / theirs, " + std::to_string(contest.Entries()) +
                                    " entries"};
    std::vector<const Contender *> others;
    for (const Contender &contender : contest.Contenders()) {
        if (contender.side != Side::kOurs) {
            others.push_back(&contender);
            row.push_back(contender.name);
        }
    }
    PrintRow(row);
    PrintRule(row.size());
    for (const Contender &ours : contest.Contenders()) {
        if (ours.side != Side::kOurs || ours.traffic != Traffic::kControlIpv4) {
            continue;
        }
        for (const int number : threads) {
            row = {ours.name + ", " + ThreadsTitle(number)};
            for (const Contender *other : others) {
                row.push_back(RatioCell(*FindEntrant(entrants, &ours, number),
                                        *FindEntrant(entrants, other, number)));
            }
            PrintRow(row);
        }
    }
    std::puts("");
}

constexpr const char *kFooter = R"(
Each round gives every contender one turn on each number of threads, in another order every time. In
a turn, each thread receives bursts of 256 fresh packets and works on them; only the work is timed,
and bursts that go once round all entries come first and are not counted. A turn's figure is its
median burst. Printed are the rounds' median, lowest and highest figure; ratios are taken round by
round. A wrong owner on a packet ends the program.

Exit status: 0 all went well, 1 something did not, 2 the command line makes no sense.
)";

void AddOptions(CLI::App &app, Options &options) {
    app.add_option("--entries", options.entries, "Entries of each table, one set of turns for each")
        ->option_text("N,... [1000,18000,100000]")
        ->delimiter(',')
        ->check(CLI::Range(kBurst, size_t{200000}));
    app.add_option("--threads", options.threads, "Threads that look up at once")
        ->option_text("N,... [1,2]")
        ->delimiter(',')
        ->check(
            CLI::Range(1, static_cast<int>(std::min<size_t>(kMaxThreads, Processors().size()))));
    app.add_option("--rounds", options.rounds, "Turns of each contender")
        ->option_text("N [9]")
        ->check(CLI::Range(1, 1000));
    app.add_option("--seconds", options.seconds, "Length of a turn, what is not timed included")
        ->option_text("S [0.1]")
        ->check(CLI::Range(0.001, 60.0));
    app.add_option("--burst", options.burst,
                   "Packets that pass the module's stages together, where it says 'in bursts'")
        ->option_text("N [32]")
        ->check(CLI::Range(size_t{1}, kBurst));
    app.add_flag("--mean", options.mean, "Take the mean of a turn's bursts, not their median");
}

void RunContests(const Options &options) {
    const DpdkEnvironment environment(kEnvironmentMegabytes);
    std::printf("Peers: %s. Build: %s. Rounds: %u, a turn of %g s.\n\n",
                DpdkEnvironment::Version().c_str(), LYR_BENCH_BUILD, options.rounds,
                options.seconds);
    for (const uint32_t entries : options.entries) {
        const Contest contest(entries, options.burst);
        const std::vector<Entrant> entrants = RunRounds(contest, options);
        PrintCosts(contest, entrants, options.threads);
        PrintRatios(contest, entrants, options.threads);
        std::fflush(stdout);
    }
    StopModule();
}

}  // namespace
}  // namespace bench

int main(int argc, char **argv) {
    bench::Options options;
    CLI::App app(
        "Compares the module's lookups with DPDK's hash table, and prints tables in "
        "Markdown.");
    app.footer(bench::kFooter);
    bench::AddOptions(app, options);
    try {
        app.parse(argc, argv);
        bench::RunContests(options);
        return 0;
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception &error) {
        bench::Fail("%s", error.what());
    }
}
