// A module's life in the engine, from its library to what it leaves behind.
#include "standin/module_loader.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "kes/hook.h"
#include "kes/thread.h"
#include "standin/packet_path.h"
#include "standin/runtime.h"

namespace standin {
namespace {

using Texts = std::vector<std::string>;

template <typename T>
T &Object(const Module &module, const char *name) {
    return *static_cast<T *>(module.Symbol(name));
}

const char *Calls(const Module &module) {
    return static_cast<const char *>(module.Symbol("g_sampleCalls"));
}

class ModuleLoader : public testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(g_pluginModRegHead, nullptr);
        EXPECT_EQ(WlanIdReader(), nullptr);
    }
};

TEST_F(ModuleLoader, RunsAModulesLifeInOrder) {
    for (int round = 0; round < 2; ++round) {
        Module module;
        ASSERT_EQ(module.Load(SAMPLE_MODULE), "");
        EXPECT_NE(module.Id(), 0u);
        EXPECT_EQ(g_pluginModRegHead->moduleId, module.Id());
        module.EnterLcore();
        EXPECT_EQ(module.Start(), "");
        EXPECT_TRUE(module.Started());
        EXPECT_NE(module.Start(), "") << "it is started already";
        EXPECT_EQ(ModuleMemory(module.Id()).bytes, 48u);
        EXPECT_EQ(RunHooks(HOST_HOOK_HOST_RX, nullptr), HOST_HOOK_TAKEN);
        EXPECT_NE(WlanIdReader(), nullptr);
        module.Stop();
        EXPECT_FALSE(module.Started());
        EXPECT_EQ(Object<uint32_t>(module, "g_sampleThreadRan"), 8u) << "threads are joined";
        EXPECT_EQ(RunHooks(HOST_HOOK_HOST_RX, nullptr), HOST_HOOK_CONTINUE);
        module.LeaveLcore();
        EXPECT_STREQ(Calls(module), "clieL");
        EXPECT_EQ(module.Unload(), Texts{});
        EXPECT_FALSE(module.Loaded());
        EXPECT_EQ(module.Symbol("g_sampleCalls"), nullptr);
        EXPECT_EQ(module.Unload(), Texts{});
    }
    EXPECT_EQ(dlopen(SAMPLE_MODULE, RTLD_NOW | RTLD_NOLOAD), nullptr) << "it is still mapped";
}

TEST_F(ModuleLoader, LoadsOnceAndStopsWhatItUnloads) {
    Module first;
    ASSERT_EQ(first.Load(SAMPLE_MODULE), "");
    const uint32_t firstId = first.Id();
    EXPECT_NE(first.Load(SAMPLE_MODULE), "");
    Module again;
    EXPECT_NE(again.Load(SAMPLE_MODULE).find("loaded already as module"), std::string::npos);
    EXPECT_FALSE(again.Loaded());
    EXPECT_EQ(first.Id(), firstId);
    EXPECT_EQ(first.Start(), "");
    Object<uint32_t>(first, "g_sampleExitStatus") = 5;
    EXPECT_EQ(first.Unload(), Texts{"the exit entry returned 5"});
    {
        Module second;
        ASSERT_EQ(second.Load(SAMPLE_MODULE), "");
        EXPECT_GT(second.Id(), firstId);
        EXPECT_EQ(second.Start(), "");
    }
    EXPECT_EQ(CurrentHoldings(), Holdings{});
}

TEST_F(ModuleLoader, ReportsAFailedStartAndStopsNothing) {
    Module module;
    EXPECT_NE(module.Start(), "") << "nothing is loaded";
    ASSERT_EQ(module.Load(SAMPLE_MODULE), "");
    Object<uint32_t>(module, "g_sampleInitStatus") = 17;
    EXPECT_EQ(module.Start(), "sample: the initialisation entry returned 17");
    EXPECT_FALSE(module.Started());
    module.Stop();
    EXPECT_STREQ(Calls(module), "ci");
    EXPECT_EQ(module.Unload(), Texts{});
}

TEST_F(ModuleLoader, NamesWhatAModuleLeavesBehind) {
    Module module;
    ASSERT_EQ(module.Load(SAMPLE_MODULE), "");
    const uint32_t id = module.Id();
    Object<uint32_t>(module, "g_sampleLeaves") = 1;
    const auto calls = Calls(module);
    ASSERT_EQ(module.Start(), "");
    const TovModRegRecord *record = g_pluginModRegHead;
    EXPECT_EQ(module.Unload(), (Texts{"memory: Init:7 1 48", "queues: 1", "timers: 1", "hooks: 1",
                                      "IM messages: 1"}));
    EXPECT_EQ(ModuleMemory(id).blocks, 1u);
    // The library stays, because its hook and timer can still be called.
    EXPECT_EQ(RunHooks(HOST_HOOK_HOST_RX, nullptr), HOST_HOOK_TAKEN);
    EXPECT_STREQ(calls, "cieD");

    // Its own exit releases the rest, so that the process ends clean.
    void *library = dlopen(SAMPLE_MODULE, RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(library, nullptr);
    *static_cast<uint32_t *>(dlsym(library, "g_sampleLeaves")) = 0;
    std::thread([record] {
        TOV_ThreadInfoRegByName("thd/sample");
        record->exit();
    }).join();
    dlclose(library);
    dlclose(library);
    EXPECT_EQ(CurrentHoldings(), Holdings{});
}

TEST_F(ModuleLoader, NamesEverythingWrongWithALibrary) {
    struct {
        const char *path;
        Texts complaints;
    } const cases[] = {
        {"/nonexistent/module.so", {"/nonexistent/module.so"}},
        {SAMPLE_MODULE_SILENT, {SAMPLE_MODULE_SILENT, "mod_plugin_register"}},
        {SAMPLE_MODULE_UNLINKED, {SAMPLE_MODULE_UNLINKED, "not in the engine's list"}},
        {SAMPLE_MODULE_BROKEN,
         {SAMPLE_MODULE_BROKEN, "kind is 3 instead of 2", "recordVersion is 0 instead of 720",
          "name is null", "init is null", "exit is null", "; ctr is null", "localCtr is null",
          "; dtr is null", "localDtr is null"}},
    };
    for (const auto &[path, complaints] : cases) {
        Module module;
        const std::string error = module.Load(path);
        for (const std::string &complaint : complaints) {
            EXPECT_NE(error.find(complaint), std::string::npos) << complaint << " in " << error;
        }
        EXPECT_FALSE(module.Loaded());
        EXPECT_EQ(g_pluginModRegHead, nullptr);
    }
}

}  // namespace
}  // namespace standin
