// ARP entry queries and counters: the exact requests to the kernel ARP module, the target
// node of each, the conversion of the two converted entry layouts, the raw readers, the
// per-node counter walks, the entry set sent to the ARP daemon, and the tag-length-value
// readers.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <initializer_list>
#include <memory>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/neigh_directory.hpp"
#include "support/neigh_kernel_queries.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

using namespace neigh;

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kNoEntry = 0x40010005u;
constexpr std::uint32_t kOwnNode = 0xFFFF8000u;
constexpr std::uint32_t kArpCommand = 0x140001u;
constexpr std::uint32_t kEntryLen = 36;
constexpr std::uint32_t kAggregate = 41;

// Module request header: sub-operation, header byte, two zero bytes.
Bytes head(std::uint8_t sub_op, std::uint8_t header_byte) { return Bytes{sub_op, header_byte, 0, 0}; }

// A 32-bit value as it lies in memory (what "as given" puts on the wire).
void put_as_given(Bytes& b, std::uint32_t v) { putraw(b, &v, sizeof v); }

// A word whose bytes in memory are a.b.c.d: an IPv4 address in network order.
std::uint32_t ip(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    const std::uint8_t bytes[4] = {a, b, c, d};
    std::uint32_t v = 0;
    std::memcpy(&v, bytes, sizeof v);
    return v;
}

std::uint32_t be32_at(const Bytes& b, std::size_t off) {
    return (std::uint32_t{b[off]} << 24) | (std::uint32_t{b[off + 1]} << 16) | (std::uint32_t{b[off + 2]} << 8) |
           std::uint32_t{b[off + 3]};
}
std::uint16_t be16_at(const Bytes& b, std::size_t off) {
    return static_cast<std::uint16_t>((b[off] << 8) | b[off + 1]);
}
std::uint32_t host32_at(const ARP_ENTRY_S& e, std::size_t off) {
    std::uint32_t v = 0;
    std::memcpy(&v, e.aucData + off, sizeof v);
    return v;
}
std::uint16_t host16_at(const ARP_ENTRY_S& e, std::size_t off) {
    std::uint16_t v = 0;
    std::memcpy(&v, e.aucData + off, sizeof v);
    return v;
}

// A 36-byte reply whose bytes are all different, so that any missing, extra or misplaced
// swap shows.
Bytes pattern_entry(std::uint8_t seed) {
    Bytes b(kEntryLen);
    for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<std::uint8_t>(seed + i * 7);
    return b;
}

// What the caller must see after conversion: the wire bytes with the listed 32-bit and
// 16-bit big-endian fields replaced by their host-order values.
Bytes converted(const Bytes& wire, std::initializer_list<std::size_t> words,
                std::initializer_list<std::size_t> halves) {
    Bytes out = wire;
    for (const std::size_t off : words) {
        const std::uint32_t v = be32_at(wire, off);
        std::memcpy(out.data() + off, &v, sizeof v);
    }
    for (const std::size_t off : halves) {
        const std::uint16_t v = be16_at(wire, off);
        std::memcpy(out.data() + off, &v, sizeof v);
    }
    return out;
}
// The converted layout of the extended entry (sub-op 10).
Bytes extend_host(const Bytes& wire) { return converted(wire, {4, 8, 12, 28}, {22, 24}); }
// The converted layout of the entry by address (sub-op 28).
Bytes by_ip_host(const Bytes& wire) { return converted(wire, {4, 8, 28, 32}, {12, 14, 16, 24}); }

Bytes entry_bytes(const ARP_ENTRY_S& e) { return Bytes(e.aucData, e.aucData + kEntryLen); }

void add_interface(std::uint32_t ifindex, std::uint16_t node, std::uint32_t type) {
    add_to_directory(interface_entry(ifindex, node, type));
}

class ArpKernelTest : public PlatformTest {
protected:
    void expect_call(const KernelCall& c, std::uint32_t node, const Bytes& request, std::uint32_t cap) {
        expect_kernel_call(c, node, kArpCommand, request, cap);
    }
    void expect_single_call(std::uint32_t node, const Bytes& request, std::uint32_t cap) {
        ASSERT_EQ(kernel.count(), 1u);
        expect_call(kernel.last(), node, request, cap);
    }
    void expect_single_async(std::uint32_t node, const Bytes& request) {
        ASSERT_EQ(kernel.count(), 1u);
        const KernelCall c = kernel.last();
        EXPECT_EQ(c.node, node);
        EXPECT_EQ(c.command, kArpCommand);
        EXPECT_EQ(c.request, request);
        EXPECT_TRUE(c.async);
        EXPECT_EQ(c.reply_cap, 0u);
    }

    FakeKernel kernel;
};

class ArpQueryTest : public ArpKernelTest {
protected:
    ArpQueryTest() {
        // DEV_GetSelf and the local node differ, so that the "local" test of the extended
        // read can only be met through DEV_GetSelf.
        ipp_dir_set_self(kSelf);
        ipp_dir_set_local_node(9);
    }

    static constexpr std::uint16_t kSelf = 3;
    static constexpr std::uint32_t kAggIndex = 0x01020A0Bu;
    static constexpr std::uint32_t kMemberIndex = 0x03040506u;
    static constexpr std::uint32_t kPlainIndex = 0x0000C1D2u;

    // The sub-op 10 request for an address and the aggregate / plain interface index.
    static Bytes extend_request(std::uint32_t addr, std::uint32_t ifindex) {
        Bytes b = head(10, 8);
        put_as_given(b, addr);
        put32(b, ifindex);
        return b;
    }

    // An aggregate's first reply naming the member that holds the entry.
    static Bytes master_reply(std::uint32_t member) {
        Bytes b = pattern_entry(0x21);
        Bytes m;
        put32(m, member);
        std::copy(m.begin(), m.end(), b.begin() + 8);
        return b;
    }
};

