// The simulator's control channel as both ends speak it, and the client's exchange.
//
// An AF_UNIX SOCK_SEQPACKET connection to "ipclient/<instance>/control" (names::control).
// A request is one message holding one JSON object {"op": NAME, ...} of at most kMaxRequest
// bytes; a longer one is answered {"ok": false, "error": "request too long ..."}. An answer
// is one message holding one JSON object of at most kMaxPiece bytes. A longer answer (a long
// listing) begins with the message kContinued; its text follows in pieces, each one message
// of a mark byte (kMorePiece, or kLastPiece for the last) and at most kMaxPiece bytes of text,
// and the simulator closes the connection after the last one: the texts put together are the
// answer's JSON object. A connection that ends before the last piece ends a cut answer, never
// a whole one. Messages stay within what an AF_UNIX socket takes with the system's default
// buffers (about 208 KiB).
//
// A client takes the channel only from a process of its own user or of root: another user's
// process that holds the name is an impostor (or another user's simulator, which would refuse
// this client anyway), and its answer is never believed.
#pragma once

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "ipproto/endpoints.hpp"
#include "ipproto/raii.hpp"

namespace ipc::control {

inline constexpr std::size_t kMaxRequest = 64u << 10;
inline constexpr std::size_t kMaxPiece = 64u << 10;
inline constexpr char kMorePiece = '+';
inline constexpr char kLastPiece = '.';
// The longest answer a client puts together: more than the longest listing the simulator
// can hold (its tables are bounded).
inline constexpr std::size_t kMaxAnswer = 1u << 30;
inline constexpr std::string_view kContinued = R"({"ok":true,"continued":true})";
// How long a client waits for the simulator by default.
inline constexpr int kDefaultTimeoutMs = 5000;

struct Exchange {
    enum Outcome {
        kAnswered,     // answer holds the simulator's answer
        kNoSimulator,  // nothing listens for the instance
        kForeign,      // another user's process holds the channel (owner, owner_pid)
        kTimedOut,     // no (whole) answer within the time
        kTooLong,      // the request or the answer passes its limit
        kFailed        // the connection failed or ended before a whole answer
    };
    Outcome outcome = kFailed;
    std::string answer;
    std::string detail;  // what went wrong, in words
    uid_t owner = 0;
    pid_t owner_pid = 0;
};

namespace detail {

inline std::int64_t now_ms() noexcept {
    timespec ts{};
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1'000'000;
}

// Waits until fd is ready for `events` or the deadline passes; false on time-out.
inline bool wait(int fd, short events, std::int64_t deadline) noexcept {
    for (;;) {
        const std::int64_t left = deadline - now_ms();
        if (left <= 0) return false;
        pollfd p{fd, events, 0};
        const int rc = ::poll(&p, 1, static_cast<int>(left));
        if (rc > 0) return true;
        if (rc < 0 && errno != EINTR) return true;  // the call that follows says what is wrong
    }
}

// One whole message into out; 0 at the end of the connection, -1 on failure or time-out
// (timed_out tells), -2 when it is longer than `most`.
inline ssize_t receive(int fd, std::string* out, std::size_t most, std::int64_t deadline, bool* timed_out) {
    *timed_out = false;
    if (!wait(fd, POLLIN, deadline)) {
        *timed_out = true;
        return -1;
    }
    char probe = 0;
    ssize_t len;
    do {
        len = ::recv(fd, &probe, 1, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    } while (len < 0 && errno == EINTR);
    if (len <= 0) return len;
    if (static_cast<std::size_t>(len) > most) return -2;
    out->resize(static_cast<std::size_t>(len));
    ssize_t n;
    do {
        n = ::recv(fd, out->data(), out->size(), MSG_DONTWAIT);
    } while (n < 0 && errno == EINTR);
    if (n != len) return -1;
    return n;
}

}  // namespace detail

// One request on the control channel of an instance's simulator. timeout_ms bounds each
// wait: for the connection, the sending, the answer, and each piece of a long answer.
inline Exchange ask(std::string_view instance, std::string_view request, int timeout_ms) {
    Exchange x;
    const std::string name(instance);
    if (request.size() > kMaxRequest) {
        x.outcome = Exchange::kTooLong;
        x.detail = "the request is too long (" + std::to_string(request.size()) + " bytes; at most " +
                   std::to_string(kMaxRequest) + ")";
        return x;
    }
    std::int64_t deadline = detail::now_ms() + timeout_ms;
    const Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        x.detail = std::string("cannot open a socket: ") + std::strerror(errno);
        return x;
    }
    const int room = static_cast<int>(2 * kMaxRequest);
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof room);
    sockaddr_un sun{};
    const socklen_t n = names::control(instance, &sun);
    if (n == 0) {
        x.outcome = Exchange::kNoSimulator;
        x.detail = "no simulator can run for instance \"" + name.substr(0, names::kMaxInstance) +
                   "\": an instance name has 1 to " + std::to_string(names::kMaxInstance) + " characters and no '/'";
        return x;
    }
    for (;;) {
        if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sun), n) == 0) break;
        if (errno == EINTR) continue;
        // A listener whose queue is full (a simulator that does not accept) takes no one.
        if (errno == EAGAIN && detail::now_ms() < deadline) {
            const timespec pause{0, 10'000'000};
            ::nanosleep(&pause, nullptr);
            continue;
        }
        x.outcome = errno == EAGAIN ? Exchange::kTimedOut : Exchange::kNoSimulator;
        x.detail = errno == EAGAIN ? "the simulator of instance \"" + name + "\" does not take connections"
                                   : "no simulator answers for instance \"" + name + "\"";
        return x;
    }
    ucred cred{};
    socklen_t clen = sizeof cred;
    if (::getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &clen) != 0 ||
        (cred.uid != ::geteuid() && cred.uid != 0)) {
        x.outcome = Exchange::kForeign;
        x.owner = cred.uid;
        x.owner_pid = cred.pid;
        x.detail = "refused: the control channel of instance \"" + name + "\" is held by uid " +
                   std::to_string(cred.uid) + " (pid " + std::to_string(cred.pid) + "), not by this user";
        return x;
    }
    if (!detail::wait(fd.get(), POLLOUT, deadline)) {
        x.outcome = Exchange::kTimedOut;
        x.detail = "the simulator of instance \"" + name + "\" takes no request (is it stopped?)";
        return x;
    }
    deadline = detail::now_ms() + timeout_ms;
    ssize_t sent;
    do {
        sent = ::send(fd.get(), request.data(), request.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent != static_cast<ssize_t>(request.size())) {
        x.detail = std::string("the request could not be sent: ") + std::strerror(errno);
        return x;
    }
    auto failed = [&](ssize_t rc, bool timed_out, std::string_view what) {
        x.answer.clear();
        if (timed_out) {
            x.outcome = Exchange::kTimedOut;
            x.detail = "no answer from the simulator of instance \"" + name + "\" within " +
                       std::to_string(timeout_ms) + " ms (is it stopped?)";
        } else if (rc == -2) {
            x.outcome = Exchange::kTooLong;
            x.detail = "the answer is too long (a piece over " + std::to_string(kMaxPiece) + " bytes)";
        } else {
            x.outcome = Exchange::kFailed;
            x.detail = std::string(what);
        }
        return x;
    };
    deadline = detail::now_ms() + timeout_ms;
    bool timed_out = false;
    std::string first;
    const ssize_t got = detail::receive(fd.get(), &first, kMaxPiece, deadline, &timed_out);
    if (got <= 0) return failed(got, timed_out, "the simulator ended the connection without an answer");
    if (first != kContinued) {
        x.outcome = Exchange::kAnswered;
        x.answer = std::move(first);
        return x;
    }
    std::string piece;
    for (;;) {
        const ssize_t m =
            detail::receive(fd.get(), &piece, kMaxPiece + 1, detail::now_ms() + timeout_ms, &timed_out);
        if (m == 0) return failed(-1, false, "the answer was cut: the connection ended before its last piece");
        if (m < 0) return failed(m, timed_out, "the simulator ended the connection in the middle of an answer");
        if (piece[0] != kMorePiece && piece[0] != kLastPiece) return failed(-1, false, "a piece of the answer is not marked");
        if (x.answer.size() + piece.size() - 1 > kMaxAnswer) {
            x.outcome = Exchange::kTooLong;
            x.detail = "the answer is too long (over " + std::to_string(kMaxAnswer) + " bytes)";
            x.answer.clear();
            return x;
        }
        x.answer.append(piece, 1, std::string::npos);
        if (piece[0] == kLastPiece) break;
    }
    x.outcome = Exchange::kAnswered;
    return x;
}

}  // namespace ipc::control
