// Control operations that change the FIB while the device runs:
//   "route.add" {"prefix": "10.9.0.0/16" or "2001:db8::/48" (length 0-32 or 0-128; without
//                one the whole address), "next_hop": address of the prefix's family (default
//                none), "interface": index or name (default none), "vrf": 0-65535 (default
//                0), "node": 0-32767, a node of the device or 0 (the default: every node),
//                "mac": the next hop's MAC}
//               adds a route or replaces the route of the same family, VRF, prefix and node;
//   "route.del" {"prefix", "vrf", "node"} removes one; {"removed": true|false}.
// Both answer the routes of each family and the sequence numbers after the change:
// {"routes4", "routes6", "seq4", "seq6"}.
#include "modules/fib_control.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "context.hpp"
#include "control/args.hpp"

namespace sim {
namespace {

nlohmann::json state(const Context& ctx) {
    return {{"routes4", ctx.fib.count(2)},
            {"routes6", ctx.fib.count(10)},
            {"seq4", ctx.fib.change_seq(2)},
            {"seq6", ctx.fib.change_seq(10)}};
}

// The prefix, "vrf" and "node" of a request: what names a route.
void key_of(const Context& ctx, const nlohmann::json& req, Route* r) {
    const arg::Prefix p = arg::prefix(req, "prefix");
    r->family = p.address.family;
    r->prefix = p.address.bytes;
    r->prefix_len = p.length;
    r->vrf = arg::whole<std::uint16_t, 0, 0xFFFF>(req, "vrf", 0);
    r->node = arg::whole<std::uint16_t, 0, 0x7FFF>(req, "node", 0);
    if (r->node != 0 && ctx.device.node(r->node) == nullptr) {
        throw std::invalid_argument("no node " + std::to_string(r->node));
    }
}

Route route_of(const Context& ctx, const nlohmann::json& req) {
    Route r;
    key_of(ctx, req, &r);
    if (const auto hop = arg::address_if(req, "next_hop")) {
        if (hop->family != r.family) {
            throw std::invalid_argument(std::string("\"next_hop\" must be an ") + (r.family == 2 ? "IPv4" : "IPv6") +
                                        " address, as the prefix is");
        }
        r.next_hop = hop->bytes;
    }
    if (const auto ifindex = arg::interface_if(ctx, req)) {
        r.ifindex = *ifindex;
        r.via_ifindex = r.ifindex;
        const auto* itf = ctx.device.interface(r.ifindex);
        std::copy(std::begin(itf->mac), std::end(itf->mac), r.own_mac.begin());
    }
    r.mac = arg::mac(req, "mac", arg::Mac{});
    return r;
}

}  // namespace

void register_fib_control(Context& ctx) {
    ctx.control.on("route.add", [&ctx](const nlohmann::json& req) {
        if (!ctx.fib.put(route_of(ctx, req))) {
            throw std::invalid_argument("the FIB is full (" + std::to_string(ctx.fib.size()) + " routes, capacity " +
                                        std::to_string(ctx.fib.capacity().value_or(0)) + ")");
        }
        return state(ctx);
    });
    ctx.control.on("route.del", [&ctx](const nlohmann::json& req) {
        Route r;
        key_of(ctx, req, &r);
        const bool removed = ctx.fib.remove(FibTable::key_of(r));
        nlohmann::json out = state(ctx);
        out["removed"] = removed;
        return out;
    });
}

}  // namespace sim
