// Local-IPC family 37 on a Linux host, and the platform's netlink address form.
//
// The library is linked with the linker's symbol wrapping, so its socket calls arrive here.
// A family-37 socket becomes an AF_UNIX socket: SOCK_SEQPACKET for point-to-point sockets
// (whole messages, connection-oriented) and SOCK_DGRAM for group sockets. The 16-byte
// family-37 address {length, 37, port BE, node BE, zeros} names an abstract socket
// "ipclient/<instance>/<node>/<port>", node 0x8000 standing for the local node. Socket
// options of the platform are translated or recorded; calls on other families pass through
// unchanged, except that the platform's netlink address {length, 16, ...} is given to Linux as
// a sockaddr_nl. Send and receive flags have the same values on both systems.
#include <errno.h>
#include <linux/netlink.h>
#include <stddef.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>

#include "device.hpp"
#include "internal.hpp"
#include "ipplat/host.h"
#include "ipproto/endpoints.hpp"
#include "ipproto/lipc.hpp"
#include "leaf_mutex.hpp"

namespace ipp {
namespace {

using namespace ipc::proto::lipc;  // the family's kinds, options and address
constexpr int kFamilyLipc = kFamily;
constexpr int kOptSndBuf = kOptSendBuffer;
constexpr int kOptSndTimeo = kOptSendTimeout;
constexpr int kOptRcvTimeo = kOptRecvTimeout;
constexpr socklen_t kLipcAddrLen = kAddrLen;
constexpr std::uint8_t kNetlinkFamilyByte = 16;

struct Lipc {
    int protocol = kProtoPointToPoint;
    std::uint32_t group_type = 0;
    bool has_peer = false;
    std::uint16_t peer_node = 0;
    std::uint16_t peer_port = 0;
};

// The family-37 bookkeeping of open descriptors. Its lock is held only while the table is
// read or changed: nothing under it reaches the device, the directory or the instance.
struct Sockets {
    LeafMutex mu;
    std::unordered_map<int, Lipc> table;
};

Sockets& sockets() {
    static Sockets s;
    return s;
}

// The process's instance, under a lock of its own: attaching to the device asks for it from
// inside any platform call.
struct Instance {
    LeafMutex mu;
    std::string name;
};

Instance& instance_state() {
    static Instance i;
    return i;
}

std::string default_instance() {
    const char* env = std::getenv("IPCLIENT_INSTANCE");
    if (env != nullptr && *env != '\0') return env;
    std::string name = "p";
    name += std::to_string(::getpid());
    return name;
}

std::string instance() {
    Instance& i = instance_state();
    const std::lock_guard lock(i.mu);
    if (i.name.empty()) i.name = default_instance();
    return i.name;
}

bool is_lipc(int fd, Lipc* out = nullptr) {
    Sockets& s = sockets();
    const std::lock_guard lock(s.mu);
    const auto it = s.table.find(fd);
    if (it == s.table.end()) return false;
    if (out != nullptr) *out = it->second;
    return true;
}

std::uint16_t resolve_node(std::uint16_t node) { return node == kOwnNode ? local_node() : node; }

// The socket address of a node's port; `node` is already resolved (never 0x8000).
socklen_t endpoint_addr(std::uint16_t node, std::uint16_t port, sockaddr_un* sun) {
    return ipc::names::endpoint(instance(), node, port, sun);
}

socklen_t group_addr(std::uint32_t type, std::uint16_t first, std::uint16_t third, sockaddr_un* sun) {
    return ipc::names::group(instance(), type, first, third, sun);
}

// Reads the port and node of a family-37 address; false for anything else.
bool parse_lipc(const sockaddr* addr, socklen_t len, std::uint16_t* node, std::uint16_t* port) {
    if (addr == nullptr || len < kLipcAddrLen) return false;
    const auto* b = reinterpret_cast<const std::uint8_t*>(addr);
    if (b[1] != kFamilyLipc) return false;
    *port = static_cast<std::uint16_t>((b[2] << 8) | b[3]);
    *node = static_cast<std::uint16_t>((b[4] << 8) | b[5]);
    return true;
}

int socket_domain(int fd) {
    int domain = -1;
    socklen_t len = sizeof domain;
    if (::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &len) != 0) return -1;
    return domain;
}

// The platform's netlink address {length, 16, pad, pid (host order) at 4, groups at 8}
// as Linux's sockaddr_nl. False when the address is not of that form.
bool netlink_addr(int fd, const void* addr, socklen_t len, sockaddr_nl* nl) {
    if (addr == nullptr || len != 16) return false;
    const auto* b = static_cast<const std::uint8_t*>(addr);
    if (b[1] != kNetlinkFamilyByte || (b[0] != 0 && b[0] != 16)) return false;
    if (socket_domain(fd) != AF_NETLINK) return false;
    std::memset(nl, 0, sizeof *nl);
    nl->nl_family = AF_NETLINK;
    std::memcpy(&nl->nl_pid, b + 4, sizeof nl->nl_pid);
    std::memcpy(&nl->nl_groups, b + 8, sizeof nl->nl_groups);
    return true;
}

ipp_sock_event event(ipp_call call, int fd) {
    ipp_sock_event ev{};
    ev.call = call;
    ev.fd = fd;
    return ev;
}

void copy_addr(ipp_sock_event* ev, const void* addr, socklen_t len) {
    if (addr == nullptr) return;
    ev->addr_len = len;
    std::memcpy(ev->addr, addr, std::min<std::size_t>(len, sizeof ev->addr));
}

template <class R>
R finish(ipp_sock_event* ev, R result) {
    ev->result = static_cast<int>(result);
    ev->err = result < 0 ? errno : 0;
    const int saved = errno;
    log_sock(*ev);
    errno = saved;
    return result;
}

// Counts the call and applies an injected fault; true when the call must fail now.
bool faulted(ipp_call call, ipp_sock_event* ev) {
    count(call);
    if (const auto err = take_fault(call)) {
        errno = *err;
        finish(ev, -1);
        return true;
    }
    return false;
}

int set_lipc_option(int fd, const Lipc& s, int level, int option, const void* value, socklen_t len) {
    if (level == kLevelSocket) {
        switch (option) {
            case kOptServer:
                if (value == nullptr || len < static_cast<socklen_t>(sizeof(int))) return errno = EINVAL, -1;
                return 0;
            case kOptSndBuf: return ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, value, len);
            case kOptSndTimeo: return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, value, len);
            case kOptRcvTimeo: return ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, value, len);
            default: return ::setsockopt(fd, level, option, value, len);
        }
    }
    if (level != kLevelLipc) return errno = ENOPROTOOPT, -1;
    switch (option) {
        case kOptAddrService: return 0;
        case kOptGroupType: {
            if (s.protocol != kProtoGroup) return errno = EOPNOTSUPP, -1;
            if (value == nullptr || len < 4) return errno = EINVAL, -1;
            std::uint32_t type = 0;
            std::memcpy(&type, value, sizeof type);
            const std::lock_guard lock(sockets().mu);
            sockets().table[fd].group_type = type;
            return 0;
        }
        case kOptJoinGroup: {
            if (s.protocol != kProtoGroup) return errno = EOPNOTSUPP, -1;
            if (value == nullptr || len < 8) return errno = EINVAL, -1;
            std::uint16_t third = 0, first = 0;
            std::memcpy(&third, value, 2);
            std::memcpy(&first, static_cast<const std::uint8_t*>(value) + 2, 2);
            sockaddr_un sun{};
            const socklen_t n = group_addr(s.group_type, first, third, &sun);
            return ::bind(fd, reinterpret_cast<const sockaddr*>(&sun), n);
        }
        default: return errno = ENOPROTOOPT, -1;
    }
}

}  // namespace

