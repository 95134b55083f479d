// Everything the channels of the simulated device reach, owned by the daemon.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <memory>
#include <span>

#include "core/capture.hpp"
#include "core/loop.hpp"
#include "device/anchors.hpp"
#include "device/database.hpp"
#include "device/dumps.hpp"
#include "device/device.hpp"
#include "modules/addr_table.hpp"
#include "modules/fib_table.hpp"
#include "modules/kmod_addr.hpp"
#include "modules/kmod_fib.hpp"
#include "services/manager.hpp"
#include "store/store.hpp"

namespace sim {

class AddrEventConn;
class AddrCfgConn;

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
};

// The kernel modules behind CIOCTL: the module's status; reply bytes in `reply`.
std::uint32_t kernel_dispatch(Context& ctx, std::uint16_t node, std::uint32_t command,
                              std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                              std::uint32_t* returned);

// Answers platform calls on the device channel (device/backend.cpp).
std::unique_ptr<Conn> make_device_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
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
