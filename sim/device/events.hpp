// What the device does on its own, played from the control channel: a board pulled out and
// put back (node.set), a link that goes down and comes up (link.set), a service that
// restarts (service.restart). Each change reaches the event subscribers as the device's own
// would. What the device takes away by itself is not a client's change: the store keeps
// what clients set, and it comes back with the node.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <vector>

#include "ipclient/ipaddr.h"
#include "modules/fib_table.hpp"
#include "modules/neigh_table.hpp"

namespace sim {

struct Context;
struct ServiceOps;

struct DeviceEvents {
    // What a pulled board held, given back when it is put back.
    struct Held {
        std::vector<IPAddrInfo> addresses;
        std::vector<Neighbour> neighbours;
        std::vector<Route> routes;
    };
    std::map<std::uint16_t, Held> pulled;
    // Interfaces whose link is down, with the routes it made inactive (the ones that come
    // back when it comes up).
    std::map<std::uint32_t, std::vector<FibTable::Key>> links_down;
    // Restarts under way, by port: the last one started (an earlier timer does nothing).
    std::map<std::uint16_t, std::uint64_t> restarting;
    std::uint64_t restarts = 0;
    // Set by the daemon: listens again on a node's service ports (a board put back, a
    // switchover) and on one service's ports (a restart's end).
    std::function<void(std::uint16_t node)> listen_node;
    std::function<void(const ServiceOps& svc)> listen_service;
    // While a device event changes the tables, the store is not told (see above).
    bool unstored = false;
};

// Registers node.set, link.set and service.restart.
void register_device_events(Context& ctx);

}  // namespace sim
