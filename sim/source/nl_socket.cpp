#include "source/nl_socket.hpp"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

#include "core/log.hpp"
#include "source/netlink.hpp"

namespace sim::nl {
namespace {

// Receive room of a subscribed socket: a burst of changes (a batch of routes added at once)
// must not overflow it before the loop comes round to read.

// Messages start 4-aligned (the length of the one before, rounded up).
constexpr std::size_t align4(std::size_t len) noexcept { return (len + 3) & ~std::size_t{3}; }

// True when the buffer holds the message that ends a dump or answers a request.
bool holds_end(const std::uint8_t* buf, ssize_t n) {
    const std::size_t whole = whole_messages(buf, static_cast<std::size_t>(n));
    for (std::size_t at = 0; at < whole;) {
        nlmsghdr h;
        std::memcpy(&h, buf + at, sizeof h);
        if (h.nlmsg_type == NLMSG_DONE || h.nlmsg_type == NLMSG_ERROR) return true;
        at += align4(h.nlmsg_len);
    }
    return false;
}

}  // namespace

std::size_t whole_messages(const void* buf, std::size_t n) {
    const auto* bytes = static_cast<const std::uint8_t*>(buf);
    std::size_t at = 0;
    while (n - at >= sizeof(nlmsghdr)) {
        nlmsghdr h;
        std::memcpy(&h, bytes + at, sizeof h);
        // A length shorter than the header or longer than what remains ends the buffer (a
        // length near 2^32 would otherwise align to a step of nothing).
        if (h.nlmsg_len < sizeof(nlmsghdr) || h.nlmsg_len > n - at) break;
        const std::size_t step = align4(h.nlmsg_len);
        at = step >= n - at ? n : at + step;
    }
    return at;
}

int run_messages(const void* buf, std::size_t n, unsigned seq, unsigned portid, mnl_cb_t cb, void* data) {
    return mnl_cb_run(buf, whole_messages(buf, n), seq, portid, cb, data);
}

NetnsScope::NetnsScope(const std::string& name) {
    if (name.empty()) return;
    if (name.find('/') != std::string::npos || name == "." || name == "..") {
        error_ = "bad namespace name " + name;
        return;
    }
    home_.reset(::open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC));
    const ipc::Fd target(::open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC));
    if (!home_.valid() || !target.valid()) {
        error_ = "no network namespace " + name + " (/run/netns/" + name + "): " + std::strerror(errno);
        return;
    }
    if (::setns(target.get(), CLONE_NEWNET) != 0) {
        error_ = "cannot enter the network namespace " + name + ": " + std::strerror(errno);
        return;
    }
    entered_ = true;
}

NetnsScope::~NetnsScope() {
    if (entered_ && ::setns(home_.get(), CLONE_NEWNET) != 0) {
        SIM_LOG(kError, "cannot return to the simulator's network namespace: %s", std::strerror(errno));
    }
}

std::unique_ptr<Socket> Socket::open(unsigned groups, std::string* err, int event_buffer) {
    mnl_socket* raw = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC);
    if (raw == nullptr) {
        *err = std::string("cannot open a route netlink socket: ") + std::strerror(errno);
        return nullptr;
    }
    std::unique_ptr<Socket> s(new Socket(raw));
    if (mnl_socket_bind(raw, groups, MNL_SOCKET_AUTOPID) < 0) {
        *err = std::string("cannot bind a route netlink socket: ") + std::strerror(errno);
        return nullptr;
    }
    if (groups != 0) {
        int size = event_buffer;
        if (::setsockopt(s->fd(), SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size) != 0) {
            (void)::setsockopt(s->fd(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
        }
        const int fl = ::fcntl(s->fd(), F_GETFL);
        if (fl < 0 || ::fcntl(s->fd(), F_SETFL, fl | O_NONBLOCK) != 0) {
            *err = std::string("cannot make the notification socket non-blocking: ") + std::strerror(errno);
            return nullptr;
        }
    }
    return s;
}

nlmsghdr* Socket::start(std::uint16_t type, std::uint16_t flags) {
    std::memset(out_.data(), 0, out_.size());
    nlmsghdr* nlh = mnl_nlmsg_put_header(out_.data());
    nlh->nlmsg_type = type;
    nlh->nlmsg_flags = static_cast<std::uint16_t>(flags | NLM_F_REQUEST);
    nlh->nlmsg_seq = ++seq_;
    return nlh;
}

int Socket::run(mnl_cb_t cb, void* data) {
    const auto* nlh = reinterpret_cast<const nlmsghdr*>(out_.data());
    const unsigned seq = nlh->nlmsg_seq;
    if (mnl_socket_sendto(nl_.get(), nlh, nlh->nlmsg_len) < 0) return errno;
    bool interrupted = false;
    for (;;) {
        const ssize_t n = mnl_socket_recvfrom(nl_.get(), in_.data(), in_.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        if (interrupted) {
            // The dump changed under us: read it to its end, then let the caller repeat it.
            if (holds_end(in_.data(), n)) return EINTR;
            continue;
        }
        const int ret = run_messages(in_.data(), static_cast<std::size_t>(n), seq, portid(), cb, data);
        if (ret == MNL_CB_ERROR) {
            if (errno != EINTR) return errno;
            if (holds_end(in_.data(), n)) return EINTR;
            interrupted = true;
            continue;
        }
        if (ret <= MNL_CB_STOP) return 0;
    }
}

Socket::Read Socket::drain(mnl_cb_t cb, void* data) {
    bool overflow = false;
    // A bounded round: what remains is read the next time the loop finds the socket ready.
    for (int round = 0; round < 256; ++round) {
        const ssize_t n = mnl_socket_recvfrom(nl_.get(), in_.data(), in_.size());
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno == ENOBUFS) {
                overflow = true;
                continue;
            }
            if (errno == EAGAIN || errno == EWOULDBLOCK) break;
            return Read::kFailed;
        }
        if (n == 0) break;
        if (run_messages(in_.data(), static_cast<std::size_t>(n), 0, 0, cb, data) == MNL_CB_ERROR) {
            SIM_LOG(kDebug, "a notification could not be read: %s", std::strerror(errno));
        }
    }
    return overflow ? Read::kOverflow : Read::kDone;
}

int event_cb(const nlmsghdr* nlh, void* sink) {
    Sink& to = *static_cast<Sink*>(sink);
    switch (nlh->nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK: return link_event(nlh, to);
        case RTM_NEWADDR:
        case RTM_DELADDR: return addr_event(nlh, to);
        case RTM_NEWROUTE:
        case RTM_DELROUTE: return route_event(nlh, to);
        case RTM_NEWNEIGH:
        case RTM_DELNEIGH: return neigh_event(nlh, to);
        default: return MNL_CB_OK;
    }
}

}  // namespace sim::nl