const std::uint32_t kAddr = ip(192, 0, 2, 77);

// ---- Edge cases -----------------------------------------------------------------------------

TEST_F(ArpQueryTest, GetConfWithLength111Or113FailsWithoutRequest) {
    kernel.reply(0, Bytes(112, 0x5A));
    std::uint8_t buf[120];
    std::memset(buf, 0xEE, sizeof buf);
    EXPECT_EQ(ARP_GetConf(111, buf), kFailed);
    EXPECT_EQ(ARP_GetConf(113, buf), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 0u);
    EXPECT_EQ(buf[0], 0xEE);
}

TEST_F(ArpQueryTest, GetNextEntryAtLastEntryEmptyReplyReturnsNoEntry) {
    kernel.reply(0, {});
    ARP_ENTRY_S e{};
    e.aucData[0] = 10;
    EXPECT_EQ(ARP_GetNextEntry(&e), kNoEntry);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(ArpQueryTest, EntryExtendAggregateWithMemberOnLocalNodeMakesOneRequest) {
    add_interface(kAggIndex, 7, kAggregate);
    add_interface(kMemberIndex, kSelf, 6);
    const Bytes wire = master_reply(kMemberIndex);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kOk);
    expect_single_call(kOwnNode, extend_request(kAddr, kAggIndex), kEntryLen);
    EXPECT_EQ(entry_bytes(e), extend_host(wire));
    EXPECT_EQ(host32_at(e, 8), kMemberIndex);
}

TEST_F(ArpQueryTest, EntryExtendAggregateWithMemberOnOtherNodeMakesTwoRequests) {
    add_interface(kAggIndex, kSelf, kAggregate);
    add_interface(kMemberIndex, 5, 6);
    const Bytes second = pattern_entry(0x42);
    kernel.reply(0, master_reply(kMemberIndex));
    kernel.reply(0, second);
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kOk);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    expect_call(calls[0], kOwnNode, extend_request(kAddr, kAggIndex), kEntryLen);
    expect_call(calls[1], 5u, extend_request(kAddr, kAggIndex), kEntryLen);
    // The holder's answer is the one converted and returned.
    EXPECT_EQ(entry_bytes(e), extend_host(second));
}

// ---- Requests ---------------------------------------------------------------------------------

TEST_F(ArpQueryTest, DeleteDynamicEntrySendsKeysAsGivenAsynchronously) {
    kernel.reply(0);
    EXPECT_EQ(ARP_DeleteDynamicEntry(0x11223344u, 0x55667788u), kOk);
    Bytes want = head(0, 8);
    put_as_given(want, 0x11223344u);
    put_as_given(want, 0x55667788u);
    ASSERT_EQ(want.size(), 12u);
    expect_single_async(kOwnNode, want);
}

TEST_F(ArpQueryTest, DeleteAuthorizedEntrySendsKeysAsGivenAsynchronously) {
    kernel.reply(0);
    EXPECT_EQ(ARP_DeleteAuthorizedEntry(0x0A0B0C0Du, 0x01020304u), kOk);
    Bytes want = head(9, 8);
    put_as_given(want, 0x0A0B0C0Du);
    put_as_given(want, 0x01020304u);
    expect_single_async(kOwnNode, want);
}

TEST_F(ArpQueryTest, DeleteOperationsReturnTheSendingStatus) {
    kernel.reply(0x2BADF00Du);
    EXPECT_EQ(ARP_DeleteDynamicEntry(1, 2), 0x2BADF00Du);
    EXPECT_EQ(ARP_DeleteAuthorizedEntry(3, 4), 0x2BADF00Du);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL_ASYNC), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 0u);
}

TEST_F(ArpQueryTest, GetEntrySendsAddressAndKeyAsGivenAndReturnsReplyRaw) {
    const Bytes wire = pattern_entry(0x30);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntry(0x00A1B2C3u, kAddr, &e), kOk);
    Bytes want = head(1, 8);
    put_as_given(want, kAddr);
    put_as_given(want, 0x00A1B2C3u);
    expect_single_call(kOwnNode, want, kEntryLen);
    EXPECT_EQ(entry_bytes(e), wire);
}

TEST_F(ArpQueryTest, GetEntryFailsOnFailedRequestEmptyReplyAndBadArguments) {
    kernel.reply(0x12345678u, pattern_entry(1));
    ARP_ENTRY_S e{};
    EXPECT_EQ(ARP_GetEntry(1, kAddr, &e), kFailed);
    FakeKernel empty;
    empty.reply(0, {});
    EXPECT_EQ(ARP_GetEntry(1, kAddr, &e), kFailed);
    EXPECT_EQ(empty.count(), 1u);
    EXPECT_EQ(ARP_GetEntry(1, kAddr, nullptr), kFailed);
    EXPECT_EQ(ARP_GetEntry(1, 0, &e), kFailed);
    EXPECT_EQ(empty.count(), 1u);
}

TEST_F(ArpQueryTest, GetNextEntrySendsWordsZeroAndOneOfTheBufferAndOverwritesItRaw) {
    const Bytes wire = pattern_entry(0x50);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    const std::uint8_t last[8] = {198, 51, 100, 7, 0x00, 0x00, 0x12, 0x34};
    std::memcpy(e.aucData, last, sizeof last);
    std::memset(e.aucData + 8, 0x99, kEntryLen - 8);
    ASSERT_EQ(ARP_GetNextEntry(&e), kOk);
    Bytes want = head(7, 0);
    putraw(want, last, sizeof last);
    expect_single_call(kOwnNode, want, kEntryLen);
    EXPECT_EQ(entry_bytes(e), wire);
}

