#include "subscription.hpp"

#include <cstdio>
#include <cstdlib>

namespace ipfuzz {

Subscription subscribe_once(std::uint16_t node, std::uint16_t port, const std::function<int()>& subscribe) {
    reset_platform();
    const int listener = ipp_lipc_listen(node, port);
    Subscription s;
    if (listener >= 0) {
        s.library = subscribe();
        if (s.library >= 0) s.service = ::accept(listener, nullptr, nullptr);
        ::close(listener);
    }
    if (s.library < 0 || s.service < 0) {
        std::fprintf(stderr, "fuzz: the subscription at node %u port %u failed\n", node, port);
        std::abort();
    }
    const int big = 1 << 22;
    (void)::setsockopt(s.service, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    drain(s.service);  // the subscription message
    return s;
}

void send_all(int fd, const std::vector<Bytes>& grams) {
    for (const Bytes& g : grams) (void)::send(fd, g.data(), g.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
}

void drain(int fd) {
    std::uint8_t buf[65536];
    while (::recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
}

}  // namespace ipfuzz
