// Test support for the ARP event subscriptions: the IPv4 adjacency service as a subscriber
// meets it, event records as that service packs them, and a runner that fails fast instead
// of hanging when a call does not return.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"

namespace ipt::arpev {

constexpr std::uint16_t kAdjPort = 11537;
constexpr std::size_t kEntryLen = 52;
constexpr std::size_t kHeadLen = 8;
constexpr std::size_t kFullLen = kHeadLen + kEntryLen;  // 60
constexpr std::size_t kDatagramMax = 4096;

using Entry = std::array<std::uint8_t, kEntryLen>;

// The service's end of the subscriptions: listens at (node, 11537), accepts up to
// `connections` clients and keeps the first `keep` of them open (a duplicate of the accepted
// descriptor, so the connection outlives the fake service's script) together with the first
// message each carried. Connections beyond `keep` are read once and closed. Kept
// connections get a large send buffer, so that hundreds of datagrams can be queued before
// the subscriber reads, and a send time-out, so that a feeder never blocks for good.
class AdjPeer {
public:
    explicit AdjPeer(std::uint16_t node, int connections = 1, int keep = INT_MAX) : keep_(keep) {
        svc_.emplace(node, kAdjPort, [this](Conn& c) { on_accept(c); }, connections);
    }
    ~AdjPeer() {
        svc_.reset();  // joins the service thread first: nothing is added after this
        for (const Kept& k : kept_) ::close(k.fd);
    }
    AdjPeer(const AdjPeer&) = delete;
    AdjPeer& operator=(const AdjPeer&) = delete;

    bool listening() const { return svc_->listening(); }

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
    int accepted() const { return svc_->accepted(); }

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

// Entry bytes as the service sends them: byte k is k + 1, so that every multi-byte field
// reads differently in the two byte orders; the first word carries a marker (big-endian).
inline Entry wire_entry(std::uint32_t marker) {
    Entry e{};
    for (std::size_t k = 0; k < kEntryLen; ++k) e[k] = static_cast<std::uint8_t>(k + 1);
    e[0] = static_cast<std::uint8_t>(marker >> 24);
    e[1] = static_cast<std::uint8_t>(marker >> 16);
    e[2] = static_cast<std::uint8_t>(marker >> 8);
    e[3] = static_cast<std::uint8_t>(marker);
    return e;
}

// One event record of `len` bytes: BE32 length, BE32 type, then the entry cut to fit, or
// followed by 0xEE filler when the length exceeds a full record. A length below 8 still
// gives the whole 8-byte header, which then claims fewer bytes than it has.
inline Bytes record(std::uint32_t len, std::uint32_t type, const Entry& entry) {
    Bytes b;
    put32(b, len);
    put32(b, type);
    if (len <= kHeadLen) return b;
    b.resize(len, 0xEE);
    std::memcpy(b.data() + kHeadLen, entry.data(), std::min<std::size_t>(len - kHeadLen, kEntryLen));
    return b;
}
inline Bytes record(std::uint32_t len, std::uint32_t type, std::uint32_t marker) {
    return record(len, type, wire_entry(marker));
}

inline Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes out;
    for (const Bytes& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

// The fields of the entry that travel big-endian: (offset, width).
constexpr std::array<std::pair<std::size_t, std::size_t>, 11> kSwappedFields{
    {{0, 4}, {8, 4}, {12, 4}, {16, 2}, {18, 2}, {28, 4}, {32, 4}, {36, 4}, {40, 4}, {46, 2}, {48, 2}}};

// What a subscriber's callback must see for a record of `len` bytes carrying `wire`: the
// bytes the record does not reach take the defaults (zero, 0xFFFFFFFF at offset 8,
// 0x0000FFFF at 12, both as they read in host order), then the big-endian fields are
// converted to this host's order.
inline Entry expected_entry(const Entry& wire, std::size_t len) {
    Entry e{};
    const std::uint8_t dflt[8] = {0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0xFF, 0xFF};
    std::memcpy(e.data() + 8, dflt, sizeof dflt);
    const std::size_t present = len >= kFullLen ? kEntryLen : len - kHeadLen;
    std::memcpy(e.data(), wire.data(), present);
    for (const auto& [off, width] : kSwappedFields) {
        for (std::size_t i = 0; i < width / 2; ++i) std::swap(e[off + i], e[off + width - 1 - i]);
    }
    return e;
}

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

}  // namespace ipt::arpev
