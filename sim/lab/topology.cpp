#include "lab/topology.hpp"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>

#include "scenario/bounded.hpp"
#include "scenario/yaml_reader.hpp"

namespace sim::lab {
namespace {

using namespace scenario::yaml;  // NOLINT(google-build-using-namespace): the reader's vocabulary

constexpr auto kTopKeys = std::to_array<std::string_view>({"lab", "devices", "links"});
constexpr auto kDeviceKeys =
    std::to_array<std::string_view>({"name", "source", "scenario", "interfaces", "routes", "sysctls", "run", "writable"});
constexpr auto kInterfaceKeys = std::to_array<std::string_view>({"name", "kind", "addresses", "mtu"});
constexpr auto kRouteKeys = std::to_array<std::string_view>({"to", "via", "dev", "type", "metric", "table"});
constexpr auto kLinkKeys = std::to_array<std::string_view>({"a", "b", "delay_ms", "loss", "state"});
constexpr auto kSources = std::to_array<Name<bool>>({{"linux", true}, {"scenario", false}});
constexpr auto kKinds = std::to_array<Name<std::string_view>>({{"veth", "veth"}, {"dummy", "dummy"}, {"loopback", "loopback"}});
constexpr auto kRouteTypes = std::to_array<Name<std::string_view>>(
    {{"unicast", "unicast"}, {"blackhole", "blackhole"}, {"unreachable", "unreachable"}, {"prohibit", "prohibit"}});
constexpr auto kStates = std::to_array<Name<bool>>({{"up", true}, {"down", false}});

// Names the lab gives to the system: letters, digits, '-' and '_', starting with a letter or
// digit, of at most `max` characters.
std::string system_name(const Reporter& r, const Value& v, std::size_t max, const char* what) {
    const std::string& s = text(r, v);
    const bool ok = !s.empty() && s.size() <= max && std::isalnum(static_cast<unsigned char>(s[0])) != 0 &&
                    std::all_of(s.begin(), s.end(), [](char c) {
                        return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '-' || c == '_';
                    });
    if (!ok) {
        r.fail(v, std::string("bad ") + what + " " + in_quotes(s) + " (1 to " + std::to_string(max) +
                      " letters, digits, '-' or '_', starting with a letter or a digit)");
    }
    return s;
}

// An interface name as Linux takes it: 1 to 15 printable characters, no '/', ':' or space.
std::string if_name(const Reporter& r, const Value& v) {
    const std::string& s = text(r, v);
    const bool ok = !s.empty() && s.size() <= kIfNameMax && s != "." && s != ".." &&
                    std::all_of(s.begin(), s.end(), [](char c) { return c > ' ' && c <= '~' && c != '/' && c != ':'; });
    if (!ok) r.fail(v, "bad interface name " + in_quotes(s) + " (1 to 15 characters, no '/', ':' or space)");
    return s;
}

std::string address(const Reporter& r, const Value& v) {
    const std::string& s = text(r, v);
    if (!parse_prefix(s)) {
        r.fail(v, "bad address " + in_quotes(s) + " (expected " +
                      prefix_hint(s.find(':') != std::string::npos ? AF_INET6 : AF_INET) + ", such as 10.0.12.1/24)");
    }
    return s;
}

// "device:interface".
End end_of(const Reporter& r, const Value& v) {
    const std::string& s = text(r, v);
    const std::size_t colon = s.find(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == s.size()) {
        r.fail(v, "bad link end " + in_quotes(s) + " (expected DEVICE:INTERFACE, such as r1:eth1)");
    }
    return End{s.substr(0, colon), s.substr(colon + 1)};
}

class Reader {
public:
    Reader(const Reporter& r, const YAML::Node& root, std::string file)
        : r_(r), root_(r, Value{root, "", line_of(root)}, kTopKeys), file_(std::move(file)) {}

