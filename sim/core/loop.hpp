// The simulator's event loop: one thread, epoll, listening sockets and connections.
//
// Every channel of the simulated device is an AF_UNIX SOCK_SEQPACKET listener in the
// instance's abstract namespace. A listener accepts only peers with the simulator's own
// uid (SO_PEERCRED); any other peer is closed and logged. A connection reads whole
// messages and hands each to its owner; what it sends waits in an outbox while the peer's
// receive queue is full, and a peer whose outbox grows past kMaxOutbox is dropped.
//
// When the process runs out of descriptors, the listeners stop accepting for a while
// (kAcceptPause) instead of waking the loop again and again for connections they cannot
// take, and say so in the log at most once a second; they accept again once descriptors
// are free.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "core/faults.hpp"

namespace sim {

class Loop;

// Something the loop waits on.
class Watch {
public:
    virtual ~Watch() = default;
    virtual void ready(std::uint32_t events) = 0;
};

// Where a connection belongs: the node and port (or channel name) of its listener.
struct Endpoint {
    std::uint16_t node = 0;
    std::uint16_t port = 0;      // 0 for the device channel
    std::string channel;         // "device", "lipc"
};

class Conn : public Watch {
public:
    Conn(Loop& loop, int fd, Endpoint where, pid_t pid);
    ~Conn() override;
    Conn(const Conn&) = delete;
    Conn& operator=(const Conn&) = delete;

    // Sends one message now or after the messages already waiting. False when the
    // connection is closed or was dropped for a full outbox.
    bool send(std::span<const std::uint8_t> msg);
    // Closes the connection after this event; its owner is told through closed().
    void close();

    int fd() const noexcept { return fd_; }
    const Endpoint& where() const noexcept { return where_; }
    pid_t peer_pid() const noexcept { return pid_; }
    bool open() const noexcept { return fd_ >= 0; }

    void ready(std::uint32_t events) final;

    // What answers a request in the device's place (core/faults.hpp), asked before each
    // message is handled; and how the connection's protocol answers a request with a
    // status (an error fault). Set by whoever makes the connection; none by default.
    using FaultCheck = std::function<FaultAction(std::span<const std::uint8_t> msg)>;
    using Refusal = std::function<void(Conn& conn, std::span<const std::uint8_t> msg, std::uint32_t status)>;
    void set_faults(FaultCheck check, Refusal refuse) {
        fault_check_ = std::move(check);
        refuse_ = std::move(refuse);
    }

protected:
    // One message as it was received (at most kMaxMessage bytes).
    virtual void message(std::span<const std::uint8_t> msg) = 0;
    // A message longer than kMaxMessage arrived (`length` bytes): it is handed on cut to
    // message() unless the connection says otherwise.
    virtual void oversized(std::span<const std::uint8_t> cut, std::size_t length);
    // Closes the connection once everything it sent has left.
    void close_when_sent();
    // Everything sent so far has left: the connection may send more (see wait_writable).
    virtual void drained() {}
    // Asks for drained() once the peer can take more (at the latest in the next round).
    void wait_writable();
    std::size_t outbox_bytes() const noexcept { return outbox_bytes_; }
    // The connection ended (peer closed, error, or close()).
    virtual void closed() {}
    Loop& loop() noexcept { return loop_; }

private:
    void flush();
    void shut();
    // A received message: handled now, or held behind a delayed one.
    void deliver(std::span<const std::uint8_t> msg);
    void handle(std::span<const std::uint8_t> msg, bool check);
    // The delayed message's time came: it is handled, then those held behind it.
    void release();

