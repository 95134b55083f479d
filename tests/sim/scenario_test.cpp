// The scenario loader: the bundled default scenario, defaults, and refused documents with
// the line and key of their first problem.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <string>

#include "scenario/scenario.hpp"

namespace sim::scenario {
namespace {

// IPv4 text to its network-order word, as the scenario stores addresses.
std::uint32_t ipv4(const char* text) {
    in_addr a{};
    EXPECT_EQ(inet_pton(AF_INET, text, &a), 1) << text;
    return a.s_addr;
}

std::string mac_text(const std::uint8_t (&mac)[6]) {
    char buf[18];
    std::snprintf(buf, sizeof buf, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return buf;
}

// The Error a text is refused with; fails the test when the text loads.
Error refusal(const std::string& text) {
    try {
        load_text(text, "test.yaml");
    } catch (const Error& e) {
        return e;
    }
    ADD_FAILURE() << "accepted:\n" << text;
    return Error("", -1, "", "");
}

// The smallest valid document, for broken texts to build on (lines 1 and 2).
const std::string kNodes = "nodes:\n"
                           "  - {number: 1, role: master}\n";

const Interface& interface(const Scenario& s, std::uint32_t index) {
    const auto it = std::find_if(s.interfaces.begin(), s.interfaces.end(),
                                 [&](const Interface& i) { return i.index == index; });
    EXPECT_NE(it, s.interfaces.end()) << index;
    return *it;
}

// The bundled default scenario ---------------------------------------------------------

TEST(Scenario, DefaultDevice) {
    const Scenario s = load_default();
    EXPECT_EQ(s.source, "<default>");
    EXPECT_EQ(s.master, 1);
    EXPECT_EQ(s.master_ep, 1);
    EXPECT_EQ(s.mdc, 1);
    EXPECT_FALSE(s.mdc_child);
}

TEST(Scenario, DefaultNodesAreAMasterAndAStandbyInOneChassis) {
    const Scenario s = load_default();
    ASSERT_EQ(s.nodes.size(), 2u);
    EXPECT_EQ(s.nodes[0].number, 1);
    EXPECT_EQ(s.nodes[0].chassis, 1);
    EXPECT_EQ(s.nodes[0].slot, 0);
    EXPECT_EQ(s.nodes[0].role, Role::kMaster);
    EXPECT_TRUE(s.nodes[0].up);
    EXPECT_EQ(s.nodes[1].number, 2);
    EXPECT_EQ(s.nodes[1].chassis, 1);
    EXPECT_EQ(s.nodes[1].slot, 1);
    EXPECT_EQ(s.nodes[1].role, Role::kStandby);
    EXPECT_TRUE(s.nodes[1].up);
}

TEST(Scenario, DefaultVrfsArePublicAndOneVpn) {
    const Scenario s = load_default();
    ASSERT_EQ(s.vrfs.size(), 2u);
    EXPECT_EQ(s.vrfs[0].index, 0);
    EXPECT_EQ(s.vrfs[0].name, "public");
    EXPECT_EQ(s.vrfs[1].index, 1);
    EXPECT_EQ(s.vrfs[1].name, "vpn-a");
}

TEST(Scenario, DefaultInterfaces) {
    const Scenario s = load_default();
    ASSERT_EQ(s.interfaces.size(), 8u);
    const char* names[] = {"M-GigabitEthernet0/0/0", "GigabitEthernet1/0/1", "GigabitEthernet1/0/2",
                           "GigabitEthernet1/1/1",   "Vlan-interface1",      "Vlan-interface10",
                           "LoopBack0",              "Vsi-interface1"};
    const std::uint16_t nodes[] = {1, 1, 1, 2, 1, 1, 1, 1};
    const std::uint32_t types[] = {6, 6, 6, 6, 35, 35, 24, 122};
    for (std::uint32_t index = 1; index <= 8; ++index) {
        const Interface& i = interface(s, index);
        EXPECT_EQ(i.name, names[index - 1]);
        EXPECT_EQ(i.node, nodes[index - 1]) << i.name;
        EXPECT_EQ(i.type, types[index - 1]) << i.name;
        EXPECT_EQ(i.mtu, 1500u) << i.name;
        EXPECT_TRUE(i.visible && i.configured && i.valid) << i.name;
    }
    EXPECT_EQ(interface(s, 3).vrf, 1);
    EXPECT_EQ(interface(s, 2).vrf, 0);
    EXPECT_EQ(interface(s, 5).flags, 0x10u);
    EXPECT_EQ(interface(s, 6).flags, 0u);
    EXPECT_EQ(mac_text(interface(s, 1).mac), "00:e0:fc:00:00:01");
    EXPECT_EQ(mac_text(interface(s, 7).mac), "00:e0:fc:00:00:07");
}

TEST(Scenario, DefaultAddresses) {
    const Scenario s = load_default();
    ASSERT_EQ(s.addresses.size(), 7u);
    const auto find = [&](const char* addr) {
        const auto it = std::find_if(s.addresses.begin(), s.addresses.end(),
                                     [&](const Address& a) { return a.addr == ipv4(addr); });
        EXPECT_NE(it, s.addresses.end()) << addr;
        return *it;
    };
    const Address mgmt = find("192.168.0.1");
    EXPECT_EQ(mgmt.ifindex, 1u);
    EXPECT_EQ(mgmt.mask, ipv4("255.255.255.0"));
    EXPECT_EQ(mgmt.method, kMethodManual);
    EXPECT_FALSE(mgmt.sub);
    EXPECT_FALSE(mgmt.vrf.has_value());
    const Address sub = find("10.1.3.1");
    EXPECT_EQ(sub.ifindex, 2u);
    EXPECT_TRUE(sub.sub);
    const Address vpn = find("10.1.2.1");
    EXPECT_EQ(vpn.ifindex, 3u);
    EXPECT_EQ(vpn.vrf, std::optional<std::uint16_t>(1));
    EXPECT_EQ(find("10.1.1.1").ifindex, 2u);
    EXPECT_EQ(find("10.2.1.1").ifindex, 4u);
    EXPECT_EQ(find("192.168.1.1").ifindex, 5u);
    const Address loop = find("1.1.1.1");
    EXPECT_EQ(loop.ifindex, 7u);
    EXPECT_EQ(loop.mask, 0xFFFFFFFFu);
}

TEST(Scenario, DefaultServices) {
    const Scenario s = load_default();
    ASSERT_EQ(s.services.size(), 3u);
    const auto status = [&](std::uint16_t node, const char* name) {
        for (const Service& svc : s.services) {
            if (svc.node == node && svc.name == name) return static_cast<int>(svc.status);
        }
        return -1;
    };
    EXPECT_EQ(status(1, "IPStack"), 2);
    EXPECT_EQ(status(2, "IPStack"), 2);
    EXPECT_EQ(status(1, "DHCPC"), 0);
}

TEST(Scenario, DefaultRouteLeavesThroughTheManagementPort) {
    const Scenario s = load_default();
    ASSERT_EQ(s.routes.size(), 6u);
    const Route& r = s.routes[0];
    EXPECT_EQ(r.vrf, 0);
    EXPECT_EQ(r.family, AF_INET);
    EXPECT_EQ(r.prefix_len, 0);
    EXPECT_TRUE(std::all_of(std::begin(r.prefix), std::end(r.prefix), [](std::uint8_t b) { return b == 0; }));
    const std::uint8_t hop[4] = {192, 168, 0, 254};
    EXPECT_EQ(std::memcmp(r.next_hop, hop, sizeof hop), 0);
    EXPECT_EQ(r.ifindex, 1u);
    EXPECT_EQ(r.node, 0);
}

TEST(Scenario, DefaultNeighboursStartWithOneIpv4AndOneIpv6) {
    const Scenario s = load_default();
    ASSERT_EQ(s.neighbours.size(), 9u) << "three IPv4 lines, six IPv6 lines";
    const Neighbour& v4 = s.neighbours[0];
    EXPECT_EQ(v4.ifindex, 2u);
    EXPECT_EQ(v4.family, AF_INET);
    const std::uint8_t addr4[4] = {10, 1, 1, 2};
    EXPECT_EQ(std::memcmp(v4.addr, addr4, sizeof addr4), 0);
    EXPECT_EQ(mac_text(v4.mac), "00:11:22:33:44:55");
    EXPECT_EQ(v4.state, "reachable");
    const Neighbour& v6 = s.neighbours[1];
    EXPECT_EQ(v6.ifindex, 2u);
    EXPECT_EQ(v6.family, AF_INET6);
    std::uint8_t addr6[16] = {};
    ASSERT_EQ(inet_pton(AF_INET6, "fe80::2", addr6), 1);
    EXPECT_EQ(std::memcmp(v6.addr, addr6, sizeof addr6), 0);
    // A static IPv4 neighbour in VLAN 1, then a run of three.
    EXPECT_EQ(s.neighbours[2].state, "static");
    EXPECT_EQ(s.neighbours[2].vlan, 1u);
    EXPECT_EQ(s.neighbours[3].count, 3u);
    EXPECT_EQ(s.neighbours[3].ifindex, 4u);
}

TEST(Scenario, DefaultTextLoadsFromAFile) {
    const std::string path = ::testing::TempDir() + "scenario_test_default.yaml";
    std::ofstream(path) << default_text();
    const Scenario s = load_file(path);
    EXPECT_EQ(s.source, path);
    EXPECT_EQ(s.interfaces.size(), 8u);
}

// Defaults -----------------------------------------------------------------------------

TEST(Scenario, OmittedKeysTakeTheirDefaults) {
    const Scenario s = load_text(kNodes +
                                     "  - {number: 2}\n"
                                     "interfaces:\n"
                                     "  - {index: 0x1234, name: Tunnel1, node: 2, type: tunnel}\n"
                                     "addresses:\n"
                                     "  - {interface: 0x1234, address: 10.0.0.1/8, method: dhcp}\n",
                                 "mini.yaml");
    EXPECT_EQ(s.master, 1);
    EXPECT_EQ(s.master_ep, 1);
    EXPECT_EQ(s.mdc, 1);
    ASSERT_EQ(s.vrfs.size(), 1u);
    EXPECT_EQ(s.vrfs[0].name, "public");
    EXPECT_EQ(s.nodes[1].role, Role::kMember);
    EXPECT_TRUE(s.nodes[1].up);
    ASSERT_EQ(s.interfaces.size(), 1u);
    const Interface& i = s.interfaces[0];
    EXPECT_EQ(i.type, 71u);
    EXPECT_EQ(i.vrf, 0);
    EXPECT_EQ(i.mtu, 1500u);
    EXPECT_FALSE(i.l2 || i.temp);
    EXPECT_TRUE(i.visible && i.configured && i.valid);
    EXPECT_EQ(mac_text(i.mac), "00:e0:fc:00:12:34");
    ASSERT_EQ(s.addresses.size(), 1u);
    EXPECT_EQ(s.addresses[0].ifindex, 0x1234u);
    EXPECT_EQ(s.addresses[0].method, kMethodDhcp);
    EXPECT_EQ(s.addresses[0].mask, ipv4("255.0.0.0"));
}

// Refused documents --------------------------------------------------------------------

TEST(Scenario, ErrorTextNamesFileLineAndKey) {
    const Error e = refusal(kNodes + "interfaces: []\ncolour: red\n");
    EXPECT_STREQ(e.what(), "test.yaml:4: colour: unknown key");
    EXPECT_EQ(e.file(), "test.yaml");
}

TEST(Scenario, UnknownKeyIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces:\n"
                            "  - index: 1\n"
                            "    name: eth0\n"
                            "    node: 1\n"
                            "    type: ethernet\n"
                            "    speed: 1000\n");
    EXPECT_EQ(e.line(), 8);
    EXPECT_EQ(e.key(), "interfaces[0].speed");
}

TEST(Scenario, WrongTypeIsRefused) {
    const Error e = refusal(kNodes +
                            "  - {number: 2, slot: many}\n"
                            "interfaces: []\n");
    EXPECT_EQ(e.line(), 3);
    EXPECT_EQ(e.key(), "nodes[1].slot");
}

TEST(Scenario, DuplicateInterfaceIndexIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces:\n"
                            "  - {index: 1, name: a, node: 1, type: ethernet}\n"
                            "  - {index: 2, name: b, node: 1, type: ethernet}\n"
                            "  - {index: 1, name: c, node: 1, type: ethernet}\n");
    EXPECT_EQ(e.line(), 6);
    EXPECT_EQ(e.key(), "interfaces[2].index");
}

TEST(Scenario, DuplicateInterfaceNameIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces:\n"
                            "  - {index: 1, name: a, node: 1, type: ethernet}\n"
                            "  - {index: 2, name: a, node: 1, type: ethernet}\n");
    EXPECT_EQ(e.line(), 5);
    EXPECT_EQ(e.key(), "interfaces[1].name");
}

