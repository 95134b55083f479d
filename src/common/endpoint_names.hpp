// Names of the abstract AF_UNIX sockets that carry the device's channels on a host.
//
// Family-37 endpoints are "ipclient/<instance>/<node as 4 hex digits>/<port>", group
// members "ipclient/<instance>/group/<type>/<first>/<third>", and the device channel that
// answers the platform calls of a simulated device "ipclient/<instance>/device", and the
// simulator's own control channel "ipclient/<instance>/control". The
// platform substitute and the device simulator both name their sockets here.
#pragma once

#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace ipc::names {

// An abstract AF_UNIX address for a name; returns the address length.
inline socklen_t abstract_addr(std::string_view name, sockaddr_un* sun) noexcept {
    std::memset(sun, 0, sizeof *sun);
    sun->sun_family = AF_UNIX;
    const std::size_t n = std::min(name.size(), sizeof(sun->sun_path) - 1);
    std::memcpy(sun->sun_path + 1, name.data(), n);
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + n);
}

inline socklen_t endpoint(std::string_view instance, std::uint16_t node, std::uint16_t port, sockaddr_un* sun) noexcept {
    char name[96];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/%04x/%u", static_cast<int>(instance.size()),
                                instance.data(), static_cast<unsigned>(node), static_cast<unsigned>(port));
    return abstract_addr(std::string_view(name, static_cast<std::size_t>(std::clamp(n, 0, 95))), sun);
}

inline socklen_t group(std::string_view instance, std::uint32_t type, std::uint16_t first, std::uint16_t third,
                       sockaddr_un* sun) noexcept {
    char name[96];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/group/%u/%u/%u", static_cast<int>(instance.size()),
                                instance.data(), type, static_cast<unsigned>(first), static_cast<unsigned>(third));
    return abstract_addr(std::string_view(name, static_cast<std::size_t>(std::clamp(n, 0, 95))), sun);
}

inline socklen_t device(std::string_view instance, sockaddr_un* sun) noexcept {
    char name[96];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/device", static_cast<int>(instance.size()),
                                instance.data());
    return abstract_addr(std::string_view(name, static_cast<std::size_t>(std::clamp(n, 0, 95))), sun);
}

inline socklen_t control(std::string_view instance, sockaddr_un* sun) noexcept {
    char name[96];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/control", static_cast<int>(instance.size()),
                                instance.data());
    return abstract_addr(std::string_view(name, static_cast<std::size_t>(std::clamp(n, 0, 95))), sun);
}

}  // namespace ipc::names
