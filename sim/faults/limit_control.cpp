// limit.set and limit.list (faults/faults.hpp).
#include <stdexcept>
#include <string>

#include "context.hpp"
#include "control/args.hpp"
#include "faults/faults.hpp"
#include "services/service.hpp"

namespace sim {
namespace {

using nlohmann::json;

enum class Table : std::uint8_t { kArp, kNd, kFib, kAddresses, kSubscribers };

json capacity_json(const std::optional<std::size_t>& c) { return c ? json(*c) : json(nullptr); }

// "capacity": a number, or null for none.
std::optional<std::size_t> capacity_of(const json& req) {
    const json& v = arg::need(req, "capacity");
    if (v.is_null()) return std::nullopt;
    return static_cast<std::size_t>(arg::whole_value(v, arg::label("capacity"), 0, 0xFFFFFFFFu));
}

json neigh_json(const Context& ctx, std::uint8_t family) {
    json out{{"table", family == 10 ? "nd" : "arp"},
             {"capacity", capacity_json(ctx.neighs.capacity(family))},
             {"used", ctx.neighs.size(family)},
             {"refused", ctx.neighs.refused(family)}};
    if (family == 10) {
        json per = json::array();
        for (const auto& [ifindex, c] : ctx.nd.if_config) {
            if (c.entry_limit == 0) continue;
            per.push_back({{"interface", ifindex}, {"limit", c.entry_limit}, {"used", ctx.neighs.on_interface(10, ifindex)}});
        }
        out["interfaces"] = per;
    }
    return out;
}

json addresses_json(const Context& ctx) {
    // The interface that holds the most addresses.
    std::size_t most = 0;
    std::uint32_t at = 0;
    for (const auto& [ifindex, itf] : ctx.device.interfaces()) {
        const std::size_t n = ctx.addr_module.on_interface(ifindex);
        if (n > most) {
            most = n;
            at = ifindex;
        }
    }
    json out{{"table", "addresses"}, {"capacity", capacity_json(ctx.addr_module.capacity())}, {"used", most},
             {"refused", ctx.addr_module.refused()}};
    if (at != 0) out["interface"] = at;
    return out;
}

json subscribers_json(const Context& ctx, const ServiceOps& svc) {
    const auto it = ctx.client_limits.find(svc.port);
    std::size_t most = 0;
    for (const auto& [node, state] : ctx.device.nodes()) {
        most = std::max(most, ctx.loop.connections_on(Endpoint{node, svc.port, "lipc"}));
    }
    return json{{"table", "subscribers"},
                {"port", svc.port},
                {"service", svc.name},
                {"capacity", capacity_json(it != ctx.client_limits.end() ? it->second.capacity : std::nullopt)},
                {"used", most},
                {"refused", it != ctx.client_limits.end() ? it->second.refused : 0}};
}

}  // namespace

json apply_limit(Context& ctx, const json& req) {
    const Table t = arg::word<Table>(req, "table",
                                     {{"arp", Table::kArp},
                                      {"nd", Table::kNd},
                                      {"fib", Table::kFib},
                                      {"addresses", Table::kAddresses},
                                      {"subscribers", Table::kSubscribers}});
    switch (t) {
        case Table::kArp:
            arg::only_keys(req, {"table", "capacity"});
            ctx.neighs.set_capacity(2, capacity_of(req));
            return neigh_json(ctx, 2);
        case Table::kNd:
            arg::only_keys(req, {"table", "capacity", "interface"});
            if (const auto ifindex = arg::interface_if(ctx, req)) {
                const auto c = capacity_of(req);
                ctx.nd.if_config[*ifindex].entry_limit = static_cast<std::uint32_t>(c.value_or(0));
            } else {
                ctx.neighs.set_capacity(10, capacity_of(req));
            }
            return neigh_json(ctx, 10);
        case Table::kFib:
            arg::only_keys(req, {"table", "capacity"});
            ctx.fib.set_capacity(capacity_of(req));
            return json{{"table", "fib"}, {"capacity", capacity_json(ctx.fib.capacity())}, {"used", ctx.fib.size()},
                        {"refused", ctx.fib.refused()}};
        case Table::kAddresses:
            arg::only_keys(req, {"table", "capacity"});
            ctx.addr_module.set_capacity(capacity_of(req));
            return addresses_json(ctx);
        case Table::kSubscribers: {
            arg::only_keys(req, {"table", "capacity", "port"});
            const auto port = arg::whole<std::uint16_t, 1, 65535>(req, "port");
            const ServiceOps* svc = service_on(port);
            if (svc == nullptr) throw std::invalid_argument("no service of the device listens on port " + std::to_string(port));
            ctx.client_limits[port].capacity = capacity_of(req);
            return subscribers_json(ctx, *svc);
        }
    }
    return json::object();
}

json limits_json(const Context& ctx) {
    json list = json::array();
    list.push_back(neigh_json(ctx, 2));
    list.push_back(neigh_json(ctx, 10));
    list.push_back(json{{"table", "fib"}, {"capacity", capacity_json(ctx.fib.capacity())}, {"used", ctx.fib.size()},
                        {"refused", ctx.fib.refused()}});
    list.push_back(addresses_json(ctx));
    for (const ServiceOps& svc : services()) {
        if (svc.port != 0) list.push_back(subscribers_json(ctx, svc));
    }
    return list;
}

void register_limit_control(Context& ctx) {
    // The ND module's entry limit of each interface bounds its ND entries.
    ctx.neighs.set_interface_capacity(10, [&ctx](std::uint32_t ifindex) -> std::size_t {
        const auto it = ctx.nd.if_config.find(ifindex);
        return it == ctx.nd.if_config.end() ? 0 : it->second.entry_limit;
    });
    ctx.control.on("limit.set", [&ctx](const json& req) { return apply_limit(ctx, req); });
    ctx.control.on("limit.list", [&ctx](const json& req) {
        arg::only_keys(req, {});
        return json{{"limits", limits_json(ctx)}};
    });
}

}  // namespace sim
