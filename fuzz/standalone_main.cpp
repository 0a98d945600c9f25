// Runs a fuzzer without libFuzzer: a corpus, mutations of it, and files. A run depends on the seed,
// its number and the corpus only.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include "capwap_gen/random.h"
#include "fuzz_target.h"

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

#if defined(__SANITIZE_ADDRESS__)
#define LYR_FUZZ_EXACT 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define LYR_FUZZ_EXACT 1
#endif
#endif

namespace {

using capwap_gen::Random;
using fuzz::Bytes;
using Clock = std::chrono::steady_clock;

// A run that takes longer hangs.
constexpr unsigned kHangSeconds = 300;

struct Options {
    uint64_t first = 0;
    uint64_t runs = 0;
    uint64_t seconds = 0;
    uint64_t seed = 1;
    std::string corpus = {};
    std::string failing = {};
    std::vector<std::string> files = {};
};

// What is running, for the line that a failing run leaves.
struct Current {
    const char *what = nullptr;
    uint64_t number = 0;
    const uint8_t *data = nullptr;
    size_t size = 0;
};

Options options;
Current current;

class Mutator {
  public:
    explicit Mutator(const std::vector<Bytes> &seeds) : seeds_(seeds) {
        input_.reserve(kLongest);
    }

    // Stays until the next call.
    const Bytes &Input(uint64_t seed, uint64_t run) {
        random_ = Random(Random(seed).Next() + run);
        input_ = Seed();
        for (size_t edits = Below(6); edits > 0 && !input_.empty(); --edits) {
            Edit();
        }
        return input_;
    }

  private:
    static constexpr size_t kLongest = 65536;
    // A longer one takes longer, and rarely finds more.
    static constexpr size_t kUsual = 4096;

    size_t Below(size_t bound) {
        return random_.Below(static_cast<uint32_t>(bound));
    }

    uint8_t Byte() {
        return static_cast<uint8_t>(random_.Next());
    }

    const Bytes &Seed() {
        return seeds_[Below(seeds_.size())];
    }

    std::span<const uint8_t> Piece(const Bytes &of, size_t longest) {
        if (of.empty()) {
            return {};
        }
        const size_t begin = Below(of.size());
        return std::span(of).subspan(begin, 1 + Below(std::min(longest, of.size() - begin)));
    }

    void Insert(size_t at, std::span<const uint8_t> piece) {
        if (input_.size() + piece.size() <= kUsual) {
            input_.insert(input_.begin() + static_cast<ptrdiff_t>(at), piece.begin(), piece.end());
        }
    }

    void WriteEdge(size_t at) {
        constexpr uint16_t kEdges[] = {0, 1, 3, 4, 5, 7, 8, 16, 17, 22, 124, 255, 0xFFFF};
        const uint16_t value = kEdges[Below(std::size(kEdges))];
        if (at + 1 < input_.size()) {
            input_[at] = static_cast<uint8_t>(value >> 8);
            input_[at + 1] = static_cast<uint8_t>(value);
        } else {
            input_[at] = static_cast<uint8_t>(value);
        }
    }

    void Edit() {
        // The front says what is done with the rest.
        const size_t front = Below(4) == 0 ? 8 : input_.size();
        const size_t at = Below(std::min(front, input_.size()));
        switch (Below(8)) {
            case 0:
                input_[at] = static_cast<uint8_t>(input_[at] ^ 1u << Below(8));
                break;
            case 1:
                input_[at] = Byte();
                break;
            case 2:
                WriteEdge(at);
                break;
            case 3:
                input_.resize(at);
                break;
            case 4:
                Insert(at, Bytes(1 + Below(8), Byte()));
                break;
            case 5: {  // the end of another
                const Bytes &other = Seed();
                const size_t from = std::min(at, other.size());
                input_.resize(at);
                input_.insert(input_.end(), other.begin() + static_cast<ptrdiff_t>(from),
                              other.end());
                break;
            }
            case 6: {  // a part once more
                const auto piece = Piece(input_, 64);
                Insert(at, Bytes(piece.begin(), piece.end()));
                break;
            }
            default:
                Insert(at, Piece(Seed(), 64));
        }
    }

