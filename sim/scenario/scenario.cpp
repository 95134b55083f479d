// Scenario loading: YAML text to a checked Scenario.
//
// The text is first held to the limits (limits.hpp, bounded.cpp): its size, then its
// nesting and number of values, counted on the text and on the YAML reader's events before
// any node is built. The document is then read whole by yaml-cpp, and walked section by
// section in dependency order (nodes, VRFs, interfaces, then everything that refers to
// them, then the device section). Every value carries its dotted key and its line
// (yaml_reader.hpp), so the first problem found is reported exactly where it sits in the
// file.
#include "scenario/scenario.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <map>
#include <set>
#include <span>
#include <string_view>
#include <utility>

#include "ipproto/if_types.hpp"
#include "ipproto/wire.hpp"
#include "scenario/bounded.hpp"
#include "scenario/limits.hpp"
#include "scenario/yaml_reader.hpp"

namespace sim::scenario {
namespace {

using namespace yaml;  // NOLINT(google-build-using-namespace): the reader's vocabulary

constexpr std::uint64_t kNodeMax = 0x7FFF;

// ---------------------------------------------------------------------------------------
// The loader

constexpr auto kRoles = std::to_array<Name<Role>>(
    {{"member", Role::kMember}, {"master", Role::kMaster}, {"standby", Role::kStandby}});
constexpr auto kNodeStates = std::to_array<Name<bool>>({{"up", true}, {"down", false}});
constexpr const auto& kTypes = ipc::if_types::kNames;
constexpr auto kMethods = std::to_array<Name<std::uint32_t>>(
    {{"manual", kMethodManual}, {"dhcp", kMethodDhcp}, {"bootp", kMethodBootp}, {"mad", kMethodMad}});
constexpr auto kStatuses =
    std::to_array<Name<std::uint32_t>>({{"stopped", 0}, {"starting", 1}, {"running", 2}, {"absent", 4}});
constexpr auto kNeighbourStates = std::to_array<Name<std::string_view>>(
    {{"reachable", "reachable"}, {"stale", "stale"}, {"incomplete", "incomplete"}, {"static", "static"}});

constexpr auto kSectionKeys = std::to_array<std::string_view>(
    {"device", "nodes", "vrfs", "interfaces", "addresses", "services", "routes", "neighbours", "hosts", "vsis",
     "faults", "limits"});
constexpr auto kDeviceKeys = std::to_array<std::string_view>({"master", "master_ep", "mdc", "mdc_child"});
constexpr auto kNodeKeys = std::to_array<std::string_view>({"number", "chassis", "slot", "cpu", "role", "state"});
constexpr auto kVrfKeys = std::to_array<std::string_view>({"index", "name"});
constexpr auto kInterfaceKeys = std::to_array<std::string_view>({"index", "name", "node", "type", "flags", "kind",
                                                                 "l2", "temp", "visible", "configured", "valid",
                                                                 "vrf", "mac", "mtu"});
constexpr auto kAddressKeys = std::to_array<std::string_view>({"interface", "address", "method", "sub", "vrf"});
constexpr auto kServiceKeys = std::to_array<std::string_view>({"node", "name", "status"});
constexpr auto kRouteKeys = std::to_array<std::string_view>({"vrf", "prefix", "next_hop", "interface", "node", "type"});
constexpr auto kNeighbourKeys =
    std::to_array<std::string_view>({"interface", "address", "mac", "state", "vlan", "count"});
constexpr auto kHostKeys = std::to_array<std::string_view>({"interface", "address", "mac"});
constexpr auto kVsiKeys = std::to_array<std::string_view>({"name", "index", "vsi_interface", "vxlan", "circuits"});
constexpr auto kCircuitKeys = std::to_array<std::string_view>({"interface", "service", "link"});
// Largest VSI index (all ones means no VSI), VXLAN id, service instance id and link id
// (65535 means no link).
constexpr std::uint64_t kVsiIndexMax = 0xFFFFFFFE;
constexpr std::uint64_t kVxlanMax = 0xFFFFFF;
constexpr std::uint64_t kServiceMax = 4096;
constexpr std::uint64_t kLinkMax = 65534;
// Largest N of a Vsi-interfaceN (printed as a signed number by its users).
constexpr std::uint64_t kVsiInterfaceMax = 0x7FFFFFFF;

class Loader {
public:
    Loader(const Reporter& r, const YAML::Node& root) : r_(r), root_(r, Value{root, "", line_of(root)}, kSectionKeys) {}

