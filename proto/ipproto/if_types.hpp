// Interface type codes of the device's directory (IF_GetDataByIfIndex item 18) that have a
// name of their own: how scenarios write them and how tools print them.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <utility>

namespace ipc::if_types {

inline constexpr std::uint32_t kNull = 1;
inline constexpr std::uint32_t kEthernet = 6;
inline constexpr std::uint32_t kLoopback = 24;
inline constexpr std::uint32_t kVlanInterface = 35;
inline constexpr std::uint32_t kTunnel = 71;
inline constexpr std::uint32_t kVsiInterface = 122;

inline constexpr std::array<std::pair<std::string_view, std::uint32_t>, 6> kNames{{
    {"null", kNull},
    {"ethernet", kEthernet},
    {"loopback", kLoopback},
    {"vlan-interface", kVlanInterface},
    {"tunnel", kTunnel},
    {"vsi-interface", kVsiInterface},
}};

// The name of a type code, or empty for a code without one.
constexpr std::string_view name_of(std::uint32_t code) {
    for (const auto& [name, value] : kNames) {
        if (value == code) return name;
    }
    return {};
}

}  // namespace ipc::if_types
