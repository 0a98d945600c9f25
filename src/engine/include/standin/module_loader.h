// Loading a module as an engine does: from the shared library to a started module, and back.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kes/module.h"
#include "standin/runtime.h"

#pragma GCC visibility push(default)
namespace standin {

class Module {
  public:
    Module() = default;
    ~Module();  // unloads
    Module(const Module &) = delete;
    Module &operator=(const Module &) = delete;

    // Loads the library, checks its registration record and runs its global constructor.
    // Returns an empty text, or what is wrong.
    std::string Load(const std::string &path);

    // Runs the initialisation entry. Returns an empty text, or what is wrong; then nothing has
    // to be stopped.
    std::string Start();

    // Runs the exit entry and joins the threads that the module created.
    void Stop();

    // Stops a started module, runs its global destructor and unloads the library. Returns what the
    // module left behind (memory, queues, timers, hooks, messages) and a failed exit, one text
    // each. A library whose hooks or timers are still there stays mapped, so that calling them is
    // safe.
    std::vector<std::string> Unload();

    // Runs the per-lcore constructor (destructor) on the calling forwarding thread.
    void EnterLcore() const;
    void LeaveLcore() const;

    // The address of an exported object or function, or null.
    void *Symbol(const char *name) const;

    bool Loaded() const {
        return record_ != nullptr;
    }
    bool Started() const {
        return started_;
    }
    uint32_t Id() const;

  private:
    std::string CheckRecord() const;
    std::vector<std::string> LeftBehind() const;
    void CloseLibrary(bool unmap);

    void *library_ = nullptr;
    TovModRegRecord *record_ = nullptr;
    bool started_ = false;
    uint32_t exitStatus_ = 0;
    Holdings holdingsBefore_;
};

}  // namespace standin
#pragma GCC visibility pop