std::string current_instance() { return instance(); }

void reset_lipc() noexcept {
    // Descriptors stay with their owners; only their family-37 bookkeeping is dropped when
    // they are closed. A reset keeps the table so that later closes still find them.
    (void)instance();
}

}  // namespace ipp

using namespace ipp;

extern "C" {

IPPLAT_API int __wrap_socket(int domain, int type, int protocol) {
    ipp_sock_event ev = event(IPP_CALL_SOCKET, -1);
    ev.domain = domain;
    ev.type = type;
    ev.protocol = protocol;
    if (faulted(IPP_CALL_SOCKET, &ev)) return -1;
    if (domain != kFamilyLipc) return finish(&ev, ::socket(domain, type, protocol));
    const int flags = type & (SOCK_NONBLOCK | SOCK_CLOEXEC);
    if ((type & ~(SOCK_NONBLOCK | SOCK_CLOEXEC)) != SOCK_DGRAM) return errno = ESOCKTNOSUPPORT, finish(&ev, -1);
    if (protocol != kProtoPointToPoint && protocol != kProtoGroup) return errno = EPROTONOSUPPORT, finish(&ev, -1);
    const int kind = protocol == kProtoGroup ? SOCK_DGRAM : SOCK_SEQPACKET;
    const int fd = channel_socket(kind | flags | SOCK_CLOEXEC);
    if (fd >= 0) {
        const std::lock_guard lock(sockets().mu);
        sockets().table[fd] = Lipc{protocol, 0, false, 0, 0};
    }
    ev.fd = fd;
    return finish(&ev, fd);
}

IPPLAT_API int __wrap_connect(int fd, const struct sockaddr* addr, socklen_t len) {
    ipp_sock_event ev = event(IPP_CALL_CONNECT, fd);
    copy_addr(&ev, addr, len);
    if (faulted(IPP_CALL_CONNECT, &ev)) return -1;
    Lipc s;
    if (!is_lipc(fd, &s)) {
        sockaddr_nl nl{};
        if (netlink_addr(fd, addr, len, &nl)) {
            return finish(&ev, ::connect(fd, reinterpret_cast<const sockaddr*>(&nl), sizeof nl));
        }
        return finish(&ev, ::connect(fd, addr, len));
    }
    std::uint16_t node = 0, port = 0;
    if (len != kLipcAddrLen || !parse_lipc(addr, len, &node, &port)) return errno = EINVAL, finish(&ev, -1);
    // Resolved once, before the table's lock: resolving may reach the device.
    const std::uint16_t peer = resolve_node(node);
    sockaddr_un sun{};
    const socklen_t n = endpoint_addr(peer, port, &sun);
    const int rc = ::connect(fd, reinterpret_cast<const sockaddr*>(&sun), n);
    if (rc == 0 || errno == EISCONN) {
        const int saved = errno;
        {
            const std::lock_guard lock(sockets().mu);
            auto& entry = sockets().table[fd];
            entry.has_peer = true;
            entry.peer_node = peer;
            entry.peer_port = port;
        }
        errno = saved;
    }
    return finish(&ev, rc);
}

IPPLAT_API int __wrap_bind(int fd, const struct sockaddr* addr, socklen_t len) {
    ipp_sock_event ev = event(IPP_CALL_BIND, fd);
    copy_addr(&ev, addr, len);
    if (faulted(IPP_CALL_BIND, &ev)) return -1;
    if (!is_lipc(fd)) {
        sockaddr_nl nl{};
        if (netlink_addr(fd, addr, len, &nl)) {
            return finish(&ev, ::bind(fd, reinterpret_cast<const sockaddr*>(&nl), sizeof nl));
        }
        return finish(&ev, ::bind(fd, addr, len));
    }
    std::uint16_t node = 0, port = 0;
    if (len != kLipcAddrLen || !parse_lipc(addr, len, &node, &port)) return errno = EINVAL, finish(&ev, -1);
    sockaddr_un sun{};
    const socklen_t n = endpoint_addr(resolve_node(node), port, &sun);
    return finish(&ev, ::bind(fd, reinterpret_cast<const sockaddr*>(&sun), n));
}

IPPLAT_API int __wrap_listen(int fd, int backlog) {
    ipp_sock_event ev = event(IPP_CALL_LISTEN, fd);
    ev.length = static_cast<std::uint64_t>(backlog);
    if (faulted(IPP_CALL_LISTEN, &ev)) return -1;
    return finish(&ev, ::listen(fd, backlog));
}

IPPLAT_API int __wrap_accept(int fd, struct sockaddr* addr, socklen_t* len) {
    ipp_sock_event ev = event(IPP_CALL_ACCEPT, fd);
    if (faulted(IPP_CALL_ACCEPT, &ev)) return -1;
    Lipc s;
    if (!is_lipc(fd, &s)) return finish(&ev, ::accept(fd, addr, len));
    const int conn = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    if (conn >= 0) {
        const std::uint16_t node = local_node();
        {
            const std::lock_guard lock(sockets().mu);
            sockets().table[conn] = Lipc{s.protocol, 0, true, node, 0};
        }
        if (addr != nullptr && len != nullptr) {
            std::uint8_t out[16] = {16, kFamilyLipc, 0, 0, static_cast<std::uint8_t>(node >> 8),
                                    static_cast<std::uint8_t>(node)};
            std::memcpy(addr, out, std::min<std::size_t>(*len, sizeof out));
            *len = kLipcAddrLen;
        }
    }
    return finish(&ev, conn);
}

IPPLAT_API ssize_t __wrap_send(int fd, const void* buf, size_t len, int flags) {
    ipp_sock_event ev = event(IPP_CALL_SEND, fd);
    ev.flags = flags;
    ev.length = len;
    if (faulted(IPP_CALL_SEND, &ev)) return -1;
    if (!is_lipc(fd)) return finish(&ev, ::send(fd, buf, len, flags));
    if (const auto cut = take_short_send()) len = std::min<size_t>(len, *cut);
    return finish(&ev, ::send(fd, buf, len, flags | MSG_NOSIGNAL));
}

IPPLAT_API ssize_t __wrap_sendto(int fd, const void* buf, size_t len, int flags, const struct sockaddr* addr,
                                 socklen_t addr_len) {
    ipp_sock_event ev = event(IPP_CALL_SENDTO, fd);
    ev.flags = flags;
    ev.length = len;
    copy_addr(&ev, addr, addr_len);
    if (faulted(IPP_CALL_SENDTO, &ev)) return -1;
    if (is_lipc(fd)) {
        if (const auto cut = take_short_send()) len = std::min<size_t>(len, *cut);
        return finish(&ev, ::send(fd, buf, len, flags | MSG_NOSIGNAL));
    }
    sockaddr_nl nl{};
    if (netlink_addr(fd, addr, addr_len, &nl)) {
        return finish(&ev, ::sendto(fd, buf, len, flags, reinterpret_cast<const sockaddr*>(&nl), sizeof nl));
    }
    return finish(&ev, ::sendto(fd, buf, len, flags, addr, addr_len));
}

IPPLAT_API ssize_t __wrap_sendmsg(int fd, const struct msghdr* msg, int flags) {
    ipp_sock_event ev = event(IPP_CALL_SENDMSG, fd);
    ev.flags = flags;
    if (msg != nullptr) {
        for (size_t i = 0; i < msg->msg_iovlen; ++i) ev.length += msg->msg_iov[i].iov_len;
        copy_addr(&ev, msg->msg_name, msg->msg_namelen);
    }
    if (faulted(IPP_CALL_SENDMSG, &ev)) return -1;
    if (msg == nullptr) return errno = EFAULT, finish(&ev, -1);
    if (is_lipc(fd)) {
        msghdr m = *msg;
        m.msg_name = nullptr;
        m.msg_namelen = 0;
        return finish(&ev, ::sendmsg(fd, &m, flags | MSG_NOSIGNAL));
    }
    sockaddr_nl nl{};
    if (netlink_addr(fd, msg->msg_name, msg->msg_namelen, &nl)) {
        msghdr m = *msg;
        m.msg_name = &nl;
        m.msg_namelen = sizeof nl;
        return finish(&ev, ::sendmsg(fd, &m, flags));
    }
    return finish(&ev, ::sendmsg(fd, msg, flags));
}

IPPLAT_API ssize_t __wrap_recv(int fd, void* buf, size_t len, int flags) {
    ipp_sock_event ev = event(IPP_CALL_RECV, fd);
    ev.flags = flags;
    ev.length = len;
    if (faulted(IPP_CALL_RECV, &ev)) return -1;
    return finish(&ev, ::recv(fd, buf, len, flags));
}

IPPLAT_API ssize_t __wrap_recvfrom(int fd, void* buf, size_t len, int flags, struct sockaddr* addr,
                                   socklen_t* addr_len) {
    ipp_sock_event ev = event(IPP_CALL_RECVFROM, fd);
    ev.flags = flags;
    ev.length = len;
    if (faulted(IPP_CALL_RECVFROM, &ev)) return -1;
    if (is_lipc(fd)) return finish(&ev, ::recv(fd, buf, len, flags));
    return finish(&ev, ::recvfrom(fd, buf, len, flags, addr, addr_len));
}

IPPLAT_API ssize_t __wrap_recvmsg(int fd, struct msghdr* msg, int flags) {
    ipp_sock_event ev = event(IPP_CALL_RECVMSG, fd);
    ev.flags = flags;
    if (msg != nullptr) {
        for (size_t i = 0; i < msg->msg_iovlen; ++i) ev.length += msg->msg_iov[i].iov_len;
    }
    if (faulted(IPP_CALL_RECVMSG, &ev)) return -1;
    return finish(&ev, ::recvmsg(fd, msg, flags));
}

IPPLAT_API int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t len) {
    ipp_sock_event ev = event(IPP_CALL_SETSOCKOPT, fd);
    ev.level = level;
    ev.option = option;
    ev.value_null = value == nullptr;
    ev.value_len = len;
    if (value != nullptr) std::memcpy(ev.value, value, std::min<std::size_t>(len, sizeof ev.value));
    if (faulted(IPP_CALL_SETSOCKOPT, &ev)) return -1;
    Lipc s;
    if (!is_lipc(fd, &s)) return finish(&ev, ::setsockopt(fd, level, option, value, len));
    return finish(&ev, set_lipc_option(fd, s, level, option, value, len));
}

