// What a command works with: the engine, and the form of its answer.
#pragma once

#include <memory>
#include <nlohmann/json.hpp>
#include <string>

#include "control/caller.h"
#include "control/connection.h"

namespace lyrctl {

using nlohmann::ordered_json;

enum ExitStatus { kOk = 0, kRefused = 1, kUsage = 2, kNoEngine = 3 };

// One line to standard error.
void Complain(const std::string &what);

class Client {
  public:
    Client(std::string path, bool json) : path_(std::move(path)), json_(json) {}

    // The connection, opened when it is first asked for: what is wrong with a command is told
    // before that. Throws control::NoEngine.
    control::Connection &Engine();
    // Closes it; the engine keeps no idle connection for ever.
    void HangUp() {
        engine_.reset();
    }
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
    bool json_;
    std::unique_ptr<control::Connection> engine_;
};

}  // namespace lyrctl