TEST_F(ArpQueryTest, GetFirstEntryWithClearedBufferSendsZeroKeys) {
    kernel.reply(0, pattern_entry(3));
    ARP_ENTRY_S e{};
    std::memset(e.aucData + 8, 0x77, kEntryLen - 8);
    ASSERT_EQ(ARP_GetFirstEntry(&e), kOk);
    Bytes want = head(7, 0);
    want.resize(12, 0);
    expect_single_call(kOwnNode, want, kEntryLen);
    EXPECT_EQ(entry_bytes(e), pattern_entry(3));
}

TEST_F(ArpQueryTest, GetFirstEntryIsGetNextEntry) {
    kernel.reply(0, pattern_entry(4));
    ARP_ENTRY_S e{};
    const std::uint8_t key[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    std::memcpy(e.aucData, key, sizeof key);
    ASSERT_EQ(ARP_GetFirstEntry(&e), kOk);
    Bytes want = head(7, 0);
    putraw(want, key, sizeof key);
    expect_single_call(kOwnNode, want, kEntryLen);
}

TEST_F(ArpQueryTest, GetNextEntryFailureIsNoEntryAndNullBufferIsFailure) {
    kernel.reply(0x12345678u, pattern_entry(1));
    ARP_ENTRY_S e{};
    EXPECT_EQ(ARP_GetNextEntry(&e), kNoEntry);
    EXPECT_EQ(kernel.count(), 1u);
    EXPECT_EQ(ARP_GetNextEntry(nullptr), kFailed);
    EXPECT_EQ(ARP_GetFirstEntry(nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(ArpQueryTest, GetEntryByIPSendsAddressAndZeroKeyAndConvertsItsLayout) {
    const Bytes wire = pattern_entry(0x11);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntryByIP(kAddr, &e), kOk);
    Bytes want = head(28, 8);
    put_as_given(want, kAddr);
    put32(want, 0);
    expect_single_call(kOwnNode, want, kEntryLen);
    EXPECT_EQ(entry_bytes(e), by_ip_host(wire));
}

TEST_F(ArpQueryTest, GetEntryByIPConvertsEachFieldOfItsOwnLayout) {
    Bytes wire;
    putraw(wire, "\xC0\x00\x02\x4D", 4);  // 0: address, untouched
    put32(wire, 0x01020304u);              // 4
    put32(wire, 0x05060708u);              // 8
    put16(wire, 0x090Au);                  // 12
    put16(wire, 0x0B0Cu);                  // 14
    put16(wire, 0x0D0Eu);                  // 16
    putraw(wire, "\xA1\xA2\xA3\xA4\xA5\xA6", 6);  // 18: hardware address, untouched
    put16(wire, 0x1F2Eu);                  // 24
    putraw(wire, "\x3C\x4B", 2);           // 26: untouched
    put32(wire, 0x11223344u);              // 28
    put32(wire, 0x55667788u);              // 32
    ASSERT_EQ(wire.size(), kEntryLen);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    ASSERT_EQ(ARP_GetEntryByIP(kAddr, &e), kOk);
    EXPECT_EQ(std::memcmp(e.aucData, "\xC0\x00\x02\x4D", 4), 0);
    EXPECT_EQ(host32_at(e, 4), 0x01020304u);
    EXPECT_EQ(host32_at(e, 8), 0x05060708u);
    EXPECT_EQ(host16_at(e, 12), 0x090Au);
    EXPECT_EQ(host16_at(e, 14), 0x0B0Cu);
    EXPECT_EQ(host16_at(e, 16), 0x0D0Eu);
    EXPECT_EQ(std::memcmp(e.aucData + 18, "\xA1\xA2\xA3\xA4\xA5\xA6", 6), 0);
    EXPECT_EQ(host16_at(e, 24), 0x1F2Eu);
    EXPECT_EQ(e.aucData[26], 0x3C);
    EXPECT_EQ(e.aucData[27], 0x4B);
    EXPECT_EQ(host32_at(e, 28), 0x11223344u);
    EXPECT_EQ(host32_at(e, 32), 0x55667788u);
}

TEST_F(ArpQueryTest, GetEntryByIPFailsOnZeroAddressNullBufferFailureAndEmptyReply) {
    ARP_ENTRY_S e{};
    EXPECT_EQ(ARP_GetEntryByIP(0, &e), kFailed);
    EXPECT_EQ(ARP_GetEntryByIP(kAddr, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    kernel.reply(0x12345678u, pattern_entry(1));
    kernel.reply(0, {});
    EXPECT_EQ(ARP_GetEntryByIP(kAddr, &e), kFailed);
    EXPECT_EQ(ARP_GetEntryByIP(kAddr, &e), kFailed);
    EXPECT_EQ(kernel.count(), 2u);
}

TEST_F(ArpQueryTest, EntryExtendConvertsEachFieldOfItsOwnLayout) {
    add_interface(kPlainIndex, 6, 6);
    Bytes wire;
    putraw(wire, "\xC0\x00\x02\x4D", 4);  // 0: address, untouched
    put32(wire, 0x01020304u);              // 4
    put32(wire, 0x05060708u);              // 8: member interface index
    put32(wire, 0x090A0B0Cu);              // 12
    putraw(wire, "\xA1\xA2\xA3\xA4\xA5\xA6", 6);  // 16: hardware address, untouched
    put16(wire, 0x0D0Eu);                  // 22
    put16(wire, 0x0F10u);                  // 24
    putraw(wire, "\x3C\x4B", 2);           // 26: untouched
    put32(wire, 0x11223344u);              // 28: refresh time
    putraw(wire, "\x55\x66\x77\x88", 4);   // 32: untouched
    ASSERT_EQ(wire.size(), kEntryLen);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kOk);
    EXPECT_EQ(std::memcmp(e.aucData, "\xC0\x00\x02\x4D", 4), 0);
    EXPECT_EQ(host32_at(e, 4), 0x01020304u);
    EXPECT_EQ(host32_at(e, 8), 0x05060708u);
    EXPECT_EQ(host32_at(e, 12), 0x090A0B0Cu);
    EXPECT_EQ(std::memcmp(e.aucData + 16, "\xA1\xA2\xA3\xA4\xA5\xA6", 6), 0);
    EXPECT_EQ(host16_at(e, 22), 0x0D0Eu);
    EXPECT_EQ(host16_at(e, 24), 0x0F10u);
    EXPECT_EQ(e.aucData[26], 0x3C);
    EXPECT_EQ(e.aucData[27], 0x4B);
    EXPECT_EQ(host32_at(e, 28), 0x11223344u);
    EXPECT_EQ(std::memcmp(e.aucData + 32, "\x55\x66\x77\x88", 4), 0);
}

TEST_F(ArpQueryTest, TheTwoConvertedLayoutsDifferOnTheSameReply) {
    const Bytes wire = pattern_entry(0x61);
    ASSERT_NE(extend_host(wire), by_ip_host(wire));
    add_interface(kPlainIndex, 6, 6);
    kernel.reply(0, wire);
    ARP_ENTRY_S extended{};
    ARP_ENTRY_S by_ip{};
    ASSERT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &extended), kOk);
    ASSERT_EQ(ARP_GetEntryByIP(kAddr, &by_ip), kOk);
    EXPECT_EQ(entry_bytes(extended), extend_host(wire));
    EXPECT_EQ(entry_bytes(by_ip), by_ip_host(wire));
}

TEST_F(ArpQueryTest, EntryExtendOtherTypeAsksTheInterfaceNodeOnce) {
    add_interface(kPlainIndex, 6, 6);
    // Offset 8 names an interface on the local node: without type 41 it is not looked at.
    add_interface(kMemberIndex, kSelf, 6);
    const Bytes wire = master_reply(kMemberIndex);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kOk);
    expect_single_call(6u, extend_request(kAddr, kPlainIndex), kEntryLen);
    EXPECT_EQ(entry_bytes(e), extend_host(wire));
}

TEST_F(ArpQueryTest, EntryExtendOtherTypeOnLocalNodeStillAsksThatNode) {
    add_interface(kPlainIndex, kSelf, 6);
    kernel.reply(0, pattern_entry(2));
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kOk);
    expect_single_call(kSelf, extend_request(kAddr, kPlainIndex), kEntryLen);
}

