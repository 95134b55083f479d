#include "daemon.hpp"

#include <sys/un.h>

#include <array>
#include <map>
#include <tuple>

#include "core/log.hpp"
#include "faults/faults.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"
#include "modules/vpn.hpp"
#include "services/service.hpp"
#include "services/services.hpp"

namespace sim {

Daemon::Daemon(const scenario::Scenario& s, Options opts)
    : opts_(std::move(opts)),
      device_(s),
      addr_module_(device_, addrs_),
      database_(device_, addrs_),
      fib_module_(device_, fib_),
      ctx_{loop_, device_, addrs_, addr_module_, services_, store_, capture_, database_, anchors_,
           fib_, fib_module_, dumps_, {}, {}, {}, {}, {}, {}, {}, {}, std::chrono::steady_clock::now()} {
    addrs_.interface_vrf = [this](std::uint32_t ifindex) {
        const auto* i = device_.interface(ifindex);
        return i != nullptr ? i->vrf : std::uint16_t{0};
    };
    for (const auto& a : s.addresses) {
        IPAddrInfo info{};
        info.stEntry.stKey.uiIfIndex = a.ifindex;
        info.stEntry.stKey.usVrfIndex = a.vrf ? *a.vrf : addrs_.interface_vrf(a.ifindex);
        info.stEntry.stKey.uiAddr = a.addr;
        info.stEntry.stKey.uiMask = a.mask;
        info.stEntry.stKey.uiMethod = a.method;
        info.stEntry.uiFlag = a.sub ? kFlagSub : 0;
        addrs_.put(info, false);
    }
    for (const auto& svc : s.services) services_.set(svc.node, svc.name, svc.status);
    source_ = s.source;
    faults_ = s.faults;
    limits_ = s.limits;
    load_routes(s);
    load_neighbours(s);
    register_vpn(ctx_, s);
    services_.schedule = [this](std::chrono::milliseconds d, std::function<void()> fn) { loop_.after(d, std::move(fn)); };
    services_.on_running = [this](std::uint16_t node, const std::string& name) {
        if (!listening_ || name != "IPStack" || !device_.node_up(node)) return;
        for (const ServiceOps& svc : services()) {
            if (svc.where == ServiceOps::Where::kWhileIpStackRuns && should_listen(node, svc)) {
                (void)listen_service(node, svc);
            }
        }
    };
}

void Daemon::load_routes(const scenario::Scenario& s) {
    // The MAC of each neighbour item by (interface, family, address), looked up once a route.
    std::map<std::tuple<std::uint32_t, int, std::array<std::uint8_t, 16>>, const std::uint8_t*> macs;
    for (const auto& n : s.neighbours) {
        std::array<std::uint8_t, 16> addr{};
        std::copy(std::begin(n.addr), std::end(n.addr), addr.begin());
        macs[{n.ifindex, n.family, addr}] = n.mac;  // the last item of an address, as before
    }
    for (const auto& sr : s.routes) {
        Route r;
        r.vrf = sr.vrf;
        r.family = static_cast<std::uint8_t>(sr.family);
        r.prefix_len = sr.prefix_len;
        std::copy(std::begin(sr.prefix), std::end(sr.prefix), r.prefix.begin());
        std::copy(std::begin(sr.next_hop), std::end(sr.next_hop), r.next_hop.begin());
        r.ifindex = sr.ifindex;
        r.via_ifindex = sr.ifindex;
        r.node = sr.node;
        r.type = sr.type;
        if (const auto* itf = device_.interface(sr.ifindex)) {
            std::copy(std::begin(itf->mac), std::end(itf->mac), r.own_mac.begin());
            // The next hop's MAC when the scenario lists it as a neighbour of the interface.
            std::array<std::uint8_t, 16> hop{};
            std::copy(std::begin(sr.next_hop), std::end(sr.next_hop), hop.begin());
            if (const auto m = macs.find({sr.ifindex, sr.family, hop}); m != macs.end()) {
                std::copy(m->second, m->second + r.mac.size(), r.mac.begin());
            }
        }
        (void)fib_.put(r);  // limits apply once the device runs
    }
}

void Daemon::load_neighbours(const scenario::Scenario& s) {
    ctx_.hosts = s.hosts;
    for (const auto& sn : s.neighbours) {
        Neighbour n;
        n.family = static_cast<std::uint8_t>(sn.family == 10 ? 10 : 2);
        n.ifindex = sn.ifindex;
        std::copy(std::begin(sn.addr), std::end(sn.addr), n.addr.begin());
        std::copy(std::begin(sn.mac), std::end(sn.mac), n.mac.begin());
        n.vlan = sn.vlan;
        if (const auto* itf = device_.interface(sn.ifindex)) {
            n.vrf = itf->vrf;
            n.node = itf->node;
        }
        if (sn.state == "static") {
            n.kind = NeighKind::kStatic;
            n.aging = 0;
        } else {
            n.state = sn.state == "stale"        ? NeighState::kStale
                      : sn.state == "incomplete" ? NeighState::kIncomplete
                                                 : NeighState::kReachable;
        }
        // A run counts the address (its last 32 bits) and the MAC's last 32 bits up.
        const std::size_t at = n.family == 10 ? 12 : 0;
        const auto first = ipc::wire::load_be<std::uint32_t>(n.addr.data() + at);
        const auto mac_first = ipc::wire::load_be<std::uint32_t>(n.mac.data() + 2);
        for (std::uint32_t i = 0; i < sn.count; ++i) {
            ipc::wire::store_be(n.addr.data() + at, first + i);
            ipc::wire::store_be(n.mac.data() + 2, mac_first + i);
            (void)ctx_.neighs.put(n);  // limits apply once the device runs
        }
    }
}

// The connections refer to the context; they end before it does.
Daemon::~Daemon() { loop_.close_all(); }

// What the store kept, read back by each module before any request. The whole load is
// refused on one bad row: a half-restored device would be worse.
std::optional<std::string> Daemon::restore() {
    if (opts_.state_dir.empty()) return std::nullopt;
    if (auto err = store_.open(opts_.state_dir)) return err;
    for (const auto& w : store_.warnings()) SIM_LOG(kWarn, "state: %s", w.c_str());
    for (const KernelModuleOps* m : kernel_modules()) {
        if (m->restore == nullptr) continue;
        if (auto err = m->restore(ctx_)) return opts_.state_dir + "/ipsimd.db: " + *err;
    }
    return std::nullopt;
}

namespace {

// What to say of a name that could not be bound.
std::string held_by(const std::string& holder, const std::string& instance) {
    if (holder.empty()) return " (is another ipsimd running for instance " + instance + "?)";
    return " (held by " + holder + ")";
}

}  // namespace

bool Daemon::listen_service(std::uint16_t node, const ServiceOps& svc) {
    sockaddr_un sun{};
    const socklen_t n = ipc::names::endpoint(opts_.instance, node, svc.port, &sun);
    std::string holder;
    auto accept = [this, &svc](Loop& l, int fd, const Endpoint& w, pid_t pid) -> std::unique_ptr<Conn> {
        // A service that has as many clients as its limit allows turns the next one away.
        if (const auto lim = ctx_.client_limits.find(svc.port);
            lim != ctx_.client_limits.end() && lim->second.capacity && l.connections_on(w) >= *lim->second.capacity) {
            ++lim->second.refused;
            SIM_LOG(kInfo, "the %s of node %u takes no more clients (limit %zu): pid %d turned away", svc.name,
                    static_cast<unsigned>(w.node), *lim->second.capacity, static_cast<int>(pid));
            return nullptr;
        }
        std::unique_ptr<Conn> c = svc.accept(ctx_, l, fd, w, pid);
        if (c) {
            Conn::Refusal refuse;
            if (svc.refuse != nullptr) refuse = svc.refuse;
            c->set_faults([this, node = w.node, port = w.port](std::span<const std::uint8_t>) {
                                return ctx_.faults.hit(FaultPoint{node, port, 0, std::nullopt, nullptr});
                            },
                            std::move(refuse));
        }
        return c;
    };
    if (!loop_.listen(&sun, n, Endpoint{node, svc.port, "lipc"}, std::move(accept), &holder)) {
        SIM_LOG(kError, "cannot listen on node %u port %u%s", static_cast<unsigned>(node),
                static_cast<unsigned>(svc.port), held_by(holder, opts_.instance).c_str());
        return false;
    }
    return true;
}

bool Daemon::should_listen(std::uint16_t node, const ServiceOps& svc) const {
    if (svc.port == 0 || ctx_.events.restarting.count(svc.port) != 0 || !device_.node_up(node) ||
        loop_.listens(Endpoint{node, svc.port, "lipc"})) {
        return false;
    }
    switch (svc.where) {
        case ServiceOps::Where::kEveryNode: return true;
        case ServiceOps::Where::kMasterEndpoint: return node == device_.master_ep();
        case ServiceOps::Where::kWhileIpStackRuns: return services_.status(node, "IPStack") == kSvcRunning;
        case ServiceOps::Where::kNowhere: return false;
    }
    return false;
}

void Daemon::listen_node(std::uint16_t node) {
    for (const ServiceOps& svc : services()) {
        if (should_listen(node, svc)) (void)listen_service(node, svc);
    }
}

std::optional<std::string> Daemon::apply_knobs() {
    const auto where = [this](const scenario::ControlItem& item, const std::string& what) {
        return source_ + ":" + std::to_string(item.line) + ": " + item.key + ": " + what;
    };
    for (const scenario::ControlItem& item : limits_) {
        try {
            (void)apply_limit(ctx_, item.args);
        } catch (const std::exception& e) {
            return where(item, e.what());
        }
    }
    for (const scenario::ControlItem& item : faults_) {
        if (ctx_.faults.list().size() >= kFaultsMost) {
            return where(item, "the device plays at most " + std::to_string(kFaultsMost) + " faults");
        }
        try {
            ctx_.faults.add(fault_of(ctx_, item.args));
        } catch (const std::exception& e) {
            return where(item, e.what());
        }
    }
    if (!faults_.empty()) SIM_LOG(kWarn, "the device plays %zu faults from the scenario", faults_.size());
    return std::nullopt;
}

std::string Daemon::cannot_listen(const ServiceOps& svc, std::uint16_t node) {
    return std::string("cannot listen on the ") + svc.name + " of node " + std::to_string(node);
}

std::optional<std::string> Daemon::start() {
    if (!opts_.capture.empty()) {
        if (auto err = capture_.open(opts_.capture)) return "cannot open the capture file " + *err;
    }
    if (auto err = restore()) return err;
    addrs_.set_observer([this](const AddrChange& c) {
        // The mirrored system's own changes are not a client's: the system keeps them.
        // Nor are the device's own (a board pulled out): the store keeps what clients set.
        if ((ctx_.mirror == nullptr || !ctx_.mirror->applying()) && !ctx_.events.unstored) {
            addr_module_.persist(store_, c);
        }
        // Announced once the request's change is stored.
        store_.after_commit([this, c] { publish_addr_change(ctx_, c); });
    });
    addrs_.set_settings_observer([this](std::uint32_t ifindex, const IfSettings& s) {
        addr_module_.persist_settings(store_, ifindex, s);
    });
    ctx_.neighs.add_observer([this](const NeighChange& c) { publish_neigh_change(ctx_, c); });
    for (const KernelModuleOps* m : kernel_modules()) {
        if (m->controls != nullptr) m->controls(ctx_);
    }
    register_fault_control(ctx_);
    register_limit_control(ctx_);
    register_device_events(ctx_);
    ctx_.events.listen_node = [this](std::uint16_t node) { listen_node(node); };
    if (auto err = apply_knobs()) return err;
    ctx_.events.listen_service = [this](const ServiceOps& svc) {
        for (const auto& [node, state] : device_.nodes()) {
            if (state.info.up && should_listen(node, svc)) (void)listen_service(node, svc);
        }
    };
    for (const ServiceOps& svc : services()) {
        if (svc.controls != nullptr) svc.controls(ctx_);
    }

    sockaddr_un sun{};
    const socklen_t n = ipc::names::device(opts_.instance, &sun);
    std::string holder;
    if (!loop_.listen(
            &sun, n, Endpoint{0, 0, "device"},
            [this](Loop& l, int fd, const Endpoint& w, pid_t pid) { return make_device_conn(ctx_, l, fd, w, pid); },
            &holder)) {
        return "cannot listen on the device channel of instance " + opts_.instance + held_by(holder, opts_.instance);
    }
    const socklen_t cn = ipc::names::control(opts_.instance, &sun);
    if (!loop_.listen(
            &sun, cn, Endpoint{0, 0, "control"},
            [this](Loop& l, int fd, const Endpoint& w, pid_t pid) { return make_control_conn(ctx_, l, fd, w, pid); },
            &holder)) {
        return "cannot listen on the control channel of instance " + opts_.instance + held_by(holder, opts_.instance);
    }
    listening_ = true;
    for (const ServiceOps& svc : services()) {
        switch (svc.where) {
            case ServiceOps::Where::kEveryNode:
                for (const auto& [node, state] : device_.nodes()) {
                    if (state.info.up && !listen_service(node, svc)) return cannot_listen(svc, node);
                }
                break;
            case ServiceOps::Where::kMasterEndpoint:
                if (device_.node_up(device_.master_ep()) && !listen_service(device_.master_ep(), svc)) {
                    return cannot_listen(svc, device_.master_ep());
                }
                break;
            case ServiceOps::Where::kWhileIpStackRuns:
                // Where it runs already; from now on each node's service listens once its
                // IPStack runs (on_running). A port it cannot have is logged, as when the
                // service starts later.
                for (const auto& [node, state] : device_.nodes()) {
                    if (state.info.up && services_.status(node, "IPStack") == kSvcRunning) {
                        (void)listen_service(node, svc);
                    }
                }
                break;
            case ServiceOps::Where::kNowhere: break;
        }
    }
    return std::nullopt;
}

void Daemon::run() { loop_.run(); }

}  // namespace sim