TEST(Scenario, InterfaceOnAMissingNodeIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces:\n"
                            "  - index: 1\n"
                            "    name: a\n"
                            "    node: 9\n"
                            "    type: ethernet\n");
    EXPECT_EQ(e.line(), 6);
    EXPECT_EQ(e.key(), "interfaces[0].node");
}

TEST(Scenario, MissingVrfIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces:\n"
                            "  - {index: 1, name: a, node: 1, type: ethernet, vrf: vpn-b}\n");
    EXPECT_EQ(e.line(), 4);
    EXPECT_EQ(e.key(), "interfaces[0].vrf");
}

TEST(Scenario, BadPrefixIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces: []\n"
                            "routes:\n"
                            "  - {prefix: 0.0.0.0/0}\n"
                            "  - {prefix: 10.0.0.0/33}\n");
    EXPECT_EQ(e.line(), 6);
    EXPECT_EQ(e.key(), "routes[1].prefix");
}

TEST(Scenario, AddressWithoutPrefixLengthIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces:\n"
                            "  - {index: 1, name: a, node: 1, type: ethernet}\n"
                            "addresses:\n"
                            "  - {interface: a, address: 10.0.0.1}\n");
    EXPECT_EQ(e.line(), 6);
    EXPECT_EQ(e.key(), "addresses[0].address");
}

