#include "source/linux_source.hpp"

#include <linux/rtnetlink.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>

#include "core/log.hpp"
#include "ipproto/raii.hpp"
#include "ipproto/svc_addr.hpp"
#include "ipproto/wire.hpp"

namespace sim {
namespace {

constexpr std::uint16_t kNode = 1;
constexpr std::chrono::milliseconds kCountersPeriod{1000};
// How soon after a resolution asked of the kernel its incomplete entry is read.
constexpr std::chrono::milliseconds kIncompleteRead{20};
// The kernel tells of a link's new state, or of an address gone, before it drops the routes
// that go with it (and tells nothing of those): the routes are read at once and again after
// this long.
constexpr std::chrono::milliseconds kRoutesSettle{50};
constexpr unsigned kGroups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_ROUTE | RTMGRP_NEIGH;
// Interface type codes of the device.
constexpr std::uint32_t kTypeNull = 1, kTypeEthernet = 6, kTypeVlanIf = 35, kTypeTunnel = 71;
constexpr std::size_t kMaxName = 31;
// Not in the C library's list of link types.
constexpr std::uint16_t kArphrdIp6Gre = 823;

// A network-order IPv4 mask of a prefix length.
std::uint32_t mask_of(std::uint8_t len) {
    const std::uint32_t host = len == 0 ? 0 : len >= 32 ? 0xFFFFFFFFu : ~(0xFFFFFFFFu >> len);
    std::uint32_t out = 0;
    ipc::wire::store_be(&out, host);
    return out;
}

// Marks the table changes made in its scope as the namespace's own.
class Applying {
public:
    explicit Applying(bool& flag) : flag_(flag), was_(flag) { flag_ = true; }
    ~Applying() { flag_ = was_; }
    Applying(const Applying&) = delete;
    Applying& operator=(const Applying&) = delete;

private:
    bool& flag_;
    bool was_;
};

std::uint32_t type_of(const nl::Link& l) {
    if (l.arphrd == ARPHRD_LOOPBACK) return kTypeLoopback;
    if (l.kind == "vlan" || l.kind == "bridge") return kTypeVlanIf;
    switch (l.arphrd) {
        case ARPHRD_ETHER: return kTypeEthernet;
        case ARPHRD_TUNNEL:
        case ARPHRD_TUNNEL6:
        case ARPHRD_IPGRE:
        case kArphrdIp6Gre:
        case ARPHRD_SIT:
        case ARPHRD_NONE: return kTypeTunnel;
        default: return kTypeNull;
    }
}

std::string errno_text(int rc) { return std::strerror(rc); }

// An interface's promote_secondaries set for the scope, and put back as it was after: Linux
// deletes the secondaries of a deleted primary address unless it is set, and the device keeps
// them.
class Promoting {
public:
    Promoting(const std::string& netns, const std::string& ifname) {
        if (ifname.empty() || ifname.find('/') != std::string::npos) return;
        {
            const nl::NetnsScope inside(netns);
            if (!inside.error().empty()) return;
            const std::string path = "/proc/sys/net/ipv4/conf/" + ifname + "/promote_secondaries";
            fd_.reset(::open(path.c_str(), O_RDWR | O_CLOEXEC));
        }
        char was = 0;
        if (!fd_.valid() || ::pread(fd_.get(), &was, 1, 0) != 1) return;
        was_ = was;
        if (was_ != '1') (void)::pwrite(fd_.get(), "1\n", 2, 0);
    }
    ~Promoting() {
        if (fd_.valid() && was_ != '\0' && was_ != '1') {
            const char text[2] = {was_, '\n'};
            (void)::pwrite(fd_.get(), text, 2, 0);
        }
    }
    Promoting(const Promoting&) = delete;
    Promoting& operator=(const Promoting&) = delete;

private:
    ipc::Fd fd_;
    char was_ = '\0';
};

}  // namespace

std::unique_ptr<LinuxSource> LinuxSource::open(const LinuxSourceOptions& opts, std::string* err) {
    std::unique_ptr<LinuxSource> s(new LinuxSource(opts));
    {
        const nl::NetnsScope inside(opts.netns);
        if (!inside.error().empty()) {
            *err = inside.error();
            return nullptr;
        }
        s->events_ = nl::Socket::open(kGroups, err, opts.event_buffer);
        if (!s->events_) return nullptr;
        s->requests_ = nl::Socket::open(0, err);
        if (!s->requests_ || !s->proc_.open(err)) return nullptr;
        // The namespace's IPv4 settings, read (and, writable, written) through these files.
        if (!s->proc_.open_settings(opts.writable)) {
            SIM_LOG(kWarn, "%s: cannot read /proc/sys/net/ipv4/ip_default_ttl: %s", s->describe().c_str(),
                    std::strerror(errno));
        }
    }
    // Subscribed first, read second: what changes in between arrives as a notification.
    nl::Sink& sink = *s;
    if (const int rc = nl::dump_links(*s->requests_, sink); rc != 0) {
        *err = s->describe() + ": cannot read the links: " + errno_text(rc);
        return nullptr;
    }
    if (const int rc = nl::dump_addrs(*s->requests_, sink); rc != 0) {
        *err = s->describe() + ": cannot read the addresses: " + errno_text(rc);
        return nullptr;
    }
    s->build_scenario();
    return s;
}

LinuxSource::~LinuxSource() {
    *alive_ = false;
    if (ctx_ != nullptr) {
        if (events_) ctx_->loop.unwatch(events_->fd());
        if (ctx_->mirror == this) ctx_->mirror = nullptr;
    }
}

std::string LinuxSource::describe() const {
    return "linux namespace " + (opts_.netns.empty() ? std::string("(ipsimd's own)") : opts_.netns);
}

void LinuxSource::build_scenario() {
    scenario_ = scenario::Scenario{};
    scenario_.source = describe();
    scenario_.master = kNode;
    scenario_.master_ep = kNode;
    scenario::Node node;
    node.number = kNode;
    node.chassis = 1;
    node.role = scenario::Role::kMaster;
    scenario_.nodes.push_back(node);
    scenario_.vrfs.push_back({0, "public"});
    scenario_.services.push_back({kNode, "IPStack", 2});
    // VRF devices first, in ifindex order: their slaves need their indexes.
    for (const auto& [index, l] : links_) {
        if (l.kind == "vrf") vrf_device(l);
    }
    for (const auto& [index, l] : links_) {
        if (l.kind != "vrf") scenario_.interfaces.push_back(interface_of(l));
    }
    for (const nl::Addr& a : first_addrs_) {
        const auto it = links_.find(a.ifindex);
        if (it == links_.end() || it->second.kind == "vrf") continue;
        scenario::Address sa;
        sa.ifindex = a.ifindex;
        sa.addr = a.addr;
        sa.mask = mask_of(a.prefix_len);
        sa.method = scenario::kMethodManual;
        sa.sub = (a.flags & IFA_F_SECONDARY) != 0;
        scenario_.addresses.push_back(sa);
        ns_addrs_.insert({a.ifindex, a.addr});
    }
    first_addrs_.clear();
}

std::uint16_t LinuxSource::vrf_of_link(const nl::Link& l) const {
    const auto it = l.master != 0 ? vrf_of_device_.find(l.master) : vrf_of_device_.end();
    return it != vrf_of_device_.end() ? it->second : 0;
}

scenario::Interface LinuxSource::interface_of(const nl::Link& l) const {
    scenario::Interface i;
    i.index = l.index;
    i.name = l.name.substr(0, kMaxName);
    i.node = kNode;
    i.type = type_of(l);
    i.flags = l.flags & ~kIfFlagSpansNodes;
    i.l2 = l.slave_kind == "bridge" || l.slave_kind == "bond";
    i.vrf = vrf_of_link(l);
    if (l.mac) std::copy(l.mac->begin(), l.mac->end(), std::begin(i.mac));
    i.mtu = l.mtu;
    i.link_up = (l.flags & IFF_UP) != 0 && (l.flags & IFF_RUNNING) != 0;
    return i;
}

void LinuxSource::vrf_device(const nl::Link& l) {
    std::uint16_t index = 0;
    const auto dev = vrf_of_device_.find(l.index);
    const auto table = l.vrf_table ? vrf_of_table_.find(*l.vrf_table) : vrf_of_table_.end();
    if (dev != vrf_of_device_.end()) {
        index = dev->second;
    } else if (table != vrf_of_table_.end()) {
        index = table->second;  // a table seen before its device: the VRF takes the device's name
    } else if (next_vrf_ == 0xFFFF) {
        SIM_LOG(kWarn, "%s: no VRF index left for %s", describe().c_str(), l.name.c_str());
        return;
    } else {
        index = next_vrf_++;
    }
    vrf_of_device_[l.index] = index;
    if (l.vrf_table) vrf_of_table_[*l.vrf_table] = index;
    const std::string name = l.name.substr(0, kMaxName);
    if (ctx_ != nullptr) {
        ctx_->device.put_vrf(index, name);
        return;
    }
    auto v = std::find_if(scenario_.vrfs.begin(), scenario_.vrfs.end(), [&](const scenario::Vrf& x) { return x.index == index; });
    if (v == scenario_.vrfs.end()) {
        scenario_.vrfs.push_back({index, name});
    } else {
        v->name = name;
    }
}

std::optional<std::uint16_t> LinuxSource::vrf_of_table(std::uint32_t table, bool create) {
    if (table == RT_TABLE_MAIN || table == RT_TABLE_DEFAULT || table == RT_TABLE_UNSPEC) return std::uint16_t{0};
    if (table == RT_TABLE_LOCAL) return std::nullopt;
    const auto it = vrf_of_table_.find(table);
    if (it != vrf_of_table_.end()) return it->second;
    if (!create || ctx_ == nullptr || next_vrf_ == 0xFFFF) return std::nullopt;
    const std::uint16_t index = next_vrf_++;
    vrf_of_table_[table] = index;
    ctx_->device.put_vrf(index, "table" + std::to_string(table));
    return index;
}

std::optional<std::string> LinuxSource::attach(Context& ctx) {
    ctx_ = &ctx;
    {
        const Applying mark(applying_);
        // Neighbours first: a route's next hop takes its MAC from them.
        if (const int rc = nl::dump_neighs(*requests_, *this); rc != 0) {
            return describe() + ": cannot read the neighbours: " + errno_text(rc);
        }
        if (const int rc = nl::dump_routes(*requests_, *this); rc != 0) {
            return describe() + ": cannot read the routes: " + errno_text(rc);
        }
    }
    ctx.loop.watch(events_->fd(), EPOLLIN, this);
    ctx.mirror = this;
    // The first reading comes with the loop's first round, once every module is attached.
    schedule_counters(std::chrono::milliseconds(0));
    SIM_LOG(kInfo, "%s: %zu interfaces, %zu VRFs, %zu addresses, %zu IPv4 and %zu IPv6 routes, %zu ARP and %zu ND neighbours%s",
            describe().c_str(), ctx.device.interfaces().size(), ctx.device.vrfs().size() - 1, ctx.addrs.size(),
            ctx.fib.count(2), ctx.fib.count(10), ctx.neighs.size(2), ctx.neighs.size(10),
            opts_.writable ? ", writable" : "");
    return std::nullopt;
}

// ---- What the namespace tells ---------------------------------------------------------------

void LinuxSource::link(const nl::Link& l, bool gone) {
    if (ctx_ == nullptr) {
        if (gone) {
            links_.erase(l.index);
        } else {
            links_[l.index] = l;
        }
        return;
    }
    const Applying mark(applying_);
    if (gone) {
        drop_link(l.index);
        links_.erase(l.index);
        return;
    }
    if (seen_) seen_->links.insert(l.index);
    const auto prev = links_.find(l.index);
    const bool known = prev != links_.end();
    const unsigned prev_flags = known ? prev->second.flags : 0;
    links_[l.index] = l;
    if (l.kind == "vrf") {
        if (ctx_->device.interface(l.index) != nullptr) drop_link(l.index);
        vrf_device(l);
        return;
    }
    const scenario::Interface itf = interface_of(l);
    const scenario::Interface* old = ctx_->device.interface(l.index);
    const bool added = old == nullptr;
    const bool moved = old != nullptr && old->vrf != itf.vrf;
    const bool state_changed = old != nullptr && old->link_up != itf.link_up;
    const bool mtu_changed = old != nullptr && old->mtu != itf.mtu;
    ctx_->device.put_interface(itf);
    if (moved) move_to_vrf(l.index, itf.vrf);
    // Subscribers of interface configuration hear of the link: its coming, its state, its MTU.
    namespace svc = ipc::proto::addr_svc;
    if (added) publish_ifcfg(*ctx_, l.index, 1, svc::kIfCfgLink, itf.vrf);
    if (added || state_changed) publish_ifcfg(*ctx_, l.index, itf.link_up ? 1 : 0, svc::kIfCfgLinkState, itf.vrf);
    if (mtu_changed) publish_ifcfg(*ctx_, l.index, itf.mtu, svc::kIfCfgMtu, itf.vrf);
    // Linux drops the IPv4 routes of a link taken down, and clears the link-down flag of its
    // routes when the carrier comes, without a word: the routes are read again (unless the
    // whole namespace is being read again already).
    constexpr unsigned kLowerUp = 0x10000;  // IFF_LOWER_UP of linux/if.h: the carrier
    const unsigned state = IFF_UP | IFF_RUNNING | kLowerUp;
    const bool changed = known && ((prev_flags ^ l.flags) & state) != 0;
    if (changed && !seen_routes_) reread_routes_twice();
}

void LinuxSource::addr(const nl::Addr& a, bool gone) {
    if (ctx_ == nullptr) {
        const auto same = [&](const nl::Addr& x) { return x.ifindex == a.ifindex && x.addr == a.addr; };
        first_addrs_.erase(std::remove_if(first_addrs_.begin(), first_addrs_.end(), same), first_addrs_.end());
        if (!gone) first_addrs_.push_back(a);
        return;
    }
    const scenario::Interface* itf = ctx_->device.interface(a.ifindex);
    if (itf == nullptr) return;
    const Applying mark(applying_);
    if (gone) {
        ns_addrs_.erase({a.ifindex, a.addr});
        ctx_->addrs.remove(a.ifindex, a.addr);
        // A link that loses its last IPv4 address loses every IPv4 route through it, and the
        // kernel tells only of its connected routes: the routes are read again.
        const auto left = ns_addrs_.lower_bound({a.ifindex, 0});
        const bool last = left == ns_addrs_.end() || left->first != a.ifindex;
        if (last && !seen_routes_) reread_routes_twice();
        return;
    }
    ns_addrs_.insert({a.ifindex, a.addr});
    if (seen_) seen_->addrs.insert({a.ifindex, a.addr});
    IPAddrInfo info{};
    IPAddrKey& k = info.stEntry.stKey;
    k.uiIfIndex = a.ifindex;
    k.usVrfIndex = itf->vrf;
    k.uiAddr = a.addr;
    k.uiMask = mask_of(a.prefix_len);
    k.uiMethod = scenario::kMethodManual;
    const std::uint32_t sub = (a.flags & IFA_F_SECONDARY) != 0 ? kFlagSub : 0;
    info.stEntry.uiFlag = sub;
    if (const IPAddrInfo* had = ctx_->addrs.find(a.ifindex, a.addr)) {
        const IPAddrKey& h = had->stEntry.stKey;
        if (h.uiMask == k.uiMask && h.usVrfIndex == k.usVrfIndex) return;
        // What the device said of an address it holds (method, words, main or sub) stays:
        // Linux promotes a secondary when its subnet's primary goes, the device does not.
        const IPAddrInfo keep = *had;
        k.uiMethod = keep.stEntry.stKey.uiMethod;
        info.uiInfo1 = keep.uiInfo1;
        info.uiInfo2 = keep.uiInfo2;
        info.stEntry.uiFlag = keep.stEntry.uiFlag;
    }
    ctx_->addrs.put(info);
}

void LinuxSource::route(const nl::Route& r, bool gone) {
    if (ctx_ == nullptr || (r.flags & RTM_F_CLONED) != 0) return;
    switch (r.type) {
        case RTN_UNICAST:
        case RTN_BLACKHOLE:
        case RTN_UNREACHABLE:
        case RTN_PROHIBIT: break;
        default: return;
    }
    const auto vrf = vrf_of_table(r.table, !gone);
    if (!vrf) return;
    Route out;
    out.vrf = *vrf;
    out.family = r.family == AF_INET6 ? 10 : 2;
    out.prefix_len = r.dst_len;
    out.prefix = r.dst;
    if (r.gateway) out.next_hop = *r.gateway;
    out.ifindex = r.oif;
    out.via_ifindex = r.oif;
    out.node = 0;
    out.type = r.type == RTN_BLACKHOLE     ? FIB_ROUTE_BLACKHOLE
               : r.type == RTN_UNREACHABLE ? FIB_ROUTE_UNREACHABLE
               : r.type == RTN_PROHIBIT    ? FIB_ROUTE_PROHIBIT
                                           : FIB_ROUTE_UNICAST;
    constexpr unsigned kDown = RTNH_F_DEAD | RTNH_F_LINKDOWN;
    out.active = (r.flags & kDown) == 0;
    if (!r.paths.empty()) {
        // A multipath route forwards while any of its paths does (Linux keeps it when one
        // path's link goes).
        out.active = std::any_of(r.paths.begin(), r.paths.end(), [](const nl::Route::Path& p) { return (p.flags & kDown) == 0; });
        for (std::size_t i = 1; i < r.paths.size(); ++i) {
            Hop h;
            if (r.paths[i].gateway) h.next_hop = *r.paths[i].gateway;
            h.ifindex = r.paths[i].oif;
            out.more.push_back(h);
        }
    }
    out.metric = r.priority;
    const Applying mark(applying_);
    const FibTable::Key key = FibTable::key_of(out);
    // The namespace's route this one is: the same metric, out interface and gateway.
    const auto is = [&](std::uint32_t metric, const Route& c) {
        return metric == r.priority && c.ifindex == out.ifindex && c.next_hop == out.next_hop;
    };
    const auto same = [&](const Candidate& c) { return is(c.metric, c.route); };
    auto it = candidates_.find(key);
    if (gone) {
        if (it != candidates_.end()) {
            std::erase_if(it->second, same);
            choose(key);
        } else if (const std::optional<Route> now = ctx_->fib.find(key); now && is(now->metric, *now)) {
            ctx_->fib.remove(key);  // the key's only route
        }
        return;
    }
    // The MACs of each path: its interface's, and its gateway's when the neighbour is known.
    const auto macs = [&](std::uint32_t oif, const std::array<std::uint8_t, 16>& gateway, bool has_gateway,
                          std::array<std::uint8_t, 6>& own, std::array<std::uint8_t, 6>& mac) {
        const scenario::Interface* itf = oif != 0 ? ctx_->device.interface(oif) : nullptr;
        if (itf == nullptr) return;
        std::copy(std::begin(itf->mac), std::end(itf->mac), own.begin());
        if (!has_gateway) return;
        if (const Neighbour* n = ctx_->neighs.find(out.family, oif, gateway)) mac = n->mac;
    };
    macs(r.oif, out.next_hop, r.gateway.has_value(), out.own_mac, out.mac);
    for (std::size_t i = 0; i < out.more.size(); ++i) {
        Hop& h = out.more[i];
        macs(h.ifindex, h.next_hop, r.paths[i + 1].gateway.has_value(), h.own_mac, h.mac);
    }
    // While the namespace is read again, what the FIB held for a key before its first route
    // of this reading is not the namespace's.
    const bool fresh = seen_routes_ && seen_routes_->insert(key).second;
    if (it == candidates_.end()) {
        const std::optional<Route> now = ctx_->fib.find(key);
        // The key's only route, new or changed (a replacement of its metric is a change):
        // the FIB holds it, with nothing aside. An entry left unchanged is not written again
        // (the route-change number stays).
        if (fresh || !now || (now->metric == r.priority && (r.replace || is(now->metric, *now)))) {
            if (now && same_entry(*now, out)) return;
            // The namespace keeps what a full device FIB refuses: kept aside, and counted.
            if (!ctx_->fib.put(out)) candidates_[key].push_back(Candidate{r.priority, ++learnt_, out});
            return;
        }
        // A second route for the key: the one the FIB holds was learnt first.
        it = candidates_.emplace(key, std::vector<Candidate>{Candidate{now->metric, 0, *now}}).first;
    }
    std::vector<Candidate>& all = it->second;
    // A replacement takes the place of the route of its metric, whatever its path was (the
    // kernel tells no deletion of the one replaced).
    if (r.replace) {
        const auto replaced = std::find_if(all.begin(), all.end(), [&](const Candidate& c) { return c.metric == r.priority; });
        if (replaced != all.end()) {
            replaced->route = out;
            choose(key);
            return;
        }
    }
    if (const auto held = std::find_if(all.begin(), all.end(), same); held != all.end()) {
        held->route = out;  // a change of a route held keeps its place
    } else {
        all.push_back(Candidate{r.priority, ++learnt_, out});
    }
    choose(key);
}

bool LinuxSource::same_entry(const Route& a, const Route& b) {
    return a.next_hop == b.next_hop && a.ifindex == b.ifindex && a.active == b.active && a.mac == b.mac &&
           a.own_mac == b.own_mac && a.type == b.type && a.metric == b.metric && a.more == b.more;
}

void LinuxSource::choose(const FibTable::Key& key) {
    const auto it = candidates_.find(key);
    if (it == candidates_.end() || it->second.empty()) {
        if (it != candidates_.end()) candidates_.erase(it);
        ctx_->fib.remove(key);
        return;
    }
    std::vector<const Candidate*> order;
    for (const Candidate& c : it->second) order.push_back(&c);
    std::sort(order.begin(), order.end(), [](const Candidate* a, const Candidate* b) {
        return a->metric != b->metric ? a->metric < b->metric : a->order < b->order;
    });
    Route best = order.front()->route;
    // IPv6 keeps a route of a prefix on each link at one metric (fe80::/64 on every link):
    // the routes of the lowest metric are the entry's paths, the first learnt first.
    for (std::size_t i = 1; best.family == 10 && i < order.size() && order[i]->metric == order.front()->metric; ++i) {
        const Route& other = order[i]->route;
        if (other.type != best.type) continue;
        best.more.push_back(Hop{other.next_hop, other.ifindex, other.mac, other.own_mac});
        best.more.append(other.more);
        best.active = best.active || other.active;
    }
    // A key left with one route needs nothing aside once the FIB holds it.
    const bool alone = it->second.size() == 1;
    if (const std::optional<Route> now = ctx_->fib.find(key); now && same_entry(*now, best)) {
        if (alone) candidates_.erase(it);
        return;
    }
    // The namespace keeps what a full device FIB refuses; the refusal is counted.
    if (ctx_->fib.put(best) && alone) candidates_.erase(it);
}

void LinuxSource::reread_routes() {
    const Applying mark(applying_);
    seen_routes_.emplace();
    candidates_.clear();
    if (const int rc = nl::dump_routes(*requests_, *this); rc != 0) {
        SIM_LOG(kError, "%s: cannot read the routes again: %s", describe().c_str(), std::strerror(rc));
        seen_routes_.reset();
        return;
    }
    drop_unseen_routes();
    seen_routes_.reset();
}

void LinuxSource::reread_routes_twice() {
    reread_routes();
    // The second reading comes kRoutesSettle after the last change: one due earlier, for a
    // change before it, gives way.
    const std::uint64_t mine = ++reread_latest_;
    const std::weak_ptr<bool> alive = alive_;
    ctx_->loop.after(kRoutesSettle, [this, alive, mine] {
        const auto live = alive.lock();
        if (!live || !*live || mine != reread_latest_) return;
        if (!seen_routes_) reread_routes();
    });
}

void LinuxSource::drop_unseen_routes() {
    for (const std::uint8_t family : {std::uint8_t{2}, std::uint8_t{10}}) {
        std::vector<FibTable::Key> gone;
        std::optional<FibTable::Key> at;
        FibTable::Position pos;
        while (const std::optional<Route> r = ctx_->fib.next(family, kNode, at, &pos)) {
            at = FibTable::key_of(*r);
            if (seen_routes_->count(*at) == 0) gone.push_back(*at);
        }
        for (const auto& k : gone) ctx_->fib.remove(k);
    }
}

void LinuxSource::neigh(const nl::Neigh& n, bool gone) {
    if (ctx_ == nullptr || (n.flags & NTF_PROXY) != 0) return;
    const scenario::Interface* itf = ctx_->device.interface(n.ifindex);
    if (itf == nullptr) return;
    const std::uint8_t family = n.family == AF_INET6 ? 10 : 2;
    const Applying mark(applying_);
    if (!gone && seen_) seen_->neighs.insert({family, n.ifindex, n.addr});
    const bool drop = gone || n.state == NUD_NONE || (n.state & (NUD_FAILED | NUD_NOARP)) != 0;
    if (drop) {
        ctx_->neighs.remove(family, n.ifindex, n.addr);
        return;
    }
    const Neighbour* had = ctx_->neighs.find(family, n.ifindex, n.addr);
    Neighbour e = had != nullptr ? *had : Neighbour{};
    e.family = family;
    e.ifindex = n.ifindex;
    e.addr = n.addr;
    e.vrf = itf->vrf;
    e.node = itf->node;
    if (n.mac) e.mac = *n.mac;
    if ((n.state & NUD_PERMANENT) != 0) {
        e.kind = NeighKind::kStatic;
        e.state = NeighState::kReachable;
        e.aging = 0;
    } else {
        e.kind = NeighKind::kDynamic;
        e.aging = 1200;
        e.state = (n.state & NUD_REACHABLE) != 0 ? NeighState::kReachable
                  : (n.state & NUD_STALE) != 0   ? NeighState::kStale
                  : (n.state & NUD_DELAY) != 0   ? NeighState::kDelay
                  : (n.state & NUD_PROBE) != 0   ? NeighState::kProbe
                                                 : NeighState::kIncomplete;
    }
    const bool same = had != nullptr && had->state == e.state && had->mac == e.mac && had->kind == e.kind;
    // The periodic reading sees every entry again: one unchanged is left alone.
    if (same && had->vrf == e.vrf && had->node == e.node && had->aging == e.aging) return;
    if (!same) e.updated = ctx_->uptime();
    if (e.state == NeighState::kIncomplete) {
        if (had == nullptr || had->state != NeighState::kIncomplete) e.incomplete_since = ctx_->uptime();
    } else {
        e.incomplete_since = 0;
    }
    // The namespace keeps what a full device table refuses; the refusal is counted.
    (void)ctx_->neighs.put(e);
}

// ---- Keeping the tables in step ---------------------------------------------------------------

void LinuxSource::drop_link(std::uint32_t ifindex) {
    vrf_of_device_.erase(ifindex);  // the VRF itself stays known
    if (ctx_->device.interface(ifindex) == nullptr) return;
    std::vector<std::uint32_t> addrs;
    ctx_->addrs.each([&](const IPAddrInfo& a) {
        if (a.stEntry.stKey.uiIfIndex == ifindex) addrs.push_back(a.stEntry.stKey.uiAddr);
    });
    for (const std::uint32_t a : addrs) ctx_->addrs.remove(ifindex, a);
    std::erase_if(ns_addrs_, [ifindex](const auto& a) { return a.first == ifindex; });
    for (const std::uint8_t family : {std::uint8_t{2}, std::uint8_t{10}}) {
        std::vector<NeighAddr> gone;
        ctx_->neighs.each(family, [&](const Neighbour& n) {
            if (n.ifindex == ifindex) gone.push_back(n.addr);
        });
        for (const NeighAddr& a : gone) ctx_->neighs.remove(family, ifindex, a);
    }
    drop_routes_via(ifindex);
    const std::uint16_t vrf = ctx_->device.interface(ifindex)->vrf;
    ctx_->device.remove_interface(ifindex);
    publish_ifcfg(*ctx_, ifindex, 0, ipc::proto::addr_svc::kIfCfgLink, vrf);
}

void LinuxSource::drop_routes_via(std::uint32_t ifindex) {
    // Linux removes a multipath route with the link of any of its paths.
    const auto via = [ifindex](const Route& r) {
        return r.ifindex == ifindex || std::any_of(r.more.begin(), r.more.end(), [ifindex](const Hop& h) { return h.ifindex == ifindex; });
    };
    std::vector<FibTable::Key> changed;
    for (auto& [key, all] : candidates_) {
        if (std::erase_if(all, [&](const Candidate& c) { return via(c.route); }) != 0) changed.push_back(key);
    }
    // A key's only route is in the FIB alone.
    std::vector<FibTable::Key> gone;
    ctx_->fib.each([&](const Route& r) {
        if (via(r) && candidates_.count(FibTable::key_of(r)) == 0) gone.push_back(FibTable::key_of(r));
    });
    for (const auto& k : gone) ctx_->fib.remove(k);
    for (const auto& k : changed) choose(k);
}

void LinuxSource::move_to_vrf(std::uint32_t ifindex, std::uint16_t vrf) {
    std::vector<IPAddrInfo> moved;
    ctx_->addrs.each([&](const IPAddrInfo& a) {
        if (a.stEntry.stKey.uiIfIndex == ifindex && a.stEntry.stKey.usVrfIndex != vrf) moved.push_back(a);
    });
    for (IPAddrInfo& a : moved) {
        a.stEntry.stKey.usVrfIndex = vrf;
        ctx_->addrs.put(a);
    }
    for (const std::uint8_t family : {std::uint8_t{2}, std::uint8_t{10}}) {
        std::vector<Neighbour> changed;
        ctx_->neighs.each(family, [&](const Neighbour& n) {
            if (n.ifindex == ifindex && n.vrf != vrf) changed.push_back(n);
        });
        for (Neighbour& n : changed) {
            n.vrf = vrf;
            (void)ctx_->neighs.put(n);  // a change: always taken
        }
    }
}

void LinuxSource::ready(std::uint32_t) {
    const auto r = events_->drain(nl::event_cb, static_cast<nl::Sink*>(this));
    if (r == nl::Socket::Read::kOverflow) {
        SIM_LOG(kWarn, "%s: notifications were lost; reading the namespace again", describe().c_str());
        resync();
    } else if (r == nl::Socket::Read::kFailed) {
        SIM_LOG(kError, "%s: the notification socket failed: %s", describe().c_str(), std::strerror(errno));
    }
}

void LinuxSource::resync() {
    const Applying mark(applying_);
    seen_routes_.emplace();
    seen_.emplace();
    candidates_.clear();
    nl::Sink& sink = *this;
    int rc = nl::dump_links(*requests_, sink);
    if (rc == 0) rc = nl::dump_addrs(*requests_, sink);
    if (rc == 0) rc = nl::dump_neighs(*requests_, sink);
    if (rc == 0) rc = nl::dump_routes(*requests_, sink);
    if (rc == 0) {
        drop_unseen();
        drop_unseen_routes();
    } else {
        SIM_LOG(kError, "%s: cannot read the namespace again: %s", describe().c_str(), std::strerror(rc));
    }
    seen_.reset();
    seen_routes_.reset();
}

void LinuxSource::drop_unseen() {
    std::vector<std::uint32_t> links;
    for (const auto& [index, l] : links_) {
        if (seen_->links.count(index) == 0) links.push_back(index);
    }
    for (const std::uint32_t index : links) {
        SIM_LOG(kInfo, "%s: link %u is gone", describe().c_str(), index);
        drop_link(index);
        links_.erase(index);
    }
    std::vector<std::pair<std::uint32_t, std::uint32_t>> addrs;
    for (const auto& a : ns_addrs_) {
        if (seen_->addrs.count(a) == 0) addrs.push_back(a);
    }
    for (const auto& [ifindex, addr] : addrs) {
        ns_addrs_.erase({ifindex, addr});
        ctx_->addrs.remove(ifindex, addr);
    }
    for (const std::uint8_t family : {std::uint8_t{2}, std::uint8_t{10}}) {
        std::vector<std::pair<std::uint32_t, NeighAddr>> gone;
        ctx_->neighs.each(family, [&](const Neighbour& n) {
            if (n.kind == NeighKind::kDynamic && seen_->neighs.count({family, n.ifindex, n.addr}) == 0) {
                gone.emplace_back(n.ifindex, n.addr);
            }
        });
        for (const auto& [ifindex, addr] : gone) ctx_->neighs.remove(family, ifindex, addr);
    }
}

// ---- Counters ---------------------------------------------------------------------------------

void LinuxSource::schedule_counters(std::chrono::milliseconds delay) {
    const std::weak_ptr<bool> alive = alive_;
    ctx_->loop.after(delay, [this, alive] {
        const auto live = alive.lock();
        if (!live || !*live) return;
        refresh_counters();
        schedule_counters(kCountersPeriod);
    });
}

void LinuxSource::refresh_counters() {
    // The link dump brings the link counters, and the links up to date on the way.
    if (const int rc = nl::dump_links(*requests_, *this); rc != 0) {
        SIM_LOG(kDebug, "%s: link counters unread: %s", describe().c_str(), std::strerror(rc));
    }
    // The kernel tells nothing when an entry becomes incomplete, nor of most moves between
    // reachable, stale, delay and probe: the neighbour table is read on the same period.
    {
        const Applying mark(applying_);
        if (const int rc = nl::dump_neighs(*requests_, *this); rc != 0) {
            SIM_LOG(kDebug, "%s: neighbours unread: %s", describe().c_str(), std::strerror(rc));
        }
    }
    const nl::ProcCounters proc = proc_.read();
    add_counts("ip", 0, nl::ip_counters(proc));
    std::uint32_t loopback = 0;
    for (const auto& [index, itf] : ctx_->device.interfaces()) {
        if (itf.type == kTypeLoopback) {
            loopback = index;
            break;
        }
    }
    if (loopback != 0) add_counts("icmp", loopback, nl::icmp_counters(proc));
    // The default TTL and forwarding as the namespace has them now.
    ctx_->ipstat.mirror_settings(kNode, proc_.default_ttl(), proc_.forwarding());
    for (const auto& [index, l] : links_) {
        if (l.stats && ctx_->device.interface(index) != nullptr) add_counts("mib", index, nl::mib_counters(*l.stats));
    }
}

void LinuxSource::add_counts(const char* set, std::uint32_t ifindex, const nl::Named& values) {
    nl::Named deltas;
    for (const auto& [name, value] : values) {
        std::string key = std::string(set) + "/" + std::to_string(ifindex) + "/";
        key.append(name);
        std::uint64_t& last = last_counts_[key];
        // A counter that went down started again (a link made anew): all of it is new.
        const std::uint64_t delta = value >= last ? value - last : value;
        last = value;
        if (delta != 0) deltas.emplace_back(name, delta);
    }
    if (deltas.empty()) return;
    if (const auto err = ctx_->ipstat.add_counts(*ctx_, kNode, set, ifindex, deltas)) {
        SIM_LOG(kDebug, "%s: counters of %s not taken: %s", describe().c_str(), set, err->c_str());
    }
}

// ---- Requests carried out on the namespace --------------------------------------------------------

int LinuxSource::add_address(const IPAddrInfo& info) {
    const IPAddrKey& k = info.stEntry.stKey;
    nl::Addr a;
    a.ifindex = k.uiIfIndex;
    a.prefix_len = static_cast<std::uint8_t>(prefix_len(k.uiMask));
    a.addr = k.uiAddr;
    const int rc = nl::add_addr(*requests_, a);
    if (rc != 0) SIM_LOG(kWarn, "%s: the kernel refused an address on %u: %s", describe().c_str(), k.uiIfIndex, std::strerror(rc));
    return rc;
}

int LinuxSource::delete_address(std::uint32_t ifindex, std::uint32_t addr, std::uint32_t mask) {
    nl::Addr a;
    a.ifindex = ifindex;
    a.prefix_len = static_cast<std::uint8_t>(prefix_len(mask));
    a.addr = addr;
    const auto link = links_.find(ifindex);
    const Promoting keep_secondaries(opts_.netns, link != links_.end() ? link->second.name : std::string());
    const int rc = nl::del_addr(*requests_, a);
    // An address the namespace does not have is as good as deleted.
    if (rc == EADDRNOTAVAIL || rc == ENOENT || rc == ENODEV) return 0;
    if (rc != 0) SIM_LOG(kWarn, "%s: the kernel refused to delete an address on %u: %s", describe().c_str(), ifindex, std::strerror(rc));
    return rc;
}

int LinuxSource::set_default_ttl(std::uint8_t ttl) {
    const int rc = proc_.set_default_ttl(ttl);
    if (rc != 0) SIM_LOG(kWarn, "%s: cannot set the default TTL: %s", describe().c_str(), std::strerror(rc));
    return rc;
}

int LinuxSource::resolve(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) {
    nl::Neigh n;
    n.family = family == 10 ? AF_INET6 : AF_INET;
    n.ifindex = ifindex;
    n.addr = addr;
    const int rc = nl::use_neigh(*requests_, n);
    if (rc != 0) {
        SIM_LOG(kDebug, "%s: the kernel did not resolve a neighbour on %u: %s", describe().c_str(), ifindex, std::strerror(rc));
        return rc;
    }
    // The kernel holds the entry incomplete now, without a word: it is read shortly.
    const std::weak_ptr<bool> alive = alive_;
    ctx_->loop.after(kIncompleteRead, [this, alive] {
        const auto live = alive.lock();
        if (!live || !*live) return;
        const Applying mark(applying_);
        (void)nl::dump_neighs(*requests_, *this);
    });
    return 0;
}

}  // namespace sim