TEST_F(ArpQueryTest, EntryExtendInterfaceOnNode8000IsSignExtended) {
    add_interface(kPlainIndex, 0x8000, 6);
    kernel.reply(0, pattern_entry(2));
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kOk);
    expect_single_call(kOwnNode, extend_request(kAddr, kPlainIndex), kEntryLen);
}

TEST_F(ArpQueryTest, EntryExtendTypeReadFailureFailsWithoutRequest) {
    add_interface(kPlainIndex, 6, 6);
    ipp_dir_fail_item(kPlainIndex, IF_DATA_TYPE, 0x0E0E0E0Eu);
    kernel.reply(0, pattern_entry(2));
    ARP_ENTRY_S e{};
    EXPECT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kFailed);
    // An interface the platform doesn't know fails the same way.
    EXPECT_EQ(arp_GetEntryExtend(0x7777u, kAddr, &e), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CIOCTL), 0u);
}

TEST_F(ArpQueryTest, EntryExtendAggregateWithMemberIndexZeroKeepsTheGivenIndex) {
    add_interface(kAggIndex, 4, kAggregate);
    kernel.reply(0, master_reply(0));
    kernel.reply(0, pattern_entry(0x42));
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kOk);
    const auto calls = kernel.calls();
    ASSERT_EQ(calls.size(), 2u);
    expect_call(calls[0], kOwnNode, extend_request(kAddr, kAggIndex), kEntryLen);
    // The aggregate's own node is asked.
    expect_call(calls[1], 4u, extend_request(kAddr, kAggIndex), kEntryLen);
    EXPECT_EQ(entry_bytes(e), extend_host(pattern_entry(0x42)));
}

TEST_F(ArpQueryTest, EntryExtendAggregateOnLocalNodeWithMemberIndexZeroKeepsFirstReply) {
    add_interface(kAggIndex, kSelf, kAggregate);
    const Bytes wire = master_reply(0);
    kernel.reply(0, wire);
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kOk);
    expect_single_call(kOwnNode, extend_request(kAddr, kAggIndex), kEntryLen);
    EXPECT_EQ(entry_bytes(e), extend_host(wire));
}

TEST_F(ArpQueryTest, EntryExtendSecondRequestReadsIntoAClearedEntry) {
    add_interface(kAggIndex, kSelf, kAggregate);
    add_interface(kMemberIndex, 5, 6);
    Bytes first = master_reply(kMemberIndex);
    std::fill(first.begin() + 12, first.end(), 0xEE);
    kernel.reply(0, first);
    const Bytes partial{1, 2, 3, 4, 0, 0, 0, 9, 0xAA, 0xBB, 0xCC, 0xDD};
    kernel.reply(0, partial);
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kOk);
    ASSERT_EQ(kernel.count(), 2u);
    Bytes wire = partial;
    wire.resize(kEntryLen, 0);
    EXPECT_EQ(entry_bytes(e), extend_host(wire));
    EXPECT_EQ(host32_at(e, 4), 9u);
}