TEST(Scenario, BadMacIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces:\n"
                            "  - {index: 1, name: a, node: 1, type: ethernet, mac: 00:11:22:33:44:5g}\n");
    EXPECT_EQ(e.line(), 4);
    EXPECT_EQ(e.key(), "interfaces[0].mac");
}

TEST(Scenario, SecondMasterIsRefused) {
    const Error e = refusal(kNodes +
                            "  - {number: 2, role: master}\n"
                            "interfaces: []\n");
    EXPECT_EQ(e.line(), 3);
    EXPECT_EQ(e.key(), "nodes[1].role");
}

TEST(Scenario, NodeNumberOutOfRangeIsRefused) {
    const Error e = refusal("nodes:\n"
                            "  - {number: 0x8000, role: master}\n"
                            "interfaces: []\n");
    EXPECT_EQ(e.line(), 2);
    EXPECT_EQ(e.key(), "nodes[0].number");
}

TEST(Scenario, MissingInterfacesSectionIsRefused) {
    const Error e = refusal(kNodes);
    EXPECT_EQ(e.line(), 1);
    EXPECT_EQ(e.key(), "interfaces");
}

TEST(Scenario, YamlSyntaxErrorIsRefused) {
    const Error e = refusal(kNodes +
                            "interfaces: []]\n"
                            "vrfs: []\n");
    EXPECT_EQ(e.line(), 3);
    EXPECT_EQ(e.key(), "<document>");
}

