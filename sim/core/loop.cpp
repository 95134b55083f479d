#include "core/loop.hpp"

#include <errno.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <sys/un.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "core/log.hpp"
#include "ipproto/device.hpp"

namespace sim {

class Loop::Hangup : public Watch {
public:
    explicit Hangup(int fd) : fd_(fd) {}
    void ready(std::uint32_t) override {
        std::uint64_t n = 0;
        if (::read(fd_, &n, sizeof n) != static_cast<ssize_t>(sizeof n)) return;
        SIM_LOG(kInfo, "SIGHUP received: ignored (the log is standard error; there is nothing to reopen)");
    }

private:
    int fd_;
};

class Loop::Listener : public Watch {
public:
    Listener(Loop& loop, int fd, Endpoint where, ConnFactory make)
        : loop_(loop), fd_(fd), where_(std::move(where)), make_(std::move(make)) {}
    ~Listener() override {
        if (fd_ >= 0) ::close(fd_);
    }
    void ready(std::uint32_t) override {
        if (fd_ >= 0) loop_.accept_on(*this);
    }

    Loop& loop_;
    int fd_;
    Endpoint where_;
    ConnFactory make_;
};

Conn::Conn(Loop& loop, int fd, Endpoint where, pid_t pid) : loop_(loop), fd_(fd), where_(std::move(where)), pid_(pid) {}

Conn::~Conn() {
    if (fd_ >= 0) ::close(fd_);
}

bool Conn::send(std::span<const std::uint8_t> msg) {
    if (fd_ < 0) return false;
    if (cut_) msg = msg.first(std::min(msg.size(), *cut_));
    if (outbox_.empty()) {
        const ssize_t n = ::send(fd_, msg.data(), msg.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) return true;
        if (errno != EAGAIN && errno != EWOULDBLOCK) {
            close();
            return false;
        }
    }
    if (outbox_bytes_ + msg.size() > Loop::kMaxOutbox) {
        SIM_LOG(kWarn, "dropping a peer (pid %d) that does not read: %zu bytes waiting", static_cast<int>(pid_),
                outbox_bytes_);
        close();
        return false;
    }
    outbox_.emplace_back(msg.begin(), msg.end());
    outbox_bytes_ += msg.size();
    if (!want_out_) {
        want_out_ = true;
        loop_.modify(fd_, EPOLLIN | EPOLLOUT, this);
    }
    return true;
}

void Conn::flush() {
    while (!outbox_.empty()) {
        const auto& m = outbox_.front();
        const ssize_t n = ::send(fd_, m.data(), m.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) return;
            close();
            return;
        }
        outbox_bytes_ -= m.size();
        outbox_.pop_front();
    }
    if (close_when_sent_) return shut();
    want_out_ = false;
    loop_.modify(fd_, EPOLLIN, this);
    drained();
}

void Conn::wait_writable() {
    if (fd_ < 0 || want_out_) return;
    want_out_ = true;
    loop_.modify(fd_, EPOLLIN | EPOLLOUT, this);
}

void Conn::close() {
    if (fd_ < 0) return;
    shut();
}

void Conn::close_when_sent() {
    if (fd_ < 0) return;
    if (outbox_.empty()) return shut();
    close_when_sent_ = true;
}

void Conn::oversized(std::span<const std::uint8_t> cut, std::size_t) { message(cut); }

void Conn::shut() {
    loop_.unwatch(fd_);
    ::close(fd_);
    fd_ = -1;
    outbox_.clear();
    outbox_bytes_ = 0;
    closed();
    loop_.retire(this);
}

void Conn::ready(std::uint32_t events) {
    if (fd_ < 0) return;
    if ((events & EPOLLOUT) != 0) flush();
    if (fd_ < 0) return;
    if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0) return;
    // Reads what is queued, a bounded number of messages per round so that no peer
    // holds the loop.
    for (int i = 0; i < 64 && fd_ >= 0; ++i) {
        auto buf = loop_.scratch();
        // With MSG_TRUNC the length of the whole message comes back, also when it was cut.
        const ssize_t n = ::recv(fd_, buf.data(), buf.size(), MSG_DONTWAIT | MSG_TRUNC);
        if (n > 0 && static_cast<std::size_t>(n) > buf.size()) {
            oversized(buf, static_cast<std::size_t>(n));
            continue;
        }
        if (n > 0) {
            deliver(buf.first(static_cast<std::size_t>(n)));
            continue;
        }
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
        if (n < 0 && errno == EINTR) continue;
        shut();  // 0: the peer closed; or an error
        return;
    }
}

void Conn::deliver(std::span<const std::uint8_t> msg) {
    if (waiting_) {
        // A peer that goes on sending while its request is held is not held without bound.
        if (held_bytes_ + msg.size() > Loop::kMaxOutbox) {
            SIM_LOG(kWarn, "dropping a peer (pid %d) that sent %zu bytes behind a delayed request",
                    static_cast<int>(pid_), held_bytes_);
            return close();
        }
        held_bytes_ += msg.size();
        held_.emplace_back(msg.begin(), msg.end());
        return;
    }
    handle(msg, true);
}

