// node.set, link.set and service.restart (device/events.hpp).
#include "device/events.hpp"

#include <stdexcept>
#include <string>

#include "context.hpp"
#include "ipproto/svc_addr.hpp"
#include "control/args.hpp"
#include "core/log.hpp"
#include "services/service.hpp"

namespace sim {
namespace {

using nlohmann::json;

// The longest a restarting service stays away: 10 minutes.
constexpr std::uint64_t kRestartMostMs = 600'000;

// Changes the tables without telling the store, for as long as it lives.
class Unstored {
public:
    explicit Unstored(Context& ctx) : ctx_(ctx), was_(ctx.events.unstored) { ctx.events.unstored = true; }
    ~Unstored() { ctx_.events.unstored = was_; }
    Unstored(const Unstored&) = delete;
    Unstored& operator=(const Unstored&) = delete;

private:
    Context& ctx_;
    bool was_;
};

// The tables take back what a board held whatever their limits: a board put back brings
// back everything it held. The limits apply again once it is back.
class LimitsLifted {
public:
    explicit LimitsLifted(Context& ctx)
        : ctx_(ctx), arp_(ctx.neighs.capacity(2)), nd_(ctx.neighs.capacity(10)), fib_(ctx.fib.capacity()) {
        ctx.neighs.set_capacity(2, std::nullopt);
        ctx.neighs.set_capacity(10, std::nullopt);
        ctx.neighs.lift_interface_capacity(10, true);
        ctx.fib.set_capacity(std::nullopt);
    }
    ~LimitsLifted() {
        ctx_.neighs.set_capacity(2, arp_);
        ctx_.neighs.set_capacity(10, nd_);
        ctx_.neighs.lift_interface_capacity(10, false);
        ctx_.fib.set_capacity(fib_);
    }
    LimitsLifted(const LimitsLifted&) = delete;
    LimitsLifted& operator=(const LimitsLifted&) = delete;

private:
    Context& ctx_;
    std::optional<std::size_t> arp_, nd_, fib_;
};

// Removes the neighbours of both families on the interfaces; gives what it removed.
std::vector<Neighbour> flush_neighbours(Context& ctx, const std::set<std::uint32_t>& ifindexes) {
    std::vector<Neighbour> gone;
    for (const std::uint8_t family : {std::uint8_t{2}, std::uint8_t{10}}) {
        ctx.neighs.each(family, [&](const Neighbour& n) {
            if (ifindexes.count(n.ifindex) != 0) gone.push_back(n);
        });
    }
    for (const Neighbour& n : gone) ctx.neighs.remove(n.family, n.ifindex, n.addr);
    return gone;
}

// A board pulled out: its addresses, neighbours and routes go (with their events), its
// services stop listening and their clients see the connection end.
json pull(Context& ctx, std::uint16_t node, bool switchover) {
    if (ctx.device.pulled(node)) return json{{"changed", false}};
    if (node == ctx.device.master()) {
        std::uint16_t standby = 0;
        for (const std::uint16_t n : ctx.device.standby_nodes()) {
            if (standby == 0 && n != node && ctx.device.node_up(n)) standby = n;
        }
        if (standby != 0 && !switchover) {
            throw std::invalid_argument("node " + std::to_string(node) + " is the master and node " +
                                        std::to_string(standby) + " stands by: take it down with \"switchover\": true");
        }
        if (standby != 0) ctx.device.set_master(standby);
    }
    const std::vector<std::uint32_t> owned = ctx.device.interfaces_of(node);
    const std::set<std::uint32_t> ifs(owned.begin(), owned.end());
    DeviceEvents::Held held;
    {
        const Unstored unstored(ctx);
        ctx.addrs.each([&](const IPAddrInfo& a) {
            if (ifs.count(a.stEntry.stKey.uiIfIndex) != 0) held.addresses.push_back(a);
        });
        for (const IPAddrInfo& a : held.addresses) {
            ctx.addrs.remove(a.stEntry.stKey.uiIfIndex, a.stEntry.stKey.uiAddr);
        }
        held.neighbours = flush_neighbours(ctx, ifs);
        ctx.fib.each([&](const Route& r) {
            if (r.node == node || ifs.count(r.ifindex) != 0) held.routes.push_back(r);
        });
        for (const Route& r : held.routes) ctx.fib.remove(FibTable::key_of(r));
    }
    ctx.device.pull(node);
    // Every family-37 port of the node, and the master's services where they moved.
    for (const ServiceOps& svc : services()) {
        if (svc.port != 0) ctx.loop.close_endpoint("lipc", node, svc.port);
    }
    if (ctx.device.master() != node && ctx.events.listen_node) ctx.events.listen_node(ctx.device.master_ep());
    const json out{{"changed", true},
                   {"master", ctx.device.master()},
                   {"addresses", held.addresses.size()},
                   {"neighbours", held.neighbours.size()},
                   {"routes", held.routes.size()}};
    ctx.events.pulled[node] = std::move(held);
    SIM_LOG(kInfo, "node %u pulled out: %s", static_cast<unsigned>(node), out.dump().c_str());
    return out;
}

// A board put back: what it held comes back (with the events of its return), its services
// listen again.
json put_back(Context& ctx, std::uint16_t node) {
    if (!ctx.device.pulled(node)) return json{{"changed", false}};
    ctx.device.put_back(node);
    DeviceEvents::Held held = std::move(ctx.events.pulled[node]);
    ctx.events.pulled.erase(node);
    {
        const Unstored unstored(ctx);
        const LimitsLifted lifted(ctx);
        // What clients made meanwhile stays: an address that would now conflict, a
        // neighbour or a route whose key is taken, is not brought back (and is logged).
        std::size_t skipped = 0;
        for (const IPAddrInfo& a : held.addresses) {
            if (ctx.addrs.conflict(a.stEntry) != nullptr) {
                ++skipped;
                continue;
            }
            ctx.addrs.put(a);
        }
        for (const Neighbour& n : held.neighbours) {
            if (ctx.neighs.find(n.family, n.ifindex, n.addr) != nullptr) {
                ++skipped;
                continue;
            }
            (void)ctx.neighs.put(n);  // taken: no limit now
        }
        for (const Route& r : held.routes) {
            if (ctx.fib.find(FibTable::key_of(r))) {
                ++skipped;
                continue;
            }
            (void)ctx.fib.put(r);
        }
        if (skipped != 0) SIM_LOG(kWarn, "node %u put back: %zu entries made meanwhile stay as they are", static_cast<unsigned>(node), skipped);
    }
    if (ctx.events.listen_node) ctx.events.listen_node(node);
    SIM_LOG(kInfo, "node %u put back", static_cast<unsigned>(node));
    return json{{"changed", true},
                {"master", ctx.device.master()},
                {"addresses", held.addresses.size()},
                {"neighbours", held.neighbours.size()},
                {"routes", held.routes.size()}};
}

// A link that goes down: the neighbours learnt on it are flushed, the routes through it go
// inactive. Its addresses stay (they belong to the interface, not to the link).
json link_set(Context& ctx, std::uint32_t ifindex, bool up) {
    const auto down = ctx.events.links_down.find(ifindex);
    if ((down == ctx.events.links_down.end()) == up) return json{{"changed", false}};
    std::size_t neighbours = 0;
    const Unstored unstored(ctx);
    // The routes through the link that it takes down, or the ones it took down and brings
    // back (a route that was inactive before stays so).
    std::vector<Route> changed;
    if (!up) {
        neighbours = flush_neighbours(ctx, {ifindex}).size();
        ctx.fib.each([&](const Route& r) {
            if (r.ifindex == ifindex && r.active) changed.push_back(r);
        });
        auto& keys = ctx.events.links_down[ifindex];
        for (const Route& r : changed) keys.push_back(FibTable::key_of(r));
    } else {
        for (const FibTable::Key& k : down->second) {
            if (std::optional<Route> r = ctx.fib.find(k); r && r->ifindex == ifindex) changed.push_back(std::move(*r));
        }
        ctx.events.links_down.erase(down);
    }
    for (Route& r : changed) {
        r.active = up;
        (void)ctx.fib.put(r);  // a change of a route held: always taken, and counted as a change
    }
    const std::size_t routes = changed.size();
    if (const scenario::Interface* itf = ctx.device.interface(ifindex)) {
        publish_ifcfg(ctx, ifindex, up && itf->link_up ? 1 : 0, ipc::proto::addr_svc::kIfCfgLinkState, itf->vrf);
    }
    SIM_LOG(kInfo, "link of interface %u %s: %zu neighbours flushed, %zu routes changed", ifindex, up ? "up" : "down",
            neighbours, routes);
    return json{{"changed", true}, {"neighbours", neighbours}, {"routes", routes}};
}

const ServiceOps& service_of(const json& req) {
    const json& v = arg::need(req, "service");
    if (v.is_string()) {
        for (const ServiceOps& s : services()) {
            if (s.port != 0 && v.get_ref<const std::string&>() == s.name) return s;
        }
    } else if (const auto port = arg::whole_if<std::uint16_t, 1, 65535>(req, "service")) {
        if (const ServiceOps* s = service_on(*port)) return *s;
    }
    std::string names;
    for (const ServiceOps& s : services()) {
        if (s.port == 0) continue;
        names += (names.empty() ? "" : ", ") + std::string(s.name) + " (" + std::to_string(s.port) + ")";
    }
    throw std::invalid_argument("\"service\" must be a service's name or port: " + names + "; got " + arg::shown(v));
}

}  // namespace

void register_device_events(Context& ctx) {
    ctx.control.on("node.set", [&ctx](const json& req) {
        arg::only_keys(req, {"node", "state", "switchover"});
        const std::uint16_t node = arg::node(ctx, req);
        const bool up = arg::word<bool>(req, "state", {{"up", true}, {"down", false}});
        const bool switchover = arg::flag(req, "switchover", false);
        if (!up && !ctx.device.pulled(node) && !ctx.device.node_up(node)) {
            throw std::invalid_argument("node " + std::to_string(node) + " is down already (the scenario says so)");
        }
        return up ? put_back(ctx, node) : pull(ctx, node, switchover);
    });
    ctx.control.on("link.set", [&ctx](const json& req) {
        arg::only_keys(req, {"interface", "state"});
        const std::uint32_t ifindex = arg::interface(ctx, req);
        return link_set(ctx, ifindex, arg::word<bool>(req, "state", {{"up", true}, {"down", false}}));
    });
    ctx.control.on("service.restart", [&ctx](const json& req) {
        arg::only_keys(req, {"service", "after_ms"});
        const ServiceOps& svc = service_of(req);
        const auto after = arg::whole<std::uint32_t, 0, kRestartMostMs>(req, "after_ms", 0);
        const std::size_t closed = ctx.loop.close_endpoint("lipc", std::nullopt, svc.port);
        if (svc.restarted != nullptr) svc.restarted(ctx);
        const std::uint64_t mine = ++ctx.events.restarts;
        ctx.events.restarting[svc.port] = mine;
        ctx.loop.after(std::chrono::milliseconds(after), [&ctx, &svc, mine] {
            const auto it = ctx.events.restarting.find(svc.port);
            if (it == ctx.events.restarting.end() || it->second != mine) return;
            ctx.events.restarting.erase(it);
            if (ctx.events.listen_service) ctx.events.listen_service(svc);
            SIM_LOG(kInfo, "the %s is back", svc.name);
        });
        SIM_LOG(kInfo, "the %s restarts: %zu sockets closed; back in %u ms", svc.name, closed, after);
        return json{{"service", svc.name}, {"port", svc.port}, {"closed", closed}, {"after_ms", after}};
    });
}

}  // namespace sim
