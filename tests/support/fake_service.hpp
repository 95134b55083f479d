// A fake service: a real family-37 peer on its own thread. It listens at (node, port),
// accepts up to `connections` clients and runs the script on each; the script reads the
// exact request bytes, answers, stalls or closes. The destructor stops and joins the thread
// and closes every descriptor.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace ipt {

using Bytes = std::vector<std::uint8_t>;

class Conn {
public:
    explicit Conn(int fd) : fd_(fd) {}
    int fd() const { return fd_; }
    // One whole message (up to cap bytes); empty when the peer closed or after the timeout.
    Bytes recv_message(std::size_t cap = 65536, int timeout_ms = 5000) const;
    bool send_message(const Bytes& b) const;

private:
    int fd_;
};

class FakeService {
public:
    using Script = std::function<void(Conn&)>;

    FakeService(std::uint16_t node, std::uint16_t port, Script script, int connections = 1);
    ~FakeService();
    FakeService(const FakeService&) = delete;
    FakeService& operator=(const FakeService&) = delete;

    bool listening() const { return listen_fd_ >= 0; }
    int accepted() const { return accepted_.load(); }
    // Requests received by the scripts through Conn::recv_message, in order.
    std::vector<Bytes> requests() const;
    void record(const Bytes& b);

    // Fake service threads currently alive in the process.
    static int running();

private:
    void run(Script script, int connections);

    int listen_fd_ = -1;
    int stop_pipe_[2] = {-1, -1};
    std::atomic<int> accepted_{0};
    mutable std::mutex mu_;
    std::vector<Bytes> requests_;
    std::thread thread_;
};

}  // namespace ipt