    Scenario run(std::string source) {
        s_.source = std::move(source);
        load_nodes(root_.need("nodes"));
        load_vrfs(root_.find("vrfs"));
        load_interfaces(root_.need("interfaces"));
        for (const Value& v : items(r_, root_.find("addresses"))) s_.addresses.push_back(address(v));
        load_services(root_.find("services"));
        for (const Value& v : items(r_, root_.find("routes"))) s_.routes.push_back(route(v));
        for (const Value& v : items(r_, root_.find("neighbours"))) s_.neighbours.push_back(neighbour(v));
        for (const Value& v : items(r_, root_.find("hosts"))) s_.hosts.push_back(host(v));
        load_vsis(root_.find("vsis"));
        load_device(root_.find("device"));
        for (const Value& v : items(r_, root_.find("faults"))) s_.faults.push_back(control_item(v));
        for (const Value& v : items(r_, root_.find("limits"))) s_.limits.push_back(control_item(v));
        return std::move(s_);
    }

private:
    // Faults and limits: a mapping of plain values, given to the control operation as its
    // arguments once the device starts (which checks them). A plain scalar that reads as
    // a number or a boolean is one; anything else is a string.
    ControlItem control_item(const Value& v) {
        if (!v.node.IsMap()) r_.fail(v, "expected a mapping");
        ControlItem item{v.line, v.key, nlohmann::json::object()};
        for (auto it = v.node.begin(); it != v.node.end(); ++it) {
            const Value key{it->first, v.key, line_of(it->first)};
            if (!it->first.IsScalar()) r_.fail(key, "expected a key name");
            const std::string& name = it->first.Scalar();
            const Value val{it->second, join(v.key, excerpt(name)), line_of(it->second)};
            if (item.args.contains(name)) r_.fail(val, "duplicate key");
            if (val.node.IsNull()) {
                item.args[name] = nullptr;
            } else if (!val.node.IsScalar()) {
                r_.fail(val, "expected a plain value");
            } else if (plain(val) && integer_like(val)) {
                item.args[name] = integer(r_, val, 0, 0xFFFFFFFFFFFFFFFFu);
            } else if (plain(val) && (val.node.Scalar() == "true" || val.node.Scalar() == "false")) {
                item.args[name] = val.node.Scalar() == "true";
            } else if (double d = 0; plain(val) && YAML::convert<double>::decode(val.node, d)) {
                item.args[name] = d;
            } else {
                item.args[name] = val.node.Scalar();
            }
        }
        return item;
    }

    // Nodes --------------------------------------------------------------------------

    void load_nodes(const Value& section) {
        if (section.node.IsNull()) r_.fail(section, "expected a list of nodes");
        for (const Value& v : items(r_, section)) s_.nodes.push_back(node(v));
        if (s_.master == 0) r_.fail(section, "no node has role master");
    }

    Node node(const Value& v) {
        const Map m(r_, v, kNodeKeys);
        Node n;
        const Value number_v = m.need("number");
        n.number = number<std::uint16_t>(r_, number_v, 1, kNodeMax);
        if (const auto first = node_lines_.find(n.number); first != node_lines_.end()) {
            r_.fail(number_v, "duplicate node " + std::to_string(n.number) + " (first at line " +
                                  std::to_string(first->second) + ")");
        }
        node_lines_[n.number] = number_v.line;
        if (auto x = m.find("chassis")) n.chassis = number<std::uint16_t>(r_, *x, 0, 0xFFFF);
        if (auto x = m.find("slot")) n.slot = number<std::uint16_t>(r_, *x, 0, 0xFFFF);
        if (auto x = m.find("cpu")) n.cpu = number<std::uint16_t>(r_, *x, 0, 0xFFFF);
        if (auto x = m.find("role")) n.role = choice(r_, *x, kRoles);
        if (n.role == Role::kMaster) {
            if (s_.master != 0) {
                r_.fail(m.need("role"), "a second node with role master (node " + std::to_string(s_.master) +
                                            " is master)");
            }
            s_.master = n.number;
        }
        if (auto x = m.find("state")) n.up = choice(r_, *x, kNodeStates);
        return n;
    }

