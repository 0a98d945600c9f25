// The module's exported objects as the engine shows them: by name, whole, while they change.
#include "standin/exported_objects.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "kes/memory.h"
#include "standin/module_loader.h"

namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

TEST(LiveObjects, AreReadByName) {
    standin::Module module;
    ASSERT_EQ(module.Load(SAMPLE_MODULE), "");
    ASSERT_EQ(module.Start(), "");
    Bytes trace = standin::ReadObject(module, "g_sampleCalls").bytes;
    ASSERT_EQ(trace.size(), 32u);
    EXPECT_STREQ(reinterpret_cast<char *>(trace.data()), "ci");
    *static_cast<uint32_t *>(module.Symbol("g_lyrHostsvcNum")) = 0x42424242;
    EXPECT_EQ(standin::ReadObject(module, "g_lyrHostsvcNum").bytes, Bytes(4, 0x42));
    auto *slots = static_cast<void **>(module.Symbol("g_sampleMemory"));
    std::memset(slots[0], 0x42, 48);
    EXPECT_EQ(standin::ReadObject(module, "g_sampleMemory", 0).bytes, Bytes(48, 0x42));

    void *foreign = TovMemAllocInner(module.Id() + 1, 0, 8, 0, "foreign", 1);
    struct {
        const char *name;
        std::optional<uint32_t> slot;
        void *pointer;  // in slot 1
        const char *error;
    } const cases[] = {
        {"g_absent", {}, nullptr, "exports no object 'g_absent'"},
        {"", {}, nullptr, "exports no object ''"},
        {"mod_plugin_register", {}, nullptr, "'mod_plugin_register' is a function"},
        {"TovMemAllocInner", {}, nullptr, "'TovMemAllocInner' is not the module's own"},
        {"environ", {}, nullptr, "'environ' is not the module's own"},
        {"g_sampleMemory", 2, nullptr, "no pointer at slot 2: it has 16 bytes"},
        {"g_lyrHostsvcNum", 0, nullptr, "no pointer at slot 0: it has 4 bytes"},
        {"g_sampleMemory", 1, nullptr, "slot 1 of 'g_sampleMemory' holds 0x0, which is no block"},
        {"g_sampleMemory", 1, slots, "which is no block"},
        {"g_sampleMemory", 1, static_cast<char *>(slots[0]) + 1, "which is no block"},
        {"g_sampleMemory", 1, foreign, "which is no block"},
    };
    for (const auto &[name, slot, pointer, error] : cases) {
        slots[1] = pointer;
        const std::string text = standin::ReadObject(module, name, slot).error;
        EXPECT_NE(text.find(error), std::string::npos) << text;
    }
    TovMemFreeInner(foreign);
    EXPECT_TRUE(module.Unload().empty());
}

TEST(LiveObjects, AreCopiedWhileTheModuleReplacesThem) {
    standin::Module module;
    ASSERT_EQ(module.Load(SAMPLE_MODULE), "");
    auto *slot = static_cast<uint8_t **>(module.Symbol("g_sampleMemory"));
    std::atomic<bool> stop{false};
    std::thread replacing([&] {
        for (uint32_t size = 1; !stop; size = size % 100 + 1) {
            void *block = TovMemAllocInner(module.Id(), 0, size, 0, "block", 1);
            std::memset(block, static_cast<int>(size), size);
            __atomic_store_n(slot, static_cast<uint8_t *>(block), __ATOMIC_RELEASE);
            std::this_thread::yield();
            __atomic_store_n(slot, nullptr, __ATOMIC_RELEASE);
            TovMemFreeInner(block);
        }
    });
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    uint32_t read = 0;
    while (read < 1000 && std::chrono::steady_clock::now() < deadline) {
        const Bytes bytes = standin::ReadObject(module, "g_sampleMemory", 0).bytes;
        EXPECT_EQ(bytes, Bytes(bytes.size(), static_cast<uint8_t>(bytes.size())));
        read += bytes.empty() ? 0 : 1;
    }
    stop = true;
    replacing.join();
    EXPECT_EQ(read, 1000u);
}

}  // namespace
