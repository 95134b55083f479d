// Bad input on every socket of the simulator: random bytes, short messages, lengths that
// disagree and unknown commands get an error answer or a closed connection, and a good
// request right after is served.
#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <random>

#include "common/device_proto.hpp"
#include "common/endpoint_names.hpp"
#include "common/wire.hpp"
#include "e2e/e2e_support.hpp"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"

namespace e2e {
namespace {

using Bytes = std::vector<std::uint8_t>;

int connect_to(const sockaddr_un& sun, socklen_t len) {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&sun), len) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

int connect_device() {
    sockaddr_un sun{};
    return connect_to(sun, ipc::names::device(instance(), &sun));
}

int connect_port(std::uint16_t node, std::uint16_t port) {
    sockaddr_un sun{};
    return connect_to(sun, ipc::names::endpoint(instance(), node, port, &sun));
}

enum class Outcome { kAnswer, kClosed, kSilent };

// Sends one message and looks at what comes back within the time.
Outcome send_and_see(int fd, const Bytes& msg, int wait_ms = 500) {
    if (::send(fd, msg.data(), msg.size(), MSG_NOSIGNAL) < 0) return Outcome::kClosed;
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, wait_ms) <= 0) return Outcome::kSilent;
    std::uint8_t buf[65536];
    const ssize_t n = ::recv(fd, buf, sizeof buf, MSG_DONTWAIT);
    return n > 0 ? Outcome::kAnswer : Outcome::kClosed;
}

Bytes be32s(std::initializer_list<std::uint32_t> words) {
    Bytes out(words.size() * 4);
    ipc::wire::Writer w(out);
    for (const std::uint32_t v : words) w.be(v);
    return out;
}

std::size_t open_fds(pid_t pid) {
    std::size_t n = 0;
    DIR* d = ::opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    if (d == nullptr) return 0;
    while (const dirent* e = ::readdir(d)) n += e->d_name[0] != '.' ? 1 : 0;
    ::closedir(d);
    return n;
}

void expect_served() {
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.1.1.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, kGe1);
    std::uint32_t borrowed = 0;
    EXPECT_EQ(IPCfg_Mor_GetUnnumberedIf(kGe1, &borrowed), 0x2316002Cu) << "the service answers: none";
}

using HostileE2E = SimTest;

TEST_F(HostileE2E, DeviceChannelRefusesCallsBeforeTheGreeting) {
    const int fd = connect_device();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(send_and_see(fd, be32s({2, 0xFFFF8000u, 0x260001, 0, 0})), Outcome::kClosed);
    ::close(fd);
    expect_served();
}

TEST_F(HostileE2E, DeviceChannelAnswersBadCallsWithAnError) {
    const int fd = connect_device();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(send_and_see(fd, be32s({1, 0, 0})), Outcome::kAnswer);  // greeting, node 0 = master
    const std::vector<Bytes> bad = {
        {0x00},                                        // shorter than a call word
        be32s({999}),                                  // unknown call
        be32s({2, 0xFFFF8000u}),                       // control-channel call cut short
        be32s({2, 0xFFFF8000u, 0x260001, 0x7FFFFFFF, 0}),  // reply capacity past the limit
        be32s({2, 0xFFFF8000u, 0x260001, 64, 0, 2, 99}),   // payload length disagrees
        be32s({2, 0xFFFF8000u, 0x999999, 64, 0}),          // no such module
        be32s({7, 1}),                                 // interface data cut short
        be32s({14, 0xFFFFFFFFu}),                      // batch start claims more nodes than sent
        be32s({19, 1}),                                // database read cut short
    };
    for (const Bytes& m : bad) {
        const Outcome o = send_and_see(fd, m);
        EXPECT_TRUE(o == Outcome::kAnswer || o == Outcome::kClosed) << m.size();
    }
    ::close(fd);
    expect_served();
}

TEST_F(HostileE2E, ServicesAnswerOrCloseOnMalformedMessages) {
    struct Case {
        std::uint16_t port;
        Bytes msg;
    };
    const std::vector<Case> cases = {
        {1653, {1, 2, 3}},
        {1653, be32s({2, 64})},                    // length says 64, nothing follows
        {1653, be32s({0, 8, 1, 100, 1, 2})},       // body length disagrees
        {1653, be32s({77, 0})},                    // unknown operation
        {1653, be32s({0, 8, 9, 0})},               // unknown message type
        {11547, {0xFF}},
        {11547, be32s({1, 16, 0})},                // subscription cut short
        {11547, be32s({42, 0})},                   // unknown type
        {1648, {0, 13, 0, 200}},                   // framed length disagrees
        {1648, {0, 99, 0, 4}},                     // unknown type
        {4418, {0, 1, 0, 12, 0, 0, 0, 2}},         // cut short
        {4418, {0xFF, 0xFF, 0, 4}},
    };
    for (const Case& c : cases) {
        const int fd = connect_port(1, c.port);
        ASSERT_GE(fd, 0) << c.port;
        const Outcome o = send_and_see(fd, c.msg);
        EXPECT_TRUE(o == Outcome::kAnswer || o == Outcome::kClosed) << "port " << c.port << " size " << c.msg.size();
        ::close(fd);
    }
    expect_served();
}

TEST_F(HostileE2E, RandomBytesOnEverySocketLeaveTheSimulatorServing) {
    expect_served();  // this process's own device connection is open from here on
    const std::size_t fds_before = open_fds(sim.pid());
    std::mt19937 rng(1234);
    const std::vector<std::uint16_t> ports = {1653, 11547, 1648, 4418};
    for (int round = 0; round < 200; ++round) {
        const std::uint16_t port = ports[static_cast<std::size_t>(round) % ports.size()];
        const bool device = round % 5 == 4;
        const int fd = device ? connect_device() : connect_port(static_cast<std::uint16_t>(1 + round % 2), port);
        ASSERT_GE(fd, 0);
        Bytes msg(rng() % 200);
        for (auto& b : msg) b = static_cast<std::uint8_t>(rng());
        if (!msg.empty() && round % 3 == 0) msg[0] = 0;  // a plausible first byte now and then
        ::send(fd, msg.data(), msg.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        ::close(fd);
    }
    expect_served();
    // Closed peers leave no descriptor behind.
    for (int i = 0; i < 50 && open_fds(sim.pid()) > fds_before; ++i) ::usleep(20000);
    EXPECT_LE(open_fds(sim.pid()), fds_before);
}

}  // namespace
}  // namespace e2e
