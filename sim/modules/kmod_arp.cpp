#include "modules/kmod_arp.hpp"

#include <arpa/inet.h>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "context.hpp"
#include "control/args.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"
#include "modules/resolver.hpp"

namespace sim {
namespace {

using ipc::wire::Writer;

constexpr std::uint8_t kArp = 2;
using namespace ipc::proto::arp;  // sub-operations, request shapes and record layouts

NeighAddr v4(const std::uint8_t* at) {
    NeighAddr a{};
    std::memcpy(a.data(), at, 4);
    return a;
}

std::uint32_t age_of(const Context& ctx, const Neighbour& n) {
    const std::uint32_t now = ctx.uptime();
    return now >= n.updated ? now - n.updated : 0;
}

// The entry of sub-ops 1, 7 and 10.
void entry(Writer& w, const Context& ctx, const Neighbour& n) {
    w.raw(n.addr.data(), 4).be(n.ifindex).be(n.port).be(age_of(ctx, n));
    w.raw(n.mac.data(), 6).be(n.vlan).be(n.vrf);
    w.be(static_cast<std::uint8_t>(n.state)).be(static_cast<std::uint8_t>(n.kind));
    w.be(n.aging).be(n.node).zeros(2);
}

// The entry of sub-op 28, a layout of its own.
void entry_by_address(Writer& w, const Context& ctx, const Neighbour& n) {
    w.raw(n.addr.data(), 4).be(n.ifindex).be(n.port).be(n.vlan).be(n.vrf).be(n.node);
    w.raw(n.mac.data(), 6).be(static_cast<std::uint16_t>(n.state)).be(static_cast<std::uint8_t>(n.kind)).zeros(1);
    w.be(age_of(ctx, n)).be(n.aging);
}

// One record of the batch of sub-op 29.
void batch_record(Writer& w, const Context& ctx, const Neighbour& n) {
    w.raw(n.addr.data(), 4).be(n.ifindex).raw(n.mac.data(), 6).be(n.vlan).be(n.vrf);
    w.be(static_cast<std::uint8_t>(n.state)).be(static_cast<std::uint8_t>(n.kind)).be(age_of(ctx, n));
}

// The entry after (interface, address) in table order; the first when both are zero.
const Neighbour* next_after(const Context& ctx, std::uint32_t ifindex, const NeighAddr& addr) {
    if (ifindex == 0 && addr == NeighAddr{}) return ctx.neighs.next(kArp, std::nullopt);
    return ctx.neighs.next(kArp, NeighTable::Key{ifindex, addr});
}

// ---- control operations ------------------------------------------------------------------

const char* state_name(NeighState s) {
    switch (s) {
        case NeighState::kIncomplete: return "incomplete";
        case NeighState::kReachable: return "reachable";
        case NeighState::kStale: return "stale";
        case NeighState::kDelay: return "delay";
        case NeighState::kProbe: return "probe";
    }
    return "unknown";
}

const char* kind_name(NeighKind k) {
    switch (k) {
        case NeighKind::kDynamic: return "dynamic";
        case NeighKind::kStatic: return "static";
        case NeighKind::kOpenFlow: return "openflow";
        case NeighKind::kRule: return "rule";
        case NeighKind::kSet: return "set";
    }
    return "unknown";
}

nlohmann::json entry_json(const Context& ctx, const Neighbour& n) {
    return {{"family", n.family},  {"interface", n.ifindex},       {"address", address_text(n)},
            {"mac", mac_text(n.mac)}, {"state", state_name(n.state)}, {"kind", kind_name(n.kind)},
            {"vlan", n.vlan},      {"vrf", n.vrf},                 {"port", n.port},
            {"node", n.node},      {"aging", n.aging},             {"age", age_of(ctx, n)},
            {"vsi", n.vsi},        {"link", n.link}};
}

}  // namespace

std::uint32_t ArpModule::handle(Context& ctx, std::uint16_t node, std::uint32_t command,
                                std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                                std::uint32_t* returned) {
    *returned = 0;
    Writer w(reply);
    auto done = [&](std::uint32_t status) {
        *returned = w.ok() ? static_cast<std::uint32_t>(w.size()) : 0;
        return w.ok() ? status : kFailure;
    };
    switch (command) {
        case kQueryCommand: return query(ctx, node, request, reply, returned);
        case kIfCountersCommand: {
            if (request.size() != 4) return kFailure;
            const auto ifindex = ipc::wire::load_be<std::uint32_t>(request.data());
            if (ctx.device.interface(ifindex) == nullptr) return kFailure;
            const auto it = if_counters_.find({node, ifindex});
            const IfCounters c = it != if_counters_.end() ? it->second : IfCounters{};
            w.be(c.in).be(c.requests).be(c.replies).be(c.unknown);
            return done(0);
        }
        case kOpenFlowCountCommand: {
            if (request.size() != 28 || request[0] != 1 || request[1] != 8) return kFailure;
            std::uint32_t count = 0;
            ctx.neighs.each(kArp, [&](const Neighbour& n) { count += n.kind == NeighKind::kOpenFlow ? 1 : 0; });
            const auto asked = ipc::wire::load_be<std::uint16_t>(request.data() + 18);
            w.be(std::uint32_t{1}).be(count).be(std::uint32_t{asked}).zeros(4);
            return done(0);
        }
        default: return kFailure;
    }
}

std::uint32_t ArpModule::query(Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request,
                               std::span<std::uint8_t> reply, std::uint32_t* returned) {
    Writer w(reply);
    auto done = [&](std::uint32_t status) {
        *returned = w.ok() ? static_cast<std::uint32_t>(w.size()) : 0;
        return w.ok() ? status : kFailure;
    };
    if (request.size() < 4) return kFailure;
    const std::uint8_t sub_op = request[0];
    const auto shape = shape_of(sub_op);
    if (!shape || request.size() != shape->length || request[1] != shape->header || request[2] != 0) return kFailure;
    const std::uint8_t selector = request[3];
    if (selector != 0 && sub_op != kAlarmStat && sub_op != kAttackStat) return kFailure;
    const std::uint8_t* req = request.data();

    switch (sub_op) {
        case kDeleteDynamic:
        case kDeleteAuthorized: {
            const NeighAddr addr = v4(req + 4);
            const auto ifindex = ipc::wire::load_be<std::uint32_t>(req + 8);
            const NeighKind kind = sub_op == kDeleteDynamic ? NeighKind::kDynamic : NeighKind::kSet;
            std::vector<NeighTable::Key> gone;
            ctx.neighs.each(kArp, [&](const Neighbour& n) {
                const bool on_if = ifindex == 0 || n.ifindex == ifindex;
                if (n.kind == kind && on_if && (addr == NeighAddr{} || n.addr == addr)) {
                    gone.push_back(NeighTable::key_of(n));
                }
            });
            for (const auto& [i, a] : gone) ctx.neighs.remove(kArp, i, a);
            return done(0);
        }
        case kGetEntry: {
            const NeighAddr addr = v4(req + 4);
            const auto ifindex = ipc::wire::load_be<std::uint32_t>(req + 8);
            const Neighbour* n = ifindex == 0 ? ctx.neighs.find_addr(kArp, addr) : ctx.neighs.find(kArp, ifindex, addr);
            if (n != nullptr) entry(w, ctx, *n);
            return done(0);
        }
        case kGetNext: {
            const Neighbour* n = next_after(ctx, ipc::wire::load_be<std::uint32_t>(req + 8), v4(req + 4));
            if (n != nullptr) entry(w, ctx, *n);
            return done(0);
        }
        case kGetExtended: {
            const auto ifindex = ipc::wire::load_be<std::uint32_t>(req + 8);
            const Neighbour* n = ctx.neighs.find(kArp, ifindex, v4(req + 4));
            if (n == nullptr) return done(0);
            const auto* itf = ctx.device.interface(ifindex);
            const bool aggregate = itf != nullptr && itf->type == kTypeAggregate;
            const bool holds =
                ctx.device.serves(node, ifindex) || (n->port != 0 && ctx.device.serves(node, n->port));
            if (aggregate || holds) entry(w, ctx, *n);
            return done(0);
        }
        case kGetConf: {
            std::uint32_t total = 0, dynamic = 0, fixed = 0, set = 0, openflow = 0, rule = 0, incomplete = 0;
            ctx.neighs.each(kArp, [&](const Neighbour& n) {
                ++total;
                dynamic += n.kind == NeighKind::kDynamic ? 1 : 0;
                fixed += n.kind == NeighKind::kStatic ? 1 : 0;
                set += n.kind == NeighKind::kSet ? 1 : 0;
                openflow += n.kind == NeighKind::kOpenFlow ? 1 : 0;
                rule += n.kind == NeighKind::kRule ? 1 : 0;
                incomplete += n.state == NeighState::kIncomplete ? 1 : 0;
            });
            w.be(Neighbour{}.aging).be(static_cast<std::uint32_t>(kIncompleteLife.count()));
            w.be(total).be(dynamic).be(fixed).be(set).be(openflow).be(rule).be(incomplete);
            w.be(std::uint32_t{node}).zeros(kConfLen - 40);
            return done(0);
        }
        case kGetByAddress: {
            const Neighbour* n = ctx.neighs.find_addr(kArp, v4(req + 4));
            if (n != nullptr) entry_by_address(w, ctx, *n);
            return done(0);
        }
        case kGetBatch: {
            NeighAddr addr = v4(req + 4);
            auto ifindex = ipc::wire::load_be<std::uint32_t>(req + 8);
            while (w.room() >= kBatchRecordLen) {
                const Neighbour* n = next_after(ctx, ifindex, addr);
                if (n == nullptr) break;
                batch_record(w, ctx, *n);
                ifindex = n->ifindex;
                addr = n->addr;
            }
            return done(0);
        }
        case kFirstAddress: {
            const auto vlan = ipc::wire::load_be<std::uint16_t>(req + 4);
            std::optional<NeighTable::Key> at;
            while (const Neighbour* n = ctx.neighs.next(kArp, at)) {
                if (n->vlan == vlan && std::memcmp(n->mac.data(), req + 6, 6) == 0) {
                    w.raw(n->addr.data(), 4);
                    break;
                }
                at = NeighTable::key_of(*n);
            }
            return done(0);
        }
        case kAlarmStat:
        case kAttackStat: {
            const auto it = node_counters_.find(node);
            if (sub_op == kAlarmStat) {
                std::uint64_t value = 0;
                if (it != node_counters_.end()) {
                    if (const auto a = it->second.alarm.find(selector); a != it->second.alarm.end()) value = a->second;
                }
                w.be(value);
                return done(0);
            }
            std::array<std::uint64_t, kAttackCounters> values{};
            if (it != node_counters_.end()) {
                if (const auto a = it->second.attack.find(selector); a != it->second.attack.end()) values = a->second;
            }
            for (const std::uint64_t v : values) w.be(v);
            return done(0);
        }
        default: return send(ctx, node, sub_op, request);
    }
}

std::uint32_t ArpModule::send(Context& ctx, std::uint16_t node, std::uint8_t sub_op,
                              std::span<const std::uint8_t> request) {
    const std::uint8_t* req = request.data();
    std::uint32_t ifindex = 0;
    std::uint32_t opcode = 1;  // 1 request, 2 reply, any other unknown
    NeighAddr target{};
    switch (sub_op) {
        case kSendRequest:
        case kSendReply:
        case kSendProbe:
            ifindex = ipc::wire::load_be<std::uint32_t>(req + 12);
            target = v4(req + 20);
            opcode = sub_op == kSendReply ? 2 : 1;
            break;
        case kSendVlanRequest:
            ifindex = ipc::wire::load_be<std::uint32_t>(req + 16);
            target = v4(req + 24);
            break;
        case kSendSpecified:
            ifindex = ipc::wire::load_be<std::uint32_t>(req + 4 + 8);
            opcode = ipc::wire::load_be<std::uint32_t>(req + 4 + 12);
            target = v4(req + 4 + 52);
            break;
        default: return kFailure;
    }
    if (ctx.device.interface(ifindex) == nullptr) return kFailure;
    IfCounters& c = if_counters_[{node, ifindex}];
    ++c.in;
    if (opcode == 1) {
        ++c.requests;
    } else if (opcode == 2) {
        ++c.replies;
    } else {
        ++c.unknown;
    }
    if (opcode == 1 && target != NeighAddr{} && resolve_neighbour(ctx, kArp, ifindex, target)) {
        ++c.in;
        ++c.replies;
    }
    return 0;
}

// Ranges of the control operations' values:
//   neigh.list: "family" 2 or 10 (default both); "interface" an index (1-4294967295) or name
//     of the device's;
//   arp.counters: "node" 1-32767 and a node of the device; "selector" 0-255 (default 0);
//     "alarm" and the four "attack" counters 0-18446744073709551615; "interface" as above;
//     the four "packets" counters 0-4294967295 (the module counts in 32 bits).
void register_arp_controls(Context& ctx) {
    // A listing may hold every entry of both tables: it is given piece by piece, in table
    // order, each piece going on after the last entry given (the tables may change
    // meanwhile).
    ctx.control.on_stream("neigh.list", [&ctx](const nlohmann::json& req) -> Control::Stream {
        struct Walk {
            std::vector<std::uint8_t> families;
            std::size_t family = 0;
            std::optional<NeighTable::Key> after;
            std::optional<std::uint32_t> only;
            bool begun = false;
            bool first = true;
        };
        auto walk = std::make_shared<Walk>();
        const auto only_family = arg::number_if(req, "family", {2, 10});
        walk->only = arg::interface_if(ctx, req);
        for (const std::uint8_t f : {std::uint8_t{2}, std::uint8_t{10}}) {
            if (!only_family || *only_family == f) walk->families.push_back(f);
        }
        return [&ctx, walk](std::string& out, std::size_t room) {
            const std::size_t until = out.size() + room;
            if (!walk->begun) {
                out += R"({"entries":[)";
                walk->begun = true;
            }
            while (walk->family < walk->families.size()) {
                const Neighbour* n = ctx.neighs.next(walk->families[walk->family], walk->after);
                if (n == nullptr) {
                    ++walk->family;
                    walk->after.reset();
                    continue;
                }
                walk->after = NeighTable::key_of(*n);
                if (walk->only && n->ifindex != *walk->only) continue;
                if (!walk->first) out += ',';
                walk->first = false;
                out += entry_json(ctx, *n).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
                if (out.size() >= until) return true;
            }
            out += R"(],"ok":true})";
            return false;
        };
    });

    ctx.control.on("arp.counters", [&ctx](const nlohmann::json& req) {
        constexpr std::uint64_t kMost = ~std::uint64_t{0};
        // Everything is read first: a refused request changes nothing.
        const std::uint16_t node = arg::node(ctx, req);
        const auto selector = arg::whole<std::uint8_t, 0, 0xFF>(req, "selector", 0);
        const auto alarm = arg::whole_if<std::uint64_t, 0, kMost>(req, "alarm");
        const auto attack = arg::wholes_if<std::uint64_t, 0, kMost, ArpModule::kAttackCounters>(req, "attack");
        const std::optional<std::uint32_t> ifindex = arg::interface_if(ctx, req);
        const auto packets = arg::wholes_if<std::uint32_t, 0, 0xFFFFFFFF, 4>(req, "packets");
        if (packets && !ifindex) throw std::invalid_argument("\"packets\" goes with \"interface\"");

        ArpModule& arp = ctx.arp;
        ArpModule::NodeCounters& nc = arp.node_counters(node);
        if (alarm) nc.alarm[selector] = *alarm;
        if (attack) nc.attack[selector] = *attack;
        nlohmann::json out{{"node", node}, {"selector", selector}};
        const auto a = nc.alarm.find(selector);
        out["alarm"] = a != nc.alarm.end() ? a->second : 0;
        const auto at = nc.attack.find(selector);
        using Attack = std::array<std::uint64_t, ArpModule::kAttackCounters>;
        out["attack"] = at != nc.attack.end() ? at->second : Attack{};
        if (ifindex) {
            ArpModule::IfCounters& c = arp.if_counters(node, *ifindex);
            if (packets) c = ArpModule::IfCounters{(*packets)[0], (*packets)[1], (*packets)[2], (*packets)[3]};
            out["interface"] = *ifindex;
            out["packets"] = std::array<std::uint32_t, 4>{c.in, c.requests, c.replies, c.unknown};
        }
        return out;
    });
}

// The module's table: its three commands and its control operations.
const KernelModuleOps kArpModuleOps{
    .name = "arp",
    .serves = [](std::uint32_t command) {
        return command == ArpModule::kQueryCommand || command == ArpModule::kIfCountersCommand ||
               command == ArpModule::kOpenFlowCountCommand;
    },
    .handle = [](Context& ctx, const KernelCall& call) {
        return ctx.arp.handle(ctx, call.node, call.command, call.request, call.reply, call.returned);
    },
    .controls = register_arp_controls,
};

}  // namespace sim