    Topology run() {
        t_.file = file_;
        t_.name = system_name(r_, root_.need("lab"), kLabNameMax, "lab name");
        const auto devices = items(r_, root_.need("devices"));
        if (devices.empty()) r_.fail(*root_.find("devices"), "a lab has at least one device");
        if (devices.size() > kDevicesMax) r_.fail(*root_.find("devices"), "at most 1024 devices");
        for (const Value& v : devices) device(v);
        const auto links = items(r_, root_.find("links"));
        if (links.size() > kLinksMax) r_.fail(*root_.find("links"), "at most 4096 links");
        for (const Value& v : links) link(v);
        // Every interface of a device is the end of a link, the loopback or a dummy.
        for (Device& d : t_.devices) {
            for (const Interface& i : d.interfaces) {
                if (i.kind == "veth" && ends_.count({d.name, i.name}) == 0) {
                    r_.fail(i.line, i.key, "no link ends at " + d.name + ":" + i.name + " (give it kind dummy, or a link)");
                }
            }
        }
        return std::move(t_);
    }

private:
    void device(const Value& v) {
        const Map m(r_, v, kDeviceKeys);
        Device d;
        d.line = v.line;
        const Value name = m.need("name");
        d.name = system_name(r_, name, kDeviceNameMax, "device name");
        for (const Device& other : t_.devices) {
            if (other.name == d.name) r_.fail(name, "duplicate device " + in_quotes(d.name) + " (first at line " + std::to_string(other.line) + ")");
        }
        if (auto x = m.find("source")) d.linux_source = choice(r_, *x, kSources);
        if (auto x = m.find("scenario")) {
            if (d.linux_source) r_.fail(*x, "a scenario goes with source: scenario");
            d.scenario = text(r_, *x);
            // A relative path is the topology file's neighbour.
            const std::size_t slash = file_.rfind('/');
            if (!d.scenario.empty() && d.scenario[0] != '/' && slash != std::string::npos) {
                d.scenario = file_.substr(0, slash + 1) + d.scenario;
            }
        }
        if (auto x = m.find("writable")) d.writable = boolean(r_, *x);
        for (const Value& iv : items(r_, m.find("interfaces"))) {
            if (!d.linux_source) r_.fail(iv, "a scenario device has the scenario's interfaces");
            const Map im(r_, iv, kInterfaceKeys);
            Interface i;
            i.line = iv.line;
            i.key = iv.key;
            const Value iname = im.need("name");
            i.name = if_name(r_, iname);
            for (const Interface& other : d.interfaces) {
                if (other.name == i.name) r_.fail(iname, "duplicate interface " + in_quotes(i.name) + " of " + d.name);
            }
            if (i.name == "lo") i.kind = "loopback";
            if (auto x = im.find("kind")) {
                i.kind = std::string(choice(r_, *x, kKinds));
                if ((i.kind == "loopback") != (i.name == "lo")) r_.fail(*x, "the loopback is lo, and lo is the loopback");
            }
            for (const Value& a : items(r_, im.find("addresses"))) i.addresses.push_back(address(r_, a));
            if (auto x = im.find("mtu")) i.mtu = number<std::uint32_t>(r_, *x, 68, 65535);
            d.interfaces.push_back(std::move(i));
        }
        for (const Value& rv : items(r_, m.find("routes"))) {
            if (!d.linux_source) r_.fail(rv, "a scenario device has the scenario's routes");
            d.routes.push_back(route(rv));
        }
        if (auto x = m.find("sysctls"); x && !x->node.IsNull()) {
            if (!d.linux_source) r_.fail(*x, "a scenario device has no namespace to set");
            if (!x->node.IsMap()) r_.fail(*x, "expected a mapping of names to values");
            for (auto it = x->node.begin(); it != x->node.end(); ++it) {
                const Value key{it->first, x->key, line_of(it->first)};
                const std::string& k = text(r_, key);
                const bool ok = k.rfind("net.", 0) == 0 && k.find("..") == std::string::npos &&
                                std::all_of(k.begin(), k.end(), [](char c) {
                                    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '.' || c == '_' || c == '-';
                                });
                if (!ok) r_.fail(key, "bad sysctl " + in_quotes(k) + " (a name under net., such as net.ipv4.ip_forward)");
                const Value val{it->second, join(x->key, k), line_of(it->second)};
                d.sysctls.emplace_back(k, text(r_, val));
            }
        }
        for (const Value& c : items(r_, m.find("run"))) {
            if (!d.linux_source) r_.fail(c, "a scenario device has no namespace to run in");
            d.run.push_back(text(r_, c));
        }
        t_.devices.push_back(std::move(d));
    }

