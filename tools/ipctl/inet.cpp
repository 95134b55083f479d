#include "inet.hpp"

#include <arpa/inet.h>

#include <bit>
#include <cstdio>
#include <cstring>

namespace ipctl {

std::string inet4_text(std::uint32_t addr) {
    char buf[INET_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET, &addr, buf, sizeof buf);
    return buf;
}

std::string inet6_text(const std::uint8_t* addr16) {
    char buf[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET6, addr16, buf, sizeof buf);
    return buf;
}

std::string mac_text(const std::uint8_t* m) {
    // Written by hand: a listing formats one a line.
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out(17, ':');
    for (std::size_t i = 0; i < 6; ++i) {
        out[3 * i] = kHex[m[i] >> 4];
        out[3 * i + 1] = kHex[m[i] & 0xF];
    }
    return out;
}

unsigned mask_length(std::uint32_t mask) { return static_cast<unsigned>(std::popcount(mask)); }

std::uint32_t length_mask(unsigned len) {
    // Byte by byte, most significant first, as the mask lies in memory.
    std::uint8_t bytes[4];
    for (unsigned i = 0; i < 4; ++i) {
        const unsigned bits = len > 8 * i ? (len - 8 * i > 8 ? 8 : len - 8 * i) : 0;
        bytes[i] = static_cast<std::uint8_t>(0xFF00u >> bits);
    }
    std::uint32_t mask;
    std::memcpy(&mask, bytes, sizeof mask);
    return mask;
}

std::optional<std::uint32_t> parse_inet4(const std::string& text) {
    std::uint32_t addr = 0;
    if (::inet_pton(AF_INET, text.c_str(), &addr) != 1) return std::nullopt;
    return addr;
}

std::optional<std::array<std::uint8_t, 16>> parse_inet6(const std::string& text) {
    std::array<std::uint8_t, 16> addr{};
    if (::inet_pton(AF_INET6, text.c_str(), addr.data()) != 1) return std::nullopt;
    return addr;
}

std::optional<Prefix4> parse_prefix4(const std::string& text) {
    const std::size_t slash = text.find('/');
    const auto addr = parse_inet4(text.substr(0, slash));
    if (!addr) return std::nullopt;
    unsigned len = 32;
    if (slash != std::string::npos) {
        const std::string l = text.substr(slash + 1);
        if (l.empty() || l.size() > 2 || l.find_first_not_of("0123456789") != std::string::npos) return std::nullopt;
        len = static_cast<unsigned>(std::stoul(l));
        if (len > 32) return std::nullopt;
    }
    return Prefix4{*addr, len};
}

std::uint8_t inet4_byte(std::uint32_t addr_network_order, unsigned i) {
    std::uint8_t b[4];
    std::memcpy(b, &addr_network_order, sizeof b);
    return b[i & 3u];
}

}  // namespace ipctl
