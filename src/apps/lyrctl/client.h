// What a command works with: the engine, and the form of its answer.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "control/caller.h"
#include "control/connection.h"

namespace lyrctl {

using nlohmann::ordered_json;

enum ExitStatus { kOk = 0, kRefused = 1, kUsage = 2, kNoEngine = 3 };

// A complaint to standard error, printable.
void Complain(const std::string &what);

// The engine is asked for where there is to be none.
struct NobodyToAsk {};

class Client {
  public:
    Client(std::string path, bool json) : path_(std::move(path)), json_(json) {}
    // One that has nobody to ask.
    Client() : asks_(false) {}

    // The connection, opened when it is first asked for: what is wrong with a command is told
    // before that. Throws control::NoEngine, and NobodyToAsk where there is nobody.
    control::Connection &Engine();
    // Closes it; the engine keeps no idle connection for ever.
    void HangUp() {
        engine_.reset();
        lastInstance_.reset();
    }
    // The engine's last service instance; nothing where it does not tell. Asked for once.
    std::optional<uint32_t> LastInstance();
    // The engine as control::Execute calls it.
    control::Caller Caller();

    const std::string &Path() const {
        return path_;
    }
    // Whether answers are for programs.
    bool Json() const {
        return json_;
    }

  private:
    std::string path_;
    bool asks_ = true;
    bool json_ = false;
    std::unique_ptr<control::Connection> engine_;
    std::optional<std::optional<uint32_t>> lastInstance_;
};

}  // namespace lyrctl
