#include "common_options.h"

#include <grp.h>
#include <sys/auxv.h>

#include <algorithm>
#include <filesystem>
#include <variant>

#include "control/input_error.h"
#include "control/values.h"
#include "failure.h"
#include "mund/server.h"
#include "standin/runtime.h"

namespace kes_engine {
namespace {

constexpr const char *kModuleFile = "liblyr_host.so";

// The module of an installed or a built program, or wherever the loader finds it.
std::string DefaultModule() {
    std::error_code error;
    // As it was started: a confined one may have no /proc.
    // The kernel gives it as a number.
    // NOLINTNEXTLINE(performance-no-int-to-ptr)
    const auto *name = reinterpret_cast<const char *>(getauxval(AT_EXECFN));
    const std::filesystem::path self = std::filesystem::canonical(name, error);
    for (const char *directory : {LYR_MODULE_DIR, "../lib"}) {
        const std::filesystem::path module =
            (self.parent_path() / directory / kModuleFile).lexically_normal();
        if (std::filesystem::exists(module, error)) {
            return module.string();
        }
    }
    return kModuleFile;
}

void ReadCapability(CommonOptions &options, const std::string &text) {
    const auto [name, value] = Sides("--capability", text);
    std::string known;
    for (const std::string_view candidate : standin::KnownCapabilities()) {
        if (candidate == name) {
            options.capabilities.emplace_back(name,
                                              control::ParseNumber("--capability " + name, value));
            return;
        }
        known += (known.empty() ? "" : ", ") + std::string(candidate);
    }
    throw UsageError("--capability: unknown capability '" + name + "'; there are: " + known);
}

void ReadInterface(CommonOptions &options, const std::string &text) {
    const auto [forwarding, control] = Sides("--if-map", text);
    options.interfaceMap.emplace_back(control::ParseNumber("--if-map FWD", forwarding),
                                      control::ParseNumber("--if-map CTRL", control));
}

gid_t GroupOf(const std::string &name) {
    group entry = {};
    group *found = nullptr;
    std::vector<char> texts(size_t{64} * 1024);
    getgrnam_r(name.c_str(), &entry, texts.data(), texts.size(), &found);
    if (found == nullptr) {
        throw UsageError("--control-group '" + name + "': there is no such group");
    }
    return found->gr_gid;
}

std::variant<LyrKesRpcIpAddr, Mac> ReadSource(const std::string &option, const std::string &text) {
    try {
        return control::ParseMac(option, text);
    } catch (const control::InputError &) {
    }
    try {
        return control::ParseAddress(option, text);
    } catch (const control::InputError &) {
        throw UsageError(option + " '" + text + "' is not an IPv4, IPv6 or MAC address");
    }
}

void ReadCauseRule(CommonOptions &options, const std::string &text) {
    const auto [source, id] = Sides("--cause-id", text);
    options.frameRules.causes.push_back(
        {ReadSource("--cause-id SOURCE", source),
         static_cast<uint16_t>(control::ParseNumber("--cause-id ID", id, UINT16_MAX))});
}

}  // namespace

std::pair<std::string, std::string> Sides(const std::string &option, const std::string &text) {
    const size_t sign = text.find('=');
    if (sign == std::string::npos) {
        throw UsageError(option + " '" + text + "' has no '='");
    }
    return {text.substr(0, sign), text.substr(sign + 1)};
}

CommonCommandLine::CommonCommandLine(CLI::App &app, CommonOptions &options,
                                     const std::string &traffic, const std::string &ofSocket)
    : app_(app), options_(options) {
    app.set_config("--config", "",
                   "read options from a file, as 'rx-port = 7'; the command line comes first")
        ->type_name("FILE");
    app.allow_config_extras(CLI::config_extras_mode::error);
    app.add_option("--module", options.module, "the module's shared library")
        ->type_name("PATH")
        ->default_str("the one built or installed with this program");
    Repeated("--capability", capabilities_, "configure a capability (repeatable)")
        ->type_name("NAME=VALUE");
    Repeated("--exec", options.commandFiles,
             "run control commands before " + traffic + " (repeatable)")
        ->type_name("FILE");
    Repeated("--exec-after", options.laterCommandFiles,
             "run control commands after " + traffic + " (repeatable)")
        ->type_name("FILE");
    app.add_option("--control", options.controlPath, "serve clients on this socket" + ofSocket)
        ->type_name("PATH")
        ->check([](const std::string &path) {
            return path.empty() ? "the path of the control socket is empty" : "";
        })
        ->default_str(mund::DefaultSocketPath());
    app.add_option("--control-group", group_, "let the members of a group use it, too, and root")
        ->type_name("GROUP");
    app.add_option("--state", options.statePath,
                   "load the module's state from a file, and keep it there from then on")
        ->type_name("FILE")
        ->check([](const std::string &path) {
            return path.empty() ? "the path of the state is empty" : "";
        });
    app.add_option("--metrics", options.metricsPlace,
                   "serve metrics for Prometheus over HTTP; on loopback without an address")
        ->type_name("[ADDRESS:]PORT");
    app.add_option("--vrf", vrf_, "VRF in which the frames arrive")
        ->type_name("N")
        ->capture_default_str();
    Repeated("--if-map", interfaces_, "map a forwarding-plane interface (repeatable)")
        ->type_name("FWD=CTRL");
    Repeated("--cause-id", causeRules_, "give received frames a cause id (repeatable)")
        ->type_name("SOURCE=ID");
    app.add_flag("--diag", options.diagnose, "mark every packet for the diagnostic print");
    app.add_option("--out", options.outDirectory, "keep packets as captures in a directory")
        ->type_name("DIR");
    app.add_option("--report", report_, "form of the report on standard output")
        ->type_name("text|json|html")
        ->check(CLI::IsMember({"text", "json", "html"}).description(""))
        ->capture_default_str();
    app.add_option("--log", options.logFile, "append log, trace, print and alarm lines to a file")
        ->type_name("FILE")
        ->default_str("standard error");
    app.add_flag("--decode", options.decode,
                 "write addresses, message types and times of the log's lines in words, and each "
                 "line as it came behind that");
}

CLI::Option *CommonCommandLine::Repeated(const char *name, std::vector<std::string> &values,
                                         const std::string &help) {
    return app_.add_option(name, values, help)->allow_extra_args(false);
}

bool CommonCommandLine::Parse(int argc, const char *const *argv) {
    try {
        app_.parse(argc, argv);
        return true;
    } catch (const CLI::Success &answer) {
        app_.exit(answer);
        return false;
    } catch (const CLI::ParseError &error) {
        throw UsageError(std::string(error.what()) + " (--help lists the options)");
    }
}

void CommonCommandLine::ReadValues() {
    for (const std::string &text : capabilities_) {
        ReadCapability(options_, text);
    }
    for (const std::string &text : interfaces_) {
        ReadInterface(options_, text);
    }
    for (const std::string &text : causeRules_) {
        ReadCauseRule(options_, text);
    }
    if (!group_.empty()) {
        options_.controlGroup = GroupOf(group_);
    }
    options_.vrf = control::ParseNumber("--vrf", vrf_);
    options_.report = report_ == "json"   ? ReportForm::kJson
                      : report_ == "html" ? ReportForm::kHtml
                                          : ReportForm::kText;
    if (options_.module.empty()) {
        options_.module = DefaultModule();
    }
}

}  // namespace kes_engine