TEST(Scenario, MissingFileIsRefused) {
    const std::string path = ::testing::TempDir() + "scenario_test_no_such_file.yaml";
    try {
        load_file(path);
        ADD_FAILURE() << "loaded " << path;
    } catch (const Error& e) {
        EXPECT_EQ(e.file(), path);
        EXPECT_EQ(e.line(), 0);
        EXPECT_EQ(e.key(), "<file>");
    }
}

// Limits ---------------------------------------------------------------------------------

// The Error a file is refused with; fails the test when the file loads.
Error file_refusal(const std::string& path) {
    try {
        load_file(path);
    } catch (const Error& e) {
        return e;
    }
    ADD_FAILURE() << "accepted: " << path;
    return Error("", -1, "", "");
}

// A directory of its own under the test's temporary directory.
std::string temp_dir() {
    std::string dir = ::testing::TempDir() + "scenario_test_XXXXXX";
    EXPECT_NE(::mkdtemp(dir.data()), nullptr) << std::strerror(errno);
    return dir;
}

std::string write_file(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
    return path;
}

// The largest size the process has had, in bytes.
long peak_rss() {
    rusage u{};
    ::getrusage(RUSAGE_SELF, &u);
    return u.ru_maxrss * 1024L;
}

std::string repeat(const std::string& s, std::size_t n) {
    std::string out;
    out.reserve(s.size() * n);
    for (std::size_t i = 0; i < n; ++i) out += s;
    return out;
}

TEST(Scenario, DevZeroIsRefusedAsNotARegularFile) {
    const Error e = file_refusal("/dev/zero");
    EXPECT_STREQ(e.what(), "/dev/zero:0: <file>: not a regular file (a character device)");
    EXPECT_EQ(e.file(), "/dev/zero");
    EXPECT_EQ(e.line(), 0);
    EXPECT_EQ(e.key(), "<file>");
}