    // A node reference; 0 is accepted where `zero_ok` (meaning every node).
    std::uint16_t node_ref(const Value& v, bool zero_ok = false) {
        const auto n = number<std::uint16_t>(r_, v, zero_ok ? 0 : 1, kNodeMax);
        if (n != 0 && !node_lines_.contains(n)) r_.fail(v, "no node " + std::to_string(n));
        return n;
    }

    // VRFs ---------------------------------------------------------------------------

    struct Listed {
        Vrf vrf;
        Value name;
    };

    void load_vrfs(const std::optional<Value>& section) {
        std::vector<Listed> listed;
        std::map<std::uint16_t, int> index_lines;
        for (const Value& v : items(r_, section)) {
            const Map m(r_, v, kVrfKeys);
            const Value index_v = m.need("index");
            Listed l{Vrf{number<std::uint16_t>(r_, index_v, 0, 0xFFFF), ""}, m.need("name")};
            l.vrf.name = object_name(r_, l.name);
            if (const auto first = index_lines.find(l.vrf.index); first != index_lines.end()) {
                r_.fail(index_v, "duplicate VRF " + std::to_string(l.vrf.index) + " (first at line " +
                                     std::to_string(first->second) + ")");
            }
            index_lines[l.vrf.index] = index_v.line;
            listed.push_back(std::move(l));
        }
        const bool public_listed = index_lines.contains(0);
        if (!public_listed) add_vrf(Vrf{0, "public"});
        for (Listed& l : listed) {
            if (const auto seen = vrf_by_name_.find(l.vrf.name); seen != vrf_by_name_.end()) {
                const std::string where = seen->second == 0 && !public_listed
                                              ? "the public VRF's name"
                                              : "also the name of VRF " + std::to_string(seen->second);
                r_.fail(l.name, "duplicate VRF name " + in_quotes(l.vrf.name) + " (" + where + ")");
            }
            add_vrf(std::move(l.vrf));
        }
        std::stable_partition(s_.vrfs.begin(), s_.vrfs.end(), [](const Vrf& v) { return v.index == 0; });
    }

    void add_vrf(Vrf vrf) {
        vrf_indexes_.insert(vrf.index);
        vrf_by_name_.emplace(vrf.name, vrf.index);
        s_.vrfs.push_back(std::move(vrf));
    }

    // A VRF by index (a plain integer) or by name.
    std::uint16_t vrf_ref(const Value& v) {
        if (integer_like(v)) {
            const auto index = number<std::uint16_t>(r_, v, 0, 0xFFFF);
            if (!vrf_indexes_.contains(index)) r_.fail(v, "no VRF " + std::to_string(index));
            return index;
        }
        const std::string& name = text(r_, v);
        const auto found = vrf_by_name_.find(name);
        if (found == vrf_by_name_.end()) r_.fail(v, "no VRF named " + in_quotes(name));
        return found->second;
    }

    // Interfaces ---------------------------------------------------------------------

    void load_interfaces(const Value& section) {
        std::map<std::uint32_t, int> index_lines;
        std::map<std::string, int> name_lines;
        for (const Value& v : items(r_, section)) {
            const Map m(r_, v, kInterfaceKeys);
            const Value index_v = m.need("index");
            const Value name_v = m.need("name");
            Interface i = interface(m, index_v, name_v);
            if (const auto first = index_lines.find(i.index); first != index_lines.end()) {
                r_.fail(index_v, "duplicate interface index " + std::to_string(i.index) + " (first at line " +
                                     std::to_string(first->second) + ")");
            }
            if (const auto first = name_lines.find(i.name); first != name_lines.end()) {
                r_.fail(name_v, "duplicate interface name " + in_quotes(i.name) + " (first at line " +
                                    std::to_string(first->second) + ")");
            }
            index_lines[i.index] = index_v.line;
            name_lines[i.name] = name_v.line;
            interface_by_index_.emplace(i.index, s_.interfaces.size());
            interface_by_name_.emplace(i.name, s_.interfaces.size());
            s_.interfaces.push_back(std::move(i));
        }
    }

