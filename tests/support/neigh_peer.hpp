// The adjacency service's end of the neighbour-event subscriptions, as a subscriber meets it,
// and a runner that fails fast instead of hanging when a call does not return.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"

namespace ipt {

// Listens at (node, port), accepts up to `connections` clients and keeps the first `keep`
// of them open (a duplicate of the accepted descriptor, so the connection outlives the fake
// service's script) together with the first message each carried. Connections beyond `keep`
// are read once and closed. Kept connections get a large send buffer, so that hundreds of
// datagrams can be queued before the subscriber reads, and a send time-out, so that a
// feeder never blocks for good.
class NeighPeer {
public:
    NeighPeer(std::uint16_t node, std::uint16_t port, int connections = 1, int keep = INT_MAX) : keep_(keep) {
        svc_.emplace(node, port, [this](Conn& c) { on_accept(c); }, connections);
    }
    ~NeighPeer() {
        svc_.reset();  // joins the service thread first: nothing is added after this
        for (const Kept& k : kept_) ::close(k.fd);
    }
    NeighPeer(const NeighPeer&) = delete;
    NeighPeer& operator=(const NeighPeer&) = delete;

    bool listening() const { return svc_->listening(); }
    int accepted() const { return svc_->accepted(); }

    // The i-th kept connection (in the order of acceptance), waiting for it; -1 when it
    // did not come within the time.
    int conn(std::size_t i, int timeout_ms = 5000) {
        std::unique_lock lock(mu_);
        const bool ok = cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return kept_.size() > i; });
        return ok ? kept_[i].fd : -1;
    }
    // The first message that arrived on the i-th kept connection (empty when none).
    Bytes first_message(std::size_t i, int timeout_ms = 5000) {
        if (conn(i, timeout_ms) < 0) return {};
        const std::lock_guard lock(mu_);
        return kept_[i].first;
    }
    // The kept connection whose subscription message carried this first word; -1 if none.
    int conn_for(std::uint32_t first_word, std::size_t expected, int timeout_ms = 5000) {
        if (conn(expected - 1, timeout_ms) < 0) return -1;
        const std::lock_guard lock(mu_);
        for (const Kept& k : kept_) {
            if (k.first.size() >= 10 && first_word_of(k.first) == first_word) return k.fd;
        }
        return -1;
    }

    // One whole datagram on a kept connection; false when it could not be sent whole.
    static bool send(int fd, const Bytes& datagram) {
        return ::send(fd, datagram.data(), datagram.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(datagram.size());
    }
    // The same without waiting for room: false when the queue is full.
    static bool send_now(int fd, const Bytes& datagram) {
        return ::send(fd, datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
               static_cast<ssize_t>(datagram.size());
    }
    // The next message from the subscriber on a kept connection; empty after the time-out
    // or when the subscriber closed.
    static Bytes recv(int fd, int timeout_ms = 2000) { return Conn(fd).recv_message(65536, timeout_ms); }
    // True when the subscriber's end of the connection is closed.
    static bool peer_closed(int fd, int timeout_ms = 2000) {
        pollfd p{fd, POLLIN, 0};
        if (::poll(&p, 1, timeout_ms) <= 0) return false;
        char c;
        return (p.revents & POLLHUP) != 0 || ::recv(fd, &c, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    }

private:
    struct Kept {
        int fd;
        Bytes first;
    };

    static std::uint32_t first_word_of(const Bytes& m) {
        return static_cast<std::uint32_t>(m[6]) << 24 | static_cast<std::uint32_t>(m[7]) << 16 |
               static_cast<std::uint32_t>(m[8]) << 8 | m[9];
    }

    void on_accept(Conn& c) {
        Bytes first = c.recv_message(65536, 5000);
        {
            const std::lock_guard lock(mu_);
            if (seen_++ >= keep_) return;  // read once, closed by the fake service
        }
        const int fd = ::dup(c.fd());
        if (fd < 0) return;
        int big = 4 << 20;
        int got = 0;
        socklen_t len = sizeof got;
        (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &got, &len) != 0 || got < big) {
            (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
        }
        const timeval tv{5, 0};
        (void)::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
        const std::lock_guard lock(mu_);
        kept_.push_back({fd, std::move(first)});
        cv_.notify_all();
    }

    int keep_;
    std::mutex mu_;
    std::condition_variable cv_;
    int seen_ = 0;
    std::vector<Kept> kept_;
    std::optional<FakeService> svc_;  // last: built after the state its script fills
};

// Runs fn on its own thread and waits for it. A call that has not returned within the
// limit (an endless loop, a deadlock on the subscription lock) cannot be abandoned safely,
// so the test process ends there with a message rather than hanging until the runner's
// time-out.
template <class F>
void bounded(const char* what, F&& fn, int limit_ms = 10000) {
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    std::thread t([&] {
        fn();
        done.set_value();
    });
    if (finished.wait_for(std::chrono::milliseconds(limit_ms)) != std::future_status::ready) {
        std::fprintf(stderr, "FATAL: %s did not return within %d ms\n", what, limit_ms);
        std::fflush(stderr);
        std::_Exit(3);
    }
    t.join();
}

}  // namespace ipt
