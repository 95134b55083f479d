#include "sim_support.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "daemon.hpp"
#include "ipproto/device.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/wire.hpp"
#include "scenario/scenario.hpp"

namespace ipfuzz::simfuzz {
namespace {

struct Sim {
    std::string instance = "fuzz-" + std::to_string(::getpid());
    sim::scenario::Scenario scenario = sim::scenario::load_default();
    sim::Daemon daemon{scenario, sim::Options{instance, "", ""}};
    Sim() {
        if (const auto error = daemon.start()) {
            std::fprintf(stderr, "fuzz: the simulator did not start: %s\n", error->c_str());
            std::abort();
        }
    }
};

// The simulator, made anew every kFreshEvery exchanges: what the inputs leave in its tables
// stays bounded over a long run, and later inputs meet a device as it starts too.
constexpr std::uint64_t kFreshEvery = 20000;

Sim& the_sim(bool renew = false) {
    static std::unique_ptr<Sim> s;
    static std::uint64_t exchanges = 0;
    if (!s || ++exchanges % kFreshEvery == 0 || renew) {
        s.reset();
        s = std::make_unique<Sim>();
    }
    return *s;
}

// Rounds until the daemon has nothing left to do, reading what it sent to `fd` (if any).
void settle(Sim& s, int fd) {
    std::uint8_t buf[65536];
    for (int idle = 0; idle < 2;) {
        const int handled = s.daemon.step(0);
        bool read = false;
        while (fd >= 0 && ::recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) read = true;
        idle = (handled > 0 || read) ? 0 : idle + 1;
    }
}

}  // namespace

void exchange(Socket where, const std::vector<Bytes>& msgs, const Bytes& first) {
    Sim& s = the_sim();
    sockaddr_un sun{};
    const socklen_t len = where.port == 0 ? ipc::names::device(s.instance, &sun)
                                          : ipc::names::endpoint(s.instance, where.node, where.port, &sun);
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    const int big = 1 << 22;
    (void)::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&sun), len) != 0) {
        ::close(fd);
        return;
    }
    settle(s, fd);
    if (!first.empty()) (void)::send(fd, first.data(), first.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    for (const Bytes& m : msgs) {
        (void)::send(fd, m.data(), m.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        settle(s, fd);
    }
    ::close(fd);
    settle(s, -1);
}

std::string control(std::string_view request) {
    static bool renew = false;
    Sim& s = the_sim(renew);
    std::string answer = s.daemon.context().control.answer(request);
    settle(s, -1);
    const sim::NeighTable& neighs = s.daemon.context().neighs;
    renew = neighs.size(2) + neighs.size(10) > kControlTableBound;
    return answer;
}

std::vector<Bytes> messages(FuzzedDataProvider& in, std::size_t max, std::size_t cap) {
    std::vector<Bytes> out;
    while (out.size() < max && in.remaining_bytes() > 0) {
        const std::size_t n = in.ConsumeIntegralInRange<std::size_t>(0, cap);
        out.push_back(in.ConsumeBytes<std::uint8_t>(n));
    }
    return out;
}

Bytes hello() {
    ipc::wire::Frame<12> f;
    f.be<0>(static_cast<std::uint32_t>(ipc::device::Call::kHello));
    f.be<4>(std::uint16_t{0});
    f.be<8>(static_cast<std::uint32_t>(::getpid()));
    return Bytes(f.data(), f.data() + f.size());
}

int service_input(const std::uint8_t* data, std::size_t size, const Service& service) {
    FuzzedDataProvider in(data, size);
    const std::uint16_t node = service.master_only || in.ConsumeBool() ? 1 : 2;
    const std::uint16_t port = service.other_port == 0 || in.ConsumeBool() ? service.port : service.other_port;
    exchange({node, port}, messages(in, 8, service.longest));
    return 0;
}

}  // namespace ipfuzz::simfuzz
