#include "support/fake_service.hpp"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "ipplat/testctl.h"

namespace ipt {
namespace {

std::atomic<int> g_running{0};

// True when fd is readable; waits until then, the stop descriptor fires or the time-out.
// A connection already queued is still served after a stop.
bool wait_readable(int fd, int stop_fd, int timeout_ms) {
    pollfd p[2] = {{fd, POLLIN, 0}, {stop_fd, POLLIN, 0}};
    const int n = ::poll(p, stop_fd >= 0 ? 2 : 1, timeout_ms);
    return n > 0 && (p[0].revents & (POLLIN | POLLHUP)) != 0;
}

}  // namespace

Bytes Conn::recv_message(std::size_t cap, int timeout_ms) const {
    if (!wait_readable(fd_, -1, timeout_ms)) return {};
    Bytes b(cap);
    const ssize_t n = ::recv(fd_, b.data(), b.size(), 0);
    b.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
    return b;
}

bool Conn::send_message(const Bytes& b) const {
    return ::send(fd_, b.data(), b.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(b.size());
}

FakeService::FakeService(std::uint16_t node, std::uint16_t port, Script script, int connections) {
    listen_fd_ = ipp_lipc_listen(node, port);
    if (listen_fd_ < 0 || ::pipe(stop_pipe_) != 0) return;
    ++g_running;
    thread_ = std::thread([this, s = std::move(script), connections] { run(s, connections); });
}

FakeService::~FakeService() {
    if (stop_pipe_[1] >= 0) {
        const char c = 0;
        (void)!::write(stop_pipe_[1], &c, 1);
    }
    if (thread_.joinable()) thread_.join();
    for (int fd : {listen_fd_, stop_pipe_[0], stop_pipe_[1]}) {
        if (fd >= 0) ::close(fd);
    }
}

void FakeService::run(Script script, int connections) {
    for (int i = 0; i < connections; ++i) {
        if (!wait_readable(listen_fd_, stop_pipe_[0], -1)) break;
        const int fd = ::accept(listen_fd_, nullptr, nullptr);
        if (fd < 0) break;
        ++accepted_;
        Conn conn(fd);
        script(conn);
        ::close(fd);
    }
    --g_running;
}

std::vector<Bytes> FakeService::requests() const {
    const std::lock_guard lock(mu_);
    return requests_;
}

void FakeService::record(const Bytes& b) {
    const std::lock_guard lock(mu_);
    requests_.push_back(b);
}

int FakeService::running() { return g_running.load(); }

}  // namespace ipt