TEST(Scenario, DevUrandomIsRefused) {
    const Error e = file_refusal("/dev/urandom");
    EXPECT_STREQ(e.what(), "/dev/urandom:0: <file>: not a regular file (a character device)");
}

TEST(Scenario, FifoIsRefusedWithoutBlocking) {
    const std::string dir = temp_dir();
    const std::string fifo = dir + "/scenario.fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0) << std::strerror(errno);
    auto loading = std::async(std::launch::async, [&] { return file_refusal(fifo); });
    if (loading.wait_for(std::chrono::seconds(2)) != std::future_status::ready) {
        ADD_FAILURE() << "the load waits for a writer";
        // Be that writer, so that the load ends and the test with it.
        ::close(::open(fifo.c_str(), O_WRONLY | O_NONBLOCK));
    }
    const Error e = loading.get();
    EXPECT_EQ(std::string(e.what()), fifo + ":0: <file>: not a regular file (a FIFO)");
    ::unlink(fifo.c_str());
    ::rmdir(dir.c_str());
}

TEST(Scenario, DirectoryIsRefused) {
    const std::string dir = temp_dir();
    const Error e = file_refusal(dir);
    EXPECT_EQ(std::string(e.what()), dir + ":0: <file>: not a regular file (a directory)");
    ::rmdir(dir.c_str());
}

TEST(Scenario, FileOverTheSizeLimitIsRefused) {
    // A sparse file one byte past the limit: refused on its size, before it is read.
    const std::string path = ::testing::TempDir() + "scenario_test_over.yaml";
    write_file(path, kNodes + "interfaces: []\n");
    ASSERT_EQ(::truncate(path.c_str(), static_cast<off_t>(kFileBytesMax + 1)), 0) << std::strerror(errno);
    const Error e = file_refusal(path);
    EXPECT_EQ(std::string(e.what()), path + ":0: <file>: the file is 16777217 bytes; at most 16777216");
    EXPECT_EQ(e.key(), "<file>");
    ::unlink(path.c_str());
}

TEST(Scenario, FileAtTheSizeLimitIsRead) {
    // A small scenario and one comment line that fills the file up to the limit.
    const std::string head = kNodes + "interfaces: []\n";
    const std::string text = head + "#" + std::string(kFileBytesMax - head.size() - 2, 'x') + "\n";
    ASSERT_EQ(text.size(), kFileBytesMax);
    const std::string path = write_file(::testing::TempDir() + "scenario_test_at.yaml", text);
    const Scenario s = load_file(path);
    EXPECT_EQ(s.source, path);
    EXPECT_EQ(s.nodes.size(), 1u);
    ::unlink(path.c_str());
}

TEST(Scenario, TextOverTheSizeLimitIsRefused) {
    const std::string text = kNodes + "interfaces: []\n#" + std::string(kFileBytesMax, 'x') + "\n";
    EXPECT_EQ(std::string(refusal(text).what()),
              "test.yaml:1: <document>: the text is " + std::to_string(text.size()) + " bytes; at most 16777216");
}

TEST(Scenario, NestingBeyondTheLimitIsRefusedWithItsLine) {
    const char* const kDeep = "lists and mappings nested deeper than 64 levels";
    const std::size_t n = 200'000;
    // In brackets and in compact block lists, all on one line.
    for (const std::string& deep : {repeat("[", n) + repeat("]", n), repeat("- ", n) + "x"}) {
        const Error e = refusal("# deep\n" + deep + "\n");
        EXPECT_EQ(e.line(), 2) << e.what();
        EXPECT_EQ(e.key(), "<document>");
        EXPECT_STREQ(e.what(), (std::string("test.yaml:2: <document>: ") + kDeep).c_str());
    }
    // One level a line: in brackets, a list entry indented one more each, a key each. The
    // 65th level is on line 65.
    std::string lists, keys;
    for (std::size_t i = 0; i < 100; ++i) {
        lists += std::string(i, ' ') + "-\n";
        keys += std::string(i, ' ') + "k:\n";
    }
    for (const std::string& deep : {repeat("[\n", n) + repeat("]\n", n), lists, keys}) {
        const Error e = refusal(deep);
        EXPECT_EQ(e.line(), 65) << e.what();
        EXPECT_EQ(e.key(), "<document>");
    }
    // Under the sections' mapping (level 1): the 64th bracket is the 65th level.
    const Error e = refusal("nodes:\n" + repeat("  [\n", 100) + repeat("  ]\n", 100));
    EXPECT_EQ(e.line(), 65) << e.what();
    // Refused on the text, before the reader, which would hold every bracket of it (some
    // 250 bytes each) before it reports the first.
    const long peak = peak_rss();
    EXPECT_EQ(refusal(repeat("[", 2'000'000)).line(), 1);
    EXPECT_LT(peak_rss() - peak, 64L << 20);
}