void Conn::handle(std::span<const std::uint8_t> msg, bool check) {
    const FaultAction a = check && fault_check_ ? fault_check_(msg) : FaultAction{};
    switch (a.kind) {
        case FaultAction::Kind::kNone: return message(msg);
        case FaultAction::Kind::kDrop:
            SIM_LOG(kDebug, "fault: a request of pid %d on node %u port %u is dropped", static_cast<int>(pid_),
                    static_cast<unsigned>(where_.node), static_cast<unsigned>(where_.port));
            return;
        case FaultAction::Kind::kClose: return close();
        case FaultAction::Kind::kError:
            if (refuse_) refuse_(*this, msg, a.value);
            return;
        case FaultAction::Kind::kTruncate:
            cut_ = a.value;
            message(msg);
            cut_.reset();
            return;
        case FaultAction::Kind::kDelay:
            waiting_ = true;
            held_bytes_ += msg.size();
            held_.emplace_front(msg.begin(), msg.end());
            loop_.after(std::chrono::milliseconds(a.value), [this, alive = std::weak_ptr<char>(alive_)] {
                if (alive.lock()) release();
            });
            return;
    }
}

void Conn::release() {
    waiting_ = false;
    if (fd_ < 0 || held_.empty()) return;
    std::vector<std::uint8_t> msg = std::move(held_.front());
    held_.pop_front();
    held_bytes_ -= msg.size();
    handle(msg, false);
    while (!waiting_ && fd_ >= 0 && !held_.empty()) {
        msg = std::move(held_.front());
        held_.pop_front();
        held_bytes_ -= msg.size();
        handle(msg, true);
    }
}

Loop::Loop()
    : epfd_(::epoll_create1(EPOLL_CLOEXEC)),
      stop_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      hup_fd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      hup_watch_(std::make_unique<Hangup>(hup_fd_)),
      scratch_(kMaxMessage),
      answer_(new std::uint8_t[kMaxMessage]) {
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = nullptr;
    ::epoll_ctl(epfd_, EPOLL_CTL_ADD, stop_fd_, &ev);
    watch(hup_fd_, EPOLLIN, hup_watch_.get());
}

void Loop::close_all() {
    retired_.clear();
    conns_.clear();
    listeners_.clear();
    retired_listeners_.clear();
}

Loop::~Loop() {
    close_all();
    ::close(hup_fd_);
    ::close(stop_fd_);
    ::close(epfd_);
}

namespace {

// Who holds an abstract address that could not be bound: the credentials its listener
// had, as a connection to it reports them.
std::string holder_of(const void* addr, unsigned addr_len) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return {};
    std::string out;
    if (::connect(fd, static_cast<const sockaddr*>(addr), addr_len) == 0) {
        ucred cred{};
        socklen_t len = sizeof cred;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
            out = "pid " + std::to_string(cred.pid) + ", uid " + std::to_string(cred.uid);
            // Named when the holder is a simulator too (the usual case: one already runs).
            char comm[32] = {};
            const std::string path = "/proc/" + std::to_string(cred.pid) + "/comm";
            if (FILE* f = std::fopen(path.c_str(), "re")) {
                if (std::fgets(comm, sizeof comm, f) != nullptr && std::string(comm) == "ipsimd\n") {
                    out = "another ipsimd, " + out;
                }
                std::fclose(f);
            }
        }
    } else if (errno == ECONNREFUSED) {
        out = "a socket that does not listen";
    }
    ::close(fd);
    return out;
}

}  // namespace

bool Loop::listen(const void* addr, unsigned addr_len, Endpoint where, ConnFactory make, std::string* held) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return false;
    if (addr_len == 0 || ::bind(fd, static_cast<const sockaddr*>(addr), addr_len) != 0 || ::listen(fd, 1024) != 0) {
        const int err = errno;
        ::close(fd);
        if (held != nullptr && addr_len != 0 && err == EADDRINUSE) *held = holder_of(addr, addr_len);
        return false;
    }
    listeners_.push_back(std::make_unique<Listener>(*this, fd, std::move(where), std::move(make)));
    watch(fd, EPOLLIN, listeners_.back().get());
    return true;
}

void Loop::accept_on(Listener& l) {
    for (;;) {
        const int fd = ::accept4(l.fd_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) continue;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) pause_accepting(errno);
            return;
        }
        ucred cred{};
        socklen_t len = sizeof cred;
        if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != ::getuid()) {
            SIM_LOG(kWarn, "refused a peer of uid %u (pid %d) on %s node %u port %u", static_cast<unsigned>(cred.uid),
                    static_cast<int>(cred.pid), l.where_.channel.c_str(), static_cast<unsigned>(l.where_.node),
                    static_cast<unsigned>(l.where_.port));
            ::close(fd);
            continue;
        }
        const int buf = ipc::device::kSocketBuffer;
        ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &buf, sizeof buf);
        std::unique_ptr<Conn> c = l.make_(*this, fd, l.where_, cred.pid);
        if (!c) {
            ::close(fd);
            continue;
        }
        adopt(std::move(c));
    }
}

