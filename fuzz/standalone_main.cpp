// Runs a fuzzer without libFuzzer: seeds, mutations of them, or files. A run depends on the seed
// and its number only.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <fstream>
#include <iostream>
#include <iterator>
#include <random>
#include <string>

#include "fuzz_target.h"

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

using fuzz::Bytes;

struct Options {
    uint64_t first = 0;
    uint64_t runs = 0;
    uint64_t seed = 1;
    std::string seedDirectory = {};
    std::vector<std::string> files = {};
};

class Mutator {
  public:
    Mutator(const std::vector<Bytes> &seeds, uint64_t seed, uint64_t run)
        : seeds_(seeds), random_(seed * 0x9E3779B97F4A7C15 + run) {}

    Bytes Input() {
        Bytes input = Seed();
        for (size_t edits = Below(6); edits > 0; --edits) {
            Edit(input);
        }
        return input;
    }

  private:
    size_t Below(size_t bound) {
        return bound == 0 ? 0 : random_() % bound;
    }

    const Bytes &Seed() {
        return seeds_[Below(seeds_.size())];
    }

    void Edit(Bytes &input) {
        if (input.empty()) {
            return;
        }
        const size_t at = Below(input.size());
        const auto position = input.begin() + static_cast<ptrdiff_t>(at);
        switch (Below(6)) {
            case 0:
                *position = static_cast<uint8_t>(*position ^ 1u << Below(8));
                break;
            case 1:
                *position = static_cast<uint8_t>(random_());
                break;
            case 2: {  // a number at the edge of something
                constexpr uint16_t kEdges[] = {0, 1, 3, 4, 5, 7, 8, 16, 17, 22, 124, 255, 0xFFFF};
                const uint16_t value = kEdges[Below(std::size(kEdges))];
                *position = static_cast<uint8_t>(at + 1 < input.size() ? value >> 8 : value);
                if (at + 1 < input.size()) {
                    position[1] = static_cast<uint8_t>(value);
                }
                break;
            }
            case 3:
                input.resize(at);
                break;
            case 4:
                input.insert(position, 1 + Below(8), static_cast<uint8_t>(random_()));
                break;
            default: {  // the end of another
                const Bytes &other = Seed();
                input.resize(at);
                input.insert(input.end(),
                             other.begin() + static_cast<ptrdiff_t>(std::min(at, other.size())),
                             other.end());
            }
        }
    }

    const std::vector<Bytes> &seeds_;
    std::mt19937_64 random_;
};

char current[128];

void SayWhichRun() {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, current, sizeof(current));
}

void RunInput(const std::string &name, const Bytes &input) {
    std::snprintf(current, sizeof(current), "in %s\n", name.c_str());
    // A block of its own size, so that reads beyond it are seen.
    const Bytes exact(input.begin(), input.end());
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

void RunFile(const std::string &name) {
    std::ifstream file(name, std::ios::binary);
    RunInput(name, Bytes(std::istreambuf_iterator<char>(file), {}));
}

void WriteSeeds(const std::vector<Bytes> &seeds, const std::string &directory) {
    for (size_t i = 0; i < seeds.size(); ++i) {
        const std::string name = directory + "/seed-" + std::to_string(i);
        std::ofstream file(name, std::ios::binary);
        file.write(reinterpret_cast<const char *>(seeds[i].data()),
                   static_cast<std::streamsize>(seeds[i].size()));
        if (!file.flush()) {
            std::cerr << "cannot write " << name << '\n';
            std::exit(2);
        }
    }
}

void Run(const Options &options) {
    std::vector<Bytes> seeds;
    for (const Bytes &frame : fuzz::SeedFrames()) {
        seeds.push_back(fuzz::SeedInput(frame));
    }
    if (!options.seedDirectory.empty()) {
        WriteSeeds(seeds, options.seedDirectory);
    }
    for (const std::string &file : options.files) {
        RunFile(file);
    }
    for (size_t i = 0; i < seeds.size(); ++i) {
        RunInput("seed " + std::to_string(i), seeds[i]);
    }
    for (uint64_t run = options.first; run < options.first + options.runs; ++run) {
        RunInput("run " + std::to_string(run) + " of seed " + std::to_string(options.seed),
                 Mutator(seeds, options.seed, run).Input());
    }
    std::cout << options.files.size() << " files, " << seeds.size() << " seeds and " << options.runs
              << " mutations ran\n";
}

}  // namespace

int main(int argc, char **argv) {
    std::signal(SIGABRT, [](int) { SayWhichRun(); });
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(SayWhichRun);
    }
    Options options;
    CLI::App app{"Runs the fuzzer's seeds, mutations of them, and files."};
    app.add_option("--runs", options.runs, "Mutations to run");
    app.add_option("--first", options.first, "Number of the first one");
    app.add_option("--seed", options.seed, "What the mutations depend on");
    app.add_option("--write-seeds", options.seedDirectory, "Directory to write the seeds to")
        ->check(CLI::ExistingDirectory);
    app.add_option("files", options.files, "Inputs to run")->check(CLI::ExistingFile);
    CLI11_PARSE(app, argc, argv);
    Run(options);
    return 0;
}
