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

// The longest instance name: every name below then fits an abstract socket address (the
// longest, a group member's, takes 38 bytes besides the instance). A longer instance, an
// empty one or one holding '/' names no socket (the functions give 0), so that two long
// names never meet in a cut one.
inline constexpr std::size_t kMaxInstance = 64;

inline bool valid_instance(std::string_view instance) noexcept {
    return !instance.empty() && instance.size() <= kMaxInstance && instance.find('/') == std::string_view::npos &&
           instance.find('\0') == std::string_view::npos;
}

// An abstract AF_UNIX address for a name; returns the address length, or 0 when the name
// does not fit.
inline socklen_t abstract_addr(std::string_view name, sockaddr_un* sun) noexcept {
    std::memset(sun, 0, sizeof *sun);
    sun->sun_family = AF_UNIX;
    if (name.size() > sizeof(sun->sun_path) - 1) return 0;
    std::memcpy(sun->sun_path + 1, name.data(), name.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

// The formatted name's address, or 0 when the instance is not valid or the name is cut.
inline socklen_t named(std::string_view instance, const char* name, int n, std::size_t room, sockaddr_un* sun) noexcept {
    std::memset(sun, 0, sizeof *sun);
    if (!valid_instance(instance) || n < 0 || static_cast<std::size_t>(n) >= room) return 0;
    return abstract_addr(std::string_view(name, static_cast<std::size_t>(n)), sun);
}

inline socklen_t endpoint(std::string_view instance, std::uint16_t node, std::uint16_t port, sockaddr_un* sun) noexcept {
    char name[sizeof(sockaddr_un::sun_path)];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/%04x/%u", static_cast<int>(instance.size()),
                                instance.data(), static_cast<unsigned>(node), static_cast<unsigned>(port));
    return named(instance, name, n, sizeof name, sun);
}

inline socklen_t group(std::string_view instance, std::uint32_t type, std::uint16_t first, std::uint16_t third,
                       sockaddr_un* sun) noexcept {
    char name[sizeof(sockaddr_un::sun_path)];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/group/%u/%u/%u", static_cast<int>(instance.size()),
                                instance.data(), type, static_cast<unsigned>(first), static_cast<unsigned>(third));
    return named(instance, name, n, sizeof name, sun);
}

inline socklen_t device(std::string_view instance, sockaddr_un* sun) noexcept {
    char name[sizeof(sockaddr_un::sun_path)];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/device", static_cast<int>(instance.size()),
                                instance.data());
    return named(instance, name, n, sizeof name, sun);
}

inline socklen_t control(std::string_view instance, sockaddr_un* sun) noexcept {
    char name[sizeof(sockaddr_un::sun_path)];
    const int n = std::snprintf(name, sizeof name, "ipclient/%.*s/control", static_cast<int>(instance.size()),
                                instance.data());
    return named(instance, name, n, sizeof name, sun);
}

}  // namespace ipc::names
