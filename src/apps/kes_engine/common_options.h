// What the command lines of all programs that run a module have in common.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "frame_rules.h"

namespace kes_engine {

// Of the report on standard output.
enum class ReportForm { kText, kJson, kHtml };

struct CommonOptions {
    std::string module;
    std::vector<std::pair<std::string, uint32_t>> capabilities;
    std::vector<std::pair<uint32_t, uint32_t>> interfaceMap;  // forwarding index, control index
    std::vector<std::string> commandFiles;                    // run before any packet
    std::vector<std::string> laterCommandFiles;               // and after the last
    std::string controlPath;                                  // of the control socket; empty: none
    std::optional<gid_t> controlGroup;                        // whose members may use it
    std::string statePath;     // of the file that keeps the module's state; empty: none
    std::string metricsPlace;  // to serve metrics at; empty: none
    uint32_t vrf = 0;
    FrameRules frameRules;
    bool diagnose = false;
    std::string outDirectory;  // empty: none
    std::string logFile;       // empty: standard error
    bool decode = false;       // the lines of the log
    ReportForm report = ReportForm::kText;
};

class CommonCommandLine {
  public:
    // Adds the options to a command line, whose traffic has a name ("the replay"), and of whose
    // control socket there is more to say.
    CommonCommandLine(CLI::App &app, CommonOptions &options, const std::string &traffic,
                      const std::string &ofSocket);

    // An option that is repeated takes one value each time.
    CLI::Option *Repeated(const char *name, std::vector<std::string> &values,
                          const std::string &help);

    // Parses the command line. False after --help and --version, which it has answered on standard
    // output. Throws UsageError.
    bool Parse(int argc, const char *const *argv);

    // Reads the values that are not plain texts, once the command line is parsed. Throws UsageError
    // and control::InputError.
    void ReadValues();

  private:
    CLI::App &app_;
    CommonOptions &options_;
    std::vector<std::string> capabilities_;
    std::vector<std::string> interfaces_;
    std::vector<std::string> causeRules_;
    std::string group_;
    std::string vrf_ = "0";
    std::string report_ = "text";
};

// The two sides of "LEFT=RIGHT". Throws UsageError, which names the option.
std::pair<std::string, std::string> Sides(const std::string &option, const std::string &text);

}  // namespace kes_engine
