// A live system that the simulated device mirrors (source/linux_source.hpp): the tables
// follow it, and the services ask it to carry out some client requests as well.
#pragma once

#include <cstdint>

#include "ipclient/kernel.h"
#include "modules/neigh_table.hpp"

namespace sim {

class Mirror {
public:
    virtual ~Mirror() = default;
    // True while the mirror itself changes the tables: such a change is the system's, not
    // a client's, and is not kept in the state directory.
    virtual bool applying() const noexcept = 0;
    // True when client requests are also carried out on the system.
    virtual bool writable() const noexcept = 0;
    // Adds or removes an IPv4 address on the system: 0, or the system's errno.
    virtual int add_address(const IPAddrInfo& info) = 0;
    virtual int delete_address(std::uint32_t ifindex, std::uint32_t addr, std::uint32_t mask) = 0;
    // Asks the system to resolve a neighbour (family 2 or 10); the tables learn the answer
    // from the system later. 0, or the system's errno.
    virtual int resolve(std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) = 0;
    // Sets the system's default TTL: 0, or the system's errno.
    virtual int set_default_ttl(std::uint8_t ttl) = 0;
};

}  // namespace sim
