// What a family-37 service of the simulated device gives the daemon, in one table per
// service: its port, where it listens, the connection that answers a client, and its control
// operations. The daemon listens and registers from these tables alone; services() lists
// them, so a service is added by its file and one line there.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <span>

#include "core/loop.hpp"

namespace sim {

struct Context;

struct ServiceOps {
    enum class Where : std::uint8_t {
        kEveryNode,         // on each node that is up
        kMasterEndpoint,    // on the master's endpoint alone
        kWhileIpStackRuns,  // on each node whose IPStack service runs, from when it runs
        kNowhere,           // no socket of its own (raised from the control channel)
    };
    const char* name = "";
    std::uint16_t port = 0;
    Where where = Where::kEveryNode;
    // The connection that answers a client accepted on the port.
    std::unique_ptr<Conn> (*accept)(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) = nullptr;
    // Registers its control operations (docs/ipsimd.md); null when it has none.
    void (*controls)(Context& ctx) = nullptr;
    // Answers a request with a status in the service's own answer (an error fault); null for
    // a service whose answers carry no status, where an error fault cannot be set.
    void (*refuse)(Conn& conn, std::span<const std::uint8_t> request, std::uint32_t status) = nullptr;
    // Forgets what the service keeps for its clients when it restarts (service.restart);
    // null when its connections are all it keeps.
    void (*restarted)(Context& ctx) = nullptr;
};

// The service listening on a port, or null.
const ServiceOps* service_on(std::uint16_t port);

// Every service of the device, in the order they start listening.
std::span<const ServiceOps> services();

}  // namespace sim
