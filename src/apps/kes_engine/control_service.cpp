#include "control_service.h"

#include <cstring>
#include <map>
#include <nlohmann/json.hpp>
#include <string>

#include "control/json_line.h"
#include "engine.h"
#include "explanation.h"
#include "failure.h"
#include "line_log.h"

namespace kes_engine {
namespace {

using Json = nlohmann::ordered_json;

mund::WireReply TextReply(const Json &object) {
    const std::string text = control::JsonLine(object);
    return {.status = MUND_WIRE_OK, .payload = {text.begin(), text.end()}};
}

// The engine counts a module's memory by the place in its source that took it; here it is summed up
// by function.
Json MemoryToJson(const std::vector<standin::MemoryOfPlace> &memory) {
    std::map<std::string, standin::MemoryUse> byFunction;
    for (const auto &[function, line, held] : memory) {
        standin::MemoryUse &use = byFunction[function];
        use.blocks += held.blocks;
        use.bytes += held.bytes;
    }
    Json list = Json::array();
    for (const auto &[function, use] : byFunction) {
        list.push_back({{"tag", function}, {"blocks", use.blocks}, {"bytes", use.bytes}});
    }
    return list;
}

Json StateToJson(const State &state) {
    Json instances = Json::array();
    for (const InstanceCount &count : state.instances) {
        instances.push_back(
            {{"instance", count.instance}, {"cwp", count.cwp}, {"wapi", count.wapi}});
    }
    return {{"received", state.received},
            {"returned", state.fates.returned},
            {"taken", state.fates.taken},
            {"undelivered", state.fates.undelivered},
            {"transmitted", state.fates.transmitted},
            {"instances", std::move(instances)},
            {"workers", state.workers},
            {"capture", state.capture},
            {"memory", MemoryToJson(state.memory)}};
}

// The request is at least as long as its fixed part.
mund::WireReply Explain(const Explainer &explainer, std::span<const uint8_t> request) {
    MundWireExplainReq arrival;
    std::memcpy(&arrival, request.data(), sizeof arrival);
    if (arrival.causeAction > UINT16_MAX || arrival.reserved != 0) {
        return mund::Refusal("cause action " + std::to_string(arrival.causeAction) +
                             " and reserved word " + std::to_string(arrival.reserved) +
                             ": at most 65535, and 0");
    }
    const Explanation explanation = explainer.Explain(
        request.subspan(sizeof arrival), {.rxPort = arrival.rxPort, .vrf = arrival.vrf},
        static_cast<uint16_t>(arrival.causeAction));
    return TextReply(explanation.ToJson());
}

std::map<uint16_t, mund::WireHandler> HandlersOf(const Engine &engine) {
    std::map<uint16_t, mund::WireHandler> handlers = {
        {MUND_WIRE_STATE,
         [&engine](std::span<const uint8_t>) { return TextReply(StateToJson(engine.StateNow())); }},
        {MUND_WIRE_OBJECT, mund::ObjectHandler(engine.Module())},
    };
    try {
        const auto explainer = std::make_shared<const Explainer>(engine.Module());
        handlers[MUND_WIRE_EXPLAIN] = [explainer](std::span<const uint8_t> request) {
            return Explain(*explainer, request);
        };
    } catch (const Failure &failure) {
        // A module that cannot be asked is served all the same.
        handlers[MUND_WIRE_EXPLAIN] = [why = std::string(failure.what())](
                                          std::span<const uint8_t>) { return mund::Refusal(why); };
    }
    return handlers;
}

}  // namespace

ControlService::ControlService(const std::string &path, const Engine &engine, LineLog &log)
    : log_(log), server_(path, HandlersOf(engine)) {
    log_.Follow([this](standin::LineKind kind, std::string_view line) {
        server_.Publish(static_cast<uint32_t>(kind), line);
    });
}

ControlService::~ControlService() {
    log_.Follow({});
}

}  // namespace kes_engine
