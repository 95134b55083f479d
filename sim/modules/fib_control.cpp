// Control operations that change the FIB while the device runs:
//   "route.add" {"prefix": "10.9.0.0/16" or "2001:db8::/48", "next_hop": address (default
//                none), "interface": index or name (default none), "vrf": n (default 0),
//                "node": n (default 0: every node), "mac": the next hop's MAC}
//               adds a route or replaces the route of the same family, VRF, prefix and node;
//   "route.del" {"prefix", "vrf", "node"} removes one; {"removed": true|false}.
// Both answer the routes of each family and the sequence numbers after the change:
// {"routes4", "routes6", "seq4", "seq6"}.
#include "modules/fib_control.hpp"

#include <arpa/inet.h>

#include <stdexcept>
#include <string>

#include "context.hpp"
#include "control/args.hpp"

namespace sim {
namespace {

// Family and bytes of an address; the prefix length after a '/' (default: the whole address).
std::uint8_t parse_address(const std::string& text, std::array<std::uint8_t, 16>* out, std::uint8_t* len) {
    *out = {};
    const std::size_t slash = text.find('/');
    const std::string addr = text.substr(0, slash);
    std::uint8_t family = 0;
    unsigned max = 0;
    if (::inet_pton(AF_INET, addr.c_str(), out->data()) == 1) {
        family = 2;
        max = 32;
    } else if (::inet_pton(AF_INET6, addr.c_str(), out->data()) == 1) {
        family = 10;
        max = 128;
    } else {
        throw std::invalid_argument("bad address " + text);
    }
    unsigned l = max;
    if (slash != std::string::npos) {
        const std::string digits = text.substr(slash + 1);
        if (digits.empty() || digits.size() > 3 || digits.find_first_not_of("0123456789") != std::string::npos)
            throw std::invalid_argument("bad prefix length in " + text);
        l = static_cast<unsigned>(std::stoul(digits));
        if (l > max) throw std::invalid_argument("bad prefix length in " + text);
    }
    if (len != nullptr) *len = static_cast<std::uint8_t>(l);
    // The prefix keeps its network bits only.
    for (unsigned i = 0; i < 16; ++i) {
        const unsigned bits = l > 8 * i ? (l - 8 * i > 8 ? 8 : l - 8 * i) : 0;
        (*out)[i] = static_cast<std::uint8_t>((*out)[i] & static_cast<std::uint8_t>(0xFF00u >> bits));
    }
    return family;
}

nlohmann::json state(const Context& ctx) {
    return {{"routes4", ctx.fib.count(2)},
            {"routes6", ctx.fib.count(10)},
            {"seq4", ctx.fib.change_seq(2)},
            {"seq6", ctx.fib.change_seq(10)}};
}

Route route_of(const Context& ctx, const nlohmann::json& req) {
    Route r;
    r.family = parse_address(req.at("prefix").get<std::string>(), &r.prefix, &r.prefix_len);
    r.vrf = req.value("vrf", std::uint16_t{0});
    r.node = req.value("node", std::uint16_t{0});
    if (r.node != 0 && ctx.device.node(r.node) == nullptr) throw std::invalid_argument("no such node");
    if (req.contains("next_hop")) {
        std::array<std::uint8_t, 16> hop{};
        if (parse_address(req["next_hop"].get<std::string>(), &hop, nullptr) != r.family)
            throw std::invalid_argument("the next hop is not of the prefix's family");
        r.next_hop = hop;
    }
    if (req.contains("interface")) {
        r.ifindex = interface_value(ctx, req["interface"]);
        r.via_ifindex = r.ifindex;
        const auto* itf = ctx.device.interface(r.ifindex);
        std::copy(std::begin(itf->mac), std::end(itf->mac), r.own_mac.begin());
    }
    if (req.contains("mac")) r.mac = mac_arg(req["mac"]);
    return r;
}

}  // namespace

void register_fib_control(Context& ctx) {
    ctx.control.on("route.add", [&ctx](const nlohmann::json& req) {
        ctx.fib.put(route_of(ctx, req));
        return state(ctx);
    });
    ctx.control.on("route.del", [&ctx](const nlohmann::json& req) {
        Route r;
        r.family = parse_address(req.at("prefix").get<std::string>(), &r.prefix, &r.prefix_len);
        r.vrf = req.value("vrf", std::uint16_t{0});
        r.node = req.value("node", std::uint16_t{0});
        const bool removed = ctx.fib.remove(FibTable::key_of(r));
        nlohmann::json out = state(ctx);
        out["removed"] = removed;
        return out;
    });
}

}  // namespace sim
