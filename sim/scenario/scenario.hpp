// The scenario: what the simulated device holds when ipsimd starts.
//
// Loaded from a YAML file (docs/scenario.md) or from the bundled default scenario. Loading
// validates the whole file within the bounds of limits.hpp; a wrong file is refused with an
// error that names the file, the line and the key.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "ipclient/fib.h"
#include "ipclient/kernel.h"
#include "scenario/limits.hpp"

namespace sim::scenario {

enum class Role { kMember, kMaster, kStandby };

struct Node {
    std::uint16_t number = 0;   // 1..0x7FFF (0x8000 is the own-node alias)
    std::uint16_t chassis = 0;
    std::uint16_t slot = 0;
    std::uint16_t cpu = 0;
    Role role = Role::kMember;
    bool up = true;
};

struct Vrf {
    std::uint16_t index = 0;    // 0 is the public instance, always present
    std::string name;           // at most 31 characters
};

struct Interface {
    std::uint32_t index = 0;    // non-zero, unique
    std::string name;           // full name, at most 31 characters, unique
    std::uint16_t node = 0;     // owning node, one of the nodes
    std::uint32_t type = 0;     // platform interface type code 0..255
    std::uint32_t flags = 0;    // flags word (0x10: spans nodes)
    std::uint32_t kind = 0;
    bool l2 = false;
    bool temp = false;
    bool visible = true;
    bool configured = true;
    bool valid = true;
    std::uint16_t vrf = 0;      // one of the VRFs
    std::uint8_t mac[6] = {};   // default: 00:e0:fc:00:<index>
    std::uint32_t mtu = 1500;
    bool link_up = true;        // the link's state (a mirrored link's IFF_UP and IFF_RUNNING)
};

// Configuration methods of an address, as the address module's method bits.
inline constexpr std::uint32_t kMethodManual = IPADDR_METHOD_MANUAL;
inline constexpr std::uint32_t kMethodDhcp = IPADDR_METHOD_DHCP;
inline constexpr std::uint32_t kMethodBootp = IPADDR_METHOD_BOOTP;
inline constexpr std::uint32_t kMethodMad = IPADDR_METHOD_MAD;

struct Address {
    std::uint32_t ifindex = 0;  // resolved from the interface's name or index
    std::uint32_t addr = 0;     // IPv4, network order
    std::uint32_t mask = 0;     // network order, from the prefix length
    std::uint32_t method = kMethodManual;
    bool sub = false;           // secondary address
    std::optional<std::uint16_t> vrf;  // default: the interface's VRF
};

struct Service {
    std::uint16_t node = 0;
    std::string name;           // e.g. "IPStack", "DHCPC"
    std::uint32_t status = 2;   // service manager status: 0 stopped, 1 starting, 2 running, 4 absent
};

// Routes and neighbours are kept for the FIB and neighbour modules.
struct Route {
    std::uint16_t vrf = 0;
    int family = 2;             // 2 IPv4, 10 IPv6
    std::uint8_t prefix[16] = {};  // network order
    std::uint8_t prefix_len = 0;
    std::uint8_t next_hop[16] = {};
    std::uint32_t ifindex = 0;  // 0: none
    std::uint16_t node = 0;     // 0: every node
    std::uint8_t type = FIB_ROUTE_UNICAST;  // FIB_ROUTE_* of ipclient/fib.h
};

struct Neighbour {
    std::uint32_t ifindex = 0;
    int family = 2;
    std::uint8_t addr[16] = {};
    std::uint8_t mac[6] = {};
    std::string state = "reachable";  // reachable, stale, incomplete, static
    std::uint16_t vlan = 0;
    // A run of `count` neighbours: the address and the MAC address each count up by one
    // from the entry's own (large tables without a line per entry).
    // All the items of a scenario together make at most kNeighbourEntriesMax entries.
    std::uint32_t count = 1;
};

// A host behind an interface that answers when the device resolves its address (an ARP
// request or an ND solicitation): the entry becomes reachable with the host's MAC.
struct Host {
    std::uint32_t ifindex = 0;
    int family = 2;
    std::uint8_t addr[16] = {};
    std::uint8_t mac[6] = {};
};

// An attachment circuit of a VSI: a service instance on a port of the device, known to
// the layer-2 VPN by its EVC key (interface index, service instance id).
struct Circuit {
    std::uint32_t ifindex = 0;
    std::uint32_t service = 0;     // service instance id on the interface, 1..4096
    std::uint32_t link = 0xFFFF;   // link id within the VSI, 0..65534; 0xFFFF: none
};

// A VSI (virtual switch instance) of the layer-2 VPN.
struct Vsi {
    std::string name;              // at most 31 characters, unique
    std::uint32_t index = 0;       // 0..0xFFFFFFFE (all ones means no VSI), unique
    std::optional<std::uint32_t> interface_number;  // N of its Vsi-interfaceN; none
    std::optional<std::uint32_t> vxlan;             // VXLAN id 0..0xFFFFFF; none
    std::vector<Circuit> circuits;
};

// A fault or a limit the device starts with: the arguments of fault.set or limit.set
// (docs/ipsimd.md), checked when the device starts, and where the item sits in the file.
struct ControlItem {
    int line = 0;
    std::string key;
    nlohmann::json args;
};

struct Scenario {
    std::string source;                 // file name, or "<default>"
    std::uint16_t master = 0;           // node of role master
    std::uint16_t master_ep = 0;        // default: master
    std::uint16_t mdc = 1;
    bool mdc_child = false;
    std::vector<Node> nodes;
    std::vector<Vrf> vrfs;              // always holds index 0
    std::vector<Interface> interfaces;
    std::vector<Address> addresses;
    std::vector<Service> services;
    std::vector<Route> routes;
    std::vector<Neighbour> neighbours;
    std::vector<Host> hosts;
    std::vector<Vsi> vsis;
    std::vector<ControlItem> faults;
    std::vector<ControlItem> limits;
};

// A refused scenario: what() reads "<file>:<line>: <key>: <what is wrong>".
class Error : public std::runtime_error {
public:
    Error(const std::string& file, int line, const std::string& key, const std::string& what)
        : std::runtime_error(file + ":" + std::to_string(line) + ": " + key + ": " + what),
          file_(file), line_(line), key_(key) {}
    const std::string& file() const noexcept { return file_; }
    int line() const noexcept { return line_; }
    const std::string& key() const noexcept { return key_; }

private:
    std::string file_;
    int line_;
    std::string key_;
};

// Loads and validates a scenario file; throws Error. The file must be a regular file of at
// most kFileBytesMax bytes; it is read without blocking, then loaded as load_text() does.
Scenario load_file(const std::string& path);
// Loads and validates scenario text (at most kFileBytesMax bytes); `name` stands for the
// file in errors.
Scenario load_text(const std::string& text, const std::string& name);
// The bundled default scenario.
Scenario load_default();
// The bundled default scenario's text.
const char* default_text() noexcept;

}  // namespace sim::scenario