    Route route(const Value& v) {
        const Map m(r_, v, kRouteKeys);
        Route rt;
        const Value to = m.need("to");
        rt.to = text(r_, to);
        if (rt.to != "default" && !parse_prefix(rt.to)) {
            r_.fail(to, "bad prefix " + in_quotes(rt.to) + " (expected default or a prefix such as 10.0.23.0/24)");
        }
        if (auto x = m.find("type")) rt.type = std::string(choice(r_, *x, kRouteTypes));
        if (auto x = m.find("via")) {
            const std::string& via = text(r_, *x);
            if (!parse_ip(via)) r_.fail(*x, "bad gateway " + in_quotes(via));
            rt.via = via;
        }
        if (auto x = m.find("dev")) rt.dev = if_name(r_, *x);
        if (rt.type != "unicast" && (rt.via || rt.dev)) {
            r_.fail(v, std::string(rt.type == "unreachable" ? "an " : "a ") + rt.type + " route has no via and no dev");
        }
        if (rt.type == "unicast" && !rt.via && !rt.dev) r_.fail(v, "a route needs via or dev");
        if (auto x = m.find("metric")) rt.metric = number<std::uint32_t>(r_, *x, 0, 0xFFFFFFFFu);
        if (auto x = m.find("table")) rt.table = number<std::uint32_t>(r_, *x, 1, 0xFFFFFFFFu);
        return rt;
    }

    void link(const Value& v) {
        const Map m(r_, v, kLinkKeys);
        Link l;
        l.line = v.line;
        const Value a = m.need("a");
        const Value b = m.need("b");
        l.a = end_of(r_, a);
        l.b = end_of(r_, b);
        for (const auto& side : {std::pair<End&, const Value&>{l.a, a}, {l.b, b}}) {
            const End& end = side.first;
            const Value& at = side.second;
            const Device* d = t_.device(end.device);
            if (d == nullptr) r_.fail(at, "unknown device " + in_quotes(end.device));
            if (!d->linux_source) r_.fail(at, "a scenario device takes no link: " + in_quotes(end.device));
            (void)if_name(r_, Value{YAML::Node(end.interface), at.key, at.line});
            const auto declared = std::find_if(d->interfaces.begin(), d->interfaces.end(),
                                               [&](const Interface& i) { return i.name == end.interface; });
            if (declared != d->interfaces.end() && declared->kind != "veth") {
                r_.fail(at, end.device + ":" + end.interface + " is a " + declared->kind + ", not a link's end");
            }
            const auto [where, fresh] = ends_.emplace(std::pair{end.device, end.interface}, v.line);
            if (!fresh) {
                r_.fail(at, "interface " + end.device + ":" + end.interface + " is already in the link at line " +
                                std::to_string(where->second));
            }
        }
        if (auto x = m.find("delay_ms")) l.delay_ms = number<std::uint32_t>(r_, *x, 0, 60000);
        if (auto x = m.find("loss")) {
            const std::string& s = text(r_, *x);
            char* end = nullptr;
            const double loss = std::strtod(s.c_str(), &end);
            if (end == s.c_str() || *end != '\0' || !(loss >= 0.0 && loss <= 100.0)) {
                r_.fail(*x, "bad loss " + in_quotes(s) + " (a percentage 0 to 100)");
            }
            l.loss = loss;
        }
        if (auto x = m.find("state")) l.up = choice(r_, *x, kStates);
        t_.links.push_back(std::move(l));
    }

    const Reporter& r_;
    Map root_;
    std::string file_;
    Topology t_;
    std::map<std::pair<std::string, std::string>, int> ends_;  // link ends, and their link's line
};

}  // namespace

const Device* Topology::device(const std::string& n) const {
    const auto it = std::find_if(devices.begin(), devices.end(), [&](const Device& d) { return d.name == n; });
    return it == devices.end() ? nullptr : &*it;
}

Topology load_topology_text(const std::string& text, const std::string& file) {
    const Reporter r(file);
    const YAML::Node root = parse_document(text, file, r);
    try {
        return Reader(r, root, file).run();
    } catch (const YAML::Exception& e) {
        scenario::yaml_error(e, file);
    }
}

Topology load_topology(const std::string& path) {
    return load_topology_text(scenario::read_file(path), path);
}

}  // namespace sim::lab