    Loop& loop_;
    int fd_;
    Endpoint where_;
    pid_t pid_;
    std::deque<std::vector<std::uint8_t>> outbox_;
    std::size_t outbox_bytes_ = 0;
    bool want_out_ = false;
    bool close_when_sent_ = false;
    FaultCheck fault_check_;
    Refusal refuse_;
    // While a truncate fault answers a message: send() cuts each message to this many bytes.
    std::optional<std::size_t> cut_;
    // Messages that wait behind a delayed one (the first of them is the delayed one).
    std::deque<std::vector<std::uint8_t>> held_;
    std::size_t held_bytes_ = 0;
    bool waiting_ = false;
    // Lives as long as the connection: a timer that outlives it finds it expired.
    std::shared_ptr<char> alive_ = std::make_shared<char>();
};

// Makes the connection object for an accepted descriptor.
using ConnFactory = std::function<std::unique_ptr<Conn>(Loop&, int fd, const Endpoint&, pid_t pid)>;

class Loop {
public:
    static constexpr std::size_t kMaxMessage = (1u << 20) + 64;
    static constexpr std::size_t kMaxOutbox = 64u << 20;
    static constexpr std::chrono::milliseconds kAcceptPause{100};

    Loop();
    ~Loop();
    Loop(const Loop&) = delete;
    Loop& operator=(const Loop&) = delete;

    // Listens on an abstract socket address; false when it cannot be bound. *held (when
    // given) then says who holds the address, where that can be told ("pid P, uid U").
    bool listen(const void* addr, unsigned addr_len, Endpoint where, ConnFactory make, std::string* held = nullptr);
    void watch(int fd, std::uint32_t events, Watch* w);
    void modify(int fd, std::uint32_t events, Watch* w);
    void unwatch(int fd);

    // Runs fn once after the delay (on the loop's thread).
    void after(std::chrono::milliseconds delay, std::function<void()> fn);
    // Ends every connection and listener now (before the state they refer to is gone).
    void close_all();
    // Runs until stop() (safe from a signal handler).
    void run();
    // One round: waits up to timeout_ms (-1: without bound) for events, handles them and
    // the timers that are due. The events handled, or -1 once stopped (or on an epoll error).
    int step(int timeout_ms);
    void stop() noexcept;
    // A hang-up signal came (safe from a signal handler): logged by the loop.
    void hangup() noexcept;

    // A scratch buffer for received messages.
    std::span<std::uint8_t> scratch() noexcept { return scratch_; }
    // Room for one answer built in place (kMaxMessage bytes, not cleared). The loop handles
    // one message at a time and send() copies what it cannot send at once, so every
    // connection shares it.
    std::span<std::uint8_t> answer() noexcept { return {answer_.get(), kMaxMessage}; }
    // Connections closed in this round; destroyed once the round ends.
    void retire(Conn* c);
    std::size_t connections() const noexcept { return conns_.size(); }
    // Stops listening on the endpoints of a channel and port (of one node, or of every node)
    // and closes their connections: a service that stops, a node that goes away. How many
    // listeners and connections it closed.
    std::size_t close_endpoint(const std::string& channel, std::optional<std::uint16_t> node, std::uint16_t port);
    // Connections open on an endpoint.
    std::size_t connections_on(const Endpoint& where) const;
    // True while a listener serves the endpoint.
    bool listens(const Endpoint& where) const;
    void adopt(std::unique_ptr<Conn> c);

private:
    class Listener;
    class Hangup;
    void accept_on(Listener& l);
    void pause_accepting(int err);
    void run_timers();

    int epfd_;
    int stop_fd_;
    int hup_fd_;
    std::unique_ptr<Hangup> hup_watch_;
    bool accept_paused_ = false;
    std::chrono::steady_clock::time_point last_starved_log_{};
    std::uint64_t starved_since_log_ = 0;
    std::vector<std::uint8_t> scratch_;
    std::unique_ptr<std::uint8_t[]> answer_;
    std::vector<std::unique_ptr<Listener>> listeners_;
    // Listeners closed in this round; destroyed once the round ends.
    std::vector<std::unique_ptr<Listener>> retired_listeners_;
    std::map<Conn*, std::unique_ptr<Conn>> conns_;
    std::vector<Conn*> retired_;
    std::multimap<std::chrono::steady_clock::time_point, std::function<void()>> timers_;
};

}  // namespace sim
