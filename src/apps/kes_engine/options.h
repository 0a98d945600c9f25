// The command line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "frame_rules.h"

namespace kes_engine {

inline constexpr uint32_t kMaxWorkers = 64;

struct Options {
    std::string module;
    std::vector<std::pair<std::string, uint32_t>> capabilities;
    std::vector<std::pair<uint32_t, uint32_t>> interfaceMap;  // forwarding index, control index
    std::vector<std::string> commandFiles;                    // run before the replay
    std::vector<std::string> laterCommandFiles;               // and after it
    std::string capture;                                      // empty: none
    uint32_t loops = 1;                                       // replays of it; 0: until interrupted
    uint32_t rate = 0;        // frames a second; 0: as fast as possible
    std::string interface;    // to listen on; empty: none
    bool explain = false;     // the frames of the capture, instead of a replay
    bool stay = false;        // when the replay is over
    std::string controlPath;  // of the control socket; empty: none
    uint32_t workers = 1;
    uint32_t rxPort = 0;
    uint32_t vrf = 0;
    FrameRules frameRules;
    bool diagnose = false;
    std::string outDirectory;  // empty: none
    std::string logFile;       // empty: standard error
    bool jsonReport = false;

    // Where the frames come from, in words.
    std::string Source() const {
        if (capture.empty() && interface.empty()) {
            return "none";
        }
        const bool both = !capture.empty() && !interface.empty();
        return capture + (both ? ", " : "") + interface;
    }
    bool Serves() const {
        return !controlPath.empty();
    }
};

// Reads the command line. Nothing after --help and --version, which it has answered on standard
// output. Throws UsageError.
std::optional<Options> ParseOptions(int argc, char **argv);

}  // namespace kes_engine
