// The rows the simulator persists, in wire order through the wire codec:
//   table "addr":  key [BE32 interface index][address, 4 bytes as they stand]
//                  value the address as an IPAddrInfo in wire order (52 bytes), or none
//                  when the address was deleted;
//   table "ifset": key [BE32 interface index]
//                  value the interface's settings (encode_settings).
// The IP module keeps its rows, "ipset" (a node's IP settings) and "ipmtu" (an
// interface's MTU), in modules/ipstat_state.hpp.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "modules/addr_table.hpp"

namespace sim::records {

std::vector<std::uint8_t> addr_key(std::uint32_t ifindex, std::uint32_t addr);
std::vector<std::uint8_t> encode_addr(const IPAddrInfo& info);
// Nothing when the key or the value is not of the right length or they disagree.
std::optional<IPAddrInfo> decode_addr(std::span<const std::uint8_t> key, std::span<const std::uint8_t> value);
bool decode_addr_key(std::span<const std::uint8_t> key, std::uint32_t* ifindex, std::uint32_t* addr);

std::vector<std::uint8_t> settings_key(std::uint32_t ifindex);
std::vector<std::uint8_t> encode_settings(const IfSettings& s);
std::optional<IfSettings> decode_settings(std::span<const std::uint8_t> value);
std::optional<std::uint32_t> decode_settings_key(std::span<const std::uint8_t> key);

}  // namespace sim::records
