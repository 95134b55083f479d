#include "daemon.hpp"

#include <sys/un.h>

#include <array>
#include <map>
#include <tuple>

#include "core/log.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/wire.hpp"
#include "modules/fib_control.hpp"
#include "modules/neigh_control.hpp"
#include "modules/vpn.hpp"
#include "services/services.hpp"
#include "store/records.hpp"

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
    load_routes(s);
    load_neighbours(s);
    register_vpn(ctx_, s);
    services_.schedule = [this](std::chrono::milliseconds d, std::function<void()> fn) { loop_.after(d, std::move(fn)); };
    services_.on_running = [this](std::uint16_t node, const std::string& name) {
        if (listening_ && name == "IPStack" && device_.node_up(node)) {
            listen_service(node, kPortIPStack, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_ipstack_conn(ctx_, l, fd, w, pid);
            });
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
        if (const auto* itf = device_.interface(sr.ifindex)) {
            std::copy(std::begin(itf->mac), std::end(itf->mac), r.own_mac.begin());
            // The next hop's MAC when the scenario lists it as a neighbour of the interface.
            std::array<std::uint8_t, 16> hop{};
            std::copy(std::begin(sr.next_hop), std::end(sr.next_hop), hop.begin());
            if (const auto m = macs.find({sr.ifindex, sr.family, hop}); m != macs.end()) {
                std::copy(m->second, m->second + r.mac.size(), r.mac.begin());
            }
        }
        fib_.put(r);
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
            ctx_.neighs.put(n);
        }
    }
}

// The connections refer to the context; they end before it does.
Daemon::~Daemon() { loop_.close_all(); }

void Daemon::persist(const AddrChange& change) {
    // The mirrored system's own changes are not a client's: the system keeps them.
    if (ctx_.mirror != nullptr && ctx_.mirror->applying()) return;
    const IPAddrKey& k = change.info.stEntry.stKey;
    const auto key = records::addr_key(k.uiIfIndex, k.uiAddr);
    if (change.kind == AddrChange::kDelete) {
        store_.remove("addr", key);
    } else {
        store_.put("addr", key, records::encode_addr(change.info));
    }
    // Should the request's work be rolled back, the table gets back what it held.
    store_.on_rollback([this, ifindex = k.uiIfIndex, addr = k.uiAddr, before = change.before] {
        if (before) {
            addrs_.put(*before, false);
        } else {
            addrs_.remove(ifindex, addr, false);
        }
    });
}

void Daemon::persist_settings(std::uint32_t ifindex, const IfSettings& s) {
    store_.put("ifset", records::settings_key(ifindex), records::encode_settings(s));
    // Stored: the settings the store now has. Rolled back: the settings as the store has
    // them (none stored: the defaults).
    store_.after_commit([this, ifindex, s] { stored_settings_[ifindex] = s; });
    store_.on_rollback([this, ifindex] {
        const auto it = stored_settings_.find(ifindex);
        addrs_.settings(ifindex) = it != stored_settings_.end() ? it->second : IfSettings{};
    });
}

std::optional<std::string> Daemon::restore() {
    if (opts_.state_dir.empty()) return std::nullopt;
    if (auto err = store_.open(opts_.state_dir)) return err;
    for (const auto& w : store_.warnings()) SIM_LOG(kWarn, "state: %s", w.c_str());
    // The whole load is refused on one bad row: a half-restored device would be worse.
    std::string bad;
    const bool addrs_ok = store_.each("addr", [&](std::span<const std::uint8_t> key, const std::vector<std::uint8_t>* value) {
        if (value == nullptr) {
            std::uint32_t ifindex = 0, addr = 0;
            if (!records::decode_addr_key(key, &ifindex, &addr)) return bad = "a bad address key", false;
            addrs_.remove(ifindex, addr, false);
            return true;
        }
        const auto info = records::decode_addr(key, *value);
        if (!info || device_.interface(info->stEntry.stKey.uiIfIndex) == nullptr) {
            return bad = "an address row that does not fit this scenario", false;
        }
        addrs_.put(*info, false);
        return true;
    });
    const bool settings_ok = addrs_ok && store_.each("ifset", [&](std::span<const std::uint8_t> key,
                                                                  const std::vector<std::uint8_t>* value) {
        const auto ifindex = records::decode_settings_key(key);
        const auto s = value != nullptr ? records::decode_settings(*value) : std::nullopt;
        if (!ifindex || !s || device_.interface(*ifindex) == nullptr) return bad = "a bad settings row", false;
        addrs_.settings(*ifindex) = *s;
        stored_settings_[*ifindex] = *s;
        return true;
    });
    if (!addrs_ok || !settings_ok) return opts_.state_dir + "/ipsimd.db: " + (bad.empty() ? "unreadable" : bad);
    return std::nullopt;
}

