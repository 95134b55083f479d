#include <cstdint>
#include "lipc/socket.hpp"

#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ipproto/wire.hpp"

namespace ipc::lipc {

Address address(std::uint16_t node, std::uint16_t port, std::uint8_t length_byte) noexcept {
    Address a{};
    a[0] = length_byte;
    a[1] = kFamily;
    wire::store_be(a.data() + 2, port);
    wire::store_be(a.data() + 4, node);
    return a;
}

Fd open_point_to_point() noexcept { return Fd(::socket(kFamily, kTypeDatagram, kProtoPointToPoint)); }

bool connect_with(int fd, const Address& addr, ConnectRule rule) noexcept {
    const auto* sa = reinterpret_cast<const sockaddr*>(addr.data());
    if (rule == ConnectRule::kUntilNotInterrupted) {
        for (;;) {
            if (::connect(fd, sa, kAddrLen) == 0) return true;
            if (errno == EISCONN) return true;
            if (errno != EINTR) return false;
        }
    }
    for (int budget = kConnectAttempts; budget > 0;) {
        if (::connect(fd, sa, kAddrLen) == 0) return true;
        const int err = errno;
        if (err == EISCONN) return true;
        if (rule == ConnectRule::kPull && err == EPERM) {
            ::sleep(1);  // before the budget is counted, so after the last attempt too
        } else if (err != EINTR) {
            return false;
        }
        --budget;
    }
    return false;
}

Fd open_connected(std::uint16_t node, std::uint16_t port, ConnectRule rule) noexcept {
    Fd fd = open_point_to_point();
    if (!fd.valid()) return fd;
    if (!connect_with(fd.get(), address(node, port), rule)) fd.reset();
    return fd;
}

long recv_retrying(int fd, void* buf, std::size_t len, int flags) noexcept {
    for (;;) {
        const ssize_t n = ::recv(fd, buf, len, flags);
        if (n >= 0 || errno != EINTR) return n;
    }
}

}  // namespace ipc::lipc