TEST_F(ArpQueryTest, EntryExtendClearsTheEntryBeforeReading) {
    add_interface(kPlainIndex, 6, 6);
    const Bytes partial{10, 0, 0, 1, 0, 0, 1, 2};
    kernel.reply(0, partial);
    ARP_ENTRY_S e;
    std::memset(e.aucData, 0xCC, sizeof e.aucData);
    ASSERT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kOk);
    Bytes wire(kEntryLen, 0);
    std::copy(partial.begin(), partial.end(), wire.begin());
    EXPECT_EQ(entry_bytes(e), extend_host(wire));
    EXPECT_EQ(host32_at(e, 4), 0x0102u);
}

TEST_F(ArpQueryTest, EntryExtendUnknownNodeAsksNodeFFFF) {
    add_interface(kPlainIndex, 6, 6);
    ipp_dir_fail_item(kPlainIndex, IF_DATA_NODE, 0x0E0E0E0Eu);
    kernel.reply(0, pattern_entry(2));
    ARP_ENTRY_S e{};
    ASSERT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kOk);
    ASSERT_EQ(kernel.count(), 1u);
    EXPECT_EQ(kernel.last().node & 0xFFFFu, 0xFFFFu);
    EXPECT_EQ(kernel.last().request, extend_request(kAddr, kPlainIndex));
}

TEST_F(ArpQueryTest, EntryExtendAggregateFirstRequestFailureOrEmptyReplyStops) {
    add_interface(kAggIndex, 4, kAggregate);
    kernel.reply(0x12345678u, master_reply(kMemberIndex));
    ARP_ENTRY_S e{};
    EXPECT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kFailed);
    EXPECT_EQ(kernel.count(), 1u);

    FakeKernel empty;
    empty.reply(0, {});
    EXPECT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kFailed);
    EXPECT_EQ(empty.count(), 1u);
}

TEST_F(ArpQueryTest, EntryExtendSecondRequestFailureOrEmptyReplyFails) {
    add_interface(kAggIndex, kSelf, kAggregate);
    add_interface(kMemberIndex, 5, 6);
    kernel.reply(0, master_reply(kMemberIndex));
    kernel.reply(0x12345678u, pattern_entry(9));
    ARP_ENTRY_S e{};
    EXPECT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kFailed);
    EXPECT_EQ(kernel.count(), 2u);

    FakeKernel empty;
    empty.reply(0, master_reply(kMemberIndex));
    empty.reply(0, {});
    EXPECT_EQ(arp_GetEntryExtend(kAggIndex, kAddr, &e), kFailed);
    EXPECT_EQ(empty.count(), 2u);

    FakeKernel plain_empty;
    plain_empty.reply(0, {});
    add_interface(kPlainIndex, 6, 6);
    EXPECT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, &e), kFailed);
    EXPECT_EQ(plain_empty.count(), 1u);
}