IPPLAT_API int __wrap_getsockopt(int fd, int level, int option, void* value, socklen_t* len) {
    ipp_sock_event ev = event(IPP_CALL_GETSOCKOPT, fd);
    ev.level = level;
    ev.option = option;
    if (faulted(IPP_CALL_GETSOCKOPT, &ev)) return -1;
    if (is_lipc(fd) && level == kLevelSocket) {
        if (option == kOptSndBuf) option = SO_SNDBUF;
        if (option == kOptSndTimeo) option = SO_SNDTIMEO;
        if (option == kOptRcvTimeo) option = SO_RCVTIMEO;
    }
    return finish(&ev, ::getsockopt(fd, level, option, value, len));
}

IPPLAT_API int __wrap_getpeername(int fd, struct sockaddr* addr, socklen_t* len) {
    ipp_sock_event ev = event(IPP_CALL_GETPEERNAME, fd);
    if (faulted(IPP_CALL_GETPEERNAME, &ev)) return -1;
    Lipc s;
    if (!is_lipc(fd, &s)) return finish(&ev, ::getpeername(fd, addr, len));
    if (addr == nullptr || len == nullptr) return errno = EFAULT, finish(&ev, -1);
    if (!s.has_peer) return errno = ENOTCONN, finish(&ev, -1);
    const std::uint8_t out[16] = {16,
                                  kFamilyLipc,
                                  static_cast<std::uint8_t>(s.peer_port >> 8),
                                  static_cast<std::uint8_t>(s.peer_port),
                                  static_cast<std::uint8_t>(s.peer_node >> 8),
                                  static_cast<std::uint8_t>(s.peer_node)};
    std::memcpy(addr, out, std::min<std::size_t>(*len, sizeof out));
    *len = kLipcAddrLen;
    copy_addr(&ev, out, sizeof out);
    return finish(&ev, 0);
}