TEST(Scenario, NestingWithinTheLimitIsRead) {
    // 64 levels pass the limit's checks; the loader then finds what is wrong with them.
    EXPECT_STREQ(refusal("nodes: " + repeat("[", 63) + repeat("]", 63) + "\n").what(),
                 "test.yaml:1: nodes[0]: expected a mapping");
    EXPECT_STREQ(refusal("nodes:\n  " + repeat("- ", 63) + "x\n").what(), "test.yaml:2: nodes[0]: expected a mapping");
    EXPECT_STREQ(refusal(repeat("[", 64) + repeat("]", 64) + "\n").what(),
                 "test.yaml:1: <document>: expected a mapping of sections");
    std::string keys;
    for (std::size_t i = 0; i < 64; ++i) keys += std::string(i, ' ') + "k:\n";
    EXPECT_STREQ(refusal(keys).what(), "test.yaml:1: k: unknown key");
    // The deepest sections of a real scenario: a VSI's circuits.
    const Scenario s = load_text(kNodes +
                                     "interfaces:\n"
                                     "  - {index: 1, name: eth1, node: 1, type: ethernet}\n"
                                     "vsis:\n"
                                     "  - name: v\n"
                                     "    index: 1\n"
                                     "    circuits:\n"
                                     "      - {interface: eth1, service: 10, link: 1}\n",
                                 "vsi.yaml");
    ASSERT_EQ(s.vsis.size(), 1u);
    EXPECT_EQ(s.vsis[0].circuits.size(), 1u);
}

TEST(Scenario, QuotedBracketsDoNotCountAsNesting) {
    // Brackets in quoted, plain (over two lines too) and block scalars and in comments, far
    // more of them than the limit, in block and in bracketed sections.
    const std::string b = repeat("[{", 100);
    const Scenario s = load_text(kNodes +
                                     "interfaces: []  # " + b + "\n"
                                     "# " + b + "\n"
                                     "services:\n"
                                     "  - {node: 1, name: \"d\\\"" + b + "\"}\n"
                                     "  - {node: 1, name: 's''" + b + "'}\n"
                                     "  - node: 1\n"
                                     "    name: p" + b + "\n"
                                     "  - node: 1\n"
                                     "    name: q\n"
                                     "      " + b + "\n"
                                     "  - node: 1\n"
                                     "    name: |-\n"
                                     "      " + b + "\n"
                                     "routes: [{prefix: '0.0.0.0/0'}, {prefix: \"::/0\"}]  # " + b + "\n",
                                 "quoted.yaml");
    ASSERT_EQ(s.services.size(), 5u);
    EXPECT_EQ(s.services[0].name, "d\"" + b);
    EXPECT_EQ(s.services[1].name, "s'" + b);
    EXPECT_EQ(s.services[2].name, "p" + b);
    EXPECT_EQ(s.services[3].name, "q " + b);
    EXPECT_EQ(s.services[4].name, b);
    EXPECT_EQ(s.routes.size(), 2u);
}

