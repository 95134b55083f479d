// Kernel event subscriptions. Each subscription is a datagram socket pair: the library
// polls and reads one end, the platform queues notifications on the other.
#include <errno.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <mutex>

#include "leaf_mutex.hpp"
#include "device.hpp"
#include "internal.hpp"

namespace ipp {
namespace {

struct Subscription {
    std::uint32_t event_class;
    int writer;
};

struct Events {
    LeafMutex mu;
    std::map<int, Subscription> by_fd;
    std::int32_t fail_next = 0;
};

Events& events() {
    static Events e;
    return e;
}

}  // namespace

void reset_kevent() noexcept {
    Events& e = events();
    const std::lock_guard lock(e.mu);
    for (const auto& [fd, sub] : e.by_fd) {
        ::close(fd);
        if (sub.writer >= 0) ::close(sub.writer);
    }
    e.by_fd.clear();
    e.fail_next = 0;
}

}  // namespace ipp

using ipp::events;

extern "C" {

int32_t KEvent_Subscribe(uint32_t event_class) {
    if (ipp::dev::active()) {
        const int fd = ipp::dev::subscribe_events(event_class);
        if (fd < 0) return -1;
        const std::lock_guard lock(events().mu);
        events().by_fd[fd] = {event_class, -1};
        return fd;
    }
    const std::lock_guard lock(events().mu);
    if (events().fail_next < 0) {
        const std::int32_t r = events().fail_next;
        events().fail_next = 0;
        return r;
    }
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) return -1;
    events().by_fd[pair[0]] = {event_class, pair[1]};
    return pair[0];
}

int32_t KEvent_Recv(int32_t fd, void* buf, uint32_t cap) {
    {
        const std::lock_guard lock(events().mu);
        if (events().by_fd.count(fd) == 0) return -1;
    }
    const ssize_t n = ::recv(fd, buf, cap, MSG_DONTWAIT);
    return n < 0 ? -1 : static_cast<int32_t>(n);
}

int32_t KEvent_Unsubscribe(int32_t fd) {
    const std::lock_guard lock(events().mu);
    const auto it = events().by_fd.find(fd);
    if (it == events().by_fd.end()) return -1;
    ::close(it->first);
    if (it->second.writer >= 0) ::close(it->second.writer);
    events().by_fd.erase(it);
    return 0;
}

uint32_t ipp_kevent_post(uint32_t event_class, const void* bytes, uint32_t len) {
    const std::lock_guard lock(events().mu);
    uint32_t reached = 0;
    for (const auto& [fd, sub] : events().by_fd) {
        if (sub.event_class != event_class || sub.writer < 0) continue;
        if (::send(sub.writer, bytes, len, MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(len)) ++reached;
    }
    return reached;
}

void ipp_kevent_fail_subscribe(int32_t result) {
    const std::lock_guard lock(events().mu);
    events().fail_next = result < 0 ? result : 0;
}

uint32_t ipp_kevent_subscriptions(void) {
    const std::lock_guard lock(events().mu);
    return static_cast<uint32_t>(events().by_fd.size());
}

}  // extern "C"
