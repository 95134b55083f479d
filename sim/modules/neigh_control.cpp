// Control operations that change the neighbour tables while the device runs:
//   "neigh.add"   {"interface": index or name, "address": text, "mac": "aa:bb:cc:dd:ee:ff",
//                  "state": "reachable"|"stale"|"incomplete"|"delay"|"probe",
//                  "kind": "dynamic"|"static", "vlan": n, "vsi": n, "link": n}
//                 adds or changes an entry (family from the address);
//   "neigh.del"   {"interface", "address"} removes one; {"removed": true|false};
//   "neigh.burst" {"interface", "first": address, "count": n, "action": "add"|"del"} adds (or
//                 removes) n (at most 4,000,000) entries whose address and MAC count up from the first, each
//                 one change of the table: the way to make a burst of events.
#include <arpa/inet.h>

#include <stdexcept>
#include <string>

#include "common/wire.hpp"
#include "context.hpp"
#include "control/args.hpp"
#include "modules/neigh_control.hpp"

namespace sim {
namespace {

// Most changes one burst makes (as many as one scenario line may stand for).
constexpr std::uint32_t kMaxBurst = 4'000'000;

std::uint32_t interface_of(const Context& ctx, const nlohmann::json& req) {
    if (!req.contains("interface")) throw std::invalid_argument("interface is missing");
    return interface_value(ctx, req["interface"]);
}

std::uint8_t address_of(const std::string& text, NeighAddr* out) {
    *out = {};
    if (::inet_pton(AF_INET, text.c_str(), out->data()) == 1) return 2;
    if (::inet_pton(AF_INET6, text.c_str(), out->data()) == 1) return 10;
    throw std::invalid_argument("bad address " + text);
}

NeighState state_of(const std::string& s) {
    if (s == "incomplete") return NeighState::kIncomplete;
    if (s == "reachable") return NeighState::kReachable;
    if (s == "stale") return NeighState::kStale;
    if (s == "delay") return NeighState::kDelay;
    if (s == "probe") return NeighState::kProbe;
    throw std::invalid_argument("bad state " + s);
}

Neighbour entry_of(const Context& ctx, const nlohmann::json& req, const std::string& address_key) {
    Neighbour n;
    n.ifindex = interface_of(ctx, req);
    n.family = address_of(req.at(address_key).get<std::string>(), &n.addr);
    const auto& itf = *ctx.device.interface(n.ifindex);
    n.vrf = itf.vrf;
    n.node = itf.node;
    if (req.contains("mac")) n.mac = mac_arg(req["mac"]);
    n.state = state_of(req.value("state", std::string("reachable")));
    if (req.value("kind", std::string("dynamic")) == "static") {
        n.kind = NeighKind::kStatic;
        n.aging = 0;
    }
    n.vlan = req.value("vlan", std::uint16_t{0});
    n.vsi = req.value("vsi", 0xFFFFFFFFu);
    n.link = req.value("link", std::uint16_t{0xFFFF});
    n.updated = ctx.uptime();
    return n;
}

}  // namespace

void register_neigh_control(Context& ctx) {
    ctx.control.on("neigh.add", [&ctx](const nlohmann::json& req) {
        ctx.neighs.put(entry_of(ctx, req, "address"));
        return nlohmann::json::object();
    });
    ctx.control.on("neigh.del", [&ctx](const nlohmann::json& req) {
        NeighAddr addr{};
        const std::uint8_t family = address_of(req.at("address").get<std::string>(), &addr);
        return nlohmann::json{{"removed", ctx.neighs.remove(family, interface_of(ctx, req), addr)}};
    });
    ctx.control.on("neigh.burst", [&ctx](const nlohmann::json& req) {
        Neighbour n = entry_of(ctx, req, "first");
        const auto count = req.at("count").get<std::uint32_t>();
        if (count > kMaxBurst) throw std::invalid_argument("count is at most 4000000");
        const bool add = req.value("action", std::string("add")) == "add";
        const std::size_t at = n.family == 10 ? 12 : 0;
        const auto first = ipc::wire::load_be<std::uint32_t>(n.addr.data() + at);
        const auto mac_first = ipc::wire::load_be<std::uint32_t>(n.mac.data() + 2);
        std::uint32_t changed = 0;
        for (std::uint32_t i = 0; i < count; ++i) {
            ipc::wire::store_be(n.addr.data() + at, first + i);
            ipc::wire::store_be(n.mac.data() + 2, mac_first + i);
            if (add) {
                ctx.neighs.put(n);
                ++changed;
            } else if (ctx.neighs.remove(n.family, n.ifindex, n.addr)) {
                ++changed;
            }
        }
        return nlohmann::json{{"changed", changed}};
    });
}

}  // namespace sim