    const std::vector<Bytes> &seeds_;
    Random random_{0};
    Bytes input_;
};

void SayWhichRun() {
    char line[160];
    const int length = std::snprintf(line, sizeof line, "in %s %llu of seed %llu\n", current.what,
                                     static_cast<unsigned long long>(current.number),
                                     static_cast<unsigned long long>(options.seed));
    [[maybe_unused]] const ssize_t written =
        write(STDERR_FILENO, line, static_cast<size_t>(length));
    if (!options.failing.empty()) {
        std::ofstream(options.failing, std::ios::binary)
            .write(reinterpret_cast<const char *>(current.data),
                   static_cast<std::streamsize>(current.size));
    }
}

void SayWhichDies(int signal) {
    SayWhichRun();
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

void SayWhichHangs(int) {
    SayWhichRun();
    _exit(1);
}

void RunInput(const char *what, uint64_t number, const Bytes &input) {
#ifdef LYR_FUZZ_EXACT
    // A block of its own size, so that reads beyond it are seen.
    const Bytes exact(input.begin(), input.end());
#else
    const Bytes &exact = input;
#endif
    current = {what, number, exact.data(), exact.size()};
    LLVMFuzzerTestOneInput(exact.data(), exact.size());
}

void RunAll(const char *what, const std::vector<Bytes> &inputs) {
    for (size_t i = 0; i < inputs.size(); ++i) {
        RunInput(what, i, inputs[i]);
    }
}

Bytes ReadFile(const std::filesystem::path &name) {
    std::ifstream file(name, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(file), {});
}

// The files of a directory, in the order of their names.
std::vector<Bytes> ReadDirectory(const std::string &directory) {
    std::vector<std::filesystem::path> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory)) {
        names.push_back(entry.path());
    }
    std::ranges::sort(names);
    std::vector<Bytes> inputs;
    for (const auto &name : names) {
        inputs.push_back(ReadFile(name));
    }
    return inputs;
}

// Runs mutations until there were enough, or the time is over; how many there were.
uint64_t RunMutations(const std::vector<Bytes> &seeds) {
    constexpr uint64_t kRunsBetweenLooks = 256;
    const auto end = Clock::now() + std::chrono::seconds(options.seconds);
    Mutator mutator(seeds);
    uint64_t done = 0;
    while (options.seconds != 0 ? Clock::now() < end : done < options.runs) {
        alarm(kHangSeconds);
        const uint64_t more = options.seconds != 0
                                  ? kRunsBetweenLooks
                                  : std::min(kRunsBetweenLooks, options.runs - done);
        for (uint64_t i = 0; i < more; ++i, ++done) {
            const uint64_t run = options.first + done;
            RunInput("run", run, mutator.Input(options.seed, run));
        }
    }
    alarm(0);
    return done;
}

void Run() {
    std::vector<Bytes> corpus;
    if (!options.corpus.empty()) {
        corpus = ReadDirectory(options.corpus);
    }
    std::vector<Bytes> files(options.files.size());
    std::ranges::transform(options.files, files.begin(), ReadFile);
    RunAll("file", files);
    RunAll("corpus file", corpus);
    if (corpus.empty() && (options.runs != 0 || options.seconds != 0)) {
        std::cerr << "nothing to mutate: --corpus names a directory of inputs\n";
        std::exit(2);
    }
    const std::clock_t begin = std::clock();
    const uint64_t mutations = RunMutations(corpus);
    const double seconds = static_cast<double>(std::clock() - begin) / CLOCKS_PER_SEC;
    std::cout << files.size() + corpus.size() << " files and " << mutations << " mutations ran, "
              << static_cast<uint64_t>(static_cast<double>(mutations) / std::max(seconds, 1e-6))
              << " mutations in a second of processor time\n";
}

}  // namespace

int main(int argc, char **argv) {
    std::signal(SIGABRT, SayWhichDies);
    std::signal(SIGALRM, SayWhichHangs);
    if (__sanitizer_set_death_callback != nullptr) {
        __sanitizer_set_death_callback(SayWhichRun);
    } else {
        std::signal(SIGSEGV, SayWhichDies);
    }
    CLI::App app{"Runs a corpus, mutations of it, and files."};
    app.add_option("--runs", options.runs, "Mutations to run");
    app.add_option("--seconds", options.seconds, "Run mutations for this time instead");
    app.add_option("--first", options.first, "Number of the first one");
    app.add_option("--seed", options.seed, "What the mutations depend on");
    app.add_option("--corpus", options.corpus, "Directory of inputs to run and mutate")
        ->check(CLI::ExistingDirectory);
    app.add_option("--failing", options.failing, "File to write an input that fails to");
    app.add_option("files", options.files, "Inputs to run")->check(CLI::ExistingFile);
    CLI11_PARSE(app, argc, argv);
    Run();
    return 0;
}