    Interface interface(const Map& m, const Value& index_v, const Value& name_v) {
        Interface i;
        i.index = number<std::uint32_t>(r_, index_v, 1, 0xFFFFFFFF);
        i.name = object_name(r_, name_v);
        i.node = node_ref(m.need("node"));
        i.type = number_or_name(r_, m.need("type"), 255, kTypes);
        if (auto x = m.find("flags")) i.flags = number<std::uint32_t>(r_, *x, 0, 0xFFFFFFFF);
        if (auto x = m.find("kind")) i.kind = number<std::uint32_t>(r_, *x, 0, 0xFFFFFFFF);
        if (auto x = m.find("l2")) i.l2 = boolean(r_, *x);
        if (auto x = m.find("temp")) i.temp = boolean(r_, *x);
        if (auto x = m.find("visible")) i.visible = boolean(r_, *x);
        if (auto x = m.find("configured")) i.configured = boolean(r_, *x);
        if (auto x = m.find("valid")) i.valid = boolean(r_, *x);
        if (auto x = m.find("vrf")) i.vrf = vrf_ref(*x);
        if (auto x = m.find("mtu")) i.mtu = number<std::uint32_t>(r_, *x, 0, 0xFFFF);
        if (auto x = m.find("mac")) {
            read_mac(r_, *x, i.mac);
        } else {
            const std::uint8_t mac[6] = {0x00, 0xe0, 0xfc, 0x00, static_cast<std::uint8_t>((i.index >> 8) & 0xFF),
                                         static_cast<std::uint8_t>(i.index & 0xFF)};
            std::copy(std::begin(mac), std::end(mac), i.mac);
        }
        return i;
    }

    // An interface by index (a plain integer) or by name.
    const Interface& interface_ref(const Value& v) {
        if (integer_like(v)) {
            const auto index = number<std::uint32_t>(r_, v, 1, 0xFFFFFFFF);
            const auto it = interface_by_index_.find(index);
            if (it == interface_by_index_.end()) r_.fail(v, "no interface " + std::to_string(index));
            return s_.interfaces[it->second];
        }
        const std::string& name = text(r_, v);
        const auto it = interface_by_name_.find(name);
        if (it == interface_by_name_.end()) r_.fail(v, "no interface named " + in_quotes(name));
        return s_.interfaces[it->second];
    }

    // Addresses, services, routes, neighbours ----------------------------------------

    Address address(const Value& v) {
        const Map m(r_, v, kAddressKeys);
        Address a;
        a.ifindex = interface_ref(m.need("interface")).index;
        const Value addr_v = m.need("address");
        const std::string& s = text(r_, addr_v);
        const auto p = parse_prefix(s);
        if (!p || p->ip.family != AF_INET) {
            r_.fail(addr_v, "bad address " + in_quotes(s) + " (expected " + prefix_hint(AF_INET) + ")");
        }
        a.addr = ipv4_word(p->ip);
        a.mask = mask_of(p->len);
        if (auto x = m.find("method")) a.method = choice(r_, *x, kMethods);
        if (auto x = m.find("sub")) a.sub = boolean(r_, *x);
        if (auto x = m.find("vrf")) a.vrf = vrf_ref(*x);
        return a;
    }

    void load_services(const std::optional<Value>& section) {
        std::map<std::pair<std::uint16_t, std::string>, int> lines;
        for (const Value& v : items(r_, section)) {
            const Map m(r_, v, kServiceKeys);
            Service svc;
            svc.node = node_ref(m.need("node"));
            const Value name_v = m.need("name");
            svc.name = label(r_, name_v);
            if (auto x = m.find("status")) svc.status = number_or_name(r_, *x, 0xFFFFFFFF, kStatuses);
            const auto [it, fresh] = lines.emplace(std::pair{svc.node, svc.name}, name_v.line);
            if (!fresh) {
                r_.fail(name_v, "duplicate service " + in_quotes(svc.name) + " on node " + std::to_string(svc.node) +
                                    " (first at line " + std::to_string(it->second) + ")");
            }
            s_.services.push_back(std::move(svc));
        }
    }

