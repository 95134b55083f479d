// The device backend's connections: one per thread to the instance's device socket.
#include "device.hpp"

#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "common/endpoint_names.hpp"
#include "common/wire.hpp"
#include "internal.hpp"

namespace ipp::dev {
namespace {

using ipc::device::Call;

enum Mode : int { kUnknown = 0, kDevice = 1, kDisabled = 2 };

// How long a process waits before it looks for a simulator again after none answered.
constexpr std::int64_t kProbeInterval = 200'000'000;  // ns
// A simulator that does not answer a call within this time is taken as gone.
constexpr time_t kReplyTimeout = 10;  // s

std::atomic<int> g_mode{kUnknown};
std::atomic<std::int64_t> g_next_probe{0};
std::atomic<std::uint32_t> g_generation{1};
std::atomic<std::uint32_t> g_local{0};

std::int64_t now_ns() noexcept {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1'000'000'000 + ts.tv_nsec;
}

// The node the process asks to run on: IPCLIENT_NODE (decimal or 0x hex), else the master.
std::uint16_t wanted_node() noexcept {
    const char* env = std::getenv("IPCLIENT_NODE");
    if (env == nullptr || *env == '\0') return 0;
    char* end = nullptr;
    const unsigned long v = std::strtoul(env, &end, 0);
    return (end != nullptr && *end == '\0' && v <= 0xFFFF) ? static_cast<std::uint16_t>(v) : 0;
}

int open_device_socket() noexcept {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un sun{};
    const socklen_t n = ipc::names::device(current_instance(), &sun);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&sun), n) != 0) {
        ::close(fd);
        return -1;
    }
    const int buf = ipc::device::kSocketBuffer;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
    const timeval tv{kReplyTimeout, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

// Sends one request and receives one reply; -1 when the connection failed, with `sent`
// telling whether the request left.
ssize_t exchange(int fd, const iovec* req, int nreq, iovec* rep, int nrep, bool* sent) noexcept {
    msghdr out{};
    out.msg_iov = const_cast<iovec*>(req);
    out.msg_iovlen = static_cast<std::size_t>(nreq);
    *sent = false;
    ssize_t n;
    do {
        n = ::sendmsg(fd, &out, MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n < 0) return -1;
    *sent = true;
    msghdr in{};
    in.msg_iov = rep;
    in.msg_iovlen = static_cast<std::size_t>(nrep);
    do {
        n = ::recvmsg(fd, &in, 0);
    } while (n < 0 && errno == EINTR);
    return n <= 0 ? -1 : n;
}

ssize_t hello(int fd, std::uint16_t* local) noexcept {
    ipc::wire::Frame<12> req;
    req.be<0>(static_cast<std::uint32_t>(Call::kHello));
    req.be<4>(wanted_node());
    req.be<8>(static_cast<std::uint32_t>(::getpid()));
    std::uint8_t ans[8] = {};
    iovec out{req.data(), req.size()};
    iovec in{ans, sizeof ans};
    bool sent = false;
    const ssize_t n = exchange(fd, &out, 1, &in, 1, &sent);
    if (n < 6 || ipc::wire::load_be<std::uint32_t>(ans) != 0) return -1;
    *local = ipc::wire::load_be<std::uint16_t>(ans + 4);
    return n;
}

// A connected and greeted descriptor, or -1.
int connect_device() noexcept {
    const int fd = open_device_socket();
    if (fd < 0) return -1;
    std::uint16_t local = 0;
    if (hello(fd, &local) < 0) {
        ::close(fd);
        return -1;
    }
    g_local.store(local, std::memory_order_release);
    return fd;
}

struct ThreadConn {
    int fd = -1;
    std::uint32_t generation = 0;
    std::uint64_t opened = 0;  // connections this thread opened
    std::int64_t checked = 0;  // when the peer was last seen to be there
    ~ThreadConn() { drop(); }
    void drop() noexcept {
        if (fd >= 0) ::close(fd);
        fd = -1;
    }
};

thread_local ThreadConn t_conn;

void after_fork_in_child() noexcept { t_conn.drop(); }

// The calling thread's connection, opened when needed; -1 when no simulator answers.
int thread_fd() noexcept {
    const std::uint32_t gen = g_generation.load(std::memory_order_acquire);
    if (t_conn.fd >= 0 && t_conn.generation == gen) return t_conn.fd;
    t_conn.drop();
    const int fd = connect_device();
    if (fd < 0) return -1;
    t_conn.fd = fd;
    t_conn.generation = gen;
    ++t_conn.opened;
    return fd;
}

bool try_attach() noexcept {
    static const int registered = ::pthread_atfork(nullptr, nullptr, &after_fork_in_child);
    (void)registered;
    const std::int64_t now = now_ns();
    if (now < g_next_probe.load(std::memory_order_relaxed)) return false;
    if (thread_fd() >= 0) {
        int expected = kUnknown;
        g_mode.compare_exchange_strong(expected, kDevice);
        return g_mode.load() == kDevice;
    }
    g_next_probe.store(now + kProbeInterval, std::memory_order_relaxed);
    return false;
}

}  // namespace

bool active() noexcept {
    const int mode = g_mode.load(std::memory_order_acquire);
    if (mode == kDevice) return true;
    if (mode == kDisabled) return false;
    return try_attach();
}

void disable() noexcept {
    g_mode.store(kDisabled, std::memory_order_release);
    t_conn.drop();
}

void reconnect() noexcept {
    g_generation.fetch_add(1, std::memory_order_acq_rel);
    int expected = kDevice;
    g_mode.compare_exchange_strong(expected, kUnknown);
    g_next_probe.store(0, std::memory_order_relaxed);
}

std::uint64_t connection_serial() noexcept { return t_conn.opened; }

std::uint64_t current_serial() noexcept {
    ThreadConn& c = t_conn;
    if (c.fd < 0 || c.generation != g_generation.load(std::memory_order_acquire)) return 0;
    // At most one look a millisecond: the peer's end shows as hang-up (or as readable, since
    // no answer is ever due between calls).
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    const std::int64_t now = std::int64_t{ts.tv_sec} * 1'000'000'000 + ts.tv_nsec;
    if (now - c.checked < 1'000'000) return c.opened;
    pollfd p{c.fd, POLLIN, 0};
    if (::poll(&p, 1, 0) != 0) {
        c.drop();
        return 0;
    }
    c.checked = now;
    return c.opened;
}

std::uint16_t local_node() noexcept { return static_cast<std::uint16_t>(g_local.load(std::memory_order_acquire)); }

std::optional<Answer> call(Call what, std::span<const std::uint8_t> fields, std::span<const std::uint8_t> tail,
                           std::span<std::uint8_t> head, std::span<std::uint8_t> body) noexcept {
    std::uint8_t word[4];
    ipc::wire::store_be(word, static_cast<std::uint32_t>(what));
    const iovec req[3] = {{word, sizeof word},
                          {const_cast<std::uint8_t*>(fields.data()), fields.size()},
                          {const_cast<std::uint8_t*>(tail.data()), tail.size()}};
    std::uint8_t result[4] = {};
    iovec rep[3] = {{result, sizeof result}, {head.data(), head.size()}, {body.data(), body.size()}};
    // A connection the simulator closed (it was restarted) is opened again once, as long as
    // the request had not left.
    for (int attempt = 0; attempt < 2; ++attempt) {
        const int fd = thread_fd();
        if (fd < 0) return std::nullopt;
        bool sent = false;
        const ssize_t n = exchange(fd, req, 3, rep, 3, &sent);
        if (n >= 4) {
            Answer a;
            a.result = ipc::wire::load_be<std::uint32_t>(result);
            a.len = static_cast<std::size_t>(n) - 4;
            return a;
        }
        t_conn.drop();
        if (sent) return std::nullopt;
    }
    return std::nullopt;
}

int subscribe_events(std::uint32_t event_class) noexcept {
    const int fd = open_device_socket();
    if (fd < 0) return -1;
    ipc::wire::Frame<8> req;
    req.be<0>(static_cast<std::uint32_t>(Call::kKEventSubscribe));
    req.be<4>(event_class);
    std::uint8_t ans[4] = {};
    iovec out{req.data(), req.size()};
    iovec in{ans, sizeof ans};
    bool sent = false;
    if (exchange(fd, &out, 1, &in, 1, &sent) != 4 || ipc::wire::load_be<std::uint32_t>(ans) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace ipp::dev
