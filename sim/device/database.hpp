// The platform's configuration database as the simulated device keeps it.
//
// Any database and group can be opened. The group "address" of the database "ip" holds,
// for each interface, the list of its addresses; the list's key is the 52-byte address
// database key (interface index in host order, then the interface's full name in 48
// zero-padded bytes; an index of 0 names the interface by its name). Each record is 20
// bytes in host order: [u16 VRF][2 zero bytes][u32 address, network order][u32 mask,
// network order][u32 method bits][u32 flags]. Every other list is empty.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "device/device.hpp"
#include "modules/addr_table.hpp"

namespace sim {

class Database {
public:
    Database(const Device& device, const AddrTable& addrs) : device_(device), addrs_(addrs) {}

    std::uint32_t open(const std::string& db, const std::string& group);
    bool close(std::uint32_t handle);
    // The records of the list named by key, or nothing for an unknown handle.
    std::optional<std::vector<std::vector<std::uint8_t>>> list(std::uint32_t handle,
                                                               std::span<const std::uint8_t> key) const;

private:
    const Device& device_;
    const AddrTable& addrs_;
    std::map<std::uint32_t, std::pair<std::string, std::string>> handles_;
    std::uint32_t next_ = 1;
};

}  // namespace sim
