// The command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "capture/reader.h"
#include "common_options.h"
#include "live_reader.h"

namespace kes_engine {

inline constexpr uint32_t kMaxWorkers = 64;

struct Options : CommonOptions {
    std::string capture;                  // empty: none
    uint32_t loops = 1;                   // replays of it; 0: until interrupted
    uint32_t rate = 0;                    // frames a second; 0: as fast as possible
    double speed = 0;                     // times the capture's own times; 0: these are not kept
    capture::Selection selection;         // of frames, from wherever they come
    std::vector<std::string> interfaces;  // to listen on
    ListenOptions listening;
    bool explain = false;  // the frames of the capture, instead of a replay
    bool stay = false;     // when the replay is over
    uint32_t workers = 1;
    uint32_t rxPort = 0;

    // Where the frames come from, in words.
    std::string Source() const {
        std::string sources = capture;
        for (const std::string &interface : interfaces) {
            sources += (sources.empty() ? "" : ", ") + interface;
        }
        return sources.empty() ? "none" : sources;
    }
    bool Serves() const {
        return !controlPath.empty();
    }
};

// Reads the command line. Nothing after --help and --version, which it has answered on standard
// output. Throws UsageError.
std::optional<Options> ParseOptions(int argc, char **argv);

}  // namespace kes_engine
