// Route netlink sockets of a Linux network namespace, and entering that namespace.
//
// A socket belongs to the namespace its creator was in when it was made, and keeps talking
// to that namespace wherever its owner goes; the same holds for a /proc/net file opened
// from inside. So the source enters the namespace on its own thread (NetnsScope), opens
// what it needs, and comes back at once: the simulator's channels stay in the namespace
// it was started in, where its clients are.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netlink.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ipproto/raii.hpp"

namespace sim::nl {

// Enters the network namespace /run/netns/NAME (the calling thread only) for the scope's
// life. An empty name stays in the current namespace.
class NetnsScope {
public:
    explicit NetnsScope(const std::string& name);
    ~NetnsScope();
    NetnsScope(const NetnsScope&) = delete;
    NetnsScope& operator=(const NetnsScope&) = delete;
    // Empty once inside; else why the namespace could not be entered.
    const std::string& error() const noexcept { return error_; }

private:
    ipc::Fd home_;
    bool entered_ = false;
    std::string error_;
};

struct MnlClose {
    void operator()(mnl_socket* s) const noexcept { mnl_socket_close(s); }
};

class Socket {
public:
    // A NETLINK_ROUTE socket in the current namespace, a member of the multicast groups
    // (RTMGRP_* bits; 0 none). Null with a reason in *err.
    // A member's receive buffer is event_buffer bytes (the kernel may round it).
    static std::unique_ptr<Socket> open(unsigned groups, std::string* err, int event_buffer = 32 << 20);

    int fd() const noexcept { return mnl_socket_get_fd(nl_.get()); }
    unsigned portid() const noexcept { return mnl_socket_get_portid(nl_.get()); }
    // A fresh request header in the socket's buffer, with the next sequence number.
    nlmsghdr* start(std::uint16_t type, std::uint16_t flags);
    std::size_t room() const noexcept { return out_.size(); }

    // Sends the request built with start() and runs cb on every answer until the dump (or
    // the acknowledgement) ends. 0, or the kernel's (or the socket's) errno.
    int run(mnl_cb_t cb, void* data);
    // Sends the request and waits for its acknowledgement: 0, or the kernel's errno.
    int request() { return run(nullptr, nullptr); }

    enum class Read { kDone, kOverflow, kFailed };
    // Reads every notification queued on a subscribed socket without waiting and runs cb on
    // each. kOverflow when the kernel had to drop notifications (the reader must resync).
    Read drain(mnl_cb_t cb, void* data);

private:
    explicit Socket(mnl_socket* nl) : nl_(nl) {}

    std::unique_ptr<mnl_socket, MnlClose> nl_;
    std::uint32_t seq_ = 0;
    std::vector<std::uint8_t> out_ = std::vector<std::uint8_t>(1024);
    std::vector<std::uint8_t> in_ = std::vector<std::uint8_t>(256u * 1024u);
};

}  // namespace sim::nl