TEST(Scenario, GeneratedEntriesBeyondTheMaximumAreRefused) {
    const std::string head = kNodes +
                             "interfaces:\n"
                             "  - {index: 1, name: eth1, node: 1, type: ethernet}\n"
                             "neighbours:\n";
    const auto items = [&](std::size_t n, std::uint32_t count) {
        std::string text = head;
        for (std::size_t i = 0; i < n; ++i) {
            text += "  - {interface: 1, address: 10." + std::to_string(i) + ".0.1, mac: 02:00:00:00:00:01, count: " +
                    std::to_string(count) + "}\n";
        }
        return text;
    };
    // 16 runs of 4,000,000: refused at the first, at once, with nothing big allocated.
    const long peak = peak_rss();
    const auto start = std::chrono::steady_clock::now();
    Error e = refusal(items(16, 4'000'000));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_LT(peak_rss() - peak, 64L << 20);
    EXPECT_STREQ(e.what(),
                 "test.yaml:6: neighbours[0].count: the file's neighbours would make 4000000 entries; at most 2000000");
    // 16 runs of 200,000: the 11th passes the maximum.
    e = refusal(items(16, 200'000));
    EXPECT_STREQ(e.what(),
                 "test.yaml:16: neighbours[10].count: the file's neighbours would make 2200000 entries; at most 2000000");
    // One entry past it, made by an item without a count.
    e = refusal(items(1, 2'000'000) + "  - {interface: 1, address: 10.9.0.1, mac: 02:00:00:00:00:01}\n");
    EXPECT_STREQ(e.what(), "test.yaml:7: neighbours[1]: the file's neighbours would make 2000001 entries; at most 2000000");
}

TEST(Scenario, GeneratedEntriesAtTheMaximumAreAccepted) {
    // Only loaded: the runs are not made into entries here.
    std::string text = kNodes +
                       "interfaces:\n"
                       "  - {index: 1, name: eth1, node: 1, type: ethernet}\n"
                       "neighbours:\n";
    for (int i = 0; i < 10; ++i) {
        text += "  - {interface: 1, address: 10." + std::to_string(i) + ".0.1, mac: 02:00:00:00:00:01, count: 200000}\n";
    }
    const Scenario s = load_text(text, "max.yaml");
    ASSERT_EQ(s.neighbours.size(), 10u);
    std::uint64_t total = 0;
    for (const Neighbour& n : s.neighbours) total += n.count;
    EXPECT_EQ(total, kNeighbourEntriesMax);
    EXPECT_EQ(load_text(kNodes +
                            "interfaces: [{index: 1, name: eth1, node: 1, type: ethernet}]\n"
                            "neighbours: [{interface: 1, address: 10.0.0.1, mac: 02:00:00:00:00:01, count: 2000000}]\n",
                        "one.yaml")
                  .neighbours[0]
                  .count,
              2'000'000u);
}

TEST(Scenario, ValuesBeyondTheMaximumAreRefused) {
    // In brackets under a block list: the commas are counted in the text...
    Error e = refusal("nodes: [" + repeat("0,", kValuesMax + 1) + "]\n");
    EXPECT_STREQ(e.what(), "test.yaml:1: <document>: more than 2000000 values");
    // ... and the values on the reader's events, which are more. The sections' mapping,
    // "nodes" and its list are the first three values, then each line holds a list and 19
    // values in it: line L starts with value 4 + 20 * (L - 2).
    const std::size_t lines = kValuesMax / 20 + 10;
    e = refusal("nodes:\n" + repeat("- [0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0]\n", lines));
    EXPECT_EQ(e.line(), static_cast<int>((kValuesMax + 1 - 4) / 20 + 2));
    EXPECT_EQ(e.line(), 100'001);
    EXPECT_EQ(e.key(), "<document>");
    EXPECT_STREQ(e.what(), "test.yaml:100001: <document>: more than 2000000 values");
}

TEST(Scenario, LongValueIsQuotedAsAnExcerpt) {
    // A name and a key of 10 MB (quoted: read faster than plain), an integer of 1 MB.
    const std::string big(10'000'000, 'x');
    const std::string xs(kExcerptMax, 'x');
    Error e = refusal(kNodes + "interfaces:\n  - {index: 1, name: '" + big + "', node: 1, type: ethernet}\n");
    EXPECT_LT(std::strlen(e.what()), 300u);
    EXPECT_EQ(std::string(e.what()), "test.yaml:4: interfaces[0].name: must be 1 to 31 characters, got \"" + xs + "...\"");
    e = refusal(kNodes + "interfaces: []\n? '" + big + "'\n: 1\n");
    EXPECT_LT(std::strlen(e.what()), 300u);
    EXPECT_EQ(std::string(e.what()), "test.yaml:4: " + xs + "...: unknown key");
    EXPECT_EQ(e.key(), xs + "...");
    e = refusal(kNodes + "  - {number: " + std::string(1'000'000, '7') + "}\ninterfaces: []\n");
    EXPECT_LT(std::strlen(e.what()), 300u);
    EXPECT_EQ(std::string(e.what()),
              "test.yaml:3: nodes[1].number: must be between 1 and 32767, got " + std::string(kExcerptMax, '7') + "...");
}

TEST(Scenario, BytesOutsidePrintableAsciiAreEscapedInErrors) {
    const Error e = refusal(kNodes + "interfaces:\n  - {index: 1, name: \"caf\\u00e9\\t\", node: 1, type: ethernet}\n");
    EXPECT_STREQ(e.what(),
                 "test.yaml:4: interfaces[0].name: must be printable characters without spaces, got \"caf\\xc3\\xa9\\x09\"");
}

TEST(Scenario, ControlCharactersAreRefused) {
    EXPECT_STREQ(refusal(kNodes + "interfaces: []\n#\x04\n").what(),
                 "test.yaml:4: <document>: a control character (\\x04); a scenario is text");
    EXPECT_STREQ(refusal(kNodes + "interfaces: [] \r#\n").what(),
                 "test.yaml:3: <document>: a control character (\\x0d); a scenario is text");
    EXPECT_STREQ(refusal(std::string("nodes: \0", 8)).what(),
                 "test.yaml:1: <document>: a control character (\\x00); a scenario is text");
    EXPECT_STREQ(refusal("\xFF\xFEn\0o\0").what(), "test.yaml:1: <document>: UTF-16 or UTF-32 text; a scenario is UTF-8 text");
    // Line ends of two characters are text.
    EXPECT_EQ(load_text(kNodes + "interfaces: []\r\n", "crlf.yaml").nodes.size(), 1u);
}

TEST(Scenario, EndlessDocumentsEndAtTheSecond) {
    // The reader finds a new empty document at every step of a text that starts with a
    // comma, for ever; the load ends at the second.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_STREQ(refusal(", a\n").what(), "test.yaml:1: <document>: more than one document");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_STREQ(refusal(kNodes + "interfaces: []\n---\nnodes: []\n").what(),
                 "test.yaml:5: <document>: more than one document");
}

}  // namespace
}  // namespace sim::scenario

