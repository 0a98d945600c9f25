// The module as an engine has it: loaded from its library, started and stopped through its record,
// and looked into through what it exports.
#pragma once

#include <chrono>
#include <set>
#include <string>
#include <thread>

#include "kes/module.h"
#include "lb/dist_table.h"
#include "mund/call.h"
#include "report.h"
#include "standin/module_loader.h"
#include "standin/runtime.h"
#include "verify/verify_records.h"

namespace stress {

class LoadedModule {
  public:
    void Load() {
        if (const std::string error = module_.Load(LYR_HOST_LIBRARY); !error.empty()) {
            Fail("%s", error.c_str());
        }
        record_ = Object<TovModRegRecord>("mod_kes_lyrhost");
    }
    // Fails the run if the module leaves something behind.
    void Unload() {
        for (const std::string &left : module_.Unload()) {
            Fail("left behind: %s", left.c_str());
        }
    }
    const standin::Module &Get() const {
        return module_;
    }
    // Neither waits for threads that have ended: a start may come at any time after a stop.
    bool Start() {
        return record_->init() == 0;
    }
    void Stop() {
        Require(record_->exit() == 0, "the exit entry succeeds");
    }

    // After a stop or a failed start: nothing is held but the verify records, and of these what is
    // listed.
    void ExpectNothingHeld() const {
        for (const std::string &held : standin::ModuleMemoryByTag(module_.Id())) {
            if (!held.starts_with(kVerifyTag)) {
                Fail("still allocated: %s", held.c_str());
            }
        }
        if (BlocksOf(kVerifyTag) != VerifyRecords()) {
            Fail("%u verify records are allocated, %u are listed", BlocksOf(kVerifyTag),
                 VerifyRecords());
        }
        // An operation's reply is freed after the operation, for which a strict engine's removal of
        // the service does not wait.
        for (int tries = 0; MundMessagesInUse() != 0 && tries < 10'000; ++tries) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        const standin::Holdings held = standin::CurrentHoldings();
        if (held != standin::Holdings{} || MundMessagesInUse() != 0) {
            Fail("still there: %zu queues, %zu timers, %zu hooks, %zu IM messages, %u messages",
                 held.queues, held.timers, held.hooks, held.imMessages, MundMessagesInUse());
        }
        ExpectLockersFree();
    }

    // With nobody at work, and the audits at rest: the lockers are free, the chains whole, every
    // key is there once and in its bucket, and each entry is accounted for. Counts the entries, and
    // the tunnels with a port at either end.
    struct Entries {
        uint32_t ipv4WithPort = 0, ipv6WithPort = 0, all = 0;
    };
    Entries ExpectSoundTables(uint16_t port) const {
        ExpectLockersFree();
        Entries entries;
        Walk<LyrKesDistIpv4Entry>("Ipv4", "LyrKes_DistAddIPv4Tunnel", entries, [&](auto &key) {
            entries.ipv4WithPort += key.srcPort == port || key.dstPort == port;
        });
        Walk<LyrKesDistIpv6Entry>("Ipv6", "LyrKes_DistAddIPv6Tunnel", entries, [&](auto &key) {
            entries.ipv6WithPort += key.srcPort == port || key.dstPort == port;
        });
        Walk<LyrKesDistKaEntry>("Ka", "LyrKes_DistAddKaTunnel", entries, [](auto &) {});
        return entries;
    }

    uint32_t LastInstance() const {
        return *Object<uint32_t>("g_lyrHostsvcNum");
    }
    uint32_t VerifyRecords() const {
        const auto count = Object<decltype(LyrKes_VerifyRcdGetCnt)>("LyrKes_VerifyRcdGetCnt");
        return count(LYR_VERIFY_LB_TUNNELS) + count(LYR_VERIFY_RESERVED);
    }
    // The locker words of the IPv4, IPv6 and keepalive table.
    std::string Lockers() const {
        std::string text;
        for (const std::string table : {"Ipv4", "Ipv6", "Ka"}) {
            const auto *word = Object<uint32_t>("g_LyrKes_Dist" + table + "RwLocker");
            char hex[12];
            std::snprintf(hex, sizeof(hex), " %08" PRIX32, __atomic_load_n(word, __ATOMIC_RELAXED));
            text += hex;
        }
        return text;
    }

  private:
    static constexpr const char *kVerifyTag = "LyrKes_VerifyRcdNodeAdd";

    template <class Type>
    Type *Object(const std::string &name) const {
        auto *object = reinterpret_cast<Type *>(module_.Symbol(name.c_str()));
        if (object == nullptr) {
            Fail("the module exports no %s", name.c_str());
        }
        return object;
    }
    uint32_t BlocksOf(const char *tag) const {
        size_t blocks = 0;
        for (const standin::MemoryOfPlace &place : standin::ModuleMemoryByPlace(module_.Id())) {
            blocks += place.tag == tag ? place.use.blocks : 0;
        }
        return static_cast<uint32_t>(blocks);
    }
    void ExpectLockersFree() const {
        if (Lockers() != " 00000000 00000000 00000000") {
            Fail("nobody is there, and the lockers are at%s", Lockers().c_str());
        }
    }
    template <class Entry, class Visit>
    void Walk(const std::string &table, const char *tag, Entries &entries, Visit visit) const {
        LyrKesDistBucket *buckets = *Object<LyrKesDistBucket *>("g_LyrKes_Dist" + table + "Tbl");
        const uint32_t cap = *Object<uint32_t>("g_LyrKes_Dist" + table + "Cap");
        const auto indexOf =
            Object<uint32_t(const void *, uint32_t)>("LyrKes_Dist" + table + "_GetHashIndex");
        Require(buckets != nullptr, "a started module has its tables");
        std::set<std::string> keys;
        for (uint32_t index = 0; index < cap; ++index) {
            for (auto *link = buckets[index].next; link != &buckets[index]; link = link->next) {
                const auto &entry = *static_cast<const Entry *>(link);
                Require(link->next->prev == link && link->prev->next == link, "links point back");
                Require(indexOf(&entry.key, sizeof(entry.key)) == index,
                        "keys are in their bucket");
                Require(entry.nodeId <= LastInstance(), "owners are instances");
                const std::string key(reinterpret_cast<const char *>(&entry.key),
                                      sizeof(entry.key));
                Require(keys.insert(key).second, "keys are unique");
                visit(entry.key);
            }
        }
        Require(keys.size() == BlocksOf(tag), "each entry that is allocated is in its table");
        entries.all += static_cast<uint32_t>(keys.size());
    }

    standin::Module module_;
    TovModRegRecord *record_ = nullptr;
};

}  // namespace stress
