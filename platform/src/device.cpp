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

#include "internal.hpp"
#include "ipplat/host.h"
#include "ipproto/endpoints.hpp"
#include "ipproto/wire.hpp"

namespace ipp::dev {
namespace {

using ipc::device::Call;

enum Mode : int { kUnknown = 0, kDevice = 1, kDisabled = 2 };

// How long a process waits before it looks for a simulator again after none answered.
constexpr std::int64_t kProbeInterval = 200'000'000;  // ns
// A simulator that does not answer a call within this time is taken as gone (a stopped or
// hung simulator): the call answers as a device without the module would. The environment's
// IPCLIENT_DEVICE_TIMEOUT_MS (1 to 600000) sets another bound.
constexpr long kReplyTimeoutMs = 10'000;

std::atomic<int> g_mode{kUnknown};
std::atomic<std::int64_t> g_next_probe{0};
std::atomic<std::uint32_t> g_generation{1};
std::atomic<std::uint32_t> g_local{0};
// Why the last attempt to reach the simulator failed, and whose socket it found.
std::atomic<int> g_last_failure{IPP_DEVICE_ABSENT};
std::atomic<std::uint32_t> g_peer_uid{0};

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

long reply_timeout_ms() noexcept {
    static const long ms = [] {
        const char* env = std::getenv("IPCLIENT_DEVICE_TIMEOUT_MS");
        if (env == nullptr || *env == '\0') return kReplyTimeoutMs;
        char* end = nullptr;
        const long v = std::strtol(env, &end, 10);
        return (end != nullptr && *end == '\0' && v >= 1 && v <= 600'000) ? v : kReplyTimeoutMs;
    }();
    return ms;
}

// A connection to the instance's device socket, or -1 (and why, in g_last_failure). The
// socket is taken only from a process of this user or of root: another user's process that
// holds the name (an impostor, or another user's simulator, which would refuse this one) is
// not the device.
int open_device_socket() noexcept {
    const int fd = channel_socket(SOCK_SEQPACKET | SOCK_CLOEXEC);
    if (fd < 0) {
        // Out of descriptors or memory; else the namespace of IPCLIENT_NETNS could not be
        // entered, where no simulator is found.
        const bool short_of = errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM;
        g_last_failure.store(short_of ? IPP_DEVICE_NO_RESOURCES : IPP_DEVICE_ABSENT, std::memory_order_relaxed);
        return -1;
    }
    // The bound holds for the connection too: a simulator that accepts no one (stopped, or
    // out of descriptors) leaves a full queue, where a connect would wait for good.
    const long ms = reply_timeout_ms();
    const timeval tv{static_cast<time_t>(ms / 1000), static_cast<suseconds_t>((ms % 1000) * 1000)};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_un sun{};
    const socklen_t n = ipc::names::device(current_instance(), &sun);
    int rc;
    do {
        rc = n == 0 ? -1 : ::connect(fd, reinterpret_cast<const sockaddr*>(&sun), n);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        g_last_failure.store(errno == EAGAIN ? IPP_DEVICE_SILENT : IPP_DEVICE_ABSENT, std::memory_order_relaxed);
        ::close(fd);
        return -1;
    }
    ucred cred{};
    socklen_t len = sizeof cred;
    const bool known = ::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0;
    g_peer_uid.store(cred.uid, std::memory_order_relaxed);
    if (!known || (cred.uid != ::geteuid() && cred.uid != 0)) {
        g_last_failure.store(IPP_DEVICE_FOREIGN, std::memory_order_relaxed);
        ::close(fd);
        return -1;
    }
    const int buf = ipc::device::kSocketBuffer;
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
    ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
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
    errno = 0;
    const ssize_t n = exchange(fd, &out, 1, &in, 1, &sent);
    if (n < 6 || ipc::wire::load_be<std::uint32_t>(ans) != 0) {
        // No answer in time: a stopped or hung simulator. The connection closed at once, or a
        // greeting refused: the simulator does not serve this process (another user, a node
        // it does not have).
        const bool silent = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
        g_last_failure.store(silent ? IPP_DEVICE_SILENT : IPP_DEVICE_REFUSED, std::memory_order_relaxed);
        return -1;
    }
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

bool try_attach(bool now_or_never = false) noexcept {
    static const int registered = ::pthread_atfork(nullptr, nullptr, &after_fork_in_child);
    (void)registered;
    if (!now_or_never && now_ns() < g_next_probe.load(std::memory_order_relaxed)) return false;
    if (thread_fd() >= 0) {
        int expected = kUnknown;
        g_mode.compare_exchange_strong(expected, kDevice);
        return g_mode.load() == kDevice;
    }
    // The pause starts when the attempt ended: an attempt that waited for a stopped
    // simulator must not leave the next one due at once.
    g_next_probe.store(now_ns() + kProbeInterval, std::memory_order_relaxed);
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

int probe(std::uint32_t* owner_uid) noexcept {
    if (owner_uid != nullptr) *owner_uid = 0;
    const int mode = g_mode.load(std::memory_order_acquire);
    if (mode == kDisabled) return IPP_DEVICE_DISABLED;
    // An open connection is asked too: a simulator stopped since it answered last does not
    // answer now.
    if (mode != kDevice || t_conn.fd < 0 || t_conn.generation != g_generation.load(std::memory_order_acquire)) {
        t_conn.drop();
        if (!try_attach(true)) {
            const int why = g_last_failure.load(std::memory_order_relaxed);
            if ((why == IPP_DEVICE_FOREIGN || why == IPP_DEVICE_REFUSED) && owner_uid != nullptr) {
                *owner_uid = g_peer_uid.load(std::memory_order_relaxed);
            }
            return why;
        }
    }
    std::uint8_t echo[4] = {};
    const std::uint8_t word[4] = {'p', 'i', 'n', 'g'};
    const auto a = call(Call::kPing, word, {}, echo);
    if (a && a->result == 0 && a->len == sizeof echo) return IPP_DEVICE_ATTACHED;
    return IPP_DEVICE_SILENT;
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

extern "C" {

int ipp_device_state(uint32_t* owner_uid) { return ipp::dev::probe(owner_uid); }

int ipp_device_faults(uint32_t* count) {
    if (count != nullptr) *count = 0;
    if (!ipp::dev::active()) return -1;
    const auto n = ipp::dev::faults();
    if (!n) return -1;
    if (count != nullptr) *count = *n;
    return 0;
}

}  // extern "C"
