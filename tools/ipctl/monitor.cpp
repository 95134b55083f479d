// ipctl monitor: prints events as they arrive, each stamped, until interrupted.
//
//   ipctl monitor [addr|arp|nd|wlan|link|route|all]... [--count N]
//
// Subscribes to the address events (IPAddr_RegisterEvent), the ARP and ND events of the
// adjacency services (ARP_RegEvent, ND_RegEvent) and the WLAN adjacency events
// (WADJ4_RegEvent), waits on their descriptors and lets the library deliver what arrives
// (IPAddr_HandleEvent, ARP_ProcEvent, ND_ProcEvent, WADJ4_ProcEvent); link events are the
// address service's interface-configuration messages (IPAddr_RegIfCfgEvent on a control
// socket of its own, IPAddr_HandleIfCfgMsg); route events come from the FIB's change
// sequence numbers (below). Records print with the
// same printers as show. Once every subscription stands, "monitoring ..." goes to standard
// error. SIGINT or SIGTERM ends it (exit 0); so does --count N after N events.
//
// Event records as the services deliver them to the callbacks (host order): ARP entry
// 0 interface index, 4 the address (network order), 16 VLAN, 20 MAC, 28 state, 32 kind;
// the VRF is the callback's third argument. ND record: uiField0 interface index, aucAddr,
// usField28 VLAN, usField30 VRF, aucField32 MAC, uiField40 state, uiField44 kind. WLAN
// entry: the first word (host order), then the interface index (big-endian).
#include <poll.h>
#include <signal.h>
#include <time.h>

#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "inet.hpp"
#include "ipclient/adj.h"
#include "ipclient/fib.h"
#include "ipclient/arp.h"
#include "ipclient/ipaddr.h"
#include "ipclient/nd.h"
#include "ipctl.hpp"
#include "ipplat/platform.h"
#include "ipproto/svc_addr.hpp"
#include "ipproto/wire.hpp"

namespace ipctl {

namespace {

Printer* g_out = nullptr;
std::uint64_t g_events = 0;
std::uint64_t g_limit = 0;  // --count: no event past it is printed, however many came at once
volatile sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

std::string stamp() {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    tm t{};
    ::gmtime_r(&ts.tv_sec, &t);
    char buf[40];
    const std::size_t n = std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &t);
    std::snprintf(buf + n, sizeof buf - n, ".%06ldZ", ts.tv_nsec / 1000);
    return buf;
}

const char* neigh_event(std::uint32_t type) {
    switch (type) {
        case 0: return "add";
        case 1: return "change";
        case 2: return "delete";
        case 3: return "present";
        case 4: return "end-of-replay";
        default: return "other";
    }
}

// An event: its name, the service's event code as "type" (a route's own "type" is its
// route type: route events carry none), then the record.
void emit(std::string_view tag, const char* event, std::optional<std::uint32_t> type, Record body) {
    if (g_limit != 0 && g_events >= g_limit) return;
    Record r;
    r.add("event", event, event);
    if (type) r.json_only("type", *type);
    for (const Record::Field& f : body.fields()) {
        if (f.in_text) r.add(f.key, f.value, f.text, f.label);
        else r.json_only(f.key, f.value);
    }
    g_out->event(stamp(), tag, r);
    ++g_events;
}

std::uint32_t on_addr(std::uint32_t event, IPAddrEntry* e, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
    const char* name = event == 1 ? "add" : event == 2 ? "delete" : event == 3 ? "modify" : "other";
    emit("addr", name, event, addr_record(*e));
    return 0;
}

std::uint32_t on_arp(std::uint32_t type, void* entry, std::uint16_t vrf) {
    if (type == 4) {
        emit("arp", neigh_event(type), type, Record{});
        return 0;
    }
    emit("arp", neigh_event(type), type, arp_record(arp_from_event(static_cast<const std::uint8_t*>(entry), vrf)));
    return 0;
}

std::uint32_t on_nd(std::uint32_t type, NdEventRecord* rec) {
    if (type == 4) {
        emit("nd", neigh_event(type), type, Record{});
        return 0;
    }
    NdEntryInfo e{};
    std::memcpy(e.aucAddr, rec->aucAddr, sizeof e.aucAddr);
    e.uiIfIndex = rec->uiField0;
    e.uiWord24 = rec->usField30;
    e.usHalf28 = rec->usField28;
    std::memcpy(e.aucLinkAddr, rec->aucField32, sizeof e.aucLinkAddr);
    e.ucState = static_cast<std::uint8_t>(rec->uiField40);
    e.ucKind = static_cast<std::uint8_t>(rec->uiField44);
    emit("nd", neigh_event(type), type, nd_record(e));
    return 0;
}

std::uint32_t on_wlan(std::uint32_t type, void* entry) {
    Record r;
    if (entry != nullptr) {
        const std::uint32_t first = host_at<std::uint32_t>(entry, 0);
        const std::uint32_t ifindex = ipc::wire::load_be<std::uint32_t>(static_cast<const std::uint8_t*>(entry) + 4);
        r.add("first", first, std::to_string(first), "first")
            .json_only("ifindex", ifindex)
            .add("dev", interface_name(ifindex), interface_name(ifindex), "dev");
    }
    const char* name = type == 0 ? "refresh" : type == 1 ? "delete" : type == 2 ? "clear" : "other";
    emit("wlan", name, type, std::move(r));
    return 0;
}

// Interface configuration (IPAddr_RegIfCfgEvent): word C says what changed, word A is the
// interface, word B the value, half D the VRF (ipproto/svc_addr.hpp).
// The names of the interfaces as last known: a deleted interface is named as it was.
std::map<std::uint32_t, std::string> g_names;

std::uint32_t on_ifcfg(std::uint32_t what, std::uint32_t ifindex, std::uint32_t value, std::uint16_t vrf) {
    namespace svc = ipc::proto::addr_svc;
    std::string dev = interface_name(ifindex);
    if (IF_IsValidIfIndex(ifindex) == 1) {
        g_names[ifindex] = dev;
    } else if (const auto known = g_names.find(ifindex); known != g_names.end()) {
        dev = known->second;
    }
    Record r;
    const char* event = "change";
    r.add("dev", dev, dev, "dev").json_only("ifindex", ifindex);
    switch (what) {
        case svc::kIfCfgLink:
            event = value == 1 ? "add" : "delete";
            break;
        case svc::kIfCfgLinkState:
            r.add("operstate", value == 1 ? "UP" : "DOWN", value == 1 ? "UP" : "DOWN", "state");
            break;
        case svc::kIfCfgMtu: r.add("mtu", value, std::to_string(value), "mtu"); break;
        case svc::kIfCfgAddrCount: r.add("addresses", value, std::to_string(value), "addresses"); break;
        case svc::kIfCfgMethods: r.add("methods", value, std::to_string(value), "methods"); break;
        default: r.add("what", what, std::to_string(what), "what").add("value", value, std::to_string(value), "value");
    }
    r.add("vrf", vrf, std::to_string(vrf), "vrf");
    emit("link", event, what, std::move(r));
    return 0;
}

// Routes: the library tells a change by the tables' change sequence numbers
// (FIB4_GetRouteChangeSeq, FIB6_GetRouteChangeSeq), asked at every turn of the wait. When
// the IPv4 number moves the IPv4 tables are read again and compared with the last reading:
// each route added, deleted or changed is an event. IPv6 routes are found by prefix only,
// so a move of the IPv6 number is one event that says so.
struct RouteWatch {
    std::uint32_t seq4 = 0, seq6 = 0;
    std::map<std::string, RouteSeen> v4;

