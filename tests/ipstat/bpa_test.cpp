// BPA statistics through the dump service and the BPA configuration from the IP daemon.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "ipclient/lipc.h"
#include "ipstat/ipstat_support.hpp"
#include "support/fake_service.hpp"
#include "support/lipc_frame.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kDumpId = 0x2a0001u;
constexpr std::uint32_t kNoDumpService = 0x2001000eu;
constexpr std::size_t kRecords = IP_BPA_RECORDS;
constexpr std::size_t kPerRecord = IP_BPA_COUNTERS;

using Records = std::array<std::uint64_t, kRecords * kPerRecord>;

// A node's 64 records of five counters, all different from each other and from every
// other node's.
Records node_records(std::uint64_t seed) {
    Records r{};
    for (std::size_t i = 0; i < r.size(); ++i) r[i] = seed * 0x0001000100010001ull + i * 0x0102030405ull + 1;
    return r;
}

Bytes chunk_of(const Records& r) {
    Bytes b;
    for (const std::uint64_t v : r) put64(b, v);
    return b;
}

void add_chunk(std::uint16_t node, const Records& r) {
    const Bytes b = chunk_of(r);
    ASSERT_EQ(b.size(), 2560u);
    ipp_dump_add_chunk(node, kDumpId, b.data(), static_cast<std::uint32_t>(b.size()));
}

struct DumpRequest {
    std::uint32_t node = 0;
    std::uint32_t id = 0;
    Bytes bytes;
};

std::vector<DumpRequest> dump_requests() {
    std::vector<DumpRequest> out;
    for (std::uint32_t i = 0; i < ipp_dump_request_count(); ++i) {
        DumpRequest r;
        std::uint8_t buf[64] = {};
        const std::uint32_t len = ipp_dump_request(i, &r.node, &r.id, buf, sizeof buf);
        r.bytes.assign(buf, buf + std::min<std::uint32_t>(len, sizeof buf));
        out.push_back(r);
    }
    return out;
}

std::vector<std::uint32_t> dump_nodes() {
    std::vector<std::uint32_t> out;
    for (const DumpRequest& r : dump_requests()) out.push_back(r.node);
    return out;
}

Records prefilled() {
    Records r{};
    for (std::size_t i = 0; i < r.size(); ++i) r[i] = 1000000 + i;
    return r;
}

class IpStatBpaTest : public IpStatTest {};

// ---- Statistics --------------------------------------------------------------------------

TEST_F(IpStatBpaTest, DumpRequestCarriesOperation25AndTheInterfaceIndexToTheOwningNode) {
    add_interface(make_interface(0x01020304u, 2));
    set_up({2});
    add_chunk(2, node_records(1));
    Records got{};
    EXPECT_EQ(IP_GetBpaStat(0x01020304u, got.data()), 0u);
    const auto reqs = dump_requests();
    ASSERT_EQ(reqs.size(), 1u);
    EXPECT_EQ(reqs[0].node, 2u);
    EXPECT_EQ(reqs[0].id, kDumpId);
    EXPECT_EQ(reqs[0].bytes, req_with(25, 0x01020304u));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    EXPECT_EQ(kernel.count(), 0u);  // the kernel channel is not used
}

