// What the tests of the programs share: directories of a test's own, and programs that run there.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace programs {

namespace fs = std::filesystem;

inline std::string ReadText(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

inline size_t Count(const std::string &text, const std::string &phrase) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(phrase, at)) != std::string::npos; ++at) {
        ++count;
    }
    return count;
}

// What a program wrote; its exit status, or the signal that ended it below zero.
struct Outcome {
    int status;
    std::string out;
    std::string err;
};

inline int ExitStatus(int waited) {
    return WIFEXITED(waited) ? WEXITSTATUS(waited) : -WTERMSIG(waited);
}

// A directory that goes with its owner.
class Directory {
  public:
    Directory() {
        EXPECT_NE(mkdtemp(path_.data()), nullptr);
    }
    ~Directory() {
        fs::remove_all(path_);
    }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    std::string Path(const std::string &name = "") const {
        return path_ + "/" + name;
    }
    std::string Read(const std::string &name) const {
        return ReadText(Path(name));
    }
    void Write(const std::string &name, const std::string &text) const {
        std::ofstream(Path(name), std::ios::binary) << text;
    }

    // Runs a command of the shell in the directory, to its end.
    Outcome Shell(const std::string &command) const {
        FILE *pipe = popen(("cd " + path_ + "; (" + command + ") 2>.stderr").c_str(), "r");
        std::string out;
        std::array<char, 4096> part;
        for (size_t size; (size = fread(part.data(), 1, part.size(), pipe)) > 0;) {
            out.append(part.data(), size);
        }
        const int status = ExitStatus(pclose(pipe));
        return {status, out, Read(".stderr")};
    }

  private:
    std::string path_ = testing::TempDir() + "programs.XXXXXX";
};

// A program that runs beside the test.
class Process {
  public:
    explicit Process(const std::string &command) : pid_(fork()) {
        if (pid_ == 0) {
            const std::string line =
                "exec " + command + " >" + streams_.Path("out") + " 2>" + streams_.Path("err");
            execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
            _exit(127);
        }
    }
    ~Process() {
        if (pid_ > 0) {
            Stop(SIGKILL);
        }
    }

    void Signal(int signal) const {
        kill(pid_, signal);
    }
    // Sends a signal (0: none) and waits for the end.
    Outcome Stop(int signal) {
        Signal(signal);
        int status = 0;
        waitpid(std::exchange(pid_, -1), &status, 0);
        return {ExitStatus(status), streams_.Read("out"), Errors()};
    }
    std::string Errors() const {
        return streams_.Read("err");
    }

  private:
    const Directory streams_;
    pid_t pid_;
};

// Whether something comes to hold within twenty seconds.
inline bool Becomes(const std::function<bool()> &holds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!holds()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

}  // namespace programs
