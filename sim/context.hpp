// Everything the channels of the simulated device reach, owned by the daemon.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <memory>
#include <optional>
#include <span>
#include <string_view>

#include "control/control.hpp"
#include "core/capture.hpp"
#include "core/faults.hpp"
#include "core/loop.hpp"
#include "device/anchors.hpp"
#include "device/database.hpp"
#include "device/dumps.hpp"
#include "device/device.hpp"
#include "device/events.hpp"
#include "modules/addr_table.hpp"
#include "modules/fib_table.hpp"
#include "modules/kmod_addr.hpp"
#include "modules/kmod_arp.hpp"
#include "modules/kmod_fib.hpp"
#include "modules/kmod_ipstat.hpp"
#include "modules/kmod_nd.hpp"
#include "modules/kmod_wlan.hpp"
#include "modules/neigh_table.hpp"
#include "services/adjacency.hpp"
#include "services/manager.hpp"
#include "services/proen.hpp"
#include "source/mirror.hpp"
#include "store/store.hpp"

namespace sim {

class AddrEventConn;
class AddrCfgConn;
class WlanEventConn;

struct Context {
    Loop& loop;
    Device& device;
    AddrTable& addrs;
    AddrModule& addr_module;
    ServiceManager& services;
    Store& store;
    Capture& capture;
    Database& database;
    Anchors& anchors;
    FibTable& fib;
    FibModule& fib_module;
    Dumps& dumps;
    // Subscribers of address events (port 11547) and control connections registered for
    // interface-configuration messages (port 1653).
    std::set<AddrEventConn*> addr_subscribers;
    std::set<AddrCfgConn*> ifcfg_subscribers;
    // Connections subscribed to kernel events, by event class.
    std::multimap<std::uint32_t, Conn*> kevent_subscribers;
    // Device-channel connections of each client process; its walk paths end with the last.
    std::map<pid_t, std::size_t> device_clients;
    // Operations of the control channel, registered by the modules and services that
    // serve them.
    Control control;
    // The ARP and ND tables, and the hosts that answer resolution (from the scenario).
    NeighTable neighs;
    std::vector<scenario::Host> hosts;
    // The IPv4 and IPv6 adjacency services' tables and subscribers.
    AdjServices adj;
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
    // The WLAN adjacency module and the subscribers of its events (port 1641); the
    // protocol-to-CPU service's entries (ports 1680 and 11557).
    WlanModule wlan{};
    std::set<WlanEventConn*> wlan_subscribers{};
    ProenTable proen{};
    // The ND module: global parameters, interface configuration, per-node counters,
    // packets sent, and the overlay suppression of the VSIs (port 1667).
    NdModule nd{};
    // The ARP module: packet and attack counters, and the ARP daemon's suppression
    // switches (port 1639).
    ArpModule arp{};
    // The IP module: IP, forwarding, ICMP, MIB and BPA counters, and the nodes' IP
    // settings (default TTL, forwarding, ECMP, load sharing, MTU).
    IpStatModule ipstat{};
    // The live system the device mirrors (ipsimd --source linux); null when it mirrors none.
    Mirror* mirror = nullptr;
    // The faults the device plays (fault.set), and the most clients each service takes on a
    // node (limit.set "subscribers"), by port, with the clients it turned away.
    Faults faults{};
    // Boards pulled out, links down, services restarting (device/events.hpp).
    DeviceEvents events{};
    struct ClientLimit {
        std::optional<std::size_t> capacity;
        std::uint64_t refused = 0;
    };
    std::map<std::uint16_t, ClientLimit> client_limits{};

    // Seconds since the device started: the clock of entry ages.
    std::uint32_t uptime() const {
        return static_cast<std::uint32_t>(
            std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started).count());
    }
};

// The kernel modules behind CIOCTL: the module's status; reply bytes in `reply`.
std::uint32_t kernel_dispatch(Context& ctx, std::uint16_t node, std::uint32_t command,
                              std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                              std::uint32_t* returned);

// Answers requests on the control channel (control/control.cpp).
std::unique_ptr<Conn> make_control_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);

// Answers platform calls on the device channel (device/backend.cpp).
std::unique_ptr<Conn> make_device_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
// A device-channel call by the name the capture gives it, and the other way round.
std::optional<std::uint32_t> device_call_number(std::string_view name);
const char* device_call_name(std::uint32_t number);
// Sends a kernel event of a class to its subscribers; returns how many were reached.
std::size_t post_kernel_event(Context& ctx, std::uint32_t event_class, std::span<const std::uint8_t> bytes);

// Opens a dump of a module's table on a node (device/backend.cpp asks); null when no
// module answers the request.
std::unique_ptr<DumpCursor> open_dump(Context& ctx, std::uint16_t node, std::uint32_t request_id,
                                      std::span<const std::uint8_t> request);

// Publishes an address change to every subscriber (services/addr_events.cpp).
void publish_addr_change(Context& ctx, const AddrChange& change);
// Publishes an interface-configuration record to every registered control connection
// (services/addrcfg.cpp).
void publish_ifcfg(Context& ctx, std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint16_t d);

}  // namespace sim
