// The Linux mirror against the kernel, compared as sets: a seeded random world is made with
// `ip` in a namespace of the test's own (A) and a peer namespace (B), ipsimd mirrors A
// (--source linux --netns A --writable), and what `ip -j` reports of A is compared with what
// `ipctl -j` reports of the mirroring device: addresses, neighbours, routes (a sample of
// lookups and the whole IPv4 main table), links and link counters; then random changes are
// made with `ip` while `ipctl -j monitor all` runs, each checked for its event and for the
// listing that follows; last, the writable device's own changes (addresses, neighbour
// resolution) are checked in the namespace.
//
// The world of one seed (std::mt19937 seeded with it):
//   A: lo; veth v0 <-> B:p0 and v1 <-> B:p1 (ARP and ND are real); d0, a dummy link (a veth
//      whose peer is in B where the kernel has no dummy links), taken down once the routes
//      are in; br0, a bridge, with the port d1 (the same kind as d0); v0.100, a VLAN link on
//      v0 (a macvlan link of that name where the kernel has no VLAN links).
//   Addresses 10.77.N.1/24 and 2001:db8:77:N::1/64 (N: v0 0, v1 1, d0 2, v0.100 3, br0 4),
//      and 10.77.0.9/24 on v0, which the kernel makes secondary; B has 10.77.0.2 and
//      2001:db8:77::2 on p0, 10.77.1.2 and 2001:db8:77:1::2 on p1.
//   2,000 IPv4 and 200 IPv6 routes loaded with `ip -batch`: unicast via gateways of the
//      links' subnets or on-link, blackhole, unreachable and prohibit; prefixes routed twice
//      (metric 50 and metric 100, by v0 and by v1); one route of two paths; a default route
//      of each family; about one route in twenty in table 100, which the device holds as the
//      VRF "table100".
//   Neighbours on v0 of every state: reachable (B answered an echo request), stale, delay,
//      probe and permanent (set with `ip neigh replace`), incomplete (a datagram to an
//      address of v0's subnet that nobody owns), IPv4 and IPv6; reachable ones on v1 too.
//      The kernel's neighbour timers of v0 and v1 are slowed down for the comparisons, so
//      that the states set stay as they are while both sides are read.
//
// Every comparison is polled for up to five seconds before it fails (the mirror follows
// notifications at once, and reads neighbours, link states and counters about once a
// second); a kind of comparison that failed once is given a second from then on, and only
// the first three failures of a kind are reported in full. Tests are skipped where network
// namespaces cannot be made (not root, or no ip program).
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "e2e/sim_process.hpp"
#include "ipctl/ipctl_support.hpp"
#include "ipproto/raii.hpp"

