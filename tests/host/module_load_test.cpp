// The module as an engine meets it: a shared library found by path, not linked to.
#include <dlfcn.h>
#include <gmock/gmock.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <thread>

#include "apps/program.h"
#include "mund/call.h"
#include "mund/messages.h"
#include "standin/exported_objects.h"
#include "standin/module_loader.h"
#include "standin/packet_path.h"
#include "standin/runtime.h"

namespace {

using ::testing::IsEmpty;

constexpr const char *kLibrary = LYR_HOST_LIBRARY;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::set<std::string> Names(const std::string &text) {
    std::istringstream words(text);
    return {std::istream_iterator<std::string>(words), {}};
}

// Everything that the module is to show.
std::set<std::string> ExpectedNames() {
    return Names(programs::ReadText(TEST_DATA "/exported_names"));
}

TEST(ModuleLibrary, ShowsItsInterfaceAndNothingElse) {
    const std::string output =
        programs::Directory()
            .Shell("nm -D --defined-only --format=just-symbols " LYR_HOST_LIBRARY)
            .out;
    if (output.empty()) {
        GTEST_SKIP() << "nm is not there";
    }
    const std::set<std::string> shown = Names(output);
    const std::set<std::string> expected = ExpectedNames();
    std::vector<std::string> missing, unexpected;
    std::ranges::set_difference(expected, shown, std::back_inserter(missing));
    std::ranges::set_difference(shown, expected, std::back_inserter(unexpected));
    EXPECT_THAT(missing, IsEmpty());
    EXPECT_THAT(unexpected, IsEmpty());
}

TEST(ModuleLibrary, NeedsTheEngineAndTheLanguageOnly) {
    const std::string output = programs::Directory().Shell("readelf -d " LYR_HOST_LIBRARY).out;
    if (output.empty()) {
        GTEST_SKIP() << "readelf is not there";
    }
    const std::set<std::string> allowed = {
        "libkes_host.so.1", "libmund_ser_lyrhost.so.1", "libc.so.6",           "libm.so.6",
        "libgcc_s.so.1",    "libstdc++.so.6",           "ld-linux-x86-64.so.2"};
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        if (line.find("(NEEDED)") == std::string::npos) {
            continue;
        }
        const size_t from = line.find('[') + 1;
        const std::string name = line.substr(from, line.find(']') - from);
        const bool runtime = kSanitized && name.find("san.so") != std::string::npos;
        EXPECT_TRUE(allowed.contains(name) || runtime) << name;
    }
    EXPECT_NE(output.find("[libkes_host.so.1]"), std::string::npos);
    EXPECT_NE(output.find("[libmund_ser_lyrhost.so.1]"), std::string::npos);
}

bool Mapped() {
    void *library = dlopen(kLibrary, RTLD_NOW | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}

MundStatus AddSession(uint32_t *result) {
    const LyrKesKaTunnelReq request = {LYR_KES_OPERATION_ADD, {1, 2, 3, 4}, 5};
    uint32_t replySize = 0;
    return MundCall(MUND_OP_KaTunnel, &request, sizeof(request), nullptr, 0, &replySize, result);
}

TEST(ModuleLibrary, ValuesBeforeTheFirstStart) {
    standin::Module module;
    ASSERT_EQ(module.Load(kLibrary), "");
    const std::map<std::string, std::vector<uint32_t>> set = {
        {"g_lyrHostsvcNum", {27}},
        {"g_LyrKes_DistIpv4Cap", {8999}},
        {"g_LyrKes_DistIpv6Cap", {8999}},
        {"g_LyrKes_DistKaCap", {8999}},
        {"g_lyrKesMsgDropStat", {0, 0, 0, 0, 0, 0xFFFFFFFF, 0}},
        {"g_lyrKesMsgDropStatTimer", {0xFFFFFFFF}},
        {"mod_kes_lyrhost_id", {module.Id()}},
    };
    size_t objects = 0;
    for (const std::string &name : ExpectedNames()) {
        const standin::ObjectBytes object = standin::ReadObject(module, name);
        if (!object.error.empty() || name == "mod_kes_lyrhost") {
            continue;  // a function; the record
        }
        std::vector<uint8_t> expected(object.bytes.size());
        if (const auto found = set.find(name); found != set.end()) {
            ASSERT_EQ(found->second.size() * sizeof(uint32_t), expected.size()) << name;
            std::memcpy(expected.data(), found->second.data(), expected.size());
        }
        EXPECT_EQ(object.bytes, expected) << name;
        ++objects;
    }
    EXPECT_EQ(objects, 33u);
    EXPECT_THAT(module.Unload(), IsEmpty()) << "never started";
}

TEST(ModuleLibrary, LoadsStartsAndLeavesAgain) {
    standin::SetStrict(true);
    for (int round = 1; round <= 2; ++round) {
        standin::Module module;
        ASSERT_EQ(module.Load(kLibrary), "") << "round " << round;
        const auto *id = static_cast<const uint32_t *>(module.Symbol("mod_kes_lyrhost_id"));
        EXPECT_EQ(*id, module.Id());
        std::thread([&] {
            const auto *own =
                static_cast<const uint32_t *>(module.Symbol("per_lcore_mod_kes_lyrhost_usrid"));
            EXPECT_EQ(*own, 0u);
            module.EnterLcore();
            EXPECT_EQ(*own, module.Id());
            module.LeaveLcore();
            EXPECT_EQ(*own, 0u);
        }).join();

        uint32_t result = 9;
        EXPECT_EQ(AddSession(&result), MUND_STATUS_NO_SERVICE);
        ASSERT_EQ(module.Start(), "");
        EXPECT_EQ(AddSession(&result), MUND_STATUS_OK);
        EXPECT_EQ(result, 0u);
        EXPECT_THAT(module.Unload(), IsEmpty());
        EXPECT_FALSE(Mapped()) << "round " << round;
        EXPECT_EQ(g_pluginModRegHead, nullptr);
        EXPECT_EQ(standin::WlanIdReader(), nullptr);
        EXPECT_EQ(AddSession(&result), MUND_STATUS_NO_SERVICE);
    }
}

}  // namespace