// Faults and limits -----------------------------------------------------------------------

namespace sim::scenario {
namespace {

TEST(ScenarioKnobs, FaultsAndLimitsBecomeTheArgumentsOfTheirOperations) {
    const Scenario s = load_text(kNodes + "interfaces: []\n"
                                          "faults:\n"
                                          "  - {kernel: \"0x260001\", error: 1073807363, times: 2}\n"
                                          "  - {port: 1653, drop: true, probability: 0.25, seed: 3}\n"
                                          "limits:\n"
                                          "  - {table: fib, capacity: ~}\n",
                                 "test.yaml");
    ASSERT_EQ(s.faults.size(), 2u);
    EXPECT_EQ(s.faults[0].line, 5);
    EXPECT_EQ(s.faults[0].key, "faults[0]");
    EXPECT_EQ(s.faults[0].args, nlohmann::json::parse(R"({"kernel": "0x260001", "error": 1073807363, "times": 2})"));
    EXPECT_EQ(s.faults[1].args,
              nlohmann::json::parse(R"({"port": 1653, "drop": true, "probability": 0.25, "seed": 3})"));
    EXPECT_TRUE(s.faults[1].args["probability"].is_number_float());
    ASSERT_EQ(s.limits.size(), 1u);
    EXPECT_EQ(s.limits[0].line, 8);
    EXPECT_TRUE(s.limits[0].args["capacity"].is_null());
}

TEST(ScenarioKnobs, AQuotedValueStaysAString) {
    const Scenario s = load_text(kNodes + "interfaces: []\nlimits:\n  - {table: arp, capacity: \"12\"}\n", "test.yaml");
    ASSERT_EQ(s.limits.size(), 1u);
    EXPECT_TRUE(s.limits[0].args["capacity"].is_string()) << "limit.set then refuses it as not a number";
}

TEST(ScenarioKnobs, AnItemThatIsNotAMappingIsRefusedWithItsLineAndKey) {
    const Error e = refusal(kNodes + "interfaces: []\nfaults:\n  - drop\n");
    EXPECT_EQ(e.line(), 5);
    EXPECT_EQ(e.key(), "faults[0]");
}

TEST(ScenarioKnobs, ANestedValueIsRefused) {
    const Error e = refusal(kNodes + "interfaces: []\nlimits:\n  - {table: [arp]}\n");
    EXPECT_EQ(e.line(), 5);
    EXPECT_EQ(e.key(), "limits[0].table");
}

}  // namespace
}  // namespace sim::scenario