IPPLAT_API int __wrap_close(int fd) {
    ipp_sock_event ev = event(IPP_CALL_CLOSE, fd);
    if (faulted(IPP_CALL_CLOSE, &ev)) return -1;
    {
        const std::lock_guard lock(sockets().mu);
        sockets().table.erase(fd);
    }
    return finish(&ev, ::close(fd));
}

size_t ipp_instance_name(char* buf, size_t len) {
    const std::string name = instance();
    if (buf != nullptr && len > 0) {
        const std::size_t n = std::min(name.size(), len - 1);
        std::memcpy(buf, name.data(), n);
        buf[n] = '\0';
    }
    return name.size();
}

// ---- test control ----

void ipp_lipc_set_instance(const char* name) {
    std::string chosen = (name != nullptr && *name != '\0') ? std::string(name) : default_instance();
    {
        Instance& i = instance_state();
        const std::lock_guard lock(i.mu);
        i.name = std::move(chosen);
    }
    dev::reconnect();
}

int ipp_lipc_listen(uint16_t node, uint16_t port) {
    const int fd = channel_socket(SOCK_SEQPACKET | SOCK_CLOEXEC);
    if (fd < 0) return -1;
    sockaddr_un sun{};
    const socklen_t n = endpoint_addr(resolve_node(node), port, &sun);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&sun), n) != 0 || ::listen(fd, 64) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int ipp_lipc_group_send(uint32_t group_type, uint16_t first, uint16_t third, const void* bytes, uint32_t len) {
    const int fd = channel_socket(SOCK_DGRAM | SOCK_CLOEXEC);
    if (fd < 0) return -1;
    sockaddr_un sun{};
    const socklen_t n = group_addr(group_type, first, third, &sun);
    const ssize_t sent = ::sendto(fd, bytes, len, MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&sun), n);
    ::close(fd);
    return static_cast<int>(sent);
}

}  // extern "C"
