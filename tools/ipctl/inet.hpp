// Addresses as the tool reads and writes them. IPv4 addresses and masks are kept as the
// library gives them, in network order in a 32-bit word; IPv6 addresses as 16 bytes.
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>

namespace ipctl {

struct Prefix4 {
    std::uint32_t addr;  // network order
    unsigned len;
};

std::string inet4_text(std::uint32_t addr_network_order);
std::string inet6_text(const std::uint8_t* addr16);
std::string mac_text(const std::uint8_t* mac6);
// The length of a contiguous mask (network order); the count of its one bits.
unsigned mask_length(std::uint32_t mask_network_order);
// The mask of a prefix length, in network order.
std::uint32_t length_mask(unsigned len);
std::optional<std::uint32_t> parse_inet4(const std::string& text);
std::optional<std::array<std::uint8_t, 16>> parse_inet6(const std::string& text);
// Byte i (0 the first written) of an IPv4 address in network order.
std::uint8_t inet4_byte(std::uint32_t addr_network_order, unsigned i);
// "A.B.C.D/LEN" (LEN 0..32; without it /32).
std::optional<Prefix4> parse_prefix4(const std::string& text);

}  // namespace ipctl