namespace ipdiff {
namespace {

using Json = nlohmann::json;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;
// One line a row of a comparison: both sides are reduced to the same words.
using Rows = std::set<std::string>;

// ---- Small helpers ------------------------------------------------------------------------------

// At most n characters of a text, for failure messages.
std::string clip(const std::string& s, std::size_t n = 2000) {
    return s.size() <= n ? s : s.substr(0, n) + "... (" + std::to_string(s.size()) + " bytes in all)";
}

Json parse_json(const std::string& text) { return Json::parse(text, nullptr, false); }

// A member as text: a string as it is, a number or other value as JSON, "" when absent.
std::string jstr(const Json& j, const char* key) {
    if (!j.is_object() || !j.contains(key) || j[key].is_null()) return {};
    return j[key].is_string() ? j[key].get<std::string>() : j[key].dump();
}

bool jtrue(const Json& j, const char* key) {
    return j.is_object() && j.contains(key) && j[key].is_boolean() && j[key].get<bool>();
}

std::optional<std::uint64_t> jnum(const Json& j, const char* key) {
    if (!j.is_object() || !j.contains(key) || !j[key].is_number_integer()) return std::nullopt;
    return j[key].get<std::uint64_t>();
}

// The records of a listing: the array itself, or a single object as a listing of one.
std::vector<Json> records(const Json& j) {
    if (j.is_array()) return std::vector<Json>(j.begin(), j.end());
    if (j.is_object()) return {j};
    return {};
}

// What is on one side and not on the other, or "" when the two are the same.
std::string difference(const Rows& kernel, const Rows& device) {
    std::vector<std::string> only_kernel, only_device;
    std::set_difference(kernel.begin(), kernel.end(), device.begin(), device.end(), std::back_inserter(only_kernel));
    std::set_difference(device.begin(), device.end(), kernel.begin(), kernel.end(), std::back_inserter(only_device));
    if (only_kernel.empty() && only_device.empty()) return {};
    std::ostringstream s;
    s << kernel.size() << " rows in the kernel, " << device.size() << " on the device; " << only_kernel.size()
      << " only in the kernel, " << only_device.size() << " only on the device";
    const auto list = [&s](const char* title, const std::vector<std::string>& rows) {
        if (rows.empty()) return;
        s << "\n  " << title << ":";
        for (std::size_t i = 0; i < rows.size() && i < 12; ++i) s << "\n    " << rows[i];
        if (rows.size() > 12) s << "\n    ...";
    };
    list("only in the kernel", only_kernel);
    list("only on the device", only_device);
    return s.str();
}

// ---- Addresses ----------------------------------------------------------------------------------

struct Ip {
    int family = 0;  // AF_INET or AF_INET6
    std::array<std::uint8_t, 16> b{};
    unsigned bits() const { return family == AF_INET ? 32u : 128u; }
};

std::optional<Ip> parse_ip(const std::string& text) {
    Ip a;
    if (::inet_pton(AF_INET, text.c_str(), a.b.data()) == 1) {
        a.family = AF_INET;
        return a;
    }
    if (::inet_pton(AF_INET6, text.c_str(), a.b.data()) == 1) {
        a.family = AF_INET6;
        return a;
    }
    return std::nullopt;
}

std::string ip_text(const Ip& a) {
    char buf[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(a.family, a.b.data(), buf, sizeof buf);
    return buf;
}

// The byte mask of byte i of a prefix of length len.
std::uint8_t byte_mask(unsigned len, unsigned i) {
    const unsigned bits = len > 8 * i ? std::min(8u, len - 8 * i) : 0u;
    return static_cast<std::uint8_t>(0xFF00u >> bits);
}

Ip masked(Ip a, unsigned len) {
    for (unsigned i = 0; i < 16; ++i) a.b[i] = static_cast<std::uint8_t>(a.b[i] & byte_mask(len, i));
    return a;
}

bool contains(const Ip& net, unsigned len, const Ip& a) {
    return a.family == net.family && masked(a, len).b == masked(net, len).b;
}

// A random address of the prefix.
Ip random_in(const Ip& net, unsigned len, std::mt19937& rng) {
    Ip a = net;
    for (unsigned i = 0; i < a.bits() / 8; ++i) {
        const std::uint8_t keep = byte_mask(len, i);
        a.b[i] = static_cast<std::uint8_t>((net.b[i] & keep) | (rng() & 0xFFu & ~keep));
    }
    return a;
}

// An address as inet_ntop writes it ("" stays ""; what is no address stays as it is).
std::string canon_addr(const std::string& text) {
    if (text.empty()) return text;
    const auto a = parse_ip(text);
    return a ? ip_text(*a) : text;
}

// A destination as ADDRESS/LEN: `ip` writes "default" for the default route and a host route
// without its length ("10.1.1.1"); the device writes "0.0.0.0/0" and "10.1.1.1/32".
std::string canon_prefix(const std::string& text, int family) {
    if (text == "default") return family == AF_INET6 ? "::/0" : "0.0.0.0/0";
    const std::size_t slash = text.find('/');
    const auto a = parse_ip(text.substr(0, slash));
    if (!a) return text;
    const std::string len = slash == std::string::npos ? std::to_string(a->bits()) : text.substr(slash + 1);
    return ip_text(*a) + "/" + len;
}

int family_of(const std::string& text) {
    if (text == "default") return 0;
    return text.find(':') != std::string::npos ? AF_INET6 : AF_INET;
}

// Host `host` of subnet `subnet` of the world: 10.77.SUBNET.HOST, 2001:db8:77:SUBNET::HOST.
std::string host4(unsigned subnet, unsigned host) {
    return "10.77." + std::to_string(subnet) + "." + std::to_string(host);
}
std::string host6(unsigned subnet, unsigned host) {
    Ip a = *parse_ip("2001:db8:77::");
    a.b[6] = static_cast<std::uint8_t>(subnet >> 8);
    a.b[7] = static_cast<std::uint8_t>(subnet);
    a.b[14] = static_cast<std::uint8_t>(host >> 8);
    a.b[15] = static_cast<std::uint8_t>(host);
    return ip_text(a);
}

// ---- Inside a namespace -------------------------------------------------------------------------

// Runs fn on a thread of its own inside the namespace (the test process stays where it is).
void in_netns(const std::string& ns, const std::function<void()>& fn) {
    std::thread t([&] {
        const ipc::Fd target(::open(("/run/netns/" + ns).c_str(), O_RDONLY | O_CLOEXEC));
        ASSERT_TRUE(target.valid()) << ns;
        ASSERT_EQ(::setns(target.get(), CLONE_NEWNET), 0) << std::strerror(errno);
        fn();
    });
    t.join();
}

// The internet checksum of an ICMP message (IPv6 raw ICMP sockets have the kernel fill it).
std::uint16_t checksum(const std::uint8_t* p, std::size_t n) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i + 1 < n; i += 2) sum += static_cast<std::uint32_t>(p[i] << 8 | p[i + 1]);
    if (n % 2 == 1) sum += static_cast<std::uint32_t>(p[n - 1] << 8);
    while (sum >> 16) sum = (sum & 0xFFFFu) + (sum >> 16);
    return static_cast<std::uint16_t>(~sum);
}

socklen_t to_sockaddr(const Ip& a, sockaddr_storage* ss, std::uint16_t port = 0) {
    std::memset(ss, 0, sizeof *ss);
    if (a.family == AF_INET) {
        auto* s4 = reinterpret_cast<sockaddr_in*>(ss);
        s4->sin_family = AF_INET;
        s4->sin_port = htons(port);
        std::memcpy(&s4->sin_addr, a.b.data(), 4);
        return sizeof(sockaddr_in);
    }
    auto* s6 = reinterpret_cast<sockaddr_in6*>(ss);
    s6->sin6_family = AF_INET6;
    s6->sin6_port = htons(port);
    std::memcpy(&s6->sin6_addr, a.b.data(), 16);
    return sizeof(sockaddr_in6);
}

// Echo requests (ICMP or ICMPv6) from inside the namespace, one at a time, each waiting at
// most a second for its reply: the number answered. The system has no ping program to run.
int ping_from(const std::string& ns, const std::string& dst, int count) {
    int answered = 0;
    in_netns(ns, [&] {
        const auto to = parse_ip(dst);
        ASSERT_TRUE(to.has_value()) << dst;
        const bool v6 = to->family == AF_INET6;
        const ipc::Fd s(::socket(to->family, SOCK_RAW | SOCK_CLOEXEC, v6 ? int{IPPROTO_ICMPV6} : int{IPPROTO_ICMP}));
        ASSERT_TRUE(s.valid()) << std::strerror(errno);
        sockaddr_storage ss{};
        const socklen_t sl = to_sockaddr(*to, &ss);
        const auto id = static_cast<std::uint16_t>(::getpid() & 0xFFFF);
        for (int seq = 1; seq <= count; ++seq) {
            std::array<std::uint8_t, 64> pkt{};
            pkt[0] = v6 ? 128 : 8;  // echo request
            pkt[4] = static_cast<std::uint8_t>(id >> 8);
            pkt[5] = static_cast<std::uint8_t>(id);
            pkt[6] = static_cast<std::uint8_t>(seq >> 8);
            pkt[7] = static_cast<std::uint8_t>(seq);
            for (std::size_t i = 8; i < pkt.size(); ++i) pkt[i] = static_cast<std::uint8_t>(i);
            if (!v6) {
                const std::uint16_t sum = checksum(pkt.data(), pkt.size());
                pkt[2] = static_cast<std::uint8_t>(sum >> 8);
                pkt[3] = static_cast<std::uint8_t>(sum);
            }
            if (::sendto(s.get(), pkt.data(), pkt.size(), 0, reinterpret_cast<const sockaddr*>(&ss), sl) < 0) continue;
            const auto end = Clock::now() + seconds(1);
            while (Clock::now() < end) {
                pollfd p{s.get(), POLLIN, 0};
                if (::poll(&p, 1, 50) != 1) continue;
                std::array<std::uint8_t, 1500> in{};
                const ssize_t n = ::recv(s.get(), in.data(), in.size(), 0);
                if (n <= 0) continue;
                // An IPv4 raw socket reads the IP header too; an IPv6 one the ICMPv6 message.
                const std::size_t at = v6 ? 0 : static_cast<std::size_t>(in[0] & 0x0F) * 4;
                if (static_cast<std::size_t>(n) < at + 8) continue;
                const std::uint8_t* m = in.data() + at;
                const bool reply = m[0] == (v6 ? 129 : 0) && (m[4] << 8 | m[5]) == id && (m[6] << 8 | m[7]) == seq;
                if (reply) {
                    ++answered;
                    break;
                }
            }
        }
    });
    return answered;
}

// One UDP datagram from inside the namespace: the kernel resolves the destination's
// neighbour first (and, for an address nobody owns, keeps it incomplete).
void datagram_from(const std::string& ns, const std::string& dst) {
    in_netns(ns, [&] {
        const auto to = parse_ip(dst);
        ASSERT_TRUE(to.has_value()) << dst;
        const ipc::Fd s(::socket(to->family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(s.valid());
        sockaddr_storage ss{};
        const socklen_t sl = to_sockaddr(*to, &ss, 9);
        EXPECT_GE(::sendto(s.get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&ss), sl), 0) << std::strerror(errno);
    });
}

// Writes files of /proc/sys inside the namespace (a thread's /proc/sys/net is its namespace's).
void write_proc(const std::string& ns, const std::vector<std::pair<std::string, std::string>>& values) {
    in_netns(ns, [&] {
        for (const auto& [path, value] : values) {
            std::ofstream out(path);
            out << value << "\n";
            out.flush();
            EXPECT_TRUE(out.good()) << "cannot write " << path;
        }
    });
}

// ---- The world's routes -------------------------------------------------------------------------

// A route of the world, as one line of an `ip -batch` file.
struct PlannedRoute {
    std::string type = "unicast";
    Ip net;
    unsigned len = 0;
    std::string gw, dev;  // gw empty: on-link (or no path for the other types)
    unsigned metric = 0;  // 0: the kernel's default
    unsigned table = 254;
    std::vector<std::pair<std::string, std::string>> hops;  // (gateway, dev) of a route of several paths

    std::string prefix() const { return ip_text(net) + "/" + std::to_string(len); }
    std::string line() const {
        std::string s = "route add ";
        if (type != "unicast") s += type + " ";
        s += prefix();
        for (const auto& [g, d] : hops) s += " nexthop via " + g + " dev " + d;
        if (hops.empty() && !gw.empty()) s += " via " + gw;
        if (hops.empty() && !dev.empty()) s += " dev " + dev;
        if (metric != 0) s += " metric " + std::to_string(metric);
        if (table != 254) s += " table " + std::to_string(table);
        return s;
    }
};

// A route as both sides are compared: destination, type, first hop, and every hop of a
// route of several.
struct RouteView {
    std::string dst;  // empty when the kernel told only the type (an error of `ip route get`)
    std::string type;
    std::string gw, dev, hops;
    std::uint64_t metric = 0;
    std::string row() const {
        std::string s = dst + " " + type;
        if (!gw.empty()) s += " via " + gw;
        if (!dev.empty()) s += " dev " + dev;
        if (!hops.empty()) s += " nexthops " + hops;
        return s;
    }
};

// The first hop and the list of hops of a route record (`ip` and the device write
// "nexthops" alike: an array of {"gateway", "dev"}).
void take_hops(const Json& r, RouteView* v) {
    if (!r.contains("nexthops") || !r["nexthops"].is_array() || r["nexthops"].empty()) return;
    const Json& all = r["nexthops"];
    if (v->gw.empty()) v->gw = canon_addr(jstr(all[0], "gateway"));
    if (v->dev.empty()) v->dev = jstr(all[0], "dev");
    if (all.size() < 2) return;
    for (const Json& h : all) v->hops += (v->hops.empty() ? "" : ",") + canon_addr(jstr(h, "gateway")) + "@" + jstr(h, "dev");
}

// A route of `ip -j route show` or of `ip -j route get fibmatch` (no "type": unicast).
RouteView kernel_route(const Json& r, int family) {
    RouteView v;
    v.type = r.contains("type") ? jstr(r, "type") : "unicast";
    v.dst = canon_prefix(jstr(r, "dst"), family);
    v.gw = canon_addr(jstr(r, "gateway"));
    v.dev = jstr(r, "dev");
    v.metric = jnum(r, "metric").value_or(0);
    take_hops(r, &v);
    return v;
}

// A route of `ipctl -j route show` or `route get`. A gateway of all zeros is none (a route
// without a next hop): normalised so that the two sides compare in what they mean.
RouteView device_route(const Json& r) {
    RouteView v;
    const std::string dst = jstr(r, "dst");
    v.dst = canon_prefix(dst, family_of(dst));
    v.type = r.contains("type") ? jstr(r, "type") : "(no type)";
    v.gw = canon_addr(jstr(r, "gateway"));
    if (v.gw == "0.0.0.0" || v.gw == "::") v.gw.clear();
    v.dev = jstr(r, "dev");
    take_hops(r, &v);
    return v;
}

// The type of the route `ip route get` found, from the kernel's refusal to forward by it.
std::string type_of_refusal(const std::string& err) {
    if (err.find("Invalid argument") != std::string::npos) return "blackhole";
    if (err.find("Permission denied") != std::string::npos) return "prohibit";
    if (err.find("No route to host") != std::string::npos) return "unreachable";
    if (err.find("Network is unreachable") != std::string::npos) return "none";
    return "error: " + err;
}

// ---- The test -----------------------------------------------------------------------------------

class LinuxDifferential : public ::testing::TestWithParam<unsigned> {
protected:
    struct Ran {
        int code = -1;
        std::string out, err;
    };

    void SetUp() override {
        ip_ = e2e::ip_program();
        if (ip_.empty()) GTEST_SKIP() << "the ip program is not installed: namespaces cannot be made";
        if (::geteuid() != 0) GTEST_SKIP() << "not root: network namespaces cannot be made";
        rng_.seed(GetParam());
        static int made = 0;
        a_ = "ipdiff-" + std::to_string(::getpid()) + "-" + std::to_string(++made);
        b_ = a_ + "-b";
        std::string err;
        if (e2e::run({ip_, "netns", "add", a_}, nullptr, &err) != 0) GTEST_SKIP() << "cannot make a namespace: " << err;
        made_a_ = true;
        ASSERT_EQ(e2e::run({ip_, "netns", "add", b_}, nullptr, &err), 0) << err;
        made_b_ = true;
    }

    // The simulator, the monitor and both namespaces go, whatever the test's outcome.
    void TearDown() override {
        monitor_.reset();
        if (sim_.running()) {
            EXPECT_EQ(sim_.stop(), 0) << clip(sim_.log());
        }
        if (made_b_) (void)e2e::run({ip_, "netns", "del", b_}, nullptr);
        if (made_a_) (void)e2e::run({ip_, "netns", "del", a_}, nullptr);
    }

    // ---- Running ip and ipctl ----

    Ran ip_in(const std::string& ns, const std::vector<std::string>& args) {
        std::vector<std::string> argv{ip_, "-n", ns};
        argv.insert(argv.end(), args.begin(), args.end());
        Ran r;
        r.code = e2e::run(argv, &r.out, &r.err, seconds(20));
        return r;
    }
    // `ip -n A ARGS` (or B), which must succeed.
    std::string in_a(const std::vector<std::string>& args) { return must(a_, args); }
    std::string in_b(const std::vector<std::string>& args) { return must(b_, args); }
    std::string must(const std::string& ns, const std::vector<std::string>& args) {
        const Ran r = ip_in(ns, args);
        std::string line;
        for (const auto& a : args) line += " " + a;
        EXPECT_EQ(r.code, 0) << "ip -n " << ns << line << ": " << r.err;
        return r.out;
    }
    Json a_json(std::vector<std::string> args) {
        args.insert(args.begin(), "-j");
        return parse_json(in_a(args));
    }

    ipctl_test::Result tool(const std::vector<std::string>& args, milliseconds limit = seconds(20)) {
        return ipctl_test::ipctl(args, limit);
    }
    static std::string said(const std::vector<std::string>& args, const ipctl_test::Result& r) {
        std::string line = "ipctl";
        for (const auto& a : args) line += " " + a;
        return line + " (exit " + std::to_string(r.code) + "): stdout " + clip(r.out, 600) + " stderr " + clip(r.err, 600);
    }
    // The JSON of `ipctl -j ARGS`, or a row that says why there is none (so that a
    // comparison shows it).
    std::optional<Json> tool_json(const std::vector<std::string>& args, std::string* why) {
        std::vector<std::string> argv{"-j"};
        argv.insert(argv.end(), args.begin(), args.end());
        const ipctl_test::Result r = tool(argv);
        const Json j = parse_json(r.out);
        if (r.code != 0 || j.is_discarded()) {
            *why = "(" + said(argv, r) + ")";
            return std::nullopt;
        }
        return j;
    }

    // ---- Comparing ----

    // Polls compare() until the two sides agree ("") or the time is over; what still differs.
    static std::string converge(const std::function<std::string()>& compare, milliseconds limit) {
        const auto end = Clock::now() + limit;
        std::string d = compare();
        while (!d.empty() && Clock::now() < end) {
            std::this_thread::sleep_for(milliseconds(250));
            d = compare();
        }
        return d;
    }

    // A comparison that must agree; see the file's header for the time it is given and for
    // how its failures are reported.
    bool agree(const std::string& kind, const std::string& when, const std::function<std::string()>& compare) {
        int& failures = failures_[kind];
        const std::string d = converge(compare, failures == 0 ? seconds(5) : seconds(1));
        if (d.empty()) return true;
        ++failures;
        if (failures <= 3) ADD_FAILURE() << kind << ": the kernel and the device differ " << when << ": " << d;
        return false;
    }
    void report_counts() {
        for (const auto& [kind, n] : failures_) {
            if (n > 3) ADD_FAILURE() << kind << ": " << n << " comparisons differed in all (the first three are reported above)";
        }
        for (const auto& [object, n] : missed_events_) {
            if (n > 3) {
                ADD_FAILURE() << n << " \"" << object << "\" events did not come in all (the first three are reported above)";
            }
        }
    }

    // ---- The world ----

    // d0 or d1: a dummy link, or where the kernel has none a veth link whose peer (up) is
    // in B; the kind made.
    std::string port_kind(const std::string& name, const std::string& peer) {
        if (ip_in(a_, {"link", "add", name, "type", "dummy"}).code == 0) return "dummy";
        in_a({"link", "add", name, "type", "veth", "peer", "name", peer, "netns", b_});
        in_b({"link", "set", peer, "up"});
        return "veth";
    }

    // A locally administered unicast MAC.
    std::string random_mac() {
        char buf[18];
        std::snprintf(buf, sizeof buf, "02:%02x:%02x:%02x:%02x:%02x", static_cast<unsigned>(rng_() & 0xFF),
                      static_cast<unsigned>(rng_() & 0xFF), static_cast<unsigned>(rng_() & 0xFF),
                      static_cast<unsigned>(rng_() & 0xFF), static_cast<unsigned>(rng_() & 0xFF));
        return buf;
    }
    unsigned pick(unsigned n) { return static_cast<unsigned>(rng_() % n); }

    // Slow neighbour timers keep the states set while both sides are read; the kernel's own
    // values again for the resolutions of the writable device.
    void neighbour_timers(bool slow) {
        std::vector<std::pair<std::string, std::string>> values;
        for (const char* family : {"ipv4", "ipv6"}) {
            for (const char* dev : {"v0", "v1"}) {
                const std::string dir = std::string("/proc/sys/net/") + family + "/neigh/" + dev + "/";
                values.emplace_back(dir + "base_reachable_time_ms", slow ? "600000" : "30000");
                values.emplace_back(dir + "delay_first_probe_time", slow ? "600" : "5");
                values.emplace_back(dir + "retrans_time_ms", slow ? "600000" : "1000");
            }
        }
        write_proc(a_, values);
    }

    // A path of a unicast route: a gateway of a link's subnet, or on-link.
    std::pair<std::string, std::string> random_path(int family) {
        static const char* const devs[] = {"v0", "v1", "d0", "v0.100", "br0"};
        const unsigned r = pick(100);
        const unsigned subnet = r < 45 ? 0 : r < 85 ? 1 : r < 90 ? 2 : r < 95 ? 3 : 4;
        const std::string dev = devs[subnet];
        if (subnet >= 3 && pick(2) == 0) return {"", dev};  // on-link
        const unsigned host = pick(4) == 0 ? 2 : 20 + pick(40);
        return {family == AF_INET ? host4(subnet, host) : host6(subnet, host), dev};
    }

    // A prefix that no route of the world has yet, in the pools of the generated routes
    // (none of them holds the links' subnets or the prefixes of the later changes).
    std::pair<Ip, unsigned> fresh_prefix(int family) {
        for (;;) {
            Ip pool;
            unsigned pool_len = 0, len = 0;
            if (family == AF_INET) {
                static const std::pair<const char*, unsigned> pools[] = {
                    {"10.128.0.0", 9}, {"172.16.0.0", 12}, {"198.18.0.0", 15}};
                const auto& [text, plen] = pools[pick(3)];
                pool = *parse_ip(text);
                pool_len = plen;
                len = std::max(pool_len, 16u) + pick(28 - std::max(pool_len, 16u) + 1);
            } else {
                pool = *parse_ip("2001:db8:4000::");
                pool_len = 34;
                len = 40 + pick(25);
            }
            const Ip net = masked(random_in(pool, pool_len, rng_), len);
            if (used_prefixes_.insert(ip_text(net) + "/" + std::to_string(len)).second) return {net, len};
        }
    }

    void generate_routes() {
        for (const int family : {AF_INET, AF_INET6}) {
            const bool v4 = family == AF_INET;
            const std::size_t total = v4 ? 2000 : 200;
            std::vector<PlannedRoute> out;
            PlannedRoute def;
            def.net = *parse_ip(v4 ? "0.0.0.0" : "::");
            def.gw = v4 ? host4(0, 2) : host6(0, 2);
            def.dev = "v0";
            out.push_back(def);
            if (v4) {
                PlannedRoute multi;
                std::tie(multi.net, multi.len) = fresh_prefix(family);
                multi.hops = {{host4(0, 2), "v0"}, {host4(1, 2), "v1"}};
                out.push_back(multi);
            }
            // Prefixes routed twice: the device holds the route of the lower metric.
            for (int i = 0, n = v4 ? 50 : 10; i < n; ++i) {
                PlannedRoute a, b;
                std::tie(a.net, a.len) = fresh_prefix(family);
                b.net = a.net;
                b.len = a.len;
                a.gw = v4 ? host4(0, 20 + pick(40)) : host6(0, 20 + pick(40));
                a.dev = "v0";
                b.gw = v4 ? host4(1, 20 + pick(40)) : host6(1, 20 + pick(40));
                b.dev = "v1";
                const bool v0_first = pick(2) == 0;
                a.metric = v0_first ? 50 : 100;
                b.metric = v0_first ? 100 : 50;
                out.push_back(a);
                out.push_back(b);
            }
            while (out.size() < total) {
                PlannedRoute r;
                std::tie(r.net, r.len) = fresh_prefix(family);
                const unsigned t = pick(100);
                if (t < 7) {
                    r.type = "blackhole";
                } else if (t < 14) {
                    r.type = "unreachable";
                } else if (t < 21) {
                    r.type = "prohibit";
                } else {
                    std::tie(r.gw, r.dev) = random_path(family);
                }
                if (pick(20) == 0) r.table = 100;
                out.push_back(r);
            }
            routes_.insert(routes_.end(), out.begin(), out.end());
        }
    }

    void build_world() {
        // No duplicate address detection on A's links, their link-local addresses included:
        // with the slow timers below a link-local address would stay tentative for minutes,
        // and a solicitation that no datagram waits for (the writable device's resolution)
        // takes its source from the link-local address.
        write_proc(a_, {{"/proc/sys/net/ipv6/conf/default/accept_dad", "0"}});
        in_a({"link", "set", "lo", "up"});
        in_b({"link", "set", "lo", "up"});
        in_a({"link", "add", "v0", "type", "veth", "peer", "name", "p0", "netns", b_});
        in_a({"link", "add", "v1", "type", "veth", "peer", "name", "p1", "netns", b_});
        const std::string d0 = port_kind("d0", "q0");
        const std::string d1 = port_kind("d1", "q1");
        std::string vlan = "vlan";
        if (ip_in(a_, {"link", "add", "link", "v0", "name", "v0.100", "type", "vlan", "id", "100"}).code != 0) {
            in_a({"link", "add", "link", "v0", "name", "v0.100", "type", "macvlan", "mode", "bridge"});
            vlan = "macvlan";
        }
        in_a({"link", "add", "br0", "type", "bridge", "forward_delay", "0"});
        in_a({"link", "set", "d1", "master", "br0"});
        for (const char* l : {"v0", "v1", "d0", "d1", "v0.100", "br0"}) in_a({"link", "set", l, "up"});
        in_b({"link", "set", "p0", "up"});
        in_b({"link", "set", "p1", "up"});
        kinds_ = "d0 and d1 " + d0 + ", v0.100 " + vlan;
        RecordProperty("links", kinds_);

        const char* const devs[] = {"v0", "v1", "d0", "v0.100", "br0"};
        for (unsigned n = 0; n < 5; ++n) {
            in_a({"addr", "add", host4(n, 1) + "/24", "dev", devs[n]});
            in_a({"addr", "add", host6(n, 1) + "/64", "dev", devs[n], "nodad"});
        }
        in_a({"addr", "add", host4(0, 9) + "/24", "dev", "v0"});  // secondary: v0's subnet has its primary
        for (unsigned n = 0; n < 2; ++n) {
            const std::string peer = n == 0 ? "p0" : "p1";
            in_b({"addr", "add", host4(n, 2) + "/24", "dev", peer});
            in_b({"addr", "add", host6(n, 2) + "/64", "dev", peer, "nodad"});
        }

        neighbour_timers(true);

        generate_routes();
        std::string batch;
        for (const PlannedRoute& r : routes_) batch += r.line() + "\n";
        const std::string file = e2e::temp_file(a_ + "-routes.batch", batch);
        const Ran loaded = ip_in(a_, {"-batch", file});
        ASSERT_EQ(loaded.code, 0) << "ip -batch: " << clip(loaded.err);

        // Neighbours of every state on v0, of both families.
        unsigned host = 100;
        for (const int family : {AF_INET, AF_INET6}) {
            for (const char* state : {"stale", "delay", "probe", "permanent"}) {
                for (unsigned k = 0, n = 1 + pick(3); k < n; ++k, ++host) {
                    const std::string addr = family == AF_INET ? host4(0, host) : host6(0, host);
                    // A delay entry set as such is probed at once (the kernel saw no traffic
                    // confirm it): a stale entry that a datagram uses is one that stays.
                    const bool delay = std::strcmp(state, "delay") == 0;
                    in_a({"neigh", "replace", addr, "lladdr", random_mac(), "dev", "v0", "nud", delay ? "stale" : state});
                    if (delay) datagram_from(a_, addr);
                    fake_neighbours_.push_back(addr);
                }
            }
        }
        for (unsigned n = 0; n < 2; ++n) {
            for (const std::string& b : {host4(n, 2), host6(n, 2)}) {
                EXPECT_EQ(ping_from(a_, b, 1), 1) << "B did not answer an echo request to " << b;
            }
        }
        datagram_from(a_, host4(0, 250));
        datagram_from(a_, host6(0, 250));
        // One link down: the kernel drops its routes.
        in_a({"link", "set", "d0", "down"});
    }

    // ---- 1. Addresses ----

    Rows kernel_addrs(const std::string& dev = {}) {
        std::vector<std::string> args{"-4", "addr", "show"};
        if (!dev.empty()) args.insert(args.end(), {"dev", dev});
        Rows rows;
        for (const Json& link : records(a_json(args))) {
            if (!link.contains("addr_info")) continue;
            for (const Json& a : link["addr_info"]) {
                if (jstr(a, "family") != "inet") continue;
                rows.insert(jstr(link, "ifname") + " " + jstr(a, "local") + "/" + jstr(a, "prefixlen") +
                            (jtrue(a, "secondary") ? " secondary" : " primary"));
            }
        }
        return rows;
    }
    Rows device_addrs(const std::string& dev = {}) {
        std::vector<std::string> args{"addr", "show"};
        if (!dev.empty()) args.insert(args.end(), {"dev", dev});
        std::string why;
        const auto j = tool_json(args, &why);
        if (!j) return {why};
        Rows rows;
        for (const Json& a : records(*j)) {
            rows.insert(jstr(a, "ifname") + " " + jstr(a, "local") + "/" + jstr(a, "prefixlen") +
                        (jtrue(a, "secondary") ? " secondary" : " primary"));
        }
        return rows;
    }
    // Every IPv4 address of the namespace is an address of the device, lo's 127.0.0.1/8 too
    // (the mirror takes every link, the loopback one as well); nothing is normalised.
    bool addresses_agree(const std::string& when, const std::string& dev = {}) {
        return agree("addresses", when, [&] { return difference(kernel_addrs(dev), device_addrs(dev)); });
    }

    // ---- 2. Neighbours ----

    // (dst, dev, lladdr, state). A permanent entry is the device's static one (kind static,
    // state reachable): both become "permanent". An incomplete entry has no link-layer
    // address in the kernel and zeros on the device: neither is compared ("-"). The kernel's
    // NOARP, FAILED and NONE entries are not the device's (nor are proxy entries, which
    // `ip neigh show` does not list).
    Rows kernel_neighs() {
        Rows rows;
        for (const Json& n : records(a_json({"neigh", "show"}))) {
            std::string state;
            bool skip = false;
            if (n.contains("state") && n["state"].is_array()) {
                for (const Json& s : n["state"]) {
                    const std::string w = s.is_string() ? s.get<std::string>() : "";
                    if (w == "NOARP" || w == "FAILED" || w == "NONE") skip = true;
                    if (state.empty() && w != "NOARP" && w != "FAILED" && w != "NONE") {
                        state = w;
                        std::transform(state.begin(), state.end(), state.begin(), [](unsigned char c) {
                            return static_cast<char>(std::tolower(c));
                        });
                    }
                }
            }
            if (skip || n.contains("proxy")) continue;
            std::string mac = jstr(n, "lladdr");
            if (state == "incomplete") mac = "-";
            rows.insert(canon_addr(jstr(n, "dst")) + " dev " + jstr(n, "dev") + " lladdr " + mac + " " + state);
        }
        return rows;
    }
    Rows device_neighs() {
        std::string why;
        const auto j = tool_json({"neigh", "show"}, &why);
        if (!j) return {why};
        Rows rows;
        for (const Json& n : records(*j)) {
            const std::string state = jstr(n, "kind") == "static" ? "permanent" : jstr(n, "state");
            const std::string mac = state == "incomplete" ? "-" : jstr(n, "lladdr");
            rows.insert(canon_addr(jstr(n, "dst")) + " dev " + jstr(n, "dev") + " lladdr " + mac + " " + state);
        }
        return rows;
    }
    bool neighbours_agree(const std::string& when) {
        return agree("neighbours", when, [&] { return difference(kernel_neighs(), device_neighs()); });
    }

    // ---- 3. Routes ----

    // The IPv4 main table as (dst, type, gateway, dev): of the kernel's routes of one prefix
    // only the lowest metric (the one the kernel uses, and the device's); the kernel's local
    // and broadcast routes live in table local, which neither listing holds.
    Rows kernel_main() {
        std::map<std::string, RouteView> best;
        for (const Json& r : records(a_json({"-4", "route", "show", "table", "main"}))) {
            const RouteView v = kernel_route(r, AF_INET);
            if (v.type != "unicast" && v.type != "blackhole" && v.type != "unreachable" && v.type != "prohibit") continue;
            const auto it = best.find(v.dst);
            if (it == best.end() || v.metric < it->second.metric) best[v.dst] = v;
        }
        Rows rows;
        for (const auto& [dst, v] : best) rows.insert(v.row());
        return rows;
    }
    Rows device_main() {
        std::string why;
        const auto j = tool_json({"route", "show", "-4", "vrf", "public"}, &why);
        if (!j) return {why};
        Rows rows;
        for (const Json& r : records(*j)) rows.insert(device_route(r).row());
        return rows;
    }
    bool main_table_agrees(const std::string& when) {
        return agree("IPv4 main table", when, [&] { return difference(kernel_main(), device_main()); });
    }

    // What the kernel forwards an address of the main table by: the route `ip route get
    // fibmatch` finds, or for a route that forwards nothing the type its refusal says.
    RouteView kernel_get(const std::string& addr) {
        const Ran r = ip_in(a_, {"-j", "route", "get", "fibmatch", addr});
        if (r.code != 0) return RouteView{"", type_of_refusal(r.err), "", "", "", 0};
        const auto all = records(parse_json(r.out));
        if (all.empty()) return RouteView{"", "error: " + r.out, "", "", "", 0};
        return kernel_route(all.front(), family_of(addr));
    }

    // The route of table 100 for an address, by longest prefix over the table as `ip route
    // show table 100` lists it (`ip route get` of this iproute2 takes no table); of routes
    // of one prefix the lowest metric.
    RouteView kernel_table_lookup(const std::string& addr) {
        const auto a = parse_ip(addr);
        const bool v6 = a->family == AF_INET6;
        std::optional<RouteView> found;
        int found_len = -1;
        for (const Json& r : records(a_json({v6 ? "-6" : "-4", "route", "show", "table", "100"}))) {
            const RouteView v = kernel_route(r, a->family);
            const std::size_t slash = v.dst.find('/');
            const auto net = parse_ip(v.dst.substr(0, slash));
            const int len = std::stoi(v.dst.substr(slash + 1));
            if (!net || !contains(*net, static_cast<unsigned>(len), *a)) continue;
            if (len > found_len || (len == found_len && v.metric < found->metric)) {
                found = v;
                found_len = len;
            }
        }
        return found ? *found : RouteView{"", "none", "", "", "", 0};
    }

    // What the device forwards an address by: `ipctl route get ADDR [vrf W]`.
    RouteView device_get(const std::string& addr, const std::vector<std::string>& vrf = {}) {
        std::vector<std::string> args{"-j", "route", "get", addr};
        args.insert(args.end(), vrf.begin(), vrf.end());
        const ipctl_test::Result r = tool(args);
        if (r.code == 1 && r.err.find("no route") != std::string::npos) return RouteView{"", "none", "", "", "", 0};
        const auto all = records(parse_json(r.out));
        if (r.code != 0 || all.empty()) return RouteView{"", "(" + said(args, r) + ")", "", "", "", 0};
        return device_route(all.front());
    }

    // The words that name table 100's VRF to `ipctl route get`: its name, or its index
    // where the tool takes an index only (the only VRF of the world: index 1).
    std::vector<std::string> table_vrf() {
        if (vrf_words_.empty()) {
            const ipctl_test::Result r = tool({"route", "get", "192.0.2.1", "vrf", "table100"});
            vrf_words_ = {"vrf", r.code == 2 ? "1" : "table100"};
        }
        return vrf_words_;
    }

    // Both sides agree on one address: on everything when the kernel names its route; on
    // the type alone when it only refused to forward.
    static std::string lookup_difference(const std::string& addr, const RouteView& k, const RouteView& d) {
        const bool same = k.dst.empty() ? k.type == d.type : k.row() == d.row();
        if (same) return {};
        return addr + ": kernel " + (k.dst.empty() ? "refuses as " + k.type : k.row()) + " | device " +
               (d.dst.empty() ? d.type : d.row());
    }

    void compare_lookups() {
        struct Sample {
            std::string addr;
            bool table100;
        };
        std::vector<Sample> samples;
        std::vector<const PlannedRoute*> main4, main6, other;
        for (const PlannedRoute& r : routes_) {
            if (r.len == 0) continue;
            if (r.table == 100) other.push_back(&r);
            else (r.net.family == AF_INET ? main4 : main6).push_back(&r);
        }
        for (int i = 0; i < 60; ++i) {
            const PlannedRoute* r = main4[pick(static_cast<unsigned>(main4.size()))];
            samples.push_back({ip_text(random_in(r->net, r->len, rng_)), false});
        }
        for (int i = 0; i < 20; ++i) {
            const PlannedRoute* r = main6[pick(static_cast<unsigned>(main6.size()))];
            samples.push_back({ip_text(random_in(r->net, r->len, rng_)), false});
        }
        for (int i = 0; i < 10 && !other.empty(); ++i) {
            const PlannedRoute* r = other[pick(static_cast<unsigned>(other.size()))];
            samples.push_back({ip_text(random_in(r->net, r->len, rng_)), true});
        }
        // A few addresses anywhere: most take the default route.
        while (samples.size() < 95) {
            Ip a = random_in(*parse_ip("0.0.0.0"), 0, rng_);
            if (a.b[0] == 0 || a.b[0] == 127 || a.b[0] >= 224 || (a.b[0] == 10 && a.b[1] == 77)) continue;
            samples.push_back({ip_text(a), false});
        }
        for (int i = 0; i < 3; ++i) samples.push_back({ip_text(random_in(*parse_ip("2001:db8:8000::"), 33, rng_)), false});
        samples.push_back({host4(1, 77), false});
        samples.push_back({host6(4, 0x77), false});

        std::vector<std::string> wrong;
        const auto check = [&](const Sample& s) {
            const RouteView k = s.table100 ? kernel_table_lookup(s.addr) : kernel_get(s.addr);
            const RouteView d = s.table100 ? device_get(s.addr, table_vrf()) : device_get(s.addr);
            return lookup_difference(s.addr + (s.table100 ? " (table 100)" : ""), k, d);
        };
        std::vector<Sample> pending;
        for (const Sample& s : samples) {
            if (!check(s).empty()) pending.push_back(s);
        }
        // What differs is asked again until it agrees or the time is over.
        const auto end = Clock::now() + seconds(5);
        while (!pending.empty() && Clock::now() < end) {
            std::this_thread::sleep_for(milliseconds(250));
            std::vector<Sample> still;
            for (const Sample& s : pending) {
                if (!check(s).empty()) still.push_back(s);
            }
            pending.swap(still);
        }
        if (!vrf_words_.empty()) {
            std::printf("[ seed %u ] table 100 is looked up with \"%s %s\"\n", GetParam(), vrf_words_[0].c_str(),
                        vrf_words_[1].c_str());
        }
        std::string report;
        for (std::size_t i = 0; i < pending.size() && i < 15; ++i) report += "\n  " + check(pending[i]);
        EXPECT_TRUE(pending.empty()) << pending.size() << " of " << samples.size()
                                     << " lookups differ (route get: kernel | device):" << report;
    }

    // ---- 4. Links ----

    // (ifindex, ifname, mtu, MAC); VRF devices are VRFs of the device, not interfaces.
    Rows kernel_links() {
        Rows rows;
        for (const Json& l : records(a_json({"-d", "link", "show"}))) {
            if (l.contains("linkinfo") && jstr(l["linkinfo"], "info_kind") == "vrf") continue;
            rows.insert(jstr(l, "ifindex") + " " + jstr(l, "ifname") + " mtu " + jstr(l, "mtu") + " " + jstr(l, "address"));
        }
        return rows;
    }
    Rows device_links() {
        std::string why;
        const auto j = tool_json({"link", "show"}, &why);
        if (!j) return {why};
        Rows rows;
        for (const Json& l : records(*j)) {
            rows.insert(jstr(l, "ifindex") + " " + jstr(l, "ifname") + " mtu " + jstr(l, "mtu") + " " + jstr(l, "address"));
        }
        return rows;
    }
    bool links_agree(const std::string& when) {
        return agree("links", when, [&] { return difference(kernel_links(), device_links()); });
    }

    // Up or down, as both sides say of one link: the kernel's UNKNOWN (a link without a
    // carrier state of its own, as a dummy link or lo) is up.
    std::string kernel_state(const std::string& dev) {
        const auto all = records(a_json({"link", "show", "dev", dev}));
        if (all.empty()) return "(no link)";
        const std::string s = jstr(all.front(), "operstate");
        return s == "UP" || s == "UNKNOWN" ? "UP" : "DOWN";
    }
    std::string device_state(const std::string& dev) {
        std::string why;
        const auto j = tool_json({"link", "show", "dev", dev}, &why);
        if (!j) return why;
        const auto all = records(*j);
        return all.empty() ? "(no link)" : jstr(all.front(), "operstate");
    }

    // ---- 5. Counters ----

    struct Counts {
        std::optional<std::uint64_t> rx, tx;
        std::string raw;
    };
    static Counts counts_of(const Json& j, const std::string& raw) {
        Counts c;
        c.raw = clip(raw, 800);
        const auto all = records(j);
        if (all.empty() || !all.front().contains("stats64")) return c;
        const Json& s = all.front()["stats64"];
        if (s.contains("rx")) c.rx = jnum(s["rx"], "packets");
        if (s.contains("tx")) c.tx = jnum(s["tx"], "packets");
        return c;
    }
    Counts kernel_counts(const std::string& dev) {
        const std::string out = in_a({"-j", "-s", "link", "show", "dev", dev});
        return counts_of(parse_json(out), out);
    }
    Counts device_counts(const std::string& dev) {
        const ipctl_test::Result r = tool({"-j", "-s", "link", "show", "dev", dev});
        return counts_of(parse_json(r.out), r.out + r.err);
    }

    // ---- 6. Changes under the monitor ----

    // Reads the monitor's events until one matches: true when one came within the time.
    // Every line read is kept for the failure messages.
    bool saw_event(const std::function<bool(const Json&)>& match, milliseconds limit) {
        const auto end = Clock::now() + limit;
        for (;;) {
            const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
            std::string line;
            if (left.count() <= 0 || !monitor_->out_line(&line, left)) return false;
            recent_.push_back(line);
            if (recent_.size() > 12) recent_.erase(recent_.begin());
            const Json e = parse_json(line);
            if (e.is_discarded()) continue;
            const bool matched = match(e);
            if (ipv6_table_event(e)) last_seq6_ = jstr(e, "seq");
            if (matched) return true;
        }
    }

    // An event of the object for the change: the first time three seconds, then (for an
    // object whose events did not come) half a second.
    void expect_event(const std::string& object, const std::string& change, const std::function<bool(const Json&)>& match) {
        if (!monitor_ok_) return;
        int& missed = missed_events_[object];
        if (saw_event(match, missed == 0 ? seconds(3) : milliseconds(500))) return;
        ++missed;
        if (missed <= 3) {
            std::string lines;
            for (const auto& l : recent_) lines += "\n    " + clip(l, 400);
            ADD_FAILURE() << "no \"" << object << "\" event for: " << change << "\n  the last lines of the monitor:"
                          << (lines.empty() ? " (none)" : lines);
        }
    }
    static bool deleted(const Json& e) { return jstr(e, "event").find("del") != std::string::npos; }
    // A change of the IPv6 tables as the monitor tells it: the tables' change sequence number,
    // without the route (IPv6 routes are found by prefix only).
    static bool ipv6_table_event(const Json& e) {
        return jstr(e, "object") == "route" && jstr(e, "family") == "inet6" && !e.contains("dst") && e.contains("seq");
    }
    // Reads what the monitor has written so far (the events of earlier changes).
    void catch_up() {
        if (monitor_ok_) (void)saw_event([](const Json&) { return false; }, milliseconds(100));
    }

    void random_changes() {
        monitor_ = std::make_unique<ipctl_test::Proc>(std::vector<std::string>{IPCTL_PATH, "-j", "monitor", "all"});
        std::string line;
        monitor_ok_ = monitor_->err_line(&line, seconds(10)) && line.rfind("monitoring", 0) == 0;
        if (!monitor_ok_) {
            std::string more;
            while (monitor_->err_line(&more, milliseconds(300))) line += "\n" + more;
            ADD_FAILURE() << "ipctl -j monitor all did not start (no event is checked): " << line;
        }

        std::vector<std::pair<std::string, std::string>> addrs;  // (ADDR/LEN, dev) added here
        std::vector<std::string> routes4, routes6;               // prefixes added here
        std::vector<std::string> neighbours = fake_neighbours_;
        unsigned next_addr = 0, next_route = 0, next_neigh = 150;  // the world's neighbours are below .150
        bool d0_up = false, v1_down = false;
        std::map<std::string, int> made;
        for (int done = 0; done < 50; ++done) {
            const std::string when = "after change " + std::to_string(done + 1) + " of 50";
            // 0 address added, 1 deleted; 2 neighbour replaced, 3 deleted; 4 route deleted, 5
            // replaced, 6 added; 7 IPv6 route added or deleted; 8 d0 flipped; 9 v1 down (and up
            // with the next change, so that v1 ends up).
            unsigned kind = v1_down ? 9 : pick(10);
            if (!v1_down) {
                if ((kind == 1 && addrs.empty()) || (kind == 9 && done > 47)) kind = 0;
                if ((kind == 4 || kind == 5) && routes4.empty()) kind = 6;
                if (kind == 3 && neighbours.empty()) kind = 2;
            }
            if (kind == 0) {  // an address added
                static const char* const devs[] = {"v0", "v1", "d0"};
                const std::string dev = devs[pick(3)];
                const std::string addr = "10.90." + std::to_string(next_addr++) + ".1";
                in_a({"addr", "add", addr + "/24", "dev", dev});
                addrs.emplace_back(addr + "/24", dev);
                ++made["address added"];
                expect_event("addr", "ip addr add " + addr + "/24 dev " + dev,
                             [&](const Json& e) {
                                 return jstr(e, "object") == "addr" && jstr(e, "local") == addr && !deleted(e);
                             });
                addresses_agree(when + " (an address added)");
            } else if (kind == 1) {  // an address deleted
                const std::size_t i = pick(static_cast<unsigned>(addrs.size()));
                const auto [prefix, dev] = addrs[i];
                addrs.erase(addrs.begin() + static_cast<std::ptrdiff_t>(i));
                const std::string addr = prefix.substr(0, prefix.find('/'));
                in_a({"addr", "del", prefix, "dev", dev});
                ++made["address deleted"];
                expect_event("addr", "ip addr del " + prefix + " dev " + dev,
                             [&](const Json& e) {
                                 return jstr(e, "object") == "addr" && jstr(e, "local") == addr && deleted(e);
                             });
                addresses_agree(when + " (an address deleted)");
            } else if (kind == 2) {  // a neighbour replaced: a new MAC, or a new entry
                static const char* const states[] = {"stale", "reachable", "delay", "probe", "permanent"};
                std::string addr;
                if (pick(2) == 0 && !neighbours.empty()) {
                    addr = neighbours[pick(static_cast<unsigned>(neighbours.size()))];
                } else {
                    addr = pick(2) == 0 ? host4(0, next_neigh) : host6(0, next_neigh);
                    ++next_neigh;
                    neighbours.push_back(addr);
                }
                const std::string mac = random_mac();
                const std::string state = states[pick(5)];
                in_a({"neigh", "replace", addr, "lladdr", mac, "dev", "v0", "nud", state});
                ++made["neighbour replaced"];
                const std::string object = family_of(addr) == AF_INET ? "arp" : "nd";
                expect_event(object, "ip neigh replace " + addr + " lladdr " + mac + " nud " + state, [&](const Json& e) {
                    return jstr(e, "object") == object && canon_addr(jstr(e, "dst")) == addr && !deleted(e) &&
                           jstr(e, "lladdr") == mac;
                });
                neighbours_agree(when + " (a neighbour replaced)");
            } else if (kind == 3) {  // a neighbour deleted
                const std::size_t i = pick(static_cast<unsigned>(neighbours.size()));
                const std::string addr = neighbours[i];
                neighbours.erase(neighbours.begin() + static_cast<std::ptrdiff_t>(i));
                in_a({"neigh", "del", addr, "dev", "v0"});
                ++made["neighbour deleted"];
                const std::string object = family_of(addr) == AF_INET ? "arp" : "nd";
                expect_event(object, "ip neigh del " + addr + " dev v0", [&](const Json& e) {
                    return jstr(e, "object") == object && canon_addr(jstr(e, "dst")) == addr && deleted(e);
                });
                neighbours_agree(when + " (a neighbour deleted)");
            } else if (kind == 4 || kind == 5) {  // a route of this part deleted, or replaced
                const std::size_t i = pick(static_cast<unsigned>(routes4.size()));
                const std::string prefix = routes4[i];
                if (kind == 4) {
                    routes4.erase(routes4.begin() + static_cast<std::ptrdiff_t>(i));
                    in_a({"route", "del", prefix});
                } else {
                    in_a({"route", "replace", prefix, "via", host4(0, 20 + pick(40)), "dev", "v0"});
                }
                ++made[kind == 4 ? "route deleted" : "route replaced"];
                expect_event("route", std::string("ip route ") + (kind == 4 ? "del " : "replace ") + prefix, [&](const Json& e) {
                    return jstr(e, "object") == "route" && canon_prefix(jstr(e, "dst"), AF_INET) == prefix &&
                           deleted(e) == (kind == 4);
                });
                main_table_agrees(when + " (a route " + (kind == 4 ? "deleted)" : "replaced)"));
            } else if (kind == 6) {  // an IPv4 route added, of any type
                const std::string prefix = "10.60." + std::to_string(next_route++) + ".0/24";
                static const char* const types[] = {"unicast", "unicast", "blackhole", "unreachable", "prohibit"};
                const std::string type = types[pick(5)];
                if (type == "unicast") {
                    in_a({"route", "add", prefix, "via", host4(0, 20 + pick(40)), "dev", "v0"});
                } else {
                    in_a({"route", "add", type, prefix});
                }
                routes4.push_back(prefix);
                ++made["route added"];
                expect_event("route", "ip route add " + type + " " + prefix, [&](const Json& e) {
                    return jstr(e, "object") == "route" && canon_prefix(jstr(e, "dst"), AF_INET) == prefix && !deleted(e);
                });
                main_table_agrees(when + " (a route added)");
            } else if (kind == 7) {  // an IPv6 route added or deleted
                const bool del = !routes6.empty() && pick(2) == 0;
                catch_up();
                const std::string seq_before = last_seq6_;
                std::string prefix;
                if (del) {
                    const std::size_t i = pick(static_cast<unsigned>(routes6.size()));
                    prefix = routes6[i];
                    routes6.erase(routes6.begin() + static_cast<std::ptrdiff_t>(i));
                    in_a({"route", "del", prefix});
                } else {
                    prefix = canon_prefix("2001:db8:60:" + std::to_string(next_route++) + "::/64", AF_INET6);
                    in_a({"route", "add", prefix, "via", host6(0, 2), "dev", "v0"});
                    routes6.push_back(prefix);
                }
                ++made[del ? "IPv6 route deleted" : "IPv6 route added"];
                // The route itself where the event names it; else a change of the IPv6 tables
                // after those of the earlier changes (another sequence number).
                expect_event("route", std::string("ip -6 route ") + (del ? "del " : "add ") + prefix, [&](const Json& e) {
                    if (ipv6_table_event(e)) return jstr(e, "seq") != seq_before;
                    return jstr(e, "object") == "route" && canon_prefix(jstr(e, "dst"), AF_INET6) == prefix && deleted(e) == del;
                });
                agree("IPv6 routes", when + " (" + prefix + (del ? " deleted)" : " added)"), [&] {
                    Rows k, d;
                    for (const Json& r : records(a_json({"-6", "route", "show", prefix}))) {
                        const RouteView v = kernel_route(r, AF_INET6);
                        if (v.dst == prefix) k.insert(v.row());
                    }
                    std::string why;
                    if (const auto j = tool_json({"route", "show", "-6", prefix}, &why)) {
                        for (const Json& r : records(*j)) d.insert(device_route(r).row());
                    } else {
                        d.insert(why);
                    }
                    return difference(k, d);
                });
            } else {  // a link flap: v1 down and (the next change) up again, or d0 either way
                std::string dev = "v1";
                bool up = false;
                if (kind == 8) {
                    dev = "d0";
                    up = !d0_up;
                    d0_up = up;
                } else {
                    up = v1_down;
                    v1_down = !v1_down;
                }
                in_a({"link", "set", dev, up ? "up" : "down"});
                ++made[dev + (up ? " up" : " down")];
                const std::string want = up ? "UP" : "DOWN";
                expect_event("link", "ip link set " + dev + (up ? " up" : " down"), [&](const Json& e) {
                    // The link by its name, under either key a record of a link may give it.
                    if (jstr(e, "object") != "link" || (jstr(e, "ifname") != dev && jstr(e, "dev") != dev)) return false;
                    const std::string s = jstr(e, "operstate");
                    return s.empty() || (s == "DOWN") == !up;
                });
                links_agree(when + " (" + dev + (up ? " up)" : " down)"));
                agree("link states", when + " (" + dev + (up ? " up)" : " down)"), [&] {
                    const std::string k = kernel_state(dev), d = device_state(dev);
                    return k == d ? std::string() : dev + ": kernel " + k + ", device " + d;
                });
                // The kernel drops the routes of a link taken down without a word.
                main_table_agrees(when + " (" + dev + (up ? " up)" : " down)"));
            }
        }
        monitor_.reset();
        std::string list;
        for (const auto& [what, n] : made) list += (list.empty() ? "" : ", ") + std::to_string(n) + " " + what;
        std::printf("[ seed %u ] changes: %s\n", GetParam(), list.c_str());
    }

    // ---- 7. The writable device ----

    // The kernel's entry for an address of v1: "" when it has none, else "primary" or
    // "secondary".
    std::string kernel_role(const std::string& prefix) {
        const std::string addr = prefix.substr(0, prefix.find('/'));
        const std::string len = prefix.substr(prefix.find('/') + 1);
        for (const Json& link : records(a_json({"-4", "addr", "show", "dev", "v1"}))) {
            if (!link.contains("addr_info")) continue;
            for (const Json& a : link["addr_info"]) {
                if (jstr(a, "local") != addr || jstr(a, "prefixlen") != len) continue;
                return jtrue(a, "secondary") ? "secondary" : "primary";
            }
        }
        return "";
    }

    void change_v1(const std::string& verb, const std::string& prefix, bool secondary, const std::string& want) {
        std::vector<std::string> args{"addr", verb, prefix, "dev", "v1"};
        if (secondary) args.emplace_back("secondary");
        const ipctl_test::Result r = tool(args);
        EXPECT_EQ(r.code, 0) << said(args, r) << "\n" << clip(sim_.log());
        const std::string role = kernel_role(prefix);
        EXPECT_EQ(role, want) << "ipctl addr " << verb << " " << prefix << (secondary ? " secondary" : "")
                              << ": the namespace's v1 has " << in_a({"-4", "addr", "show", "dev", "v1"});
        addresses_agree("on v1 after ipctl addr " + verb + " " + prefix, "v1");
    }

    void writable_changes() {
        // Ten sub addresses in v1's subnet (the kernel's secondaries), added and deleted.
        std::vector<unsigned> hosts;
        while (hosts.size() < 10) {
            const unsigned h = 100 + pick(100);
            if (std::find(hosts.begin(), hosts.end(), h) == hosts.end()) hosts.push_back(h);
        }
        for (const unsigned h : hosts) change_v1("add", host4(1, h) + "/24", true, "secondary");
        std::shuffle(hosts.begin(), hosts.end(), rng_);
        for (const unsigned h : hosts) change_v1("del", host4(1, h) + "/24", true, "");
        // Ten main addresses, each added and deleted: the first takes the place of v1's main
        // address (a main address replaces the interface's main address), which comes back
        // at the end.
        for (int i = 0; i < 10; ++i) {
            // Of length 16 to 24 with a last byte of 1 to 250: never a network's broadcast address.
            const std::string prefix = "10.91." + std::to_string(pick(256)) + "." + std::to_string(1 + pick(250)) + "/" +
                                       std::to_string(16 + pick(9));
            change_v1("add", prefix, false, "primary");
            if (i == 0) {
                EXPECT_EQ(kernel_role(host4(1, 1) + "/24"), "") << "v1's main address was replaced";
            }
            change_v1("del", prefix, false, "");
        }
        change_v1("add", host4(1, 1) + "/24", false, "primary");
        // What the kernel dropped with v1's addresses, the device drops too.
        main_table_agrees("after v1's addresses changed through the device");

        // Resolution through the kernel with its own timers: B answers for its address on
        // v0; nobody answers for an address of v0's subnet that nobody owns.
        neighbour_timers(false);
        for (const std::string& present : {host4(0, 2), host6(0, 2)}) {
            // The entry the echo requests made goes first, from the device too, so that the
            // answer printed is the one this resolution brings.
            (void)ip_in(a_, {"neigh", "del", present, "dev", "v0"});
            const std::string kept = converge([&] {
                for (const std::string& row : device_neighs()) {
                    if (row.rfind(present + " ", 0) == 0) return row;
                }
                return std::string();
            }, seconds(5));
            EXPECT_EQ(kept, "") << "the device kept the neighbour deleted in the namespace";
            const std::vector<std::string> args{"-j", "neigh", "resolve", present, "dev", "v0"};
            const ipctl_test::Result r = tool(args, seconds(15));
            EXPECT_EQ(r.code, 0) << said(args, r);
            const auto all = records(parse_json(r.out));
            ASSERT_FALSE(all.empty()) << said(args, r);
            EXPECT_EQ(jstr(all.front(), "state"), "reachable") << said(args, r);
            EXPECT_EQ(jstr(all.front(), "lladdr"), b_mac0_) << said(args, r);
        }
        for (const std::string& absent : {host4(0, 251), host6(0, 251)}) {
            const std::vector<std::string> args{"-j", "neigh", "resolve", absent, "dev", "v0"};
            const auto start = Clock::now();
            const ipctl_test::Result r = tool(args, seconds(15));
            const auto took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
            EXPECT_NE(r.code, -1) << "ipctl neigh resolve " << absent << " did not end within 15 s";
            EXPECT_LT(took.count(), 10000) << said(args, r);
            const std::string all = r.out + r.err;
            EXPECT_TRUE(all.find("incomplete") != std::string::npos || all.find("failed") != std::string::npos)
                << "no incomplete or failed state in the answer for " << absent << ": " << said(args, r);
        }
    }

    std::string ip_;
    std::string a_, b_;
    bool made_a_ = false, made_b_ = false;
    std::mt19937 rng_;
    e2e::SimProcess sim_;
    std::string kinds_;
    std::vector<PlannedRoute> routes_;
    std::set<std::string> used_prefixes_;
    std::vector<std::string> fake_neighbours_;
    std::string b_mac0_;
    std::vector<std::string> vrf_words_;
    std::map<std::string, int> failures_;
    std::map<std::string, int> missed_events_;
    std::unique_ptr<ipctl_test::Proc> monitor_;
    bool monitor_ok_ = false;
    std::vector<std::string> recent_;
    std::string last_seq6_;  // the IPv6 tables' change number the monitor told last
};

TEST_P(LinuxDifferential, TheMirrorShowsWhatTheKernelHas) {
    const auto started = Clock::now();
    const auto stamp = [&](const char* part) {
        std::printf("[ seed %u ] %-44s at %5.1f s\n", GetParam(), part,
                    std::chrono::duration<double>(Clock::now() - started).count());
        std::fflush(stdout);
    };
    ASSERT_NO_FATAL_FAILURE(build_world());
    if (const auto p0 = records(parse_json(in_b({"-j", "link", "show", "dev", "p0"}))); !p0.empty()) {
        b_mac0_ = jstr(p0.front(), "address");
    }
    std::printf("[ seed %u ] links: %s\n", GetParam(), kinds_.c_str());
    stamp("world made");
    ASSERT_TRUE(sim_.start({"--source", "linux", "--netns", a_, "--writable"})) << clip(sim_.log());
    stamp("ipsimd ready");

    // The world is what the comparisons take it to be (none of them compares two empty sets).
    const Rows addrs = kernel_addrs(), neighs = kernel_neighs(), main = kernel_main(), links = kernel_links();
    EXPECT_GE(addrs.size(), 7u) << "lo, v0 (two), v1, d0, v0.100, br0";
    EXPECT_GE(main.size(), 1500u);
    EXPECT_EQ(links.size(), 7u) << "lo, v0, v1, d0, d1, v0.100, br0 (and no other link)";
    for (const char* state : {"reachable", "stale", "delay", "probe", "permanent", "incomplete"}) {
        for (const bool v6 : {false, true}) {
            const bool held = std::any_of(neighs.begin(), neighs.end(), [&](const std::string& row) {
                const std::string dst = row.substr(0, row.find(' '));
                return (dst.find(':') != std::string::npos) == v6 && row.size() > std::strlen(state) &&
                       row.compare(row.size() - std::strlen(state), std::string::npos, state) == 0;
            });
            EXPECT_TRUE(held) << "the kernel has no " << (v6 ? "IPv6" : "IPv4") << " neighbour " << state;
        }
    }

    addresses_agree("once the device mirrors the namespace");
    stamp(("1. " + std::to_string(addrs.size()) + " addresses compared").c_str());
    neighbours_agree("once the device mirrors the namespace");
    stamp(("2. " + std::to_string(neighs.size()) + " neighbours compared").c_str());
    compare_lookups();
    main_table_agrees("once the device mirrors the namespace");
    stamp(("3. 100 lookups, " + std::to_string(main.size()) + " main routes compared").c_str());
    links_agree("once the device mirrors the namespace");
    stamp(("4. " + std::to_string(links.size()) + " links compared").c_str());

    // 5. Counters: twenty echo requests to B over v0; the link's packets agree within what
    // ARP, ND and multicast listener traffic may add while the two sides are read.
    const Counts before = device_counts("v0");
    EXPECT_EQ(ping_from(a_, host4(0, 2), 20), 20);
    constexpr std::uint64_t kTolerance = 4;
    std::string counters;
    const bool counted = agree("v0 counters", "after 20 echo requests", [&] {
        const Counts k = kernel_counts("v0"), d = device_counts("v0");
        counters = "kernel " + k.raw + "\n  device " + d.raw;
        if (!k.rx || !k.tx || !d.rx || !d.tx) return "no packet counts: " + counters;
        const auto off = [](std::uint64_t x, std::uint64_t y) { return x > y ? x - y : y - x; };
        if (off(*k.rx, *d.rx) <= kTolerance && off(*k.tx, *d.tx) <= kTolerance) return std::string();
        return "rx " + std::to_string(*k.rx) + " / " + std::to_string(*d.rx) + ", tx " + std::to_string(*k.tx) + " / " +
               std::to_string(*d.tx) + " (kernel / device)";
    });
    if (counted && before.tx) {
        const Counts after = device_counts("v0");
        EXPECT_GE(after.tx.value_or(0), *before.tx + 20) << "the device counted the echo requests";
    }
    stamp("5. counters compared");

    random_changes();
    stamp("6. fifty changes under the monitor");
    writable_changes();
    stamp("7. the writable device's changes");
    report_counts();
}

INSTANTIATE_TEST_SUITE_P(Seeds, LinuxDifferential, ::testing::Values(1u, 2u, 3u));

}  // namespace
}  // namespace ipdiff