namespace {

// What to say of a name that could not be bound.
std::string held_by(const std::string& holder, const std::string& instance) {
    if (holder.empty()) return " (is another ipsimd running for instance " + instance + "?)";
    return " (held by " + holder + ")";
}

}  // namespace

bool Daemon::listen_service(std::uint16_t node, std::uint16_t port, ConnFactory make) {
    sockaddr_un sun{};
    const socklen_t n = ipc::names::endpoint(opts_.instance, node, port, &sun);
    std::string holder;
    if (!loop_.listen(&sun, n, Endpoint{node, port, "lipc"}, std::move(make), &holder)) {
        SIM_LOG(kError, "cannot listen on node %u port %u%s", static_cast<unsigned>(node), static_cast<unsigned>(port),
                held_by(holder, opts_.instance).c_str());
        return false;
    }
    return true;
}

std::optional<std::string> Daemon::start() {
    if (!opts_.capture.empty()) {
        if (auto err = capture_.open(opts_.capture)) return "cannot open the capture file " + *err;
    }
    if (auto err = restore()) return err;
    addrs_.set_observer([this](const AddrChange& c) {
        persist(c);
        // Announced once the request's change is stored.
        store_.after_commit([this, c] { publish_addr_change(ctx_, c); });
    });
    ctx_.neighs.add_observer([this](const NeighChange& c) { publish_neigh_change(ctx_, c); });
    register_adj_control(ctx_);
    register_neigh_control(ctx_);
    register_fib_control(ctx_);
    register_wlan(ctx_);
    register_proen(ctx_);
    register_nd_errors(ctx_);
    register_arp_controls(ctx_);
    ctx_.nd.attach(ctx_);
    if (auto err = ctx_.ipstat.attach(ctx_)) return opts_.state_dir + "/ipsimd.db: " + *err;
    addrs_.set_settings_observer([this](std::uint32_t ifindex, const IfSettings& s) { persist_settings(ifindex, s); });

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
    for (const auto& [node, state] : device_.nodes()) {
        if (!state.info.up) continue;
        const bool ok =
            listen_service(node, kPortAddrCfg, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_addrcfg_conn(ctx_, l, fd, w, pid);
            }) &&
            listen_service(node, kPortAddrEvents, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_addr_event_conn(ctx_, l, fd, w, pid);
            }) &&
            listen_service(node, kPortPortAttack, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_portatk_conn(ctx_, l, fd, w, pid);
            }) &&
            listen_service(node, kPortAdj4, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_adj_conn(ctx_, false, l, fd, w, pid);
            }) &&
            listen_service(node, kPortAdj6, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_adj_conn(ctx_, true, l, fd, w, pid);
            });
        if (!ok) return "cannot listen on the services of node " + std::to_string(node);
        const bool wlan_proen_ok =
            listen_service(node, kPortWlan, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_wlan_conn(ctx_, l, fd, w, pid);
            }) &&
            listen_service(node, kPortProen, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_proen_conn(ctx_, l, fd, w, pid);
            }) &&
            listen_service(node, kPortProenLocal, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_proen_conn(ctx_, l, fd, w, pid);
            });
        if (!wlan_proen_ok) return "cannot listen on the WLAN and protocol-to-CPU services of node " + std::to_string(node);
        if (!listen_service(node, kPortArpDaemon, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
                return make_arp_daemon_conn(ctx_, l, fd, w, pid);
            })) {
            return "cannot listen on the ARP daemon of node " + std::to_string(node);
        }
        if (services_.status(node, "IPStack") == kSvcRunning) services_.on_running(node, "IPStack");
    }
    // ND overlay suppression is served by the master's endpoint alone.
    if (device_.node_up(device_.master_ep()) &&
        !listen_service(device_.master_ep(), kPortNdOverlay, [this](Loop& l, int fd, const Endpoint& w, pid_t pid) {
            return make_nd_overlay_conn(ctx_, l, fd, w, pid);
        })) {
        return "cannot listen on the ND overlay suppression service of node " + std::to_string(device_.master_ep());
    }
    return std::nullopt;
}

void Daemon::run() { loop_.run(); }

}  // namespace sim
