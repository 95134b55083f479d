// Control operations that change the neighbour tables while the device runs:
//   "neigh.add"   {"interface": index or name, "address": IPv4 or IPv6 text,
//                  "mac": "aa:bb:cc:dd:ee:ff" (default 00:00:00:00:00:00),
//                  "state": "reachable" (default)|"stale"|"incomplete"|"delay"|"probe",
//                  "kind": "dynamic" (default)|"static", "vlan": 0-4095 (default 0),
//                  "vsi": 0-4294967295 (default 4294967295: none),
//                  "link": 0-65535 (default 65535: none)}
//                 adds or changes an entry (family from the address);
//   "neigh.del"   {"interface", "address"} removes one; {"removed": true|false};
//   "neigh.burst" {"interface", "first": address, "count": 1-4000000, "action": "add"
//                 (default)|"del", and the fields of neigh.add} adds (or removes) `count`
//                 entries whose address and MAC count up from the first, each one change of
//                 the table: the way to make a burst of events; {"changed": n}. The count goes
//                 up in the last 32 bits of the address (all of an IPv4 address) and of the MAC:
//                 a burst that would run past the last of them is refused before anything
//                 changes.
#include <arpa/inet.h>

#include <cstdio>
#include <stdexcept>
#include <string>

#include "context.hpp"
#include "control/args.hpp"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"
#include "modules/neigh_control.hpp"

namespace sim {
namespace {

// Most changes one burst makes (as many as one scenario line may stand for).
constexpr std::uint32_t kMaxBurst = 4'000'000;

Neighbour entry_of(const Context& ctx, const nlohmann::json& req, std::string_view address_key) {
    Neighbour n;
    n.ifindex = arg::interface(ctx, req);
    const arg::Address a = arg::address(req, address_key);
    n.family = a.family;
    n.addr = a.bytes;
    const auto& itf = *ctx.device.interface(n.ifindex);
    n.vrf = itf.vrf;
    n.node = itf.node;
    n.mac = arg::mac(req, "mac", arg::Mac{});
    n.state = arg::word(req, "state",
                        {{"reachable", NeighState::kReachable},
                         {"stale", NeighState::kStale},
                         {"incomplete", NeighState::kIncomplete},
                         {"delay", NeighState::kDelay},
                         {"probe", NeighState::kProbe}},
                        NeighState::kReachable);
    n.kind = arg::word(req, "kind", {{"dynamic", NeighKind::kDynamic}, {"static", NeighKind::kStatic}},
                       NeighKind::kDynamic);
    if (n.kind == NeighKind::kStatic) n.aging = 0;
    n.vlan = arg::whole<std::uint16_t, 0, 4095>(req, "vlan", 0);
    n.vsi = arg::whole<std::uint32_t, 0, 0xFFFFFFFF>(req, "vsi", ipc::proto::adj::kNoVsi);
    n.link = arg::whole<std::uint16_t, 0, 0xFFFF>(req, "link", 0xFFFF);
    n.updated = ctx.uptime();
    return n;
}

}  // namespace

void register_neigh_control(Context& ctx) {
    ctx.control.on("neigh.add", [&ctx](const nlohmann::json& req) {
        const Neighbour n = entry_of(ctx, req, "address");
        if (!ctx.neighs.put(n)) throw std::invalid_argument(neigh_full_text(ctx.neighs, n));
        return nlohmann::json::object();
    });
    ctx.control.on("neigh.del", [&ctx](const nlohmann::json& req) {
        const std::uint32_t ifindex = arg::interface(ctx, req);
        const arg::Address a = arg::address(req, "address");
        return nlohmann::json{{"removed", ctx.neighs.remove(a.family, ifindex, a.bytes)}};
    });
    ctx.control.on("neigh.burst", [&ctx](const nlohmann::json& req) {
        Neighbour n = entry_of(ctx, req, "first");
        const auto count = arg::whole<std::uint32_t, 1, kMaxBurst>(req, "count");
        const bool add = arg::word(req, "action", {{"add", true}, {"del", false}}, true);
        const std::size_t at = n.family == 10 ? 12 : 0;
        const auto first = ipc::wire::load_be<std::uint32_t>(n.addr.data() + at);
        const auto mac_first = ipc::wire::load_be<std::uint32_t>(n.mac.data() + 2);
        // Everything is checked before the first change: a refused burst changes nothing.
        const std::uint64_t last_step = count - 1;
        if (first + last_step > 0xFFFFFFFFu) {
            Neighbour last = n;
            ipc::wire::store_be(last.addr.data() + at, std::uint32_t{0xFFFFFFFFu});
            throw std::invalid_argument("\"count\": a burst of " + std::to_string(count) + " from " +
                                        address_text(n) + " runs past the last " +
                                        (n.family == 10 ? "IPv6 address it counts to, " : "IPv4 address, ") +
                                        address_text(last));
        }
        if (mac_first + last_step > 0xFFFFFFFFu) {
            arg::Mac last = n.mac;
            ipc::wire::store_be(last.data() + 2, std::uint32_t{0xFFFFFFFFu});
            throw std::invalid_argument("\"count\": a burst of " + std::to_string(count) + " from MAC " +
                                        mac_text(n.mac) + " runs past the last MAC it counts to, " + mac_text(last));
        }
        if (add) {
            // A burst is made whole or not at all: room for its new entries first.
            std::size_t fresh = 0;
            Neighbour probe = n;
            for (std::uint32_t i = 0; i < count; ++i) {
                ipc::wire::store_be(probe.addr.data() + at, first + i);
                if (ctx.neighs.find(n.family, n.ifindex, probe.addr) == nullptr) ++fresh;
            }
            if (!ctx.neighs.room(n.family, n.ifindex, fresh)) {
                throw std::invalid_argument(neigh_full_text(ctx.neighs, n) + ": no room for " + std::to_string(fresh) + " more");
            }
        }
        std::uint32_t changed = 0;
        for (std::uint32_t i = 0; i < count; ++i) {
            ipc::wire::store_be(n.addr.data() + at, first + i);
            ipc::wire::store_be(n.mac.data() + 2, mac_first + i);
            if (add) {
                if (!ctx.neighs.put(n)) break;  // not reached: the room was checked
                ++changed;
            } else if (ctx.neighs.remove(n.family, n.ifindex, n.addr)) {
                ++changed;
            }
        }
        return nlohmann::json{{"changed", changed}};
    });
}

// The neighbour tables: no command of their own (the ARP and ND modules answer from them);
// their control operations.
const KernelModuleOps kNeighTableOps{
    .name = "neigh",
    .controls = register_neigh_control,
};

}  // namespace sim