    Route route(const Value& v) {
        const Map m(r_, v, kRouteKeys);
        Route rt;
        if (auto x = m.find("vrf")) rt.vrf = vrf_ref(*x);
        const Value prefix_v = m.need("prefix");
        const Prefix p = route_prefix(prefix_v);
        rt.family = p.ip.family;
        std::copy(p.ip.bytes.begin(), p.ip.bytes.end(), rt.prefix);
        rt.prefix_len = static_cast<std::uint8_t>(p.len);
        if (auto x = m.find("next_hop")) {
            const Ip hop = ip_address(*x);
            if (hop.family != p.ip.family) r_.fail(*x, "next hop is not of the prefix's address family");
            std::copy(hop.bytes.begin(), hop.bytes.end(), rt.next_hop);
        }
        if (auto x = m.find("interface")) rt.ifindex = interface_ref(*x).index;
        if (auto x = m.find("node")) rt.node = node_ref(*x, true);
        if (auto x = m.find("type")) {
            const std::string& t = text(r_, *x);
            if (t == "unicast") rt.type = FIB_ROUTE_UNICAST;
            else if (t == "blackhole") rt.type = FIB_ROUTE_BLACKHOLE;
            else if (t == "unreachable") rt.type = FIB_ROUTE_UNREACHABLE;
            else if (t == "prohibit") rt.type = FIB_ROUTE_PROHIBIT;
            else r_.fail(*x, "bad route type " + in_quotes(t) + " (expected unicast, blackhole, unreachable or prohibit)");
            if (rt.type != FIB_ROUTE_UNICAST && (m.find("next_hop") || m.find("interface")))
                r_.fail(*x, std::string(t == "unreachable" ? "an " : "a ") + t + " route has no next hop and no interface");
        }
        return rt;
    }

    Prefix route_prefix(const Value& v) {
        const std::string& s = text(r_, v);
        const auto p = parse_prefix(s);
        if (!p) {
            const int family = s.find(':') != std::string::npos ? AF_INET6 : AF_INET;
            r_.fail(v, "bad prefix " + in_quotes(s) + " (expected " + prefix_hint(family) + ")");
        }
        if (!host_bits_clear(*p)) r_.fail(v, "bad prefix " + in_quotes(s) + " (bits set past the prefix length)");
        return *p;
    }

    Ip ip_address(const Value& v) {
        const std::string& s = text(r_, v);
        const auto ip = parse_ip(s);
        if (!ip) r_.fail(v, "bad address " + in_quotes(s) + " (expected an IPv4 or IPv6 address)");
        return *ip;
    }

    Neighbour neighbour(const Value& v) {
        const Map m(r_, v, kNeighbourKeys);
        Neighbour n;
        n.ifindex = interface_ref(m.need("interface")).index;
        const Ip ip = ip_address(m.need("address"));
        n.family = ip.family;
        std::copy(ip.bytes.begin(), ip.bytes.end(), n.addr);
        if (auto x = m.find("state")) n.state = choice(r_, *x, kNeighbourStates);
        // An incomplete entry has not learnt its MAC address yet.
        if (n.state == "incomplete") {
            if (auto x = m.find("mac")) read_mac(r_, *x, n.mac);
        } else {
            read_mac(r_, m.need("mac"), n.mac);
        }
        if (auto x = m.find("vlan")) n.vlan = number<std::uint16_t>(r_, *x, 0, 4094);
        const std::optional<Value> count_v = m.find("count");
        if (count_v) n.count = number<std::uint32_t>(r_, *count_v, 1, 0xFFFFFFFF);
        // The entries of all the file's items together are bounded, before any is made.
        neighbour_entries_ += n.count;
        if (neighbour_entries_ > kNeighbourEntriesMax) {
            r_.fail(count_v ? *count_v : v, "the file's neighbours would make " + std::to_string(neighbour_entries_) +
                                                " entries; at most " + std::to_string(kNeighbourEntriesMax));
        }
        if (count_v) {
            // The run must not wrap the address: IPv4 within 32 bits, IPv6 within its
            // last 32 bits.
            const std::size_t at = ip.family == AF_INET ? 0 : 12;
            const auto last = ipc::wire::load_be<std::uint32_t>(n.addr + at);
            if (std::uint64_t{last} + n.count - 1 > 0xFFFFFFFFull) {
                r_.fail(*count_v, "the run passes the end of the address space");
            }
        }
        return n;
    }

    Host host(const Value& v) {
        const Map m(r_, v, kHostKeys);
        Host h;
        h.ifindex = interface_ref(m.need("interface")).index;
        const Ip ip = ip_address(m.need("address"));
        h.family = ip.family;
        std::copy(ip.bytes.begin(), ip.bytes.end(), h.addr);
        read_mac(r_, m.need("mac"), h.mac);
        return h;
    }

    // VSIs ---------------------------------------------------------------------------

    // A value of the VSIs that must not repeat: the line of its first use, by value.
    template <typename K>
    void unique(std::map<K, int>& seen, const K& key, const Value& v, const std::string& what) {
        const auto [it, fresh] = seen.emplace(key, v.line);
        if (!fresh) r_.fail(v, "duplicate " + what + " (first at line " + std::to_string(it->second) + ")");
    }

