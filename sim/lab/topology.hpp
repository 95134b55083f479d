// A lab's topology file (ipsimd lab ... FILE; docs/lab.md): the devices of the lab and the
// links between their interfaces, read and checked as a scenario is, each problem reported
// with the file, the line and the key (scenario::Error).
//
//   lab: line3
//   devices:
//     - name: r1
//       interfaces:
//         - {name: eth1, addresses: [10.0.12.1/24, 2001:db8:12::1/64]}
//         - {name: lo, addresses: [1.1.1.1/32]}
//       routes:
//         - {to: 10.0.23.0/24, via: 10.0.12.2}
//       sysctls: {net.ipv4.ip_forward: 1}
//       run: ["my-agent --verbose"]
//     - {name: r2, source: scenario, scenario: r2.yaml}
//   links:
//     - {a: r1:eth1, b: r2:eth1, delay_ms: 5, loss: 0.5, state: up}
//
// A device of source linux (the default) is a network namespace "<lab>-<device>" that the
// lab makes, mirrored by ipsimd; one of source scenario is an ipsimd on a scenario, with no
// namespace and no data plane (it takes no links). A link is a veth pair: its ends are the
// interfaces named, one in each device's namespace. An interface of a device is one end of
// a link, the loopback "lo", or one of kind dummy.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace sim::lab {

inline constexpr std::size_t kLabNameMax = 12;     // "<lab>-<device>" stays a short name
inline constexpr std::size_t kDeviceNameMax = 15;
inline constexpr std::size_t kIfNameMax = 15;      // IFNAMSIZ less its terminator
inline constexpr std::size_t kDevicesMax = 1024;
inline constexpr std::size_t kLinksMax = 4096;

struct Interface {
    std::string name;
    std::string kind = "veth";               // veth (a link's end), dummy, loopback
    std::vector<std::string> addresses;      // ADDRESS/LEN as written, IPv4 or IPv6
    std::optional<std::uint32_t> mtu;
    int line = 0;
    std::string key;                         // where the file gives it: devices[0].interfaces[1]
};

struct Route {
    std::string to;                          // PREFIX or "default"
    std::optional<std::string> via;
    std::optional<std::string> dev;
    std::string type = "unicast";            // unicast, blackhole, unreachable, prohibit
    std::optional<std::uint32_t> metric;
    std::optional<std::uint32_t> table;
};

struct Device {
    std::string name;
    bool linux_source = true;                // false: a scenario device
    std::string scenario;                    // its file; "" the bundled one
    std::vector<Interface> interfaces;
    std::vector<Route> routes;
    std::vector<std::pair<std::string, std::string>> sysctls;  // net.ipv4.ip_forward = 1
    std::vector<std::string> run;            // commands run in its namespace once it is up
    bool writable = true;
    int line = 0;
};

struct End {
    std::string device;
    std::string interface;
};

struct Link {
    End a, b;
    std::optional<std::uint32_t> delay_ms;
    std::optional<double> loss;              // percent
    bool up = true;
    int line = 0;
};

struct Topology {
    std::string name;
    std::string file;
    std::vector<Device> devices;
    std::vector<Link> links;

    const Device* device(const std::string& name) const;
};

// Reads a topology; throws scenario::Error at the first problem.
Topology load_topology_text(const std::string& text, const std::string& file);
Topology load_topology(const std::string& path);

}  // namespace sim::lab
