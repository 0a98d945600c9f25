// Everything that is counted, at one moment.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "control/engine_view.h"
#include "mund/module_objects.h"

namespace control {

// What becomes of packets: X(name, words). A name is the key in the engine's state.
#define CONTROL_FATES(X)          \
    X(taken, "taken")             \
    X(undelivered, "undelivered") \
    X(returned, "returned")       \
    X(transmitted, "transmitted")

struct TableFill {
    std::string name;
    uint64_t entries;
    uint32_t buckets;
};

struct InstancePackets {
    uint32_t instance;
    uint64_t cwp;
    uint64_t wapi;

    uint64_t Total() const {
        return cwp + wapi;
    }
};

// Of an engine that has ports.
struct PortReading {
    std::string name;
    std::string role;  // with the instance's number, if it is one's
    uint64_t received;
    uint64_t sent;
    uint64_t dropped;  // for whatever reason
    uint64_t waiting;
    uint64_t room;  // for those that wait; 0 where none do
};

struct Reading {
    std::chrono::steady_clock::time_point when;
    nlohmann::ordered_json state;  // the engine's
    uint64_t received;
#define FATE(name, words) uint64_t name;
    CONTROL_FATES(FATE)
#undef FATE
    std::vector<InstancePackets> instances;
    std::array<LyrKesPktStat, LYR_KES_PKT_STAT_ROW_NUM> classes;
    MundDropWatch drops;
    std::vector<TableFill> tables;  // none of a module that the engine cannot ask
    std::vector<PortReading> ports;
};

// Throws what the engine throws, and Refused for what is not understood.
Reading TakeReading(EngineView &engine);

}  // namespace control
