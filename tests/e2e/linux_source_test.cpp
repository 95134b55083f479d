// The simulated device mirroring a Linux network namespace (ipsimd --source linux): what
// `ip` changes in the namespace reaches the library's lookups and event callbacks, the
// namespace's counters become the IP module's, and a writable device carries address
// configuration and neighbour resolution out in the namespace.
//
// Each test makes a namespace of its own and a peer namespace at the far end of a veth
// pair: v0 (10.77.0.1/24, 2001:db8:77::1/64) in the mirrored namespace, v1 (10.77.0.2/24,
// 2001:db8:77::2/64) in the peer. Tests are skipped where namespaces cannot be made.
#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/arp.h"
#include "ipclient/fib.h"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/ipstat.h"
#include "ipclient/nd.h"
#include "ipproto/raii.hpp"
#include "ipproto/wire.hpp"

namespace e2e {
namespace {

using nlohmann::json;
using Mac = std::array<std::uint8_t, 6>;

// ARP and ND entry states and kinds as the modules report them.
constexpr std::uint16_t kReachable = 1, kStale = 2;
constexpr std::uint8_t kDynamic = 1, kStatic = 2;
// Event types of the adjacency services.
constexpr std::uint32_t kAdded = 0, kDeleted = 2;
constexpr std::uint32_t kAddrAdd = 1, kAddrDelete = 2;

// Polls until the condition holds, at most `limit`.
bool eventually(const std::function<bool()>& cond, std::chrono::milliseconds limit = std::chrono::seconds(3)) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return true;
}

std::array<std::uint8_t, 16> ip6(const char* text) {
    std::array<std::uint8_t, 16> a{};
    EXPECT_EQ(::inet_pton(AF_INET6, text, a.data()), 1) << text;
    return a;
}

Mac mac_of(const std::string& text) {
    Mac m{};
    unsigned v[6] = {};
    EXPECT_EQ(std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x", &v[0], &v[1], &v[2], &v[3], &v[4], &v[5]), 6) << text;
    for (int i = 0; i < 6; ++i) m[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(v[i]);
    return m;
}

Mac mac_at(const std::uint8_t* p) {
    Mac m{};
    std::memcpy(m.data(), p, 6);
    return m;
}

template <class T>
T host_at(const std::uint8_t* p) {
    T v{};
    std::memcpy(&v, p, sizeof v);
    return v;
}

std::string dashed(const Mac& m) {
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x-%02x-%02x-%02x-%02x-%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

// Runs fn on a thread of its own inside the namespace (the test process stays where it is).
void inside(const std::string& ns, const std::function<void()>& fn) {
    std::thread t([&] {
        const ipc::Fd target(::open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(target.valid()) << ns;
        ASSERT_EQ(::setns(target.get(), CLONE_NEWNET), 0) << std::strerror(errno);
        fn();
    });
    t.join();
}

// One counter of the namespace's /proc/net/snmp ("Icmp", "InDestUnreachs").
std::uint64_t snmp_counter(const std::string& ns, const std::string& group, const std::string& name) {
    std::uint64_t value = 0;
    inside(ns, [&] {
        std::ifstream in("/proc/thread-self/net/snmp");
        std::string names, values;
        while (std::getline(in, names) && std::getline(in, values)) {
            if (names.rfind(group + ":", 0) != 0) continue;
            std::istringstream n(names), v(values);
            std::string a, b;
            while (n >> a && v >> b) {
                if (a == name) value = std::stoull(b);
            }
        }
    });
    return value;
}

class LinuxSourceE2E : public ::testing::Test {
protected:
    void SetUp() override {
        ip_ = ip_program();
        if (ip_.empty()) GTEST_SKIP() << "the ip program is not installed: namespaces cannot be made";
        if (::geteuid() != 0) GTEST_SKIP() << "not root: network namespaces cannot be made";
        static int made = 0;
        ns_ = "ipsim-test-" + std::to_string(::getpid()) + "-" + std::to_string(++made);
        peer_ = ns_ + "-p";
        std::string err;
        if (run({ip_, "netns", "add", ns_}, nullptr, &err) != 0) GTEST_SKIP() << "cannot make a namespace: " << err;
        made_ns_ = true;
        ASSERT_EQ(run({ip_, "netns", "add", peer_}, nullptr, &err), 0) << err;
        made_peer_ = true;
        in_ns({"link", "set", "lo", "up"});
        in_ns({"link", "add", "v0", "type", "veth", "peer", "name", "v1", "netns", peer_});
        in_ns({"link", "set", "v0", "up"});
        in_peer({"link", "set", "v1", "up"});
        in_ns({"addr", "add", "10.77.0.1/24", "dev", "v0"});
        in_ns({"addr", "add", "2001:db8:77::1/64", "dev", "v0", "nodad"});
        in_peer({"addr", "add", "10.77.0.2/24", "dev", "v1"});
        in_peer({"addr", "add", "2001:db8:77::2/64", "dev", "v1", "nodad"});
        v0_ = link_index(ns_, "v0");
        ASSERT_NE(v0_, 0u);
    }

    void TearDown() override {
        if (sim.running()) {
            EXPECT_EQ(sim.stop(), 0) << sim.log();
        }
        if (made_peer_) (void)run({ip_, "netns", "del", peer_}, nullptr);
        if (made_ns_) (void)run({ip_, "netns", "del", ns_}, nullptr);
    }

    void start(bool writable = false) {
        std::vector<std::string> args{"--source", "linux", "--netns", ns_};
        if (writable) args.push_back("--writable");
        ASSERT_TRUE(sim.start(args)) << sim.log();
    }

    // `ip -n NS ARGS`; the test fails when it does.
    std::string in_ns(const std::vector<std::string>& args) { return ip_in(ns_, args); }
    std::string in_peer(const std::vector<std::string>& args) { return ip_in(peer_, args); }
    std::string ip_in(const std::string& ns, const std::vector<std::string>& args) {
        std::vector<std::string> argv{ip_, "-n", ns};
        argv.insert(argv.end(), args.begin(), args.end());
        std::string out, err;
        EXPECT_EQ(run(argv, &out, &err), 0) << "ip -n " << ns << " ...: " << err;
        return out;
    }

    json link_json(const std::string& ns, const std::string& name) {
        const json j = json::parse(ip_in(ns, {"-j", "link", "show", "dev", name}), nullptr, false);
        return j.is_array() && !j.empty() ? j[0] : json::object();
    }
    std::uint32_t link_index(const std::string& ns, const std::string& name) {
        return link_json(ns, name).value("ifindex", 0u);
    }
    Mac link_mac(const std::string& ns, const std::string& name) {
        return mac_of(link_json(ns, name).value("address", std::string()));
    }
    // True when `ip -4 addr show dev v0` in the namespace lists the text.
    bool v0_lists(const std::string& text) {
        return in_ns({"-4", "addr", "show", "dev", "v0"}).find(text) != std::string::npos;
    }

    std::string ip_;
    std::string ns_, peer_;
    bool made_ns_ = false, made_peer_ = false;
    std::uint32_t v0_ = 0;
    SimProcess sim;
};

// ---- Addresses --------------------------------------------------------------------------------

std::vector<IPAddrEntry> walk(std::uint32_t ifindex) {
    std::vector<IPAddrEntry> out;
    IPAddrEntry e{};
    for (std::uint32_t rc = IPAddr_GetFirstAddr(ifindex, 0, &e); rc == 0 && out.size() < 100;
         rc = IPAddr_GetNextAddr(ifindex, 0, &e)) {
        out.push_back(e);
    }
    return out;
}

TEST_F(LinuxSourceE2E, TheNamespaceAddressesAreTheInterfaceAddresses) {
    in_ns({"addr", "add", "10.77.0.9/24", "dev", "v0"});  // a secondary address
    start();
    const auto all = walk(v0_);
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(dotted(all[0].stKey.uiAddr), "10.77.0.1");
    EXPECT_EQ(dotted(all[0].stKey.uiMask), "255.255.255.0");
    EXPECT_EQ(all[0].stKey.uiIfIndex, v0_);
    EXPECT_EQ(all[0].stKey.usVrfIndex, 0u);
    EXPECT_EQ(all[0].stKey.uiMethod, IPADDR_METHOD_MANUAL);
    EXPECT_EQ(all[0].uiFlag & 1u, 0u) << "the primary address";
    EXPECT_EQ(dotted(all[1].stKey.uiAddr), "10.77.0.9");
    EXPECT_EQ(all[1].uiFlag & 1u, 1u) << "the kernel marks it secondary";
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.77.0.9"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, v0_);
    EXPECT_NE(lookup_any(ip("10.77.0.2"), &info), 0u) << "the peer's address is not the device's";
}

TEST_F(LinuxSourceE2E, AddressesThatIpAddsAndDeletesReachLookupsAndSubscribers) {
    start();
    static std::vector<std::pair<std::uint32_t, IPAddrEntry>> seen;
    seen.clear();
    const std::int32_t fd = IPAddr_RegisterEvent(0, v0_, 0, 0, [](std::uint32_t ev, IPAddrEntry* e, std::uint32_t,
                                                                   std::uint32_t, std::uint32_t, std::uint32_t) -> std::uint32_t {
        seen.emplace_back(ev, *e);
        return 0;
    });
    ASSERT_GE(fd, 0);
    auto saw = [&](std::uint32_t ev, const char* addr) {
        return eventually([&] {
            pollfd p{fd, POLLIN, 0};
            if (::poll(&p, 1, 20) == 1) (void)IPAddr_HandleEvent(fd);
            for (const auto& [e, entry] : seen) {
                if (e == ev && entry.stKey.uiAddr == ip(addr)) return true;
            }
            return false;
        }, std::chrono::seconds(1));
    };
    in_ns({"addr", "add", "10.78.0.1/16", "dev", "v0"});
    ASSERT_TRUE(saw(kAddrAdd, "10.78.0.1")) << sim.log();
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.78.0.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, v0_);
    EXPECT_EQ(dotted(info.stEntry.stKey.uiMask), "255.255.0.0");
    in_ns({"addr", "del", "10.78.0.1/16", "dev", "v0"});
    ASSERT_TRUE(saw(kAddrDelete, "10.78.0.1")) << sim.log();
    EXPECT_NE(lookup_any(ip("10.78.0.1"), &info), 0u);
    IPAddr_DeregisterEvent(fd);
}

// ---- Routes -------------------------------------------------------------------------------------

std::uint64_t search4(const char* dest, const char* mask, std::uint32_t instance, std::uint8_t* entries) {
    FIB4_SEARCH_KEY_S k{};
    k.uiInstance = instance;
    k.usFamily = 2;
    k.uiDest = ip(dest);
    k.uiMask = ip(mask);
    std::uint64_t count = 4;
    EXPECT_EQ(FIB4_SearchInfo(&k, &count, entries), 0u);
    return count;
}

std::string file_text(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

TEST_F(LinuxSourceE2E, RoutesOfTheMainTableAndOfAnotherTableAreFibEntries) {
    start();
    const Mac peer_mac{0x02, 0x00, 0x00, 0x00, 0x77, 0x02};
    in_ns({"neigh", "replace", "10.77.0.2", "lladdr", "02:00:00:00:77:02", "dev", "v0", "nud", "permanent"});
    in_ns({"route", "add", "10.88.0.0/16", "via", "10.77.0.2"});
    // A VRF device where the kernel has them; a plain second table elsewhere. Either way the
    // table is VRF 1.
    std::string err;
    const bool vrf_device =
        run({ip_, "-n", ns_, "link", "add", "blue", "type", "vrf", "table", "10"}, nullptr, &err) == 0;
    in_ns({"route", "add", "10.99.0.0/24", "dev", "v0", "table", "10"});
    in_ns({"-6", "route", "add", "2001:db8:99::/64", "via", "2001:db8:77::2"});

    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    ASSERT_TRUE(eventually([&] { return search4("10.88.0.0", "255.255.0.0", 0xFFFFFFFFu, entries) == 1; },
                           std::chrono::seconds(1)))
        << sim.log();
    EXPECT_EQ(host_at<std::uint16_t>(entries + FIB_ENTRY_FAMILY_OFFSET), 2u);
    EXPECT_EQ(dotted(host_at<std::uint32_t>(entries + FIB_ENTRY_NEXTHOP_OFFSET)), "10.77.0.2");
    EXPECT_EQ(host_at<std::uint32_t>(entries + 4), v0_) << "the out interface";
    EXPECT_EQ(host_at<std::uint32_t>(entries + FIB_ENTRY_FLAGS_OFFSET) & 1u, 1u) << "active";
    ASSERT_TRUE(eventually([&] { return search4("10.99.0.0", "255.255.255.0", 1, entries) == 1; },
                           std::chrono::seconds(1)));
    EXPECT_EQ(host_at<std::uint32_t>(entries + 0), 1u) << "VRF 1";
    EXPECT_EQ(search4("10.99.0.0", "255.255.255.0", 0, entries), 0u) << "not in the public VRF";

    std::array<std::uint8_t, 44> key6{};
    const std::uint32_t any = 0xFFFFFFFFu;
    const std::uint16_t family6 = 10;
    std::memcpy(key6.data(), &any, 4);
    std::memcpy(key6.data() + 4, &family6, 2);
    std::memcpy(key6.data() + 8, ip6("2001:db8:99::").data(), 16);
    key6[24] = 64;
    std::uint64_t count6 = 4;
    ASSERT_TRUE(eventually([&] {
        count6 = 4;
        return FIB6_SearchInfo(key6.data(), &count6, entries) == 0 && count6 == 1;
    }, std::chrono::seconds(1)));
    EXPECT_EQ(std::memcmp(entries + FIB_ENTRY_NEXTHOP_OFFSET, ip6("2001:db8:77::2").data(), 16), 0);

    // The forwarding-table file: the public route with the next hop's and the port's MACs.
    const std::string path = sim.state_dir() + "/fib.txt";
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    const std::string text = file_text(path);
    EXPECT_EQ(text.rfind("[FIB Info]\r\n", 0), 0u);
    const std::string route = "{1, 0, 0}, {public, 10.88.0.0/16} -> {10.77.0.2, v0, Null}, {" + dashed(peer_mac) +
                              ", " + dashed(link_mac(ns_, "v0")) + ", 0/0, v0}\r\n";
    EXPECT_NE(text.find(route), std::string::npos) << text;
    const std::string vrf_name = vrf_device ? "blue" : "table10";
    EXPECT_NE(text.find("{1, 0, 0}, {" + vrf_name + ", 10.99.0.0/24} -> {0.0.0.0, v0, Null}"), std::string::npos) << text;
    EXPECT_NE(text.find("{public, 10.77.0.0/24} -> {0.0.0.0, v0, Null}"), std::string::npos) << text;

    in_ns({"route", "del", "10.88.0.0/16"});
    EXPECT_TRUE(eventually([&] { return search4("10.88.0.0", "255.255.0.0", 0xFFFFFFFFu, entries) == 0; },
                           std::chrono::seconds(1)));
}

// ---- Neighbours ---------------------------------------------------------------------------------

struct ArpSeen {
    std::uint32_t type;
    std::array<std::uint8_t, ARP_EVENT_ENTRY_LEN> entry;
};
struct NdSeen {
    std::uint32_t type;
    NdEventRecord rec;
};
std::vector<ArpSeen> g_arp;
std::vector<NdSeen> g_nd;

std::uint32_t on_arp(std::uint32_t type, void* entry, std::uint16_t) {
    ArpSeen s{type, {}};
    std::memcpy(s.entry.data(), entry, s.entry.size());
    g_arp.push_back(s);
    return 0;
}

std::uint32_t on_nd(std::uint32_t type, NdEventRecord* rec) {
    g_nd.push_back({type, *rec});
    return 0;
}

// Processes both subscriptions' events until the condition holds (at most a second).
bool drain(int arp_fd, int nd_fd, const std::function<bool()>& done) {
    return eventually([&] {
        pollfd p[2] = {{arp_fd, POLLIN, 0}, {nd_fd, POLLIN, 0}};
        if (::poll(p, 2, 20) > 0) {
            if ((p[0].revents & POLLIN) != 0) {
                EXPECT_EQ(ARP_ProcEvent(arp_fd), 0u);
            }
            if ((p[1].revents & POLLIN) != 0) {
                EXPECT_EQ(ND_ProcEvent(static_cast<std::uint32_t>(nd_fd)), 0u);
            }
        }
        return done();
    }, std::chrono::seconds(1));
}

void wait_subscribers(int family) {
    EXPECT_TRUE(eventually([&] {
        return control({{"op", "adj.tables"}, {"family", family}}).value("subscribers", std::size_t{0}) >= 1;
    }));
}

bool arp_saw(std::uint32_t type, const char* addr) {
    for (const auto& s : g_arp) {
        if (s.type == type && host_at<std::uint32_t>(s.entry.data() + 4) == ip(addr)) return true;
    }
    return false;
}

bool nd_saw(std::uint32_t type, const char* addr) {
    for (const auto& s : g_nd) {
        if (s.type == type && std::memcmp(s.rec.aucAddr, ip6(addr).data(), 16) == 0) return true;
    }
    return false;
}

TEST_F(LinuxSourceE2E, NeighboursThatIpSetsReachQueriesAndSubscribers) {
    start();
    g_arp.clear();
    g_nd.clear();
    const int arp_fd = ARP_RegEvent(0, 0, on_arp);
    const int nd_fd = ND_RegEvent(0, 0, on_nd);
    ASSERT_GE(arp_fd, 0);
    ASSERT_GE(nd_fd, 0);
    wait_subscribers(4);
    wait_subscribers(6);

    in_ns({"neigh", "add", "10.77.0.50", "lladdr", "02:00:00:00:00:50", "dev", "v0", "nud", "reachable"});
    in_ns({"neigh", "add", "10.77.0.51", "lladdr", "02:00:00:00:00:51", "dev", "v0", "nud", "permanent"});
    in_ns({"-6", "neigh", "add", "2001:db8:77::50", "lladdr", "02:00:00:00:00:60", "dev", "v0", "nud", "stale"});
    ASSERT_TRUE(drain(arp_fd, nd_fd, [] {
        return arp_saw(kAdded, "10.77.0.50") && arp_saw(kAdded, "10.77.0.51") && nd_saw(kAdded, "2001:db8:77::50");
    })) << sim.log();
    for (const auto& s : g_arp) {
        if (s.type != kAdded || host_at<std::uint32_t>(s.entry.data() + 4) != ip("10.77.0.50")) continue;
        EXPECT_EQ(host_at<std::uint32_t>(s.entry.data()), v0_);
        EXPECT_EQ(mac_at(s.entry.data() + 20), (Mac{0x02, 0, 0, 0, 0, 0x50}));
    }

    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.77.0.50"), &e), 0u);
    const std::uint8_t* d = e.aucData;
    EXPECT_EQ(host_at<std::uint32_t>(d), ip("10.77.0.50"));
    EXPECT_EQ(host_at<std::uint32_t>(d + 4), v0_);
    EXPECT_EQ(host_at<std::uint16_t>(d + 14), 0u) << "VRF";
    EXPECT_EQ(host_at<std::uint16_t>(d + 16), 1u) << "node";
    EXPECT_EQ(mac_at(d + 18), (Mac{0x02, 0, 0, 0, 0, 0x50}));
    EXPECT_EQ(host_at<std::uint16_t>(d + 24), kReachable);
    EXPECT_EQ(d[26], kDynamic);
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.77.0.51"), &e), 0u);
    EXPECT_EQ(e.aucData[26], kStatic) << "a permanent neighbour is a static entry";

    NdEntryInfo n{};
    const auto a = ip6("2001:db8:77::50");
    ASSERT_EQ(ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, v0_, a.data(), &n), 0u);
    EXPECT_EQ(n.uiIfIndex, v0_);
    EXPECT_EQ(mac_at(n.aucLinkAddr), (Mac{0x02, 0, 0, 0, 0, 0x60}));
    EXPECT_EQ(n.ucState, kStale);
    EXPECT_EQ(n.ucKind, kDynamic);

    in_ns({"neigh", "del", "10.77.0.50", "dev", "v0"});
    in_ns({"-6", "neigh", "del", "2001:db8:77::50", "dev", "v0"});
    ASSERT_TRUE(drain(arp_fd, nd_fd, [] { return arp_saw(kDeleted, "10.77.0.50") && nd_saw(kDeleted, "2001:db8:77::50"); }))
        << sim.log();
    EXPECT_NE(ARP_GetEntryByIP(ip("10.77.0.50"), &e), 0u);
    EXPECT_NE(ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, v0_, a.data(), &n), 0u);
    ARP_DeregEvent(arp_fd);
    ND_DeregEvent(nd_fd);
}

TEST_F(LinuxSourceE2E, ADeletedLinkTakesItsAddressesRoutesAndNeighbours) {
    in_ns({"link", "add", "v2", "type", "veth", "peer", "name", "v3", "netns", peer_});
    in_ns({"link", "set", "v2", "up"});
    in_ns({"addr", "add", "10.80.0.1/24", "dev", "v2"});
    in_ns({"route", "add", "10.81.0.0/16", "via", "10.80.0.2"});
    in_ns({"neigh", "add", "10.80.0.2", "lladdr", "02:00:00:00:80:02", "dev", "v2", "nud", "permanent"});
    start();
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    IPAddrInfo info{};
    ARP_ENTRY_S e{};
    ASSERT_EQ(lookup_any(ip("10.80.0.1"), &info), 0u);
    ASSERT_EQ(search4("10.81.0.0", "255.255.0.0", 0, entries), 1u);
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.80.0.2"), &e), 0u);
    in_ns({"link", "del", "v2"});
    EXPECT_TRUE(eventually([&] {
        return lookup_any(ip("10.80.0.1"), &info) != 0 && search4("10.81.0.0", "255.255.0.0", 0, entries) == 0 &&
               ARP_GetEntryByIP(ip("10.80.0.2"), &e) != 0;
    }, std::chrono::seconds(1)))
        << sim.log();
}

// ---- Writing to the namespace ---------------------------------------------------------------------

TEST_F(LinuxSourceE2E, AWritableDeviceConfiguresAddressesInTheNamespace) {
    start(true);
    ASSERT_EQ(IPCfg_AddManualAddr(v0_, ip("10.79.0.1"), ip("255.255.255.0"), 1), 0u) << sim.log();
    EXPECT_TRUE(v0_lists("inet 10.79.0.1/24")) << in_ns({"-4", "addr", "show", "dev", "v0"});
    IPAddrInfo info{};
    ASSERT_EQ(lookup_any(ip("10.79.0.1"), &info), 0u);
    EXPECT_EQ(info.stEntry.stKey.uiIfIndex, v0_);
    ASSERT_EQ(IPCfg_DelManualAddr(v0_, ip("10.79.0.1"), ip("255.255.255.0"), 1), 0u);
    EXPECT_FALSE(v0_lists("10.79.0.1"));
    EXPECT_NE(lookup_any(ip("10.79.0.1"), &info), 0u);
    EXPECT_TRUE(v0_lists("inet 10.77.0.1/24")) << "the namespace's own address stays";
}

TEST_F(LinuxSourceE2E, AReadOnlyDeviceLeavesTheNamespaceAsItIs) {
    start();
    const std::string before = in_ns({"-4", "addr", "show"});
    ASSERT_EQ(IPCfg_AddManualAddr(v0_, ip("10.79.0.1"), ip("255.255.255.0"), 1), 0u);
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.79.0.1"), &info), 0u) << "the device has it";
    EXPECT_EQ(in_ns({"-4", "addr", "show"}), before) << "the namespace does not";
    EXPECT_EQ(ARP_Request(v0_, ip("10.77.0.1"), ip("10.77.0.2"), nullptr), 0u);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(in_ns({"neigh", "show", "10.77.0.2", "dev", "v0"}), "") << "no resolution was asked of the kernel";
}

TEST_F(LinuxSourceE2E, AWritableDeviceHasTheKernelResolveNeighbours) {
    start(true);
    const Mac v1 = link_mac(peer_, "v1");
    EXPECT_EQ(ARP_Request(v0_, ip("10.77.0.1"), ip("10.77.0.2"), nullptr), 0u);
    ARP_ENTRY_S e{};
    ASSERT_TRUE(eventually([&] {
        return ARP_GetEntryByIP(ip("10.77.0.2"), &e) == 0 && host_at<std::uint16_t>(e.aucData + 24) == kReachable;
    })) << sim.log() << in_ns({"neigh", "show"});
    EXPECT_EQ(mac_at(e.aucData + 18), v1) << "the peer answered the kernel's request";
    NdIPv6Addr target{};
    std::memcpy(target.aucAddr, ip6("2001:db8:77::2").data(), 16);
    EXPECT_EQ(ND_Resolve(target, v0_), 0u);
    NdEntryInfo n{};
    ASSERT_TRUE(eventually([&] {
        return ND_GetEntryInfo(ND_ENTRY_CMD_EXACT, 0, v0_, target.aucAddr, &n) == 0 && n.ucState == kReachable;
    })) << sim.log() << in_ns({"-6", "neigh", "show"});
    EXPECT_EQ(mac_at(n.aucLinkAddr), v1);
}

// ---- Counters and persistence ---------------------------------------------------------------------

TEST_F(LinuxSourceE2E, CountersFollowTheNamespace) {
    start();
    const std::uint32_t lo = link_index(ns_, "lo");
    // Five datagrams to a port nobody listens on: five port-unreachable messages come back.
    inside(ns_, [] {
        const ipc::Fd s(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(s.valid());
        sockaddr_in to{};
        to.sin_family = AF_INET;
        ipc::wire::store_be(&to.sin_port, std::uint16_t{9});
        to.sin_addr.s_addr = ip("10.77.0.2");
        for (int i = 0; i < 5; ++i) {
            (void)::sendto(s.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    // The peer may hold some answers back (ICMP rate limits): wait for the five, take what came.
    (void)eventually([&] { return snmp_counter(ns_, "Icmp", "InDestUnreachs") >= 5; });
    const std::uint64_t unreachable = snmp_counter(ns_, "Icmp", "InDestUnreachs");
    ASSERT_GE(unreachable, 1u);
    std::uint32_t icmp[43] = {};
    ASSERT_TRUE(eventually([&] { return IP_GetICMPIfStat(lo, icmp) == 0 && icmp[4] == unreachable; }))
        << "in_unreachable " << icmp[4] << ", the namespace counted " << unreachable;
    EXPECT_EQ(icmp[0], snmp_counter(ns_, "Icmp", "InMsgs"));
    std::uint32_t counters[26] = {};
    EXPECT_TRUE(eventually([&] {
        IP_GetStat(counters);
        return counters[9] >= 5u;
    })) << "out_local " << counters[9];
    std::uint64_t mib[19] = {};
    EXPECT_TRUE(eventually([&] {
        std::memset(mib, 0, sizeof mib);
        return IP_GetMibIfStat(v0_, mib) == 0 && mib[17] >= 5u && mib[0] >= 5u;
    })) << "out_transmits " << mib[17] << ", in_receives " << mib[0];
}

TEST_F(LinuxSourceE2E, ClientAddressesPersistAndNamespaceAddressesDoNot) {
    in_ns({"addr", "add", "10.77.0.9/24", "dev", "v0"});
    start();
    ASSERT_EQ(IPCfg_AddManualAddr(v0_, ip("10.79.0.1"), ip("255.255.255.0"), 1), 0u);
    ASSERT_EQ(sim.stop(), 0);
    in_ns({"addr", "del", "10.77.0.9/24", "dev", "v0"});
    start();
    IPAddrInfo info{};
    EXPECT_EQ(lookup_any(ip("10.79.0.1"), &info), 0u) << "the client's address came back from the state";
    EXPECT_NE(lookup_any(ip("10.77.0.9"), &info), 0u) << "the namespace no longer has it";
    EXPECT_EQ(lookup_any(ip("10.77.0.1"), &info), 0u);
}

TEST(LinuxSourceOptions, AMissingNamespaceOrStrayOptionsAreRefused) {
    std::string out, err;
    EXPECT_EQ(run({IPSIMD_PATH, "--instance", instance() + "-x", "--source", "linux", "--netns", "ipsim-none-such"}, &out,
                  &err),
              1);
    EXPECT_NE(err.find("ipsim-none-such"), std::string::npos) << err;
    EXPECT_EQ(run({IPSIMD_PATH, "--instance", instance() + "-x", "--netns", "a"}, &out, &err), 2);
    EXPECT_EQ(run({IPSIMD_PATH, "--instance", instance() + "-x", "--source", "linux", "--scenario", "x.yaml"}, &out, &err),
              2);
}

}  // namespace
}  // namespace e2e

// ---- Settings of the namespace ------------------------------------------------------------------

namespace e2e {
namespace {

class LinuxSettingsE2E : public LinuxSourceE2E {
protected:
    // Writes and reads /proc/sys/net/ipv4/NAME inside the namespace.
    void set_sysctl(const std::string& name, const std::string& value) {
        std::string err;
        ASSERT_EQ(run({ip_, "netns", "exec", ns_, "sh", "-c", "echo " + value + " > /proc/sys/net/ipv4/" + name}, nullptr,
                      &err),
                  0)
            << err;
    }
    std::string sysctl(const std::string& name) {
        std::string out;
        EXPECT_EQ(run({ip_, "netns", "exec", ns_, "cat", "/proc/sys/net/ipv4/" + name}, &out), 0);
        while (!out.empty() && out.back() == '\n') out.pop_back();
        return out;
    }
};

// The node's default TTL and forwarding are the namespace's, and follow it (not the
// device's own 255); a read-only device keeps the namespace as it is.
TEST_F(LinuxSettingsE2E, DefaultTtlAndForwardingAreTheNamespaces) {
    set_sysctl("ip_default_ttl", "64");
    set_sysctl("ip_forward", "0");
    start();
    EXPECT_TRUE(eventually([] { return IP_GetDefTTL() == 64u; })) << IP_GetDefTTL();
    std::uint32_t conf[4] = {};
    ASSERT_EQ(IP_GetConf(sizeof conf, conf), 0u);
    EXPECT_EQ(conf[0], 0u) << "forwarding off, as in the namespace";
    EXPECT_EQ(conf[1], 64u);
    set_sysctl("ip_default_ttl", "77");
    set_sysctl("ip_forward", "1");
    EXPECT_TRUE(eventually([] { return IP_GetDefTTL() == 77u; })) << IP_GetDefTTL();
    EXPECT_TRUE(eventually([&] { return IP_GetConf(sizeof conf, conf) == 0 && conf[0] == 1u; }));
    // Read only: the device takes the setting, the namespace does not, and the device
    // follows the namespace again.
    EXPECT_EQ(IP_SetIPDefaultTTL(99, 1), 0u);
    EXPECT_EQ(sysctl("ip_default_ttl"), "77");
    EXPECT_TRUE(eventually([] { return IP_GetDefTTL() == 77u; })) << IP_GetDefTTL();
}

// A writable device sets the namespace's default TTL through IP_SetIPDefaultTTL.
TEST_F(LinuxSettingsE2E, AWritableDeviceSetsTheNamespacesDefaultTtl) {
    set_sysctl("ip_default_ttl", "64");
    start(true);
    EXPECT_TRUE(eventually([] { return IP_GetDefTTL() == 64u; })) << IP_GetDefTTL();
    ASSERT_EQ(IP_SetIPDefaultTTL(99, 1), 0u) << sim.log();
    EXPECT_EQ(sysctl("ip_default_ttl"), "99");
    EXPECT_EQ(IP_GetDefTTL(), 99u);
    EXPECT_NE(IP_SetIPDefaultTTL(0, 1), 0u) << "out of range: refused, the namespace unchanged";
    EXPECT_EQ(sysctl("ip_default_ttl"), "99");
}

}  // namespace
}  // namespace e2e

// ---- Routes as the kernel uses them -------------------------------------------------------------

namespace e2e {
namespace {

class LinuxRoutesE2E : public LinuxSourceE2E {
protected:
    void SetUp() override {
        LinuxSourceE2E::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        in_ns({"link", "add", "v2", "type", "veth", "peer", "name", "v3", "netns", peer_});
        in_ns({"link", "set", "v2", "up"});
        in_peer({"link", "set", "v3", "up"});
        in_ns({"addr", "add", "10.88.0.1/24", "dev", "v2"});
        in_peer({"addr", "add", "10.88.0.2/24", "dev", "v3"});
        v2_ = link_index(ns_, "v2");
    }

    // The gateway of the device's entry for 10.150.0.0/16 in the public VRF, "" when none.
    std::string device_gateway() {
        std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
        if (search4("10.150.0.0", "255.255.0.0", 0, entries) != 1) return "";
        return dotted(host_at<std::uint32_t>(entries + FIB_ENTRY_NEXTHOP_OFFSET));
    }
    // The gateway the kernel forwards 10.150.1.1 by (ip -j route get), "" when none.
    std::string kernel_gateway() {
        std::string out, err;
        if (run({ip_, "-n", ns_, "-j", "route", "get", "10.150.1.1"}, &out, &err) != 0) return "";
        const json j = json::parse(out, nullptr, false);
        return j.is_array() && !j.empty() ? j[0].value("gateway", "") : "";
    }
    // The device follows the kernel: the same gateway, within a second.
    void expect_as_the_kernel(const std::string& want) {
        EXPECT_EQ(kernel_gateway(), want) << in_ns({"route", "show", "10.150.0.0/16"});
        EXPECT_TRUE(eventually([&] { return device_gateway() == want; }, std::chrono::seconds(2)))
            << "device " << device_gateway() << ", kernel " << want << "\n" << in_ns({"route", "show", "10.150.0.0/16"});
    }

    std::uint32_t v2_ = 0;
};

// Of two routes of one prefix the device keeps the one the kernel uses, the lowest metric,
// whichever came first; deleting it promotes the other.
TEST_F(LinuxRoutesE2E, TheLowestMetricIsTheDevicesEntryAndItsDeletionPromotesTheNext) {
    start();
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.88.0.2", "dev", "v2", "metric", "50"});
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.77.0.2", "dev", "v0", "metric", "100"});
    expect_as_the_kernel("10.88.0.2");
    in_ns({"route", "del", "10.150.0.0/16", "metric", "50"});
    expect_as_the_kernel("10.77.0.2");
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.88.0.2", "dev", "v2", "metric", "20"});
    expect_as_the_kernel("10.88.0.2");
    in_ns({"route", "del", "10.150.0.0/16", "metric", "100"});
    expect_as_the_kernel("10.88.0.2");
    in_ns({"route", "del", "10.150.0.0/16", "metric", "20"});
    EXPECT_TRUE(eventually([&] { return device_gateway().empty(); }, std::chrono::seconds(2)));
}

// A key's only route, then a second one, then the first one gone: the device's entry follows
// (the key moves from one route to alternates and back); a deletion that names another
// route of the prefix (another gateway or metric) removes nothing.
TEST_F(LinuxRoutesE2E, AKeyGoesFromOneRouteToAlternatesAndBack) {
    start();
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.77.0.2", "dev", "v0", "metric", "100"});
    expect_as_the_kernel("10.77.0.2");
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.88.0.2", "dev", "v2", "metric", "200"});
    expect_as_the_kernel("10.77.0.2");
    in_ns({"route", "del", "10.150.0.0/16", "via", "10.77.0.2", "metric", "100"});
    expect_as_the_kernel("10.88.0.2");
    // One route again; the kernel refuses a deletion of a route it does not have.
    std::string out, err;
    EXPECT_NE(run({ip_, "-n", ns_, "route", "del", "10.150.0.0/16", "via", "10.77.0.2", "metric", "200"}, &out, &err), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    expect_as_the_kernel("10.88.0.2");
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.77.0.2", "dev", "v0", "metric", "50"});
    expect_as_the_kernel("10.77.0.2");
    in_ns({"route", "del", "10.150.0.0/16", "metric", "50"});
    expect_as_the_kernel("10.88.0.2");
    in_ns({"route", "del", "10.150.0.0/16", "metric", "200"});
    EXPECT_TRUE(eventually([&] { return device_gateway().empty(); }, std::chrono::seconds(2)));
}

// A link with no IPv4 route goes down and up: the routes are read again (twice), find
// nothing changed, and write nothing: the IPv4 route-change number stays.
TEST_F(LinuxRoutesE2E, ReadingUnchangedRoutesAgainChangesNoRoute) {
    in_ns({"link", "add", "v4", "type", "veth", "peer", "name", "v5"});
    in_ns({"link", "set", "v5", "up"});
    in_ns({"link", "set", "v4", "up"});
    start();
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.77.0.2", "dev", "v0"});
    expect_as_the_kernel("10.77.0.2");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::uint32_t before = FIB4_GetRouteChangeSeq();
    in_ns({"link", "set", "v4", "down"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    in_ns({"link", "set", "v4", "up"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(FIB4_GetRouteChangeSeq(), before);
    // A change is a change: the number moves.
    in_ns({"route", "add", "10.151.0.0/16", "via", "10.77.0.2", "dev", "v0"});
    EXPECT_TRUE(eventually([&] { return FIB4_GetRouteChangeSeq() != before; }, std::chrono::seconds(2)));
}

// A link that goes down and comes up: the device keeps what the kernel keeps, whatever the
// kernel told or did not tell.
TEST_F(LinuxRoutesE2E, ALinkFlapKeepsTheRoutesTheKernelKeeps) {
    start();
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.88.0.2", "dev", "v2", "metric", "50"});
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.77.0.2", "dev", "v0", "metric", "100"});
    expect_as_the_kernel("10.88.0.2");
    in_ns({"link", "set", "v2", "down"});
    expect_as_the_kernel("10.77.0.2");
    in_ns({"link", "set", "v2", "up"});
    // Whatever the kernel now uses (it dropped v2's route with the link), the device uses too.
    expect_as_the_kernel(kernel_gateway());
    EXPECT_FALSE(device_gateway().empty()) << "v0's route is the kernel's still";
    in_ns({"link", "set", "v0", "down"});
    in_ns({"link", "set", "v0", "up"});
    expect_as_the_kernel(kernel_gateway());
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

// A write the device refuses never reaches the kernel: the namespace never shows the
// address (ip monitor), and its connected route, and the device's, stay.
TEST_F(LinuxRoutesE2E, ARefusedAddressNeverReachesTheKernel) {
    start(true);
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    ASSERT_TRUE(eventually([&] { return search4("10.77.0.0", "255.255.255.0", 0, entries) == 1; }));
    // Line by line through the pipe; listening before the requests are made.
    Child monitor({"/usr/bin/stdbuf", "-oL", ip_, "-n", ns_, "monitor", "address"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    // 10.77.0.0/24 is v0's: the same network on v2 conflicts.
    EXPECT_EQ(IPCfg_AddManualAddr(v2_, ip("10.77.0.5"), ip("255.255.255.0"), 1), IPSTATUS_ADDR_CONFLICT);
    // A change that does reach the namespace marks where the monitor has read up to.
    ASSERT_EQ(IPCfg_AddManualAddr(v2_, ip("10.89.0.1"), ip("255.255.255.0"), 1), 0u) << sim.log();
    std::string line;
    bool marker = false;
    while (!marker && monitor.line(&line, std::chrono::seconds(3))) {
        EXPECT_EQ(line.find("10.77.0.5"), std::string::npos) << "the kernel had the refused address: " << line;
        marker = line.find("10.89.0.1") != std::string::npos;
    }
    EXPECT_TRUE(marker) << "the monitor saw the accepted address";
    EXPECT_FALSE(v0_lists("10.77.0.5"));
    EXPECT_EQ(in_ns({"-4", "addr", "show", "dev", "v2"}).find("10.77.0.5"), std::string::npos);
    ASSERT_EQ(search4("10.77.0.0", "255.255.255.0", 0, entries), 1u) << "the connected route stays";
    EXPECT_EQ(host_at<std::uint32_t>(entries + 4), v0_);
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

// ip route replace: the kernel tells the new route alone, and the device takes it in the
// place of the one replaced.
TEST_F(LinuxRoutesE2E, AReplacedRouteTakesThePlaceOfTheOld) {
    start();
    in_ns({"route", "add", "10.150.0.0/16", "via", "10.77.0.2", "dev", "v0", "metric", "5"});
    expect_as_the_kernel("10.77.0.2");
    in_ns({"route", "replace", "10.150.0.0/16", "via", "10.88.0.2", "dev", "v2", "metric", "5"});
    expect_as_the_kernel("10.88.0.2");
    in_ns({"route", "del", "10.150.0.0/16", "metric", "5"});
    EXPECT_TRUE(eventually([&] { return device_gateway().empty(); }, std::chrono::seconds(2)))
        << "the replaced route is gone with its replacement: " << device_gateway();
}

}  // namespace
}  // namespace e2e

// ---- Paths, types, link-local routes, links ---------------------------------------------------

namespace e2e {
namespace {

// A 64-byte IPv6 search of one prefix in the public VRF: the number of entries found.
std::uint64_t search6(const char* prefix, std::uint8_t len, std::uint8_t* entries) {
    std::array<std::uint8_t, 44> key{};
    const std::uint16_t family6 = 10;
    std::memcpy(key.data() + 4, &family6, 2);
    std::memcpy(key.data() + 8, ip6(prefix).data(), 16);
    key[24] = len;
    std::uint64_t count = 4;
    if (FIB6_SearchInfo(key.data(), &count, entries) != 0) return 0;
    return count;
}

// The further path k (1, 2, ...) of a search entry: its interface and IPv4 next hop.
std::pair<std::uint32_t, std::string> further_path(const std::uint8_t* entry, unsigned k) {
    const std::uint8_t* h = entry + FIB_ENTRY_MORE_HOPS_OFFSET + (k - 1) * FIB_ENTRY_HOP_SIZE;
    return {host_at<std::uint32_t>(h), dotted(host_at<std::uint32_t>(h + 4))};
}

// A multipath route keeps every path: the first as the entry's gateway, the others after it;
// the dump writes a line a path. It stays while one path's link is down, as on Linux.
TEST_F(LinuxRoutesE2E, AMultipathRouteKeepsEveryPath) {
    start();
    in_ns({"route", "add", "10.160.0.0/16", "nexthop", "via", "10.77.0.2", "dev", "v0", "nexthop", "via", "10.88.0.2",
           "dev", "v2"});
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    ASSERT_TRUE(eventually([&] { return search4("10.160.0.0", "255.255.0.0", 0, entries) == 1; })) << sim.log();
    EXPECT_EQ(entries[FIB_ENTRY_HOPS_OFFSET], 2u);
    EXPECT_EQ(dotted(host_at<std::uint32_t>(entries + FIB_ENTRY_NEXTHOP_OFFSET)), "10.77.0.2");
    EXPECT_EQ(host_at<std::uint32_t>(entries + 4), v0_);
    EXPECT_EQ(further_path(entries, 1), (std::pair<std::uint32_t, std::string>{v2_, "10.88.0.2"}));
    EXPECT_EQ(entries[FIB_ENTRY_TYPE_OFFSET], FIB_ROUTE_UNICAST);

    const std::string path = sim.state_dir() + "/fib.txt";
    ASSERT_EQ(FIB_SaveForwardingTable(path.c_str()), 0u);
    const std::string text = file_text(path);
    const std::size_t first = text.find("{public, 10.160.0.0/16} -> {10.77.0.2, v0, Null}");
    const std::size_t second = text.find("{public, 10.160.0.0/16} -> {10.88.0.2, v2, Null}");
    ASSERT_NE(first, std::string::npos) << text;
    ASSERT_NE(second, std::string::npos) << text;
    EXPECT_LT(first, second) << "the paths one after the other, the first first";
    EXPECT_EQ(text.find('\n', first) + 1, text.rfind("{1, 0, 0}", second)) << "adjacent lines";

    in_ns({"link", "set", "v2", "down"});
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_NE(in_ns({"route", "show", "10.160.0.0/16"}), "") << "the kernel keeps it";
    ASSERT_TRUE(eventually([&] { return search4("10.160.0.0", "255.255.0.0", 0, entries) == 1; }));
    EXPECT_EQ(host_at<std::uint32_t>(entries + FIB_ENTRY_FLAGS_OFFSET) & 1u, 1u) << "active through v0";
}

// Blackhole, unreachable and prohibit routes keep their type; they have no path.
TEST_F(LinuxRoutesE2E, RouteTypesAreKept) {
    start();
    in_ns({"route", "add", "blackhole", "10.161.0.0/16"});
    in_ns({"route", "add", "unreachable", "10.162.0.0/16"});
    in_ns({"route", "add", "prohibit", "10.163.0.0/16"});
    const std::pair<const char*, unsigned> want[] = {
        {"10.161.0.0", FIB_ROUTE_BLACKHOLE}, {"10.162.0.0", FIB_ROUTE_UNREACHABLE}, {"10.163.0.0", FIB_ROUTE_PROHIBIT}};
    for (const auto& item : want) {
        const char* const dest = item.first;
        const unsigned type = item.second;
        std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
        ASSERT_TRUE(eventually([&] { return search4(dest, "255.255.0.0", 0, entries) == 1; })) << dest;
        EXPECT_EQ(entries[FIB_ENTRY_TYPE_OFFSET], type) << dest;
        EXPECT_EQ(host_at<std::uint32_t>(entries + 4), 0u) << dest << ": no interface";
        EXPECT_EQ(host_at<std::uint32_t>(entries + FIB_ENTRY_NEXTHOP_OFFSET), 0u) << dest << ": no gateway";
        EXPECT_EQ(entries[FIB_ENTRY_HOPS_OFFSET], 1u) << dest;
    }
}

// Linux keeps fe80::/64 on each link at one metric: the device's entry has a path a link.
TEST_F(LinuxRoutesE2E, TheLinkLocalRouteIsOnEveryLink) {
    start();
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    ASSERT_TRUE(eventually([&] { return search6("fe80::", 64, entries) == 1 && entries[FIB_ENTRY_HOPS_OFFSET] >= 2; }))
        << in_ns({"-6", "route", "show", "table", "main"});
    std::vector<std::uint32_t> links{host_at<std::uint32_t>(entries + 4)};
    for (unsigned k = 1; k < entries[FIB_ENTRY_HOPS_OFFSET] && k <= FIB_ENTRY_MORE_HOPS_MAX; ++k) {
        links.push_back(further_path(entries, k).first);
    }
    EXPECT_NE(std::find(links.begin(), links.end(), v0_), links.end());
    EXPECT_NE(std::find(links.begin(), links.end(), v2_), links.end());
}

// Subscribers of interface configuration hear a link go down and up and its MTU change, and
// the directory tells the link's state, MAC and VRF.
TEST_F(LinuxRoutesE2E, LinkStateAndMtuReachSubscribersAndTheDirectory) {
    start();
    std::uint32_t state = 9;
    ASSERT_EQ(IF_GetDataByIfIndex(v2_, IF_DATA_LINK_STATE, &state), 0u);
    EXPECT_EQ(state, 1u);
    std::uint8_t mac[6] = {};
    ASSERT_EQ(IF_GetDataByIfIndex(v2_, IF_DATA_MAC, mac), 0u);
    const Mac want = link_mac(ns_, "v2");
    EXPECT_TRUE(std::equal(want.begin(), want.end(), mac));
    std::uint16_t vrf = 9;
    ASSERT_EQ(IF_GetDataByIfIndex(v2_, IF_DATA_VRF, &vrf), 0u);
    EXPECT_EQ(vrf, 0u);

    const int32_t sock = IPAddr_Open();
    ASSERT_GE(sock, 0);
    static std::vector<std::array<std::uint32_t, 3>> seen;
    seen.clear();
    ASSERT_EQ(IPAddr_RegIfCfgEvent(sock, 0, [](uint32_t c, uint32_t a, uint32_t b, uint16_t) -> uint32_t {
                  seen.push_back({c, a, b});
                  return 0;
              }),
              0u);
    const auto heard = [&](std::uint32_t what, std::uint32_t value) {
        return eventually([&] {
            pollfd p{sock, POLLIN, 0};
            while (::poll(&p, 1, 0) == 1) (void)IPAddr_HandleIfCfgMsg(sock);
            return std::find(seen.begin(), seen.end(), std::array<std::uint32_t, 3>{what, v2_, value}) != seen.end();
        });
    };
    constexpr std::uint32_t kLinkState = 6, kMtu = 7;
    in_ns({"link", "set", "v2", "down"});
    EXPECT_TRUE(heard(kLinkState, 0));
    // The directory's answers are kept a moment by the platform: the new state comes soon.
    EXPECT_TRUE(eventually([&] { return IF_GetDataByIfIndex(v2_, IF_DATA_LINK_STATE, &state) == 0 && state == 0; }));
    in_ns({"link", "set", "v2", "up"});
    EXPECT_TRUE(heard(kLinkState, 1));
    in_ns({"link", "set", "v2", "mtu", "1400"});
    EXPECT_TRUE(heard(kMtu, 1400));
    IPAddr_DeregIfCfgEvent(sock, 0);
    IPAddr_Close(sock);
}

// A neighbour the kernel holds incomplete (traffic to a host that does not answer; the kernel
// tells nothing) shows as incomplete within a second or so.
TEST_F(LinuxSourceE2E, AnIncompleteNeighbourOfTheKernelShowsIncomplete) {
    start();
    // One ping that nobody answers: the kernel asks for 10.77.0.200 and holds it incomplete.
    Child ping({ip_, "netns", "exec", ns_, "ping", "-c", "1", "-W", "1", "10.77.0.200"});
    ARP_ENTRY_S e{};
    ASSERT_TRUE(eventually([&] { return ARP_GetEntryByIP(ip("10.77.0.200"), &e) == 0; }, std::chrono::milliseconds(2500)))
        << in_ns({"neigh", "show"});
    EXPECT_EQ(host_at<std::uint16_t>(e.aucData + 24), 0u) << "incomplete";
}

// Replacing the interface's main address keeps its secondaries in the namespace (Linux would
// delete them with their primary) and on the device.
TEST_F(LinuxSourceE2E, ReplacingTheMainAddressKeepsItsSecondaries) {
    in_ns({"addr", "add", "10.77.0.9/24", "dev", "v0"});
    start(true);
    ASSERT_EQ(IPCfg_AddManualAddr(v0_, ip("10.70.0.1"), ip("255.255.255.0"), 0), 0u) << sim.log();
    EXPECT_TRUE(v0_lists("10.70.0.1/24"));
    EXPECT_FALSE(v0_lists("10.77.0.1/24")) << "the main address it replaced";
    EXPECT_TRUE(v0_lists("10.77.0.9/24")) << "the secondary stays in the namespace";
    IPAddrInfo info{};
    EXPECT_TRUE(eventually([&] { return lookup_any(ip("10.77.0.9"), &info) == 0; })) << "and on the device";
    EXPECT_EQ(info.stEntry.uiFlag & 1u, 1u) << "still a sub address";
    std::string out;
    ASSERT_EQ(run({ip_, "netns", "exec", ns_, "cat", "/proc/sys/net/ipv4/conf/v0/promote_secondaries"}, &out), 0);
    EXPECT_EQ(out, "0\n") << "the interface's setting is put back";
}

// A writable device resolving a host that does not answer: the entry shows incomplete, then
// leaves the table when the kernel gives up.
TEST_F(LinuxSourceE2E, ResolvingAnAbsentHostIsIncompleteThenGone) {
    start(true);
    ASSERT_EQ(ARP_Request(v0_, 0, ip("10.77.0.201"), nullptr), 0u) << sim.log();
    ARP_ENTRY_S e{};
    ASSERT_TRUE(eventually([&] { return ARP_GetEntryByIP(ip("10.77.0.201"), &e) == 0; }, std::chrono::milliseconds(500)))
        << "read at once, not with the next second";
    EXPECT_EQ(host_at<std::uint16_t>(e.aucData + 24), 0u) << "incomplete";
    EXPECT_TRUE(eventually([&] { return ARP_GetEntryByIP(ip("10.77.0.201"), &e) != 0; }, std::chrono::seconds(6)))
        << in_ns({"neigh", "show"});
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

// Notifications lost (a notification socket too small for a burst while the daemon was
// stopped): the namespace is read again and compared, so a link, an address and a neighbour
// deleted meanwhile are gone from the device, and the burst's routes are there.
TEST_F(LinuxSourceE2E, LostNotificationsAreMadeGoodByReadingTheNamespaceAgain) {
    in_ns({"link", "add", "v5", "type", "veth", "peer", "name", "v6"});
    in_ns({"link", "set", "v5", "up"});
    const std::uint32_t v5 = link_index(ns_, "v5");
    in_ns({"addr", "add", "10.77.0.9/24", "dev", "v0"});
    in_ns({"neigh", "replace", "10.77.0.60", "lladdr", "02:00:00:00:00:60", "dev", "v0", "nud", "reachable"});
    ASSERT_TRUE(sim.start({"--source", "linux", "--netns", ns_, "--netlink-buffer", "4096"})) << sim.log();
    IPAddrInfo info{};
    ARP_ENTRY_S e{};
    ASSERT_EQ(lookup_any(ip("10.77.0.9"), &info), 0u);
    ASSERT_EQ(ARP_GetEntryByIP(ip("10.77.0.60"), &e), 0u);
    ASSERT_EQ(IF_IsValidIfIndex(v5), 1u);

    ASSERT_EQ(::kill(sim.pid(), SIGSTOP), 0);
    std::string batch;
    for (int i = 0; i < 2000; ++i) batch += "route add 10.200." + std::to_string(i / 250) + "." + std::to_string(i % 250) + "/32 dev v0\n";
    const std::string file = sim.state_dir() + "/routes.batch";
    std::ofstream(file) << batch;
    in_ns({"-batch", file});
    in_ns({"link", "del", "v5"});
    in_ns({"addr", "del", "10.77.0.9/24", "dev", "v0"});
    in_ns({"neigh", "del", "10.77.0.60", "dev", "v0"});
    ASSERT_EQ(::kill(sim.pid(), SIGCONT), 0);

    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    EXPECT_TRUE(eventually([&] { return search4("10.200.7.249", "255.255.255.255", 0, entries) == 1; }))
        << "the burst's last route";
    EXPECT_TRUE(eventually([&] { return IF_IsValidIfIndex(v5) == 0; })) << "the link deleted meanwhile";
    EXPECT_TRUE(eventually([&] { return lookup_any(ip("10.77.0.9"), &info) != 0; })) << "the address deleted meanwhile";
    EXPECT_TRUE(eventually([&] { return ARP_GetEntryByIP(ip("10.77.0.60"), &e) != 0; })) << "the neighbour deleted meanwhile";
    EXPECT_EQ(lookup_any(ip("10.77.0.1"), &info), 0u) << "what the namespace still has stays";
    EXPECT_NE(sim.log().find("notifications were lost"), std::string::npos) << sim.log();
}

}  // namespace
}  // namespace e2e

namespace e2e {
namespace {

// A link that loses its last IPv4 address loses every route through it; the kernel tells of
// its connected route only, and the device drops the others too.
TEST_F(LinuxRoutesE2E, ALinkLosingItsLastAddressLosesItsRoutes) {
    start();
    in_ns({"route", "add", "10.170.0.0/16", "via", "10.88.0.2", "dev", "v2"});
    std::uint8_t entries[4 * FIB_SEARCH_ENTRY_SIZE] = {};
    ASSERT_TRUE(eventually([&] { return search4("10.170.0.0", "255.255.0.0", 0, entries) == 1; }));
    in_ns({"addr", "del", "10.88.0.1/24", "dev", "v2"});
    EXPECT_EQ(in_ns({"route", "show", "10.170.0.0/16"}), "") << "the kernel dropped it";
    EXPECT_TRUE(eventually([&] { return search4("10.170.0.0", "255.255.0.0", 0, entries) == 0; }))
        << "and so does the device";
}

}  // namespace
}  // namespace e2e
