#include "control_service.h"

#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <utility>

#include "control/json_line.h"
#include "explanation.h"
#include "failure.h"
#include "line_log.h"
#include "module_view.h"
#include "standin/exported_objects.h"
#include "standin/runtime.h"
#include "table_page.h"

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
        list.push_back({{"function", function}, {"blocks", use.blocks}, {"bytes", use.bytes}});
    }
    return list;
}

template <class Key>
Json TableToJson(const char *name, const ModuleView &module, const Table<Key> &table) {
    const TableFill fill = module.FillOf(table);
    return {{"table", name}, {"entries", fill.entries}, {"buckets", fill.buckets}};
}

// None of a module that cannot be asked.
Json TablesToJson(const ModuleView *module) {
    return module == nullptr ? Json::array()
                             : Json::array({TableToJson("IPv4", *module, module->ipv4Tunnels),
                                            TableToJson("IPv6", *module, module->ipv6Tunnels),
                                            TableToJson("session", *module, module->sessions)});
}

Json StateToJson(const State &state, const ModuleView *module) {
    Json instances = Json::array();
    for (const InstanceCount &count : state.instances) {
        instances.push_back(
            {{"instance", count.instance}, {"cwp", count.cwp}, {"wapi", count.wapi}});
    }
    Json json = {{"received", state.received},
                 {"returned", state.fates.returned},
                 {"taken", state.fates.taken},
                 {"undelivered", state.fates.undelivered},
                 {"transmitted", state.fates.transmitted},
                 {"instances", std::move(instances)},
                 {"workers", state.workers},
                 {"capture", state.capture},
                 {"tables", TablesToJson(module)},
                 {"memory", MemoryToJson(state.memory)}};
    if (state.traffic) {
        json.update(ToJson(*state.traffic));
    }
    return json;
}

mund::WireReply Object(const standin::Module &module, std::span<const uint8_t> bytes) {
    MundWireObjectReq request;
    std::memcpy(&request, bytes.data(), sizeof request);
    standin::ObjectBytes object = standin::ReadObject(
        module, std::string(request.name, strnlen(request.name, sizeof request.name)),
        request.slot == MUND_WIRE_NO_SLOT ? std::nullopt : std::optional(request.slot));
    return object.error.empty() ? mund::WireReply{MUND_WIRE_OK, std::move(object.bytes)}
                                : mund::Refusal(object.error);
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

mund::WireReply Entries(const ModuleView &module, std::span<const uint8_t> bytes) {
    MundWireEntriesReq request;
    std::memcpy(&request, bytes.data(), sizeof request);
    return {MUND_WIRE_OK, ReadTablePage(module, request)};
}

// A client that wants to wait for longer asks again.
mund::WireReply Settle() {
    const uint32_t settled = standin::WaitUntilCreatedThreadsIdle(std::chrono::seconds(1)) ? 1 : 0;
    mund::WireReply reply = {MUND_WIRE_OK, std::vector<uint8_t>(sizeof settled)};
    std::memcpy(reply.payload.data(), &settled, sizeof settled);
    return reply;
}

using Handlers = std::map<uint16_t, mund::WireHandler>;

// Handlers hold on to what they have found in a module: each module gets its own.
class CurrentHandlers {
  public:
    CurrentHandlers(const standin::Module &module, const std::function<State()> &stateNow,
                    mund::Gate &gate)
        : module_(module), stateNow_(stateNow), gate_(gate) {}

    mund::WireReply Answer(uint16_t code, std::span<const uint8_t> request) {
        const auto inside = gate_.Enter();
        return Current()->at(code)(request);
    }

  private:
    std::shared_ptr<const Handlers> Current() {
        const std::lock_guard lock(mutex_);
        if (handlers_ == nullptr || moduleId_ != module_.Id()) {
            handlers_ = std::make_shared<const Handlers>(HandlersOf(module_, stateNow_));
            moduleId_ = module_.Id();
        }
        return handlers_;
    }

    const standin::Module &module_;
    const std::function<State()> stateNow_;
    mund::Gate &gate_;
    std::mutex mutex_;
    uint32_t moduleId_ = 0;
    std::shared_ptr<const Handlers> handlers_;
};

}  // namespace

Handlers HandlersOf(const standin::Module &module, const std::function<State()> &stateNow) {
    Handlers handlers;
    std::shared_ptr<const ModuleView> view;
    try {
        view = std::make_shared<const ModuleView>(module);
        const auto explainer = std::make_shared<const Explainer>(module);
        handlers[MUND_WIRE_EXPLAIN] = [explainer](std::span<const uint8_t> request) {
            return Explain(*explainer, request);
        };
        handlers[MUND_WIRE_ENTRIES] = [view](std::span<const uint8_t> request) {
            return Entries(*view, request);
        };
    } catch (const Failure &failure) {
        // A module that cannot be asked is served all the same.
        handlers[MUND_WIRE_EXPLAIN] = [why = std::string(failure.what())](
                                          std::span<const uint8_t>) { return mund::Refusal(why); };
        handlers[MUND_WIRE_ENTRIES] = handlers[MUND_WIRE_EXPLAIN];
    }
    handlers[MUND_WIRE_SETTLE] = [](std::span<const uint8_t>) { return Settle(); };
    handlers[MUND_WIRE_STATE] = [stateNow, view](std::span<const uint8_t>) {
        return TextReply(StateToJson(stateNow(), view.get()));
    };
    handlers[MUND_WIRE_OBJECT] = [&module](std::span<const uint8_t> request) {
        return Object(module, request);
    };
    handlers[MUND_WIRE_RELOAD] = [](std::span<const uint8_t>) {
        return mund::Refusal("this engine keeps the module that it has started with");
    };
    return handlers;
}

Handlers HandlersOf(const standin::Module &module, const std::function<State()> &stateNow,
                    ModuleExchange &exchange) {
    const auto current = std::make_shared<CurrentHandlers>(module, stateNow, exchange.gate);
    Handlers handlers = HandlersOf(module, stateNow);
    for (auto &[code, handler] : handlers) {
        handler = [current, code = code](std::span<const uint8_t> request) {
            return current->Answer(code, request);
        };
    }
    handlers[MUND_WIRE_RELOAD] = [&exchange](std::span<const uint8_t> path) {
        return TextReply(exchange.Ask({path.begin(), path.end()}));
    };
    return handlers;
}

ControlService::ControlService(const std::string &path, const standin::Module &module,
                               const std::function<State()> &stateNow, LineLog &log,
                               std::optional<gid_t> group, ModuleExchange *exchange)
    : log_(log),
      server_(path,
              exchange == nullptr ? HandlersOf(module, stateNow)
                                  : HandlersOf(module, stateNow, *exchange),
              {}, group, exchange == nullptr ? nullptr : &exchange->gate) {
    log_.Follow([this](standin::LineKind kind, std::string_view line) {
        server_.Publish(static_cast<uint32_t>(kind), line);
    });
}

ControlService::~ControlService() {
    log_.Follow({});
}

}  // namespace kes_engine