TEST_F(ArpQueryTest, EntryExtendNullEntryOrZeroAddressFailsWithoutRequest) {
    add_interface(kPlainIndex, 6, 6);
    kernel.reply(0, pattern_entry(2));
    ARP_ENTRY_S e{};
    EXPECT_EQ(arp_GetEntryExtend(kPlainIndex, kAddr, nullptr), kFailed);
    EXPECT_EQ(arp_GetEntryExtend(kPlainIndex, 0, &e), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(ArpQueryTest, RefreshTimeIsTheExtendedEntryWordAt28InHostOrder) {
    add_interface(kPlainIndex, 6, 6);
    Bytes wire = pattern_entry(0x13);
    Bytes t;
    put32(t, 0x0001E240u);
    std::copy(t.begin(), t.end(), wire.begin() + 28);
    kernel.reply(0, wire);
    std::uint32_t time = 0xFFFFFFFFu;
    EXPECT_EQ(ARP_GetRefreshTime(kPlainIndex, kAddr, &time), kOk);
    EXPECT_EQ(time, 0x0001E240u);
    expect_single_call(6u, extend_request(kAddr, kPlainIndex), kEntryLen);
}

TEST_F(ArpQueryTest, RefreshTimeFailsWhenTheExtendedReadFails) {
    add_interface(kPlainIndex, 6, 6);
    kernel.reply(0x12345678u, pattern_entry(1));
    std::uint32_t time = 0;
    EXPECT_EQ(ARP_GetRefreshTime(kPlainIndex, kAddr, &time), kFailed);
    EXPECT_EQ(ARP_GetRefreshTime(kPlainIndex, 0, &time), kFailed);
    EXPECT_EQ(kernel.count(), 1u);
    EXPECT_EQ(ARP_GetRefreshTime(kPlainIndex, kAddr, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(ArpQueryTest, GetNextInfoBatchSendsKeyAAsGivenAndKeyBBigEndian) {
    KernelReply r{0x12345678u, Bytes(300, 0x3D), 200u};
    kernel.reply(r);
    std::vector<std::uint8_t> buf(4000, 0);
    std::uint32_t returned = 0;
    EXPECT_EQ(ARP_GetNextInfoBatch(0x11223344u, 0x55667788u, 4000, buf.data(), &returned), 0x12345678u);
    Bytes want = head(29, 0);
    put_as_given(want, 0x11223344u);
    put32(want, 0x55667788u);
    expect_single_call(kOwnNode, want, 4000);
    EXPECT_EQ(returned, 200u);
    EXPECT_EQ(buf[0], 0x3D);
    EXPECT_EQ(buf[299], 0x3D);
    EXPECT_EQ(buf[300], 0);
}

TEST_F(ArpQueryTest, GetNextInfoBatchPassesSuccessAndReturnedLengthThrough) {
    kernel.reply(0, Bytes(96, 0x44));
    std::vector<std::uint8_t> buf(100, 0);
    std::uint32_t returned = 0;
    EXPECT_EQ(ARP_GetNextInfoBatch(0, 7, 100, buf.data(), &returned), kOk);
    EXPECT_EQ(returned, 96u);
    EXPECT_EQ(kernel.last().reply_cap, 100u);
    EXPECT_EQ(kernel.last().request[11], 7);
}

TEST_F(ArpQueryTest, GetConfReadsTheBlockRawWhenExactly112Bytes) {
    Bytes wire(112);
    for (std::size_t i = 0; i < wire.size(); ++i) wire[i] = static_cast<std::uint8_t>(i * 5 + 3);
    kernel.reply(0, wire);
    std::uint8_t buf[112] = {};
    EXPECT_EQ(ARP_GetConf(112, buf), kOk);
    expect_single_call(kOwnNode, head(12, 0), 112);
    EXPECT_EQ(Bytes(buf, buf + 112), wire);
}

TEST_F(ArpQueryTest, GetConfWrongReplyLengthOrFailureIsNoEntry) {
    std::uint8_t buf[112] = {};
    kernel.reply(0, Bytes(111, 1));
    kernel.reply(KernelReply{0, Bytes(112, 1), 113u});
    kernel.reply(0, {});
    kernel.reply(0x12345678u, Bytes(112, 1));
    EXPECT_EQ(ARP_GetConf(112, buf), kNoEntry);
    EXPECT_EQ(ARP_GetConf(112, buf), kNoEntry);
    EXPECT_EQ(ARP_GetConf(112, buf), kNoEntry);
    EXPECT_EQ(ARP_GetConf(112, buf), kNoEntry);
    EXPECT_EQ(kernel.count(), 4u);
}

TEST_F(ArpQueryTest, GetConfNullBufferFailsWithoutRequest) {
    kernel.reply(0, Bytes(112, 1));
    EXPECT_EQ(ARP_GetConf(112, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(ArpQueryTest, GetFirstIPAddrSendsVlanBigEndianAndHardwareAddress) {
    kernel.reply(0, Bytes{203, 0, 113, 9});
    const std::uint8_t mac[6] = {0x00, 0x1B, 0x2C, 0x3D, 0x4E, 0x5F};
    std::uint32_t addr = 0;
    EXPECT_EQ(ARP_GetFirstIPAddr(0x0A0B, mac, &addr), kOk);
    Bytes want = head(31, 12);
    put16(want, 0x0A0B);
    putraw(want, mac, 6);
    ASSERT_EQ(want.size(), 12u);
    expect_single_call(kOwnNode, want, 4096);
    EXPECT_EQ(addr, ip(203, 0, 113, 9));
}

TEST_F(ArpQueryTest, GetFirstIPAddrNeedsExactlyFourReplyBytes) {
    const std::uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    std::uint32_t addr = 0x5A5A5A5Au;
    kernel.reply(0, Bytes{1, 2, 3, 4, 5, 6, 7, 8});
    kernel.reply(0, Bytes{1, 2, 3});
    kernel.reply(0, {});
    kernel.reply(0x12345678u, Bytes{1, 2, 3, 4});
    for (int i = 0; i < 4; ++i) EXPECT_EQ(ARP_GetFirstIPAddr(1, mac, &addr), kNoEntry) << i;
    EXPECT_EQ(kernel.count(), 4u);
    EXPECT_EQ(addr, 0x5A5A5A5Au);
}

TEST_F(ArpQueryTest, GetFirstIPAddrNullPointersFailWithoutRequest) {
    kernel.reply(0, Bytes{1, 2, 3, 4});
    const std::uint8_t mac[6] = {1, 2, 3, 4, 5, 6};
    std::uint32_t addr = 0;
    EXPECT_EQ(ARP_GetFirstIPAddr(1, nullptr, &addr), kFailed);
    EXPECT_EQ(ARP_GetFirstIPAddr(1, mac, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Counters -----------------------------------------------------------------------------

class ArpCountersTest : public ArpKernelTest {};

TEST_F(ArpCountersTest, AttackStatAddsEveryNodesFourBigEndianCounters) {
    attack_stat_adds_every_nodes_counters<ARP_GetArpAttackStat>(5, 5, kArpCommand, Bytes{38, 0, 0, 0xA7});
}

TEST_F(ArpCountersTest, AttackStatClearsTheReplyForEveryNode) {
    attack_stat_clears_the_reply_for_every_node<ARP_GetArpAttackStat>();
}

TEST_F(ArpCountersTest, AttackStatWithoutNodeListLeavesCountersUnchanged) {
    attack_stat_asks_nothing_without_nodes_or_counters<ARP_GetArpAttackStat>();
}

TEST_F(ArpCountersTest, AttackStatNullCountersSendNothing) {
    attack_stat_asks_nothing_without_nodes_or_counters<ARP_GetArpAttackStat>();
}

TEST_F(ArpCountersTest, AlarmThresholdAddsOnlyUpNodesWithExactEightByteReplies) {
    alarm_threshold_adds_only_up_nodes<ARP_GetAlarmThresholdStat>(kArpCommand, Bytes{37, 0, 0, 0x5C});
}

TEST_F(ArpCountersTest, AlarmThresholdWithoutNodeListLeavesCounterUnchanged) {
    ipp_dir_clear_nodes();
    kernel.reply(0, counters({1}));
    std::uint64_t total = 42;
    ARP_GetAlarmThresholdStat(1, &total);
    EXPECT_EQ(total, 42u);
    EXPECT_EQ(kernel.count(), 0u);
}

TEST_F(ArpCountersTest, AlarmThresholdNullCounterSendsNothing) {
    const std::uint16_t nodes[] = {2};
    ipp_dir_set_nodes(nodes, 1);
    ipp_dir_set_node_up(2, 1);
    kernel.reply(0, counters({1}));
    ARP_GetAlarmThresholdStat(1, nullptr);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Entry set on the ARP daemon -------------------------------------------------------------

class ArpSetEntryTest : public PlatformTest {
protected:
    static std::vector<ipp_sock_event> events(ipp_call call) {
        std::vector<ipp_sock_event> out;
        for (std::uint32_t i = 0; i < ipp_sock_log_count(); ++i) {
            ipp_sock_event ev{};
            if (ipp_sock_log_get(i, &ev) == 0 && ev.call == call) out.push_back(ev);
        }
        return out;
    }
    static Bytes entry300() {
        Bytes b(300);
        for (std::size_t i = 0; i < b.size(); ++i) b[i] = static_cast<std::uint8_t>(i * 13 + 5);
        return b;
    }
};

TEST_F(ArpSetEntryTest, SendsTypeOneWithTheWholeEntryAndReadsTheReply) {
    const Bytes entry = entry300();
    Bytes got;
    std::uint8_t reply[4] = {};
    {
        FakeService svc(0x8000, 1639, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message(Bytes{0xDE, 0xAD, 0xBE, 0xEF});
        });
        ASSERT_TRUE(svc.listening());
        EXPECT_EQ(ARP_SetEntry(entry.data(), reply), kOk);
    }
    ASSERT_EQ(got.size(), 306u);
    EXPECT_EQ(got[0], 1);
    EXPECT_EQ(got[2], 0x01);  // 300, big-endian
    EXPECT_EQ(got[3], 0x2C);
    EXPECT_EQ(got[4], 0x00);  // one element
    EXPECT_EQ(got[5], 0x01);
    EXPECT_EQ(Bytes(got.begin() + 6, got.end()), entry);
    EXPECT_EQ(Bytes(reply, reply + 4), (Bytes{0xDE, 0xAD, 0xBE, 0xEF}));
}

TEST_F(ArpSetEntryTest, ConnectsToNode8000Port1639WithoutTimeoutsAndSendsBlocking) {
    std::uint8_t reply[4] = {};
    {
        FakeService svc(0x8000, 1639, [](Conn& c) {
            c.recv_message();
            c.send_message(Bytes{0, 0, 0, 0});
        });
        ASSERT_EQ(ARP_SetEntry(entry300().data(), reply), kOk);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
    const auto connects = events(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    const std::uint8_t want[16] = {16, 37, 0x06, 0x67, 0x80, 0x00};
    EXPECT_EQ(std::memcmp(connects[0].addr, want, 16), 0);
    const auto sends = events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 0);
    EXPECT_EQ(sends[0].length, 306u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(ArpSetEntryTest, ReadsAReplyOfAtMostFourBytes) {
    std::uint8_t reply[8];
    std::memset(reply, 0x55, sizeof reply);
    {
        FakeService svc(0x8000, 1639, [](Conn& c) {
            c.recv_message();
            c.send_message(Bytes{1, 2, 3, 4, 5, 6, 7, 8});
        });
        EXPECT_EQ(ARP_SetEntry(entry300().data(), reply), kOk);
    }
    EXPECT_EQ(Bytes(reply, reply + 8), (Bytes{1, 2, 3, 4, 0x55, 0x55, 0x55, 0x55}));
    const auto recvs = events(IPP_CALL_RECV);
    ASSERT_FALSE(recvs.empty());
    for (const auto& r : recvs) EXPECT_EQ(r.length, 4u);
}

TEST_F(ArpSetEntryTest, WithoutServiceFails) {
    std::uint8_t reply[4] = {9, 9, 9, 9};
    EXPECT_EQ(ARP_SetEntry(entry300().data(), reply), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), ipp_call_count(IPP_CALL_CLOSE));
}

TEST_F(ArpSetEntryTest, ServiceClosingWithoutReplyFails) {
    std::uint8_t reply[4] = {};
    {
        FakeService svc(0x8000, 1639, [](Conn& c) { c.recv_message(); });
        EXPECT_EQ(ARP_SetEntry(entry300().data(), reply), kFailed);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
}

TEST_F(ArpSetEntryTest, NullPointersFailWithoutOpening) {
    std::uint8_t reply[4] = {};
    const Bytes entry = entry300();
    EXPECT_EQ(ARP_SetEntry(nullptr, reply), kFailed);
    EXPECT_EQ(ARP_SetEntry(entry.data(), nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

// ---- Tag-length-value readers ---------------------------------------------------------------

class ArpTlvTest : public PlatformTest {
protected:
    static void element(Bytes& b, std::uint16_t tag, const Bytes& value) { tlv_element(b, tag, value); }

    // Status and value of a tag lookup run on its own thread, so that a walk that never
    // ends fails the test instead of hanging the run; nothing when it didn't end in time.
    static std::optional<std::pair<std::uint32_t, std::uint64_t>> bounded_pdata(const Bytes& bytes,
                                                                                 std::uint16_t tag) {
        auto data = std::make_shared<const Bytes>(bytes);
        auto done = std::make_shared<std::promise<std::pair<std::uint32_t, std::uint64_t>>>();
        auto result = done->get_future();
        std::thread([data, done, tag] {
            std::uint64_t v = 0;
            const std::uint32_t status =
                ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data->size()), data->data(), tag, &v);
            done->set_value({status, v});
        }).detach();
        if (result.wait_for(std::chrono::seconds(10)) != std::future_status::ready) return std::nullopt;
        return result.get();
    }
};

TEST_F(ArpTlvTest, PDataWithTwelveByteValueReturnsFirstEightBytesBigEndian) {
    pdata_longer_value_gives_first_eight<ARP_GetPDataFromIPCIM>(12);
}

TEST_F(ArpTlvTest, PDataWithTwoByteValueFillsTheHighOrderBytes) {
    Bytes data;
    element(data, 5, Bytes{0xBE, 0xEF});
    std::uint64_t v = 1;
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), data.data(), 5, &v), kOk);
    EXPECT_EQ(v, 0xBEEF000000000000ull);
}

TEST_F(ArpTlvTest, TimeStampWithLengthTwoLeavesTheOtherBytesZero) {
    time_stamp_of_two_bytes<ARP_GetTimeStampFromPData>();
}

TEST_F(ArpTlvTest, TimeStampIsStoredAsReadWithoutConversion) {
    const std::uint8_t data[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    std::uint32_t t = 0;
    EXPECT_EQ(ARP_GetTimeStampFromPData(8, data, &t), kOk);
    EXPECT_EQ(std::memcmp(&t, data, 4), 0);
    EXPECT_EQ(t, 0x04030201u);  // this host is little-endian: bytes as read, not swapped
    EXPECT_EQ(ARP_GetTimeStampFromPData(0, data, &t), kOk);
    EXPECT_EQ(t, 0u);
}

TEST_F(ArpTlvTest, TimeStampNullPointersFail) {
    const std::uint8_t data[4] = {1, 2, 3, 4};
    std::uint32_t t = 0;
    EXPECT_EQ(ARP_GetTimeStampFromPData(4, nullptr, &t), kFailed);
    EXPECT_EQ(ARP_GetTimeStampFromPData(4, data, nullptr), kFailed);
}

TEST_F(ArpTlvTest, PDataWalksElementsToTheWantedTag) {
    Bytes data;
    element(data, 1, Bytes{0x00, 0x09, 0x00, 0x01, 0xFF});  // looks like tag 9 inside
    element(data, 2, Bytes{});
    element(data, 7, Bytes{0x11, 0x22, 0x33, 0x44});
    element(data, 9, Bytes{0, 0, 0, 0, 0, 0, 0x12, 0x34});
    element(data, 11, Bytes{0x77});
    // The sequence holds a zero-length element: each lookup runs bounded.
    const std::pair<std::uint16_t, std::uint64_t> wanted[] = {
        {9, 0x1234u}, {7, 0x1122334400000000ull}, {11, 0x7700000000000000ull}, {2, 0u}, {1, 0x00090001FF000000ull}};
    for (const auto& [tag, value] : wanted) {
        const auto result = bounded_pdata(data, tag);
        ASSERT_TRUE(result.has_value()) << "the walk to tag " << tag << " does not end";
        EXPECT_EQ(result->first, kOk) << tag;
        EXPECT_EQ(result->second, value) << tag;
    }
}

TEST_F(ArpTlvTest, PDataMissingTagFails) {
    Bytes data;
    element(data, 1, Bytes{1, 2});
    element(data, 2, Bytes{3, 4, 5});
    std::uint64_t v = 0;
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), data.data(), 3, &v), kFailed);
    // A trailing fragment shorter than an element header ends the walk too.
    data.push_back(0);
    data.push_back(3);
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), data.data(), 3, &v), kFailed);
}

TEST_F(ArpTlvTest, PDataTruncatedElementFails) {
    Bytes data;
    element(data, 1, Bytes{1, 2});
    put16(data, 4);
    put16(data, 10);  // claims ten bytes, three follow
    data.insert(data.end(), {0xA, 0xB, 0xC});
    std::uint64_t v = 0;
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), data.data(), 4, &v), kFailed);
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), data.data(), 5, &v), kFailed);
    // The first element alone truncated.
    Bytes first;
    put16(first, 4);
    put16(first, 9);
    first.insert(first.end(), {1, 2});
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(first.size()), first.data(), 4, &v), kFailed);
}