    void load_vsis(const std::optional<Value>& section) {
        std::map<std::string, int> names;
        std::map<std::uint32_t, int> indexes, vsi_interfaces, vxlans;
        std::map<std::pair<std::uint32_t, std::uint32_t>, int> circuits;
        for (const Value& v : items(r_, section)) {
            const Map m(r_, v, kVsiKeys);
            Vsi vsi;
            const Value name_v = m.need("name");
            vsi.name = object_name(r_, name_v);
            unique(names, vsi.name, name_v, "VSI name " + in_quotes(vsi.name));
            const Value index_v = m.need("index");
            vsi.index = number<std::uint32_t>(r_, index_v, 0, kVsiIndexMax);
            unique(indexes, vsi.index, index_v, "VSI index " + std::to_string(vsi.index));
            if (auto x = m.find("vsi_interface")) {
                vsi.interface_number = number<std::uint32_t>(r_, *x, 0, kVsiInterfaceMax);
                unique(vsi_interfaces, *vsi.interface_number, *x,
                       "Vsi-interface" + std::to_string(*vsi.interface_number));
            }
            if (auto x = m.find("vxlan")) {
                vsi.vxlan = number<std::uint32_t>(r_, *x, 0, kVxlanMax);
                unique(vxlans, *vsi.vxlan, *x, "VXLAN id " + std::to_string(*vsi.vxlan));
            }
            for (const Value& c : items(r_, m.find("circuits"))) {
                const Map cm(r_, c, kCircuitKeys);
                Circuit circuit;
                circuit.ifindex = interface_ref(cm.need("interface")).index;
                const Value service_v = cm.need("service");
                circuit.service = number<std::uint32_t>(r_, service_v, 1, kServiceMax);
                unique(circuits, std::pair{circuit.ifindex, circuit.service}, service_v,
                       "circuit: service " + std::to_string(circuit.service) + " on interface " +
                           std::to_string(circuit.ifindex));
                if (auto x = cm.find("link")) circuit.link = number<std::uint32_t>(r_, *x, 0, kLinkMax);
                vsi.circuits.push_back(circuit);
            }
            s_.vsis.push_back(std::move(vsi));
        }
    }

    // Device -------------------------------------------------------------------------

    void load_device(const std::optional<Value>& section) {
        if (!section || section->node.IsNull()) {
            s_.master_ep = s_.master;
            return;
        }
        const Map m(r_, *section, kDeviceKeys);
        if (auto x = m.find("master")) {
            const std::uint16_t master = node_ref(*x);
            if (master != s_.master) {
                r_.fail(*x, "node " + std::to_string(master) + " does not have role master (node " +
                                std::to_string(s_.master) + " has)");
            }
        }
        s_.master_ep = s_.master;
        if (auto x = m.find("master_ep")) s_.master_ep = node_ref(*x);
        if (auto x = m.find("mdc")) s_.mdc = number<std::uint16_t>(r_, *x, 1, 0xFFFF);
        if (auto x = m.find("mdc_child")) s_.mdc_child = boolean(r_, *x);
    }

    const Reporter& r_;
    Map root_;
    Scenario s_;
    std::map<std::uint16_t, int> node_lines_;
    // The VRFs and interfaces listed so far, for the items that refer to them.
    std::set<std::uint16_t> vrf_indexes_;
    std::map<std::string, std::uint16_t, std::less<>> vrf_by_name_;
    std::map<std::uint32_t, std::size_t> interface_by_index_;  // position in s_.interfaces
    std::map<std::string, std::size_t, std::less<>> interface_by_name_;
    std::uint64_t neighbour_entries_ = 0;  // made by the neighbour items so far
};

}  // namespace

Scenario load_text(const std::string& text, const std::string& name) {
    const Reporter r(name);
    const YAML::Node root = parse_document(text, name, r);
    try {
        return Loader(r, root).run(name);
    } catch (const YAML::Exception& e) {
        // Not expected once the document parsed; kept so that only Error leaves this file.
        yaml_error(e, name);
    }
}

Scenario load_file(const std::string& path) {
    return load_text(read_file(path), path);
}

Scenario load_default() {
    return load_text(default_text(), "<default>");
}

}  // namespace sim::scenario
