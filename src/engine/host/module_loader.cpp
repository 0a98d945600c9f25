#include "standin/module_loader.h"

#include <dlfcn.h>

#include <atomic>
#include <utility>

#include "host/hooks.h"
#include "host/im_agent.h"
#include "host/memory.h"
#include "host/queues.h"
#include "host/timers.h"

TovModRegRecord *g_pluginModRegHead = nullptr;

namespace standin {
namespace {

std::atomic<uint32_t> lastModuleId{0};

// The list's link that points to the record, or null.
TovModRegRecord **LinkTo(const TovModRegRecord *record) {
    for (TovModRegRecord **link = &g_pluginModRegHead; *link != nullptr; link = &(*link)->next) {
        if (*link == record) {
            return link;
        }
    }
    return nullptr;
}

// The record that the library answers, or null.
TovModRegRecord *RecordOf(void *library) {
    using Register = TovModRegRecord *(*)();
    const auto answer = reinterpret_cast<Register>(dlsym(library, "mod_plugin_register"));
    return answer == nullptr ? nullptr : answer();
}

std::string LoaderError() {
    const char *error = dlerror();  // NOLINT(concurrency-mt-unsafe): of each thread here
    return error == nullptr ? "unknown error" : error;
}

void Complain(std::string &complaints, const std::string &complaint) {
    complaints += (complaints.empty() ? "" : "; ") + complaint;
}

void ExpectValue(std::string &complaints, const char *name, uint32_t value, uint32_t expected) {
    if (value != expected) {
        Complain(complaints, std::string(name) + " is " + std::to_string(value) + " instead of " +
                                 std::to_string(expected));
    }
}

template <typename Pointer>
void ExpectSet(std::string &complaints, const char *name, Pointer pointer) {
    if (pointer == nullptr) {
        Complain(complaints, std::string(name) + " is null");
    }
}

void ReportExcess(std::vector<std::string> &texts, size_t now, size_t before, const char *what) {
    if (now > before) {
        texts.push_back(std::string(what) + ": " + std::to_string(now - before));
    }
}

}  // namespace

Holdings CurrentHoldings() {
    return {QueueCount(), TimerCount(), HookCount(), ImMessageCount()};
}

Module::~Module() {
    Unload();
}

std::string Module::Load(const std::string &path) {
    if (Loaded()) {
        return path + ": module " + std::to_string(Id()) + " is loaded already";
    }
    holdingsBefore_ = CurrentHoldings();
    TovModRegRecord *const headBefore = g_pluginModRegHead;
    library_ = dlopen(path.c_str(), RTLD_NOW | RTLD_GLOBAL);
    if (library_ == nullptr) {
        return LoaderError();
    }
    if (const std::string complaints = CheckRecord(); !complaints.empty()) {
        g_pluginModRegHead = headBefore;
        dlclose(std::exchange(library_, nullptr));
        return path + ": " + complaints;
    }
    record_ = RecordOf(library_);
    record_->moduleId = ++lastModuleId;
    exitStatus_ = 0;
    record_->ctr();
    return {};
}

std::string Module::CheckRecord() const {
    const TovModRegRecord *record = RecordOf(library_);
    if (record == nullptr) {
        return "mod_plugin_register is not exported, or answers null";
    }
    std::string complaints;
    if (LinkTo(record) == nullptr) {
        Complain(complaints, "the registration record is not in the engine's list");
    }
    if (record->moduleId != 0) {
        Complain(complaints, "loaded already as module " + std::to_string(record->moduleId));
    }
    ExpectValue(complaints, "kind", record->kind, TOV_MOD_KIND_PLUGIN);
    ExpectValue(complaints, "recordVersion", record->recordVersion, TOV_MOD_RECORD_VERSION);
    ExpectSet(complaints, "name", record->name);
    ExpectSet(complaints, "init", record->init);
    ExpectSet(complaints, "exit", record->exit);
    ExpectSet(complaints, "ctr", record->ctr);
    ExpectSet(complaints, "localCtr", record->localCtr);
    ExpectSet(complaints, "dtr", record->dtr);
    ExpectSet(complaints, "localDtr", record->localDtr);
    return complaints;
}

std::string Module::Start() {
    if (!Loaded() || Started()) {
        return Loaded() ? "module " + std::to_string(Id()) + " is started already"
                        : "no module is loaded";
    }
    if (const uint32_t status = record_->init(); status != 0) {
        return std::string(record_->name) + ": the initialisation entry returned " +
               std::to_string(status);
    }
    started_ = true;
    return {};
}

void Module::Stop() {
    if (!Started()) {
        return;
    }
    exitStatus_ = record_->exit();
    started_ = false;
    JoinCreatedThreads();
}

std::vector<std::string> Module::Unload() {
    if (!Loaded()) {
        return {};
    }
    Stop();
    JoinCreatedThreads();
    record_->dtr();
    std::vector<std::string> left = LeftBehind();
    const Holdings now = CurrentHoldings();
    const bool callable = now.hooks > holdingsBefore_.hooks || now.timers > holdingsBefore_.timers;
    CloseLibrary(!callable);
    ReturnUnusedMemory();
    return left;
}

std::vector<std::string> Module::LeftBehind() const {
    std::vector<std::string> texts;
    if (exitStatus_ != 0) {
        texts.push_back("the exit entry returned " + std::to_string(exitStatus_));
    }
    for (const std::string &use : ModuleMemoryByTag(Id())) {
        texts.push_back("memory: " + use);
    }
    const Holdings now = CurrentHoldings();
    ReportExcess(texts, now.queues, holdingsBefore_.queues, "queues");
    ReportExcess(texts, now.timers, holdingsBefore_.timers, "timers");
    ReportExcess(texts, now.hooks, holdingsBefore_.hooks, "hooks");
    ReportExcess(texts, now.imMessages, holdingsBefore_.imMessages, "IM messages");
    return texts;
}

void Module::CloseLibrary(bool unmap) {
    ForgetWlanIdReaderOf(record_);
    if (TovModRegRecord **link = LinkTo(record_); link != nullptr) {
        *link = record_->next;
    }
    record_->moduleId = 0;
    record_ = nullptr;
    if (unmap) {
        dlclose(library_);
    }
    library_ = nullptr;
}

void Module::EnterLcore() const {
    if (Loaded()) {
        record_->localCtr();
    }
}

void Module::LeaveLcore() const {
    if (Loaded()) {
        record_->localDtr();
    }
}

void *Module::Symbol(const char *name) const {
    return library_ == nullptr ? nullptr : dlsym(library_, name);
}

uint32_t Module::Id() const {
    return Loaded() ? record_->moduleId : 0;
}

}  // namespace standin