    void start() {
        seq4 = FIB4_GetRouteChangeSeq();
        seq6 = FIB6_GetRouteChangeSeq();
        v4 = ipv4_routes();
    }
    // A table's change without a route to show: the family and its sequence number (the
    // library gives the number as it travels, big-endian; it prints in host order).
    static void table_changed(const char* family, std::uint32_t raw) {
        const std::uint32_t seq = ipc::wire::load_be<std::uint32_t>(&raw);
        Record r;
        r.add("family", family, family).add("seq", seq, std::to_string(seq), "seq");
        emit("route", "change", std::nullopt, std::move(r));
    }

    void check() {
        const std::uint32_t now6 = FIB6_GetRouteChangeSeq();
        const std::uint32_t now4 = FIB4_GetRouteChangeSeq();
        if (now4 != seq4) {
            seq4 = now4;
            std::map<std::string, RouteSeen> now = ipv4_routes();
            const std::uint64_t before = g_events;
            for (auto& [key, seen] : v4) {
                if (now.count(key) == 0) emit("route", "delete", std::nullopt, std::move(seen.record));
            }
            for (auto& [key, seen] : now) {
                const auto was = v4.find(key);
                if (was == v4.end()) emit("route", "add", std::nullopt, seen.record);
                else if (was->second.lines != seen.lines) emit("route", "change", std::nullopt, seen.record);
            }
            v4 = std::move(now);
            // What the file does not show changed (a route gone inactive, one that came and
            // went between two looks): the table's number says it.
            if (g_events == before) table_changed("inet", now4);
        }
        if (now6 != seq6) {
            seq6 = now6;
            table_changed("inet6", now6);
        }
    }
};

struct Source {
    const char* name;
    int fd;
    void (*drain)(int fd);
    void (*close)(int fd);
};

void monitor(Context& ctx, const CLI::App& verb, Words words, std::uint64_t count) {
    bool addr = false, arp = false, nd = false, wlan = false, link = false, route = false;
    while (!words.done()) {
        const std::string w = words.next();
        if (w == "addr") addr = true;
        else if (w == "arp") arp = true;
        else if (w == "nd") nd = true;
        else if (w == "wlan") wlan = true;
        else if (w == "link") link = true;
        else if (w == "route") route = true;
        else if (w == "all") addr = arp = nd = wlan = link = route = true;
        else words.unexpected();
    }
    if (!addr && !arp && !nd && !wlan && !link && !route) addr = arp = nd = wlan = link = route = true;
    g_out = ctx.out;
    g_limit = count;

    std::vector<Source> sources;
    auto closer = [&sources] {
        for (const Source& s : sources) s.close(s.fd);
    };
    struct Closer {
        std::function<void()> f;
        ~Closer() { f(); }
    } at_end{closer};
    if (addr) {
        const int fd = IPAddr_RegisterEvent(0, 0, 0, 0, on_addr);
        if (fd < 0) failure("subscribing to address events: the address service does not answer");
        sources.push_back({"addr", fd, [](int f) { (void)IPAddr_HandleEvent(f); }, [](int f) { IPAddr_DeregisterEvent(f); }});
    }
    if (arp) {
        const int fd = ARP_RegEvent(0, 0, on_arp);
        if (fd < 0) failure("subscribing to ARP events: the IPv4 adjacency service does not answer");
        sources.push_back({"arp", fd, [](int f) { (void)ARP_ProcEvent(f); }, [](int f) { ARP_DeregEvent(f); }});
    }
    if (nd) {
        const int fd = ND_RegEvent(0, 0, on_nd);
        if (fd < 0) failure("subscribing to ND events: the IPv6 adjacency service does not answer");
        sources.push_back({"nd", fd, [](int f) { (void)ND_ProcEvent(static_cast<std::uint32_t>(f)); },
                           [](int f) { ND_DeregEvent(f); }});
    }
    if (wlan) {
        const int fd = WADJ4_RegEvent(0, on_wlan);
        if (fd < 0) failure("subscribing to WLAN events: the WLAN adjacency service does not answer");
        sources.push_back({"wlan", fd, [](int f) { (void)WADJ4_ProcEvent(f); }, [](int f) { WADJ4_DeregEvent(f); }});
    }
    if (link) {
        for (const std::uint32_t ifindex : directory_interfaces()) g_names[ifindex] = interface_name(ifindex);
        const int fd = IPAddr_Open();
        if (fd < 0) failure("subscribing to interface events: the address service does not answer");
        if (IPAddr_RegIfCfgEvent(fd, 0, on_ifcfg) != 0) {
            IPAddr_Close(fd);
            failure("subscribing to interface events: the address service refused");
        }
        sources.push_back({"link", fd, [](int f) { (void)IPAddr_HandleIfCfgMsg(f); }, [](int f) {
                               IPAddr_DeregIfCfgEvent(f, 0);
                               IPAddr_Close(f);
                           }});
    }
    std::optional<RouteWatch> routes;
    if (route) {
        require_device();
        routes.emplace();
        routes->start();
    }
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    ::sigaction(SIGINT, &sa, nullptr);
    ::sigaction(SIGTERM, &sa, nullptr);
    std::string names;
    for (const Source& s : sources) names += std::string(" ") + s.name;
    if (routes) names += " route";
    std::fprintf(stderr, "monitoring%s\n", names.c_str());
    std::fflush(stderr);

    std::vector<pollfd> fds;
    for (const Source& s : sources) fds.push_back({s.fd, POLLIN, 0});
    while (g_stop == 0 && (count == 0 || g_events < count)) {
        const int n = ::poll(fds.data(), fds.size(), routes ? 100 : 200);
        if (routes) routes->check();
        if (n <= 0) continue;
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if ((fds[i].revents & POLLIN) != 0) sources[i].drain(sources[i].fd);
            // A closed channel stays readable (at its end) for ever: what was queued before
            // the close has just been delivered; the monitor ends there.
            if ((fds[i].revents & (POLLHUP | POLLERR | POLLNVAL)) != 0)
                failure(std::string("the ") + sources[i].name + " events channel closed");
        }
    }
    (void)verb;
}

}  // namespace

void add_monitor(CLI::App& app, Context& ctx) {
    auto count = std::make_shared<std::uint64_t>(0);
    CLI::App* verb = add_verb(&app, "monitor", "prints events as they arrive, each stamped",
                              "monitor [addr|arp|nd|wlan|link|route|all]... [--count N]", ctx,
                              [&ctx, count](const CLI::App& v, Words w) { monitor(ctx, v, std::move(w), *count); });
    // Checked as written: the parser would read "-1" as the largest count, for ever.
    verb->add_option("--count", *count, "end after this many events (1 or more)")
        ->check(CLI::Validator(
            [](std::string& s) -> std::string {
                const bool digits = !s.empty() && s.size() <= 19 && s.find_first_not_of("0123456789") == std::string::npos;
                if (!digits || s.find_first_not_of('0') == std::string::npos) {
                    return "Value " + s + " is not a whole number from 1";
                }
                return {};
            },
            "N"));
}

}  // namespace ipctl
