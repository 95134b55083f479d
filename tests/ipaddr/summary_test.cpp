// The IP summary text, byte for byte.
#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "ipaddr_support.hpp"
#include "ipclient/fib.h"
#include "support/addr_samples.hpp"
#include "support/case_name.hpp"
#include "support/directory_interface.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kVlan = 10;
constexpr std::uint32_t kMge = 20;

struct Route {
    std::uint16_t family;
    std::string next_hop;
    std::uint32_t flags;
};

class SummaryTest : public IPAddrTest {
protected:
    void add_interface(std::uint32_t ifindex, const char* name) {
        DirInterface(ifindex).name(name).add();
    }

    void address(std::uint32_t ifindex, const char* addr, const char* mask, std::uint32_t method) {
        IPAddrInfo info{};
        info.stEntry.stKey.uiIfIndex = ifindex;
        inet_pton(AF_INET, addr, &info.stEntry.stKey.uiAddr);
        inet_pton(AF_INET, mask, &info.stEntry.stKey.uiMask);
        info.stEntry.stKey.uiMethod = method;
        addresses_[ifindex] = info;
    }

    void install() {
        kernel.answer([this](const KernelCall& c) {
            if (c.command == 0x260001u) {
                const std::uint32_t ifindex = (std::uint32_t{c.request[8]} << 24) | (std::uint32_t{c.request[9]} << 16) |
                                              (std::uint32_t{c.request[10]} << 8) | c.request[11];
                const auto it = addresses_.find(ifindex);
                if (it == addresses_.end()) return KernelReply{0x60010023u, {}, std::nullopt};
                Bytes b;
                put_info(b, it->second);
                return KernelReply{0, b, std::nullopt};
            }
            if (c.command == 0x380003u) {
                if (search_status_ != 0) return KernelReply{search_status_, {}, std::nullopt};
                Bytes b(8 + routes_.size() * 128, 0);
                const std::uint64_t n = routes_.size();
                std::memcpy(b.data(), &n, 8);
                for (std::size_t i = 0; i < routes_.size(); ++i) {
                    std::uint8_t* e = b.data() + 8 + i * 128;
                    std::memcpy(e + 12, &routes_[i].family, 2);
                    inet_pton(routes_[i].family == 10 ? AF_INET6 : AF_INET, routes_[i].next_hop.c_str(), e + 16);
                    std::memcpy(e + 52, &routes_[i].flags, 4);
                }
                return KernelReply{0, b, std::nullopt};
            }
            return KernelReply{0x40010001u, {}, std::nullopt};
        });
    }

    std::string summary(std::uint32_t size = 1024) {
        install();
        std::vector<char> buf(size, 'x');
        EXPECT_EQ(IPAddr_GetIpSummary(size, buf.data()), 0u);
        return std::string(buf.data());
    }

    static std::string block(const std::string& method, const std::string& addr, const std::string& mask,
                             const std::string& gateway) {
        std::string s = method.empty() ? "\r\nIP Method:" : "\r\nIP Method:                      " + method;
        s += "\r\nIP address:                     " + addr;
        s += "\r\nSubnet mask:                    " + mask;
        s += "\r\nDefault gateway:                " + gateway + "\r\n";
        return s;
    }

    FakeKernel kernel;
    std::map<std::uint32_t, IPAddrInfo> addresses_;
    std::vector<Route> routes_;
    std::uint32_t search_status_ = 0;
};

TEST_F(SummaryTest, NullBufferOrZeroSizeFails) {
    char buf[4];
    EXPECT_EQ(IPAddr_GetIpSummary(0, buf), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_GetIpSummary(4, nullptr), IPSTATUS_FAILED);
}

