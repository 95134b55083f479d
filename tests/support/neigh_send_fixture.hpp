// Packet sending of the two neighbour families, ARP and ND, described for the tests that run
// once per family: the fully specified packet, the requests that go to the node owning the
// interface, and the fixture that answers them from a scripted kernel.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/neigh_bytes.hpp"
#include "support/neigh_directory.hpp"
#include "support/neigh_records.hpp"
#include "support/neigh_tables_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt::neigh {

constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kSendIf = 0x00012345u;
constexpr std::uint16_t kSendIfNode = 7;
constexpr std::uint8_t kMac1[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};
constexpr std::uint8_t kMac2[6] = {0xA0, 0xB1, 0xC2, 0xD3, 0xE4, 0xF5};

inline void add_send_interface(std::uint32_t ifindex, std::uint16_t node) {
    add_to_directory(interface_entry(ifindex, node, 6));
}

struct ArpSend {
    static constexpr const char* kName = "Arp";
    static constexpr std::uint32_t kCommand = 0x140001u;
    using Specify = ARP_SEND_SPECIFY_S;
    static constexpr auto specify = &ARP_SendSpecify;
    // The description's big-endian fields; the head and tail bytes travel as given.
    static constexpr Field kSpecifyFields[] = {{8, 4}, {12, 4}, {16, 4}, {20, 2}, {22, 2}, {24, 4}, {28, 4}, {32, 4}};
    static Bytes specify_head() { return {22, 60, 0, 0}; }

    static std::uint32_t sender() { return ipv4(192, 168, 1, 10); }
    static std::uint32_t target() { return ipv4(10, 0, 0, 42); }

    // A request without a hardware address, and its 24 bytes: sub-op 2, length 20, the
    // flag and address cleared, the interface big-endian, the addresses as given.
    static std::uint32_t plain(std::uint32_t ifindex) { return ARP_Request(ifindex, sender(), target(), nullptr); }
    static Bytes plain_request(std::uint32_t ifindex) {
        Bytes b{2, 20, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
        put32(b, ifindex);
        put_as_given(b, sender());
        put_as_given(b, target());
        return b;
    }

    // Every request that goes to the node of the interface, with and without hardware
    // addresses, and the fully specified packet on it.
    static std::vector<std::uint32_t> node_requests(std::uint32_t ifindex, const Specify& desc) {
        return {ARP_Request(ifindex, sender(), target(), kMac1),
                ARP_Request(ifindex, sender(), target(), nullptr),
                ARP_Reply(ifindex, sender(), target(), kMac1),
                ARP_Reply(ifindex, sender(), target(), nullptr),
                ARP_Probe(ifindex, target(), kMac1),
                ARP_Probe(ifindex, target(), nullptr),
                ARP_RequestWithVlan(ifindex, 1, 2, sender(), target(), kMac1, kMac2),
                ARP_RequestWithVlan(ifindex, 1, 2, sender(), target(), nullptr, nullptr),
                ARP_SendSpecify(&desc)};
    }
};

struct NdSend {
    static constexpr const char* kName = "Nd";
    static constexpr std::uint32_t kCommand = 0x110001u;

    // The fully specified packet: operation 12 and length word 108 ahead of the record,
    // whose big-endian words are listed; the head, the bytes at 56 and the tail travel as
    // given.
    static Bytes specify_head() {
        Bytes b;
        put32(b, 12);
        put32(b, 108);
        return b;
    }
    static constexpr Field kSpecifyFields[] = {{48, 4}, {52, 4}, {60, 4}, {64, 2}, {66, 2}, {68, 4}, {72, 4}, {76, 4}};
    using Specify = NdSendSpecifyInfo;
    static constexpr auto specify = &ND_SendSpecify;

    static NdIPv6Addr addr() {
        NdIPv6Addr a{};
        const std::uint8_t bytes[16] = {0x20, 0x01, 0x0D, 0xB8, 0x00, 0x01, 0x00, 0x02,
                                        0x00, 0x00, 0x00, 0x00, 0xAB, 0xCD, 0xEF, 0x01};
        std::memcpy(a.aucAddr, bytes, 16);
        return a;
    }

    // A neighbour advertisement, and its 36 bytes: operation 3, length word 36, the interface,
    // the address, the link-layer address and a zero word.
    static std::uint32_t plain(std::uint32_t ifindex) { return ND_SendNA(ifindex, addr(), kMac1); }
    static Bytes plain_request(std::uint32_t ifindex) {
        Bytes b;
        put32(b, 3);
        put32(b, 36);
        put32(b, ifindex);
        putraw(b, addr().aucAddr, 16);
        putraw(b, kMac1, 6);
        put16(b, 0);
        return b;
    }

    // Every request that goes to the node of the interface.
    static std::vector<std::uint32_t> node_requests(std::uint32_t ifindex, const Specify& desc) {
        return {ND_SendRA(ifindex, addr(), kMac1, 1), ND_SendNA(ifindex, addr(), kMac1), ND_SendSpecify(&desc),
                ND_Resolve(addr(), ifindex)};
    }
};

template <class F>
class NeighSendTest : public PlatformTest {
public:
    // The fully specified packet of bytes that all differ, on the interface.
    static typename F::Specify sample_specify(std::uint32_t ifindex = kSendIf) {
        auto d = from_bytes<typename F::Specify>(patterned(sizeof(typename F::Specify), 0x80));
        d.uiIfIndex = ifindex;
        return d;
    }
    // Its request: the family's head, then the record with its big-endian fields reversed.
    static Bytes specify_request(const typename F::Specify& d) {
        Bytes b = F::specify_head();
        const Bytes body = swapped(bytes_of(d), F::kSpecifyFields);
        b.insert(b.end(), body.begin(), body.end());
        return b;
    }

    // The request of the i-th kernel call (empty when there was none).
    Bytes request_at(std::size_t i) const {
        const auto calls = kernel.calls();
        EXPECT_LT(i, calls.size());
        return i < calls.size() ? calls[i].request : Bytes{};
    }

    // The one kernel call: asynchronous, to this node, without a reply.
    void expect_single_async(std::uint32_t node, const Bytes& request) {
        ASSERT_EQ(kernel.count(), 1u);
        const KernelCall c = kernel.last();
        EXPECT_EQ(c.node, node);
        EXPECT_EQ(c.command, F::kCommand);
        EXPECT_EQ(c.request, request);
        EXPECT_TRUE(c.async);
        EXPECT_EQ(c.reply_cap, 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 0u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 1u);
    }

    // The caller's record is read, not written.
    static void specify_leaves_input_unchanged() {
        const auto desc = sample_specify();
        auto copy = desc;
        EXPECT_EQ(F::specify(&copy), 0u);
        EXPECT_EQ(bytes_of(copy), bytes_of(desc));
    }
    void specify_null_sends_nothing() {
        EXPECT_EQ(F::specify(nullptr), kFailed);
        EXPECT_EQ(kernel.count(), 0u);
    }
    // The fully specified packet goes to the interface's node, converted: its request.
    Bytes specify_sent_converted() {
        const auto desc = sample_specify();
        EXPECT_EQ(F::specify(&desc), 0u);
        const Bytes want = specify_request(desc);
        expect_single_async(kSendIfNode, want);
        return want;
    }

protected:
    NeighSendTest() {
        add_send_interface(kSendIf, kSendIfNode);
        ipp_dir_set_master_ep(0x0203);
        kernel.reply(0);
    }

    FakeKernel kernel;
};

}  // namespace ipt::neigh