void Loop::pause_accepting(int err) {
    ++starved_since_log_;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_starved_log_ >= std::chrono::seconds(1)) {
        SIM_LOG(kWarn, "cannot accept connections: %s (%zu connections open); pausing %lld ms (%llu times since the last line)",
                std::strerror(err), conns_.size(), static_cast<long long>(kAcceptPause.count()),
                static_cast<unsigned long long>(starved_since_log_));
        last_starved_log_ = now;
        starved_since_log_ = 0;
    }
    if (accept_paused_) return;
    // Waiting peers stay in the listeners' queues until descriptors are free again.
    accept_paused_ = true;
    for (const auto& l : listeners_) modify(l->fd_, 0, l.get());
    after(kAcceptPause, [this] {
        accept_paused_ = false;
        for (const auto& l : listeners_) modify(l->fd_, EPOLLIN, l.get());
    });
}

std::size_t Loop::close_endpoint(const std::string& channel, std::optional<std::uint16_t> node, std::uint16_t port) {
    const auto on = [&](const Endpoint& w) {
        return w.channel == channel && w.port == port && (!node || w.node == *node);
    };
    std::size_t closed = 0;
    for (auto it = listeners_.begin(); it != listeners_.end();) {
        if (!on((*it)->where_)) {
            ++it;
            continue;
        }
        // An event of this round may still name it: it goes when the round ends.
        unwatch((*it)->fd_);
        ::close((*it)->fd_);
        (*it)->fd_ = -1;
        retired_listeners_.push_back(std::move(*it));
        it = listeners_.erase(it);
        ++closed;
    }
    std::vector<Conn*> conns;
    for (const auto& [raw, c] : conns_) {
        if (raw->open() && on(raw->where())) conns.push_back(raw);
    }
    for (Conn* c : conns) c->close();
    return closed + conns.size();
}

bool Loop::listens(const Endpoint& where) const {
    for (const auto& l : listeners_) {
        if (l->where_.channel == where.channel && l->where_.node == where.node && l->where_.port == where.port) return true;
    }
    return false;
}

std::size_t Loop::connections_on(const Endpoint& where) const {
    std::size_t n = 0;
    for (const auto& [raw, c] : conns_) {
        const Endpoint& w = raw->where();
        if (raw->open() && w.channel == where.channel && w.node == where.node && w.port == where.port) ++n;
    }
    return n;
}

void Loop::adopt(std::unique_ptr<Conn> c) {
    Conn* raw = c.get();
    conns_.emplace(raw, std::move(c));
    watch(raw->fd(), EPOLLIN, raw);
}

void Loop::watch(int fd, std::uint32_t events, Watch* w) {
    epoll_event ev{};
    ev.events = events;
    ev.data.ptr = w;
    ::epoll_ctl(epfd_, EPOLL_CTL_ADD, fd, &ev);
}

void Loop::modify(int fd, std::uint32_t events, Watch* w) {
    epoll_event ev{};
    ev.events = events;
    ev.data.ptr = w;
    ::epoll_ctl(epfd_, EPOLL_CTL_MOD, fd, &ev);
}

void Loop::unwatch(int fd) { ::epoll_ctl(epfd_, EPOLL_CTL_DEL, fd, nullptr); }

void Loop::retire(Conn* c) { retired_.push_back(c); }

void Loop::after(std::chrono::milliseconds delay, std::function<void()> fn) {
    timers_.emplace(std::chrono::steady_clock::now() + delay, std::move(fn));
}

void Loop::run_timers() {
    const auto now = std::chrono::steady_clock::now();
    while (!timers_.empty() && timers_.begin()->first <= now) {
        auto fn = std::move(timers_.begin()->second);
        timers_.erase(timers_.begin());
        fn();
    }
}

void Loop::stop() noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(stop_fd_, &one, sizeof one);
}

void Loop::hangup() noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] const ssize_t n = ::write(hup_fd_, &one, sizeof one);
}

void Loop::run() {
    for (;;) {
        int timeout = -1;
        if (!timers_.empty()) {
            const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(timers_.begin()->first -
                                                                                     std::chrono::steady_clock::now());
            timeout = static_cast<int>(std::max<long long>(0, wait.count() + 1));
        }
        if (step(timeout) < 0) return;
    }
}

int Loop::step(int timeout_ms) {
    epoll_event events[64];
    const int n = ::epoll_wait(epfd_, events, 64, timeout_ms);
    if (n < 0 && errno != EINTR) return -1;
    int handled = 0;
    for (int i = 0; i < n; ++i) {
        if (events[i].data.ptr == nullptr) return -1;  // stop
        auto* w = static_cast<Watch*>(events[i].data.ptr);
        // A connection closed earlier in this round is not touched again.
        bool gone = false;
        for (Conn* r : retired_) gone = gone || static_cast<Watch*>(r) == w;
        if (!gone) {
            w->ready(events[i].events);
            ++handled;
        }
    }
    run_timers();
    for (Conn* r : retired_) conns_.erase(r);
    retired_.clear();
    retired_listeners_.clear();
    return handled;
}

}  // namespace sim
