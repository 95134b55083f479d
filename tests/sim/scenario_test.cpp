// The scenario loader: the bundled default scenario, defaults, and refused documents with
// the line and key of their first problem.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
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

}  // namespace
}  // namespace sim::scenario