TEST_F(IpStatBpaTest, OneNodesRecordsAddCountersOneToFourAndReplaceTheFifth) {
    add_interface(make_interface(0x900, 2));
    set_up({2});
    const Records r = node_records(3);
    add_chunk(2, r);
    Records got = prefilled();
    EXPECT_EQ(IP_GetBpaStat(0x900, got.data()), 0u);
    const Records base = prefilled();
    for (std::size_t rec = 0; rec < kRecords; ++rec) {
        for (std::size_t k = 0; k < kPerRecord; ++k) {
            const std::size_t i = rec * kPerRecord + k;
            const std::uint64_t want = k < 4 ? base[i] + r[i] : r[i];
            ASSERT_EQ(got[i], want) << "record " << rec << " counter " << k;
        }
    }
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(IpStatBpaTest, OverTwoNodesCountersOneToFourAreSummedAndTheSecondNodesFifthIsKept) {
    set_nodes({1, 2});
    set_up({1, 2});
    const Records a = node_records(10);
    const Records b = node_records(20);
    add_chunk(1, a);
    add_chunk(2, b);
    Records got{};
    EXPECT_EQ(IP_GetBpaStat(0, got.data()), 0u);
    EXPECT_EQ(dump_nodes(), (std::vector<std::uint32_t>{1, 2}));
    for (const DumpRequest& r : dump_requests()) {
        EXPECT_EQ(r.id, kDumpId);
        EXPECT_EQ(r.bytes, req_with(25, 0));
    }
    for (std::size_t rec = 0; rec < kRecords; ++rec) {
        for (std::size_t k = 0; k < kPerRecord; ++k) {
            const std::size_t i = rec * kPerRecord + k;
            const std::uint64_t want = k < 4 ? a[i] + b[i] : b[i];
            ASSERT_EQ(got[i], want) << "record " << rec << " counter " << k;
        }
    }
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(IpStatBpaTest, APullThatDeliversNothingGives40010001AndTheDumpIsTerminated) {
    add_interface(make_interface(0x900, 2));
    set_up({2});
    ipp_dump_set_final(2, kDumpId, 0);
    Records got = prefilled();
    EXPECT_EQ(IP_GetBpaStat(0x900, got.data()), kFailed);
    EXPECT_EQ(ipp_dump_request_count(), 1u);
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    EXPECT_EQ(got, prefilled());
}

TEST_F(IpStatBpaTest, APullThatFailsOtherwiseGives2001000eAndTheDumpIsTerminated) {
    add_interface(make_interface(0x900, 2));
    set_up({2});
    for (const std::uint32_t final_status : {0x40010001u, 0x12345678u, 0x4001000bu}) {
        ipp_dump_set_final(2, kDumpId, final_status);
        Records got = prefilled();
        EXPECT_EQ(IP_GetBpaStat(0x900, got.data()), kNoDumpService) << "pull status " << final_status;
        EXPECT_EQ(ipp_dump_open_handles(), 0u);
        EXPECT_EQ(got, prefilled());
    }
}

TEST_F(IpStatBpaTest, ARefusedDumpRequestGives2001000e) {
    add_interface(make_interface(0x900, 2));
    set_up({2});
    add_chunk(2, node_records(1));
    ipp_dump_fail_request(2, kDumpId, -1);
    Records got = prefilled();
    EXPECT_EQ(IP_GetBpaStat(0x900, got.data()), kNoDumpService);
    EXPECT_EQ(ipp_dump_request_count(), 1u);
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
    EXPECT_EQ(got, prefilled());
}

TEST_F(IpStatBpaTest, AnOwningNodeThatIsDownIsNotDumpedAndGivesZero) {
    add_interface(make_interface(0x900, 2));
    add_chunk(2, node_records(1));
    Records got = prefilled();
    EXPECT_EQ(IP_GetBpaStat(0x900, got.data()), 0u);
    EXPECT_EQ(ipp_dump_request_count(), 0u);
    EXPECT_EQ(got, prefilled());
}

TEST_F(IpStatBpaTest, NodesThatAreDownAreSkippedWhenEveryNodeIsRead) {
    set_nodes({1, 2, 3});
    set_up({1, 3});
    ipp_dir_set_node_up(2, 2);
    const Records a = node_records(1);
    const Records c = node_records(3);
    add_chunk(1, a);
    add_chunk(2, node_records(2));
    add_chunk(3, c);
    Records got{};
    EXPECT_EQ(IP_GetBpaStat(0, got.data()), 0u);
    EXPECT_EQ(dump_nodes(), (std::vector<std::uint32_t>{1, 3}));
    EXPECT_EQ(got[0], a[0] + c[0]);
    EXPECT_EQ(got[4], c[4]);
}

TEST_F(IpStatBpaTest, WithoutANodeListReadingEveryNodeGives40010001) {
    ipp_dir_clear_nodes();
    Records got = prefilled();
    EXPECT_EQ(IP_GetBpaStat(0, got.data()), kFailed);
    EXPECT_EQ(ipp_dump_request_count(), 0u);
    EXPECT_EQ(got, prefilled());
}

TEST_F(IpStatBpaTest, EveryNodeIsReadWhateverTheOtherNodesAnswered) {
    set_nodes({1, 2, 3});
    set_up({1, 2, 3});
    ipp_dump_fail_request(1, kDumpId, -5);
    ipp_dump_set_final(2, kDumpId, 0x777u);  // no chunk: the pull fails
    const Records c = node_records(7);
    add_chunk(3, c);
    Records got{};
    EXPECT_EQ(IP_GetBpaStat(0, got.data()), 0u);
    EXPECT_EQ(dump_nodes(), (std::vector<std::uint32_t>{1, 2, 3}));
    EXPECT_EQ(std::vector<std::uint64_t>(got.begin(), got.end()), std::vector<std::uint64_t>(c.begin(), c.end()));
    EXPECT_EQ(ipp_dump_open_handles(), 0u);
}

TEST_F(IpStatBpaTest, ASpanningInterfaceIsReadOnEveryNodeWithItsIndexInTheRequest) {
    add_interface(make_interface(0xABCD, 2, 0, 0x10));
    set_nodes({1, 2});
    set_up({1, 2});
    const Records a = node_records(4);
    const Records b = node_records(5);
    add_chunk(1, a);
    add_chunk(2, b);
    Records got{};
    EXPECT_EQ(IP_GetBpaStat(0xABCD, got.data()), 0u);
    EXPECT_EQ(dump_nodes(), (std::vector<std::uint32_t>{1, 2}));
    for (const DumpRequest& r : dump_requests()) EXPECT_EQ(r.bytes, req_with(25, 0xABCD));
    EXPECT_EQ(got[5], a[5] + b[5]);
    EXPECT_EQ(got[9], b[9]);
}

TEST_F(IpStatBpaTest, AnInterfaceWhoseFlagsCannotBeReadIsReadOnEveryNode) {
    add_interface(make_interface(0xABCD, 2));
    ipp_dir_fail_item(0xABCD, IF_DATA_FLAGS, 0x31);
    set_nodes({1, 3});
    set_up({1, 2, 3});
    add_chunk(1, node_records(1));
    add_chunk(3, node_records(3));
    Records got{};
    EXPECT_EQ(IP_GetBpaStat(0xABCD, got.data()), 0u);
    EXPECT_EQ(dump_nodes(), (std::vector<std::uint32_t>{1, 3}));
}

TEST_F(IpStatBpaTest, AFailingOwningNodeReadIsReturnedAndNothingIsDumped) {
    add_interface(make_interface(0xABCD, 2));
    ipp_dir_fail_item(0xABCD, IF_DATA_NODE, 0x4242u);
    set_nodes({1, 2});
    set_up({1, 2, 0x8000});
    Records got = prefilled();
    EXPECT_EQ(IP_GetBpaStat(0xABCD, got.data()), 0x4242u);
    EXPECT_EQ(ipp_dump_request_count(), 0u);
    EXPECT_EQ(got, prefilled());
}

// ---- Configuration from the IP daemon ------------------------------------------------------

TEST_F(IpStatBpaTest, CfgSendsOperation24AsMessageThirteenAndConvertsBothHalves) {
    Bytes got_request;
    std::uint32_t value = 0xFFFFFFFFu;
    {
        FakeService daemon(0x8000, 1648, [&got_request](Conn& c) {
            got_request = c.recv_message();
            c.send_message(framed(13, {0x12, 0x34, 0x56, 0x78}));
        });
        ASSERT_TRUE(daemon.listening());
        EXPECT_EQ(IP_GetBpaCfg(0x0A0B0C0Du, &value), 4u);
    }
    Bytes want_payload = req_with(24, 0x0A0B0C0Du);
    EXPECT_EQ(got_request, framed(13, want_payload));
    // Each 16-bit half converted by itself: 0x1234 at the low address, 0x5678 above it.
    std::uint16_t halves[2] = {};
    std::memcpy(halves, &value, sizeof value);
    EXPECT_EQ(halves[0], 0x1234u);
    EXPECT_EQ(halves[1], 0x5678u);
    EXPECT_EQ(value, 0x56781234u);  // as read on this little-endian host
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

TEST_F(IpStatBpaTest, CfgWithoutTheDaemonReturnsZeroAndLeavesTheValueAlone) {
    std::uint32_t value = 0xCAFEBABEu;
    EXPECT_EQ(IP_GetBpaCfg(7, &value), 0u);
    EXPECT_EQ(value, 0xCAFEBABEu);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

TEST_F(IpStatBpaTest, CfgWithAShortReplyReturnsItsLengthAndConvertsTheZeroedRest) {
    std::uint32_t value = 0xFFFFFFFFu;
    {
        FakeService daemon(0x8000, 1648, [](Conn& c) {
            c.recv_message();
            c.send_message(framed(13, {0xAB, 0xCD}));
        });
        EXPECT_EQ(IP_GetBpaCfg(7, &value), 2u);
    }
    std::uint16_t halves[2] = {0xFFFF, 0xFFFF};
    std::memcpy(halves, &value, sizeof value);
    EXPECT_EQ(halves[0], 0xABCDu);
    EXPECT_EQ(halves[1], 0u);
}

TEST_F(IpStatBpaTest, CfgWhenTheRequestCannotBeSentReturnsZero) {
    std::uint32_t value = 0x01020304u;
    {
        FakeService daemon(0x8000, 1648, [](Conn& c) { c.recv_message(65536, 500); });
        ipp_fault_short_send(1, 3);
        EXPECT_EQ(IP_GetBpaCfg(7, &value), 0u);
    }
    EXPECT_EQ(value, 0x01020304u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

}  // namespace
}  // namespace ipt
