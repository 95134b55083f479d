// The control operations of the device's faults (core/faults.hpp):
//   fault.set   {scope, [node], action, [times], [probability, seed]} -> {"id", "fault"}
//   fault.clear {[id]}: one fault, or every fault -> {"cleared"}
//   fault.list  -> {"faults": [...]}, each with how often it was reached and how often it fired
// The scope is one of "kernel" (a command code or a dump's request id, a number or "0x..."),
// "module" (a kernel module's name), "port" (a family-37 service port) and "call" (a
// device-channel call by name); the action one of "error" (a status), "drop": true,
// "delay_ms", "truncate" (bytes kept) and "close": true.
#include "faults/faults.hpp"

#include <stdexcept>
#include <string>

#include "context.hpp"
#include "control/args.hpp"
#include "core/log.hpp"
#include "modules/module.hpp"
#include "services/service.hpp"

namespace sim {
namespace {

using nlohmann::json;

// The longest delay a fault holds a request for: 10 minutes.
constexpr std::uint64_t kDelayMostMs = 600'000;

std::string hex(std::uint32_t v) {
    char buf[16];
    std::snprintf(buf, sizeof buf, "0x%x", v);
    return buf;
}

std::string module_names() {
    std::string out;
    for (const KernelModuleOps* m : kernel_modules()) {
        if (m->serves == nullptr && m->dumps.empty()) continue;
        if (!out.empty()) out += ", ";
        out += m->name;
    }
    return out;
}

FaultScope scope_of(const Context& ctx, const json& req) {
    int given = 0;
    for (const char* k : {"kernel", "module", "port", "call"}) given += arg::find(req, k) != nullptr ? 1 : 0;
    if (given != 1) throw std::invalid_argument("a fault takes one of \"kernel\", \"module\", \"port\" and \"call\"");
    FaultScope s;
    s.node = arg::node_if(ctx, req);
    if (const auto code = arg::code_if(req, "kernel")) {
        if (kernel_module_of(*code) == nullptr && dump_module_of(*code) == nullptr) {
            throw std::invalid_argument("no module of the device answers " + hex(*code));
        }
        s.kind = FaultScope::Kind::kKernel;
        s.code = *code;
    } else if (const auto name = arg::text_if(req, "module")) {
        bool known = false;
        for (const KernelModuleOps* m : kernel_modules()) {
            known = known || ((m->serves != nullptr || !m->dumps.empty()) && *name == m->name);
        }
        if (!known) throw std::invalid_argument("no module " + arg::shown(*name) + " (the modules: " + module_names() + ")");
        s.kind = FaultScope::Kind::kModule;
        s.module = *name;
    } else if (const auto port = arg::whole_if<std::uint16_t, 1, 65535>(req, "port")) {
        if (service_on(*port) == nullptr) throw std::invalid_argument("no service of the device listens on port " + std::to_string(*port));
        s.kind = FaultScope::Kind::kPort;
        s.code = *port;
    } else {
        const std::string call = arg::text(req, "call");
        const auto number = device_call_number(call);
        if (!number) throw std::invalid_argument("no device-channel call " + arg::shown(json(call)));
        s.kind = FaultScope::Kind::kCall;
        s.code = *number;
    }
    return s;
}

FaultAction action_of(const json& req, const FaultScope& scope) {
    int given = 0;
    for (const char* k : {"error", "drop", "delay_ms", "truncate", "close"}) given += arg::find(req, k) != nullptr ? 1 : 0;
    if (given != 1) {
        throw std::invalid_argument("a fault takes one of \"error\", \"drop\", \"delay_ms\", \"truncate\" and \"close\"");
    }
    FaultAction a;
    if (const auto status = arg::code_if(req, "error")) {
        if (scope.kind == FaultScope::Kind::kPort) {
            const ServiceOps* svc = service_on(static_cast<std::uint16_t>(scope.code));
            if (svc == nullptr || svc->refuse == nullptr) {
                throw std::invalid_argument(std::string("the ") + (svc != nullptr ? svc->name : "service") +
                                            " answers no status: its faults are drop, delay_ms, truncate and close");
            }
        }
        a = {FaultAction::Kind::kError, *status};
    } else if (const auto drop = arg::flag_if(req, "drop")) {
        if (!*drop) throw std::invalid_argument("\"drop\" is true or absent");
        a.kind = FaultAction::Kind::kDrop;
    } else if (const auto close = arg::flag_if(req, "close")) {
        if (!*close) throw std::invalid_argument("\"close\" is true or absent");
        a.kind = FaultAction::Kind::kClose;
    } else if (const auto ms = arg::whole_if<std::uint32_t, 1, kDelayMostMs>(req, "delay_ms")) {
        a = {FaultAction::Kind::kDelay, *ms};
    } else {
        // At least one byte: an empty message reads as the end of the connection (that is "close").
        a = {FaultAction::Kind::kTruncate, arg::whole<std::uint32_t, 1, 0xFFFFFFFF>(req, "truncate")};
    }
    return a;
}

json fault_json(const Fault& f) {
    json out{{"id", f.id}};
    switch (f.scope.kind) {
        case FaultScope::Kind::kKernel: out["kernel"] = hex(f.scope.code); break;
        case FaultScope::Kind::kModule: out["module"] = f.scope.module; break;
        case FaultScope::Kind::kPort: out["port"] = f.scope.code; break;
        case FaultScope::Kind::kCall: out["call"] = device_call_name(f.scope.code); break;
    }
    if (f.scope.node) out["node"] = *f.scope.node;
    switch (f.action.kind) {
        case FaultAction::Kind::kError: out["error"] = hex(f.action.value); break;
        case FaultAction::Kind::kDrop: out["drop"] = true; break;
        case FaultAction::Kind::kDelay: out["delay_ms"] = f.action.value; break;
        case FaultAction::Kind::kTruncate: out["truncate"] = f.action.value; break;
        case FaultAction::Kind::kClose: out["close"] = true; break;
        case FaultAction::Kind::kNone: break;
    }
    out["times_left"] = f.times ? json(*f.times) : json(nullptr);
    out["probability"] = f.probability;
    if (f.probability < 1.0) out["seed"] = f.seed;
    out["reached"] = f.reached;
    out["fired"] = f.fired;
    return out;
}

}  // namespace

Fault fault_of(const Context& ctx, const json& req) {
    arg::only_keys(req, {"kernel", "module", "port", "call", "node", "error", "drop", "delay_ms", "truncate", "close",
                         "times", "probability", "seed"});
    Fault f;
    f.scope = scope_of(ctx, req);
    f.action = action_of(req, f.scope);
    if (const auto times = arg::whole_if<std::uint64_t, 1, 0xFFFFFFFFFFFFFFFFu>(req, "times")) f.times = *times;
    const auto p = arg::real_if(req, "probability", 0.0, 1.0);
    const auto seed = arg::whole_if<std::uint64_t, 0, 0xFFFFFFFFFFFFFFFFu>(req, "seed");
    if (seed && !p) throw std::invalid_argument("\"seed\" goes with \"probability\"");
    if (p) {
        f.probability = *p;
        f.seed = seed.value_or(0);
    }
    return f;
}

nlohmann::json faults_json(const Faults& faults) {
    json list = json::array();
    for (const Fault& f : faults.list()) list.push_back(fault_json(f));
    return list;
}

void register_fault_control(Context& ctx) {
    ctx.control.on("fault.set", [&ctx](const json& req) {
        Fault f = fault_of(ctx, req);
        if (ctx.faults.list().size() >= kFaultsMost) {
            throw std::invalid_argument("the device plays " + std::to_string(kFaultsMost) +
                                        " faults already, the most it takes: clear some first");
        }
        const std::uint32_t id = ctx.faults.add(std::move(f));
        SIM_LOG(kInfo, "fault %u set: %s", id, fault_json(ctx.faults.list().back()).dump().c_str());
        return json{{"id", id}, {"fault", fault_json(ctx.faults.list().back())}};
    });
    ctx.control.on("fault.clear", [&ctx](const json& req) {
        arg::only_keys(req, {"id"});
        if (const auto id = arg::whole_if<std::uint32_t, 1, 0xFFFFFFFF>(req, "id")) {
            if (!ctx.faults.clear(*id)) throw std::invalid_argument("no fault " + std::to_string(*id));
            return json{{"cleared", 1}};
        }
        return json{{"cleared", ctx.faults.clear_all()}};
    });
    ctx.control.on("fault.list", [&ctx](const json& req) {
        arg::only_keys(req, {});
        return json{{"faults", faults_json(ctx.faults)}};
    });
}

}  // namespace sim