TEST_F(SummaryTest, WithNeitherInterfaceTheBufferHoldsTheEmptyString) {
    EXPECT_EQ(summary(), "");
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(SummaryTest, BothInterfacesInOrderWithMethodsAndGateway) {
    add_interface(kVlan, "Vlan-interface1");
    add_interface(kMge, "M-GigabitEthernet0/0/0");
    address(kVlan, "192.168.1.1", "255.255.255.0", IPADDR_METHOD_DHCP);
    address(kMge, "10.0.0.5", "255.0.0.0", IPADDR_METHOD_MANUAL);
    routes_ = {{2, "192.168.1.250", 0}, {2, "192.168.1.254", 3}, {2, "192.168.1.253", 1}};
    EXPECT_EQ(summary(), "\r\nVlan1:" + block("DHCP", "192.168.1.1", "255.255.255.0", "192.168.1.254") +
                             "\r\nMGE0/0/0:" + block("Manual", "10.0.0.5", "255.0.0.0", "192.168.1.254"));
}

TEST_F(SummaryTest, InterfaceWithoutManualOrDhcpAddressPrintsEmptyValues) {
    add_interface(kVlan, "Vlan-interface1");
    EXPECT_EQ(summary(), "\r\nVlan1:" + block("", "", "", ""));
    // The walk asked for manual or DHCP addresses, from the start key.
    const auto calls = kernel.calls();
    ASSERT_GE(calls.size(), 1u);
    Bytes want = header(7, 32);
    put32(want, kVlan);
    put32(want, 5);
    put32(want, 1);
    IPAddrKey start{};
    start.usVrfIndex = 0xFFFF;
    put_key(want, start);
    EXPECT_EQ(calls[0].request, want);
}

// One interface with one address: its label, the method's name, and the gateway the default
// route search gives.
struct OneInterfaceCase {
    const char* name;
    std::uint32_t ifindex;
    const char* ifname;
    const char* label;
    const char* addr;
    const char* mask;
    std::uint32_t method;
    const char* method_text;
    std::vector<Route> routes;
    std::uint32_t search_status;
    const char* gateway;
    friend void PrintTo(const OneInterfaceCase& row, std::ostream* os) { *os << row.name; }
};

const OneInterfaceCase kOneInterfaceCases[] = {
    {"WithOnlyTheManagementPortTheTextStartsWithItsLabel", kMge, "M-GigabitEthernet0/0/0", "MGE0/0/0", "10.0.0.5",
     "255.255.0.0", IPADDR_METHOD_MANUAL, "Manual", {{2, "10.0.0.1", 1}}, 0, "10.0.0.1"},
    {"OtherMethodPrintsTheBareMethodLabel", kVlan, "Vlan-interface1", "Vlan1", "1.2.3.4", "255.255.255.255",
     IPADDR_METHOD_BOOTP, "", {}, 0, "255.255.255.255"},
    {"WithoutAFlaggedDefaultRouteTheGatewayLineRepeatsTheSubnetMask", kVlan, "Vlan-interface1", "Vlan1", "192.168.1.1",
     "255.255.255.0", IPADDR_METHOD_MANUAL, "Manual", {{2, "192.168.1.254", 2}}, 0, "255.255.255.0"},
    {"FailedSearchAlsoPrintsTheSubnetMaskAsGateway", kVlan, "Vlan-interface1", "Vlan1", "192.168.1.1", "255.255.255.0",
     IPADDR_METHOD_MANUAL, "Manual", {}, 0x40010001u, "255.255.255.0"},
    {"IPv6DefaultGatewayIsPrintedInFull", kVlan, "Vlan-interface1", "Vlan1", "192.168.1.1", "255.255.255.0",
     IPADDR_METHOD_MANUAL, "Manual", {{10, "2001:db8:abcd:12:3456:7890:abcd:ef01", 1}}, 0,
     "2001:db8:abcd:12:3456:7890:abcd:ef01"},
};

class SummaryOneInterfaceTest : public SummaryTest, public ::testing::WithParamInterface<OneInterfaceCase> {};

TEST_P(SummaryOneInterfaceTest, PrintsTheLabelMethodAddressMaskAndGateway) {
    const OneInterfaceCase& c = GetParam();
    add_interface(c.ifindex, c.ifname);
    address(c.ifindex, c.addr, c.mask, c.method);
    routes_ = c.routes;
    search_status_ = c.search_status;
    EXPECT_EQ(summary(), "\r\n" + std::string(c.label) + ":" + block(c.method_text, c.addr, c.mask, c.gateway));
}

INSTANTIATE_TEST_SUITE_P(Summaries, SummaryOneInterfaceTest, ::testing::ValuesIn(kOneInterfaceCases), CaseName());

TEST_F(SummaryTest, DefaultRouteSearchAsksForAllInstancesAndAtMost128Entries) {
    add_interface(kVlan, "Vlan-interface1");
    (void)summary();
    KernelCall search;
    for (const auto& c : kernel.calls()) {
        if (c.command == 0x380003u) search = c;
    }
    ASSERT_EQ(search.request.size(), 44u);
    std::uint64_t count = 0;
    std::memcpy(&count, search.request.data(), 8);
    EXPECT_EQ(count, 128u);
    FIB4_SEARCH_KEY_S key{};
    key.uiInstance = 0xFFFFFFFFu;
    key.usFamily = 2;
    EXPECT_EQ(std::memcmp(search.request.data() + 8, &key, sizeof key), 0);
    EXPECT_EQ(search.node, 0xFFFF8000u);
    EXPECT_EQ(search.reply_cap, 16392u);
}

TEST_F(SummaryTest, SmallBufferIsCutAndTerminatedWithoutOverrun) {
    add_interface(kVlan, "Vlan-interface1");
    add_interface(kMge, "M-GigabitEthernet0/0/0");
    address(kVlan, "192.168.1.1", "255.255.255.0", IPADDR_METHOD_DHCP);
    address(kMge, "10.0.0.5", "255.0.0.0", IPADDR_METHOD_MANUAL);
    const std::string full = "\r\nVlan1:" + block("DHCP", "192.168.1.1", "255.255.255.0", "255.255.255.0") +
                             "\r\nMGE0/0/0:" + block("Manual", "10.0.0.5", "255.0.0.0", "255.0.0.0");
    for (const std::uint32_t size : {1u, 5u, 40u, 150u, 200u}) {
        const std::string s = summary(size);
        EXPECT_LT(s.size(), size) << size;
        EXPECT_EQ(full.compare(0, s.size(), s), 0) << size;
    }
}

}  // namespace
}  // namespace ipt