TEST_F(ArpTlvTest, PDataLengthLimitsTheWalk) {
    Bytes data;
    element(data, 1, Bytes{1, 2});
    element(data, 6, Bytes{0x66});
    std::uint64_t v = 0;
    // The second element lies beyond the given length.
    EXPECT_EQ(ARP_GetPDataFromIPCIM(6, data.data(), 6, &v), kFailed);
    // The second element reaches one byte beyond it.
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size() - 1), data.data(), 6, &v), kFailed);
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), data.data(), 6, &v), kOk);
    EXPECT_EQ(v, 0x6600000000000000ull);
}

TEST_F(ArpTlvTest, PDataZeroLengthElementChainEnds) {
    // Zero-length elements, then zeros: every step must still advance.
    Bytes data;
    for (int i = 0; i < 6; ++i) element(data, 3, Bytes{});
    data.resize(data.size() + 16, 0);
    const auto result = bounded_pdata(data, 4);
    ASSERT_TRUE(result.has_value()) << "the walk does not end";
    EXPECT_EQ(result->first, kFailed);
}

TEST_F(ArpTlvTest, PDataFindsAnElementAfterZeroLengthElements) {
    Bytes data;
    for (int i = 0; i < 4; ++i) element(data, 0, Bytes{});
    element(data, 8, Bytes{0xC0, 0xDE});
    const auto result = bounded_pdata(data, 8);
    ASSERT_TRUE(result.has_value()) << "the walk does not end";
    EXPECT_EQ(result->first, kOk);
    EXPECT_EQ(result->second, 0xC0DE000000000000ull);
}

TEST_F(ArpTlvTest, PDataNullPointersFail) {
    Bytes data;
    element(data, 1, Bytes{1});
    std::uint64_t v = 0;
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), nullptr, 1, &v), kFailed);
    EXPECT_EQ(ARP_GetPDataFromIPCIM(static_cast<std::uint32_t>(data.size()), data.data(), 1, nullptr), kFailed);
}

}  // namespace
}  // namespace ipt
