// Bad input on every socket of the simulator: random bytes, short messages, lengths that
// disagree and unknown commands get an error answer or a closed connection, and a good
// request right after is served.
#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <random>

#include "e2e/e2e_support.hpp"
#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"
#include "ipproto/device.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/wire.hpp"

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

// ---- A flood of mutated messages -----------------------------------------------------------

// One socket of the simulator: where it is, the messages it understands (the seeds of the
// mutations), the greeting a connection starts with (device channel) and a good request
// with the first word of its answer.
struct Target {
    std::string name;
    bool device = false;
    std::uint16_t node = 0;
    std::uint16_t port = 0;
    std::vector<Bytes> seeds;
    Bytes good;
    bool control = false;   // the simulator's control channel
    bool answers = true;    // false: the good request is taken without an answer (a subscription)
};

Bytes be16s(std::initializer_list<std::uint16_t> halves) {
    Bytes out(halves.size() * 2);
    ipc::wire::Writer w(out);
    for (const std::uint16_t v : halves) w.be(v);
    return out;
}

Bytes cat(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// An adjacency message: [type][0][BE16 payload length][BE16 count][payload].
Bytes adj(std::uint8_t type, const Bytes& payload, std::uint16_t count = 1) {
    Bytes out(6);
    ipc::wire::Writer w(out);
    w.be(type).be(std::uint8_t{0}).be(static_cast<std::uint16_t>(payload.size())).be(count);
    return cat(out, payload);
}

// A payload of n zero bytes whose first byte is `code`.
Bytes coded(std::uint8_t code, std::size_t n) {
    Bytes out(n, 0);
    out[0] = code;
    return out;
}

Bytes text(const char* s) { return Bytes(s, s + std::strlen(s)); }

// The protocol-to-CPU channel's enable request of one protocol, answered.
Bytes proen_enable(std::uint32_t protocol) {
    Bytes out(116, 0);
    ipc::wire::Writer w(out);
    w.be(std::uint32_t{1}).be(std::uint32_t{0}).be(std::uint32_t{1}).be(std::uint32_t{20}).be(std::uint16_t{0x60});
    w.zeros(2).be(std::uint32_t{1}).be(protocol).zeros(24).be(std::uint16_t{0x38});
    return out;
}

std::vector<Target> neighbour_targets() {
    std::vector<Target> t;
    const Bytes verify = adj(53, Bytes(48, 0));
    const Bytes of_entry = cat(be32s({kGe1, 0x0A010164, 0, 0, 0, 0, 0, 0, 0, 0}), {});
    t.push_back({"11537@1", false, 1, 11537,
                 {adj(34, be32s({0, 0, 0})), adj(44, be32s({0, 0x0A010102})), adj(52, {}, 0), verify,
                  adj(42, of_entry), adj(43, of_entry), adj(63, {}), adj(64, {}), adj(30, Bytes(52, 1)),
                  adj(32, be32s({0x00070100})), adj(48, Bytes(32, 2)), adj(94, Bytes(16, 3)), adj(98, Bytes(16, 0)),
                  adj(100, Bytes(20, 0)), adj(0, coded(152, 24))},
                 verify});
    const Bytes nd_smooth = adj(11, coded(2, 56));
    t.push_back({"11554@1", false, 1, 11554,
                 {adj(19, be32s({0, 0, 0})), adj(36, {}, 0), adj(65, Bytes(12, 0)), adj(67, Bytes(20, 0)),
                  adj(27, Bytes(48, 0)), nd_smooth, adj(15, Bytes(64, 1)), adj(60, Bytes(44, 0)), adj(80, Bytes(32, 0))},
                 nd_smooth});
    const Bytes evi = adj(0, coded(71, 24));
    t.push_back({"1639@1", false, 1, 1639, {adj(1, Bytes(300, 0)), adj(0, coded(61, 24)), evi, adj(0, coded(83, 24))}, evi});
    const Bytes overlay = adj(0, coded(100, 180));
    t.push_back({"1667@1", false, 1, 1667, {adj(0, coded(26, 180)), overlay}, overlay});
    t.push_back({"1641@1", false, 1, 1641, {adj(5, be32s({0, 0}))}, adj(5, be32s({0, 0})), false, false});
    for (const std::uint16_t port : {std::uint16_t{1680}, std::uint16_t{11557}}) {
        t.push_back({std::to_string(port) + "@1", false, 1, port, {proen_enable(17), proen_enable(6)}, proen_enable(17)});
    }
    const Bytes tables = text(R"({"op": "adj.tables", "family": 4})");
    t.push_back({"control", false, 0, 0,
                 {tables, text(R"({"op": "neigh.list", "family": 2})"), text(R"({"op": "wlan.list"})"),
                  text(R"({"op": "neigh.add", "interface": 2, "address": "10.1.1.77", "mac": "02:00:00:00:00:77"})")},
                 tables, true});
    return t;
}

std::vector<Target> flood_targets() {
    std::vector<Target> t;
    t.push_back({"device", true, 0, 0,
                 {be32s({2, 0xFFFF8000u, 0x260001, 64, 0, 2, 0, 0, 0, 0, 0, 0}), be32s({2, 1, 0x380001, 256, 0, 0}),
                  be32s({7, kGe1, 11}), be32s({3, 1}), be32s({4}), be32s({14, 2, 1, 2}), be32s({16, 0x640001, 1, 8, 11}),
                  be32s({19, 0, 2}), be32s({24, 0, 0, 0})},
                 be32s({1, 0, 0})});
    for (const std::uint16_t node : {std::uint16_t{1}, std::uint16_t{2}}) {
        const std::string n = std::to_string(node);
        t.push_back({"1653@" + n, false, node, 1653,
                     {be32s({8, 12, kGe1, 1, 0}), be32s({0, 24, 1, 8, kGe1, 0}), be32s({5, 16, 1, 0, 0, 0}),
                      be32s({3, 12, kGe1, 1, 1}), be32s({1, 8, kGe1, 0}), be32s({4, 0})},
                     be32s({8, 12, kGe1, 1, 0})});
        t.push_back({"11547@" + n, false, node, 11547,
                     {be32s({1, 16, 0, 0, 0, 0}), be32s({2, 0}), be32s({3, 0}), be32s({1, 16, 1, kGe1, 1, 2})},
                     be32s({1, 16, 0, 0, 0, 0})});
        t.push_back({"1648@" + n, false, node, 1648,
                     {cat(be16s({13, 12, 24, 4}), be32s({kGe1})), cat(cat(be16s({14, 12}), be32s({kGe1})), be16s({1, 2}))},
                     cat(be16s({13, 12, 24, 4}), be32s({kGe1}))});
        t.push_back({"4418@" + n, false, node, 4418,
                     {cat(be16s({1, 12}), be32s({kGe1, 3})), cat(be16s({2, 8}), be32s({kGe1}))},
                     cat(be16s({2, 8}), be32s({kGe1}))});
    }
    for (Target& n : neighbour_targets()) t.push_back(std::move(n));
    return t;
}

// A message of the kinds a hostile or broken peer sends: random bytes, a seed cut short, a
// seed with bytes changed, a seed with a tail, a seed whose length and type words lie, an
// oversized message.
Bytes mutate(std::mt19937& rng, const std::vector<Bytes>& seeds) {
    const auto pick = [&](std::size_t n) { return static_cast<std::size_t>(rng() % n); };
    Bytes m = seeds[pick(seeds.size())];
    switch (rng() % 7) {
    case 0:
        m.resize(pick(300));
        for (auto& b : m) b = static_cast<std::uint8_t>(rng());
        break;
    case 1: m.resize(pick(m.size() + 1)); break;
    case 2:
        for (std::size_t i = 0, n = 1 + pick(4); i < n && !m.empty(); ++i) m[pick(m.size())] = static_cast<std::uint8_t>(rng());
        break;
    case 3:
        for (std::size_t i = 0, n = 1 + pick(64); i < n; ++i) m.push_back(static_cast<std::uint8_t>(rng()));
        break;
    case 4:  // a length or count word that disagrees with the bytes
        if (m.size() >= 8) ipc::wire::store_be(m.data() + 4 * (1 + pick(m.size() / 4 - 1)), static_cast<std::uint32_t>(rng()));
        break;
    case 5:  // an unknown type or call
        if (m.size() >= 4) ipc::wire::store_be(m.data(), static_cast<std::uint32_t>(rng() % 4 == 0 ? rng() : rng() % 64));
        break;
    default:
        if (rng() % 16 == 0) m.resize(40000 + pick(40000), 0xA5);  // oversized, now and then
        break;
    }
    return m;
}

void drain_answers(int fd) {
    std::uint8_t buf[65536];
    while (::recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0) {
    }
}

int connect_control() {
    sockaddr_un sun{};
    return connect_to(sun, ipc::names::control(instance(), &sun));
}

int connect_plain(const Target& t) {
    return t.device ? connect_device() : t.control ? connect_control() : connect_port(t.node, t.port);
}

int connect_target(const Target& t) {
    const int fd = connect_plain(t);
    if (fd >= 0 && t.device) {
        (void)::send(fd, t.good.data(), t.good.size(), MSG_NOSIGNAL);
    }
    return fd;
}

TEST_F(HostileE2E, TenThousandMutatedMessagesOnEverySocketLeaveEachServing) {
    expect_served();  // this process's own device connection is open from here on
    const std::size_t fds_before = open_fds(sim.pid());
    std::mt19937 rng(20261124);
    for (const Target& t : flood_targets()) {
        SCOPED_TRACE(t.name);
        int fd = connect_target(t);
        ASSERT_GE(fd, 0);
        std::size_t reconnects = 0;
        for (int i = 0; i < 10000; ++i) {
            const Bytes m = mutate(rng, t.seeds);
            ssize_t sent = ::send(fd, m.data(), m.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            if (sent < 0 && errno == EAGAIN) {
                drain_answers(fd);
                pollfd p{fd, POLLOUT, 0};
                (void)::poll(&p, 1, 1000);
                sent = ::send(fd, m.data(), m.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
            }
            if (sent < 0 && errno != EAGAIN && errno != EMSGSIZE) {
                // The simulator closed the connection on a message it refuses: start again.
                ::close(fd);
                fd = connect_target(t);
                ASSERT_GE(fd, 0);
                ++reconnects;
            }
            drain_answers(fd);
        }
        ::close(fd);
        // A good request on a fresh connection is answered.
        const int good = connect_plain(t);
        ASSERT_GE(good, 0);
        EXPECT_EQ(send_and_see(good, t.good, t.answers ? 5000 : 300), t.answers ? Outcome::kAnswer : Outcome::kSilent)
            << reconnects << " reconnections";
        ::close(good);
    }
    expect_served();
    // Every connection of the flood is gone: no descriptor left behind.
    for (int i = 0; i < 100 && open_fds(sim.pid()) > fds_before; ++i) ::usleep(20000);
    EXPECT_LE(open_fds(sim.pid()), fds_before);
}

}  // namespace
}  // namespace e2e
