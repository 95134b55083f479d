// ARP displays: the interface counters text (request bytes, reply conversion, node choice,
// summing over nodes, truncation) and the MAD configuration printed from the database,
// compared byte for byte.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kCommand = 0x140002u;
constexpr std::uint32_t kIf = 0x01020304u;

// Four counters as the kernel sends them: big-endian 32-bit words.
Bytes counters(std::uint32_t in, std::uint32_t req, std::uint32_t rep, std::uint32_t unk) {
    Bytes b;
    put32(b, in);
    put32(b, req);
    put32(b, rep);
    put32(b, unk);
    return b;
}

std::string line(const char* label, std::uint32_t value) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%-25s%11u\r\n", label, value);
    return buf;
}

std::string text(std::uint32_t in, std::uint32_t req, std::uint32_t rep, std::uint32_t unk) {
    return line("ARP packet input number:", in) + line("  Request packet:", req) + line("  Reply packet:", rep) +
           line("  Unknown packet:", unk);
}

void add_interface(std::uint32_t ifindex, std::uint16_t node, std::uint32_t type, std::uint32_t kind,
                   bool l2 = false) {
    ipp_interface itf{};
    itf.ifindex = ifindex;
    itf.node = node;
    std::snprintf(itf.name, sizeof itf.name, "GigabitEthernet1/0/%u", ifindex & 0xFFu);
    itf.type = type;
    itf.kind = kind;
    itf.valid = 1;
    itf.l2 = l2 ? 1 : 0;
    ipp_dir_add_interface(&itf);
}

class ArpDisplayTest : public PlatformTest {
protected:
    // Calls the display into a buffer poisoned beyond what it reports.
    std::uint32_t display(std::uint32_t ifindex, std::uint32_t size) {
        buf_.assign(size + 16, '#');
        return ARP_GetIfDisplayInfo(ifindex, size, buf_.data());
    }
    std::string shown(std::uint32_t n) const { return std::string(buf_.data(), n); }

    FakeKernel kernel_;
    std::vector<char> buf_;
};

TEST_F(ArpDisplayTest, RequestIsTheBigEndianIndexToTheInterfaceNode) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(0, counters(1, 2, 3, 4));
    (void)display(kIf, 512);
    ASSERT_EQ(kernel_.count(), 1u);
    const KernelCall c = kernel_.last();
    EXPECT_EQ(c.node, 0x00000123u);
    EXPECT_EQ(c.command, kCommand);
    EXPECT_EQ(c.request, (Bytes{0x01, 0x02, 0x03, 0x04}));
    EXPECT_EQ(c.reply_cap, 16u);
    EXPECT_FALSE(c.async);
    EXPECT_FALSE(c.reply_null);
    EXPECT_FALSE(c.returned_len_null);
}

TEST_F(ArpDisplayTest, HighNodeIsSignExtended) {
    add_interface(kIf, 0x8005, 6, 4);
    kernel_.reply(0, counters(1, 2, 3, 4));
    (void)display(kIf, 512);
    ASSERT_EQ(kernel_.count(), 1u);
    EXPECT_EQ(kernel_.last().node, 0xFFFF8005u);
}

TEST_F(ArpDisplayTest, UnreadableNodeGoesToTheOwnNode) {
    add_interface(kIf, 0x0123, 6, 4);
    ipp_dir_fail_item(kIf, IF_DATA_NODE, 0x40010001u);
    kernel_.reply(0, counters(1, 2, 3, 4));
    (void)display(kIf, 512);
    ASSERT_EQ(kernel_.count(), 1u);
    EXPECT_EQ(kernel_.last().node, 0xFFFF8000u);
}

TEST_F(ArpDisplayTest, CountersAreConvertedAndPrintedByteForByte) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(0, counters(0x01020304u, 0x00000A0Bu, 0x0C0D0E0Fu, 0xFFFFFFFEu));
    const std::uint32_t n = display(kIf, 512);
    const std::string expected =
        "ARP packet input number:    16909060\r\n"
        "  Request packet:               2571\r\n"
        "  Reply packet:            202182159\r\n"
        "  Unknown packet:         4294967294\r\n";
    ASSERT_EQ(expected, text(0x01020304u, 0x00000A0Bu, 0x0C0D0E0Fu, 0xFFFFFFFEu));
    EXPECT_EQ(n, expected.size());
    EXPECT_EQ(n, 4 * ARP_IF_DISPLAY_LINE_LEN);
    EXPECT_EQ(shown(n), expected);
    EXPECT_EQ(buf_[n], '\0');
}

TEST_F(ArpDisplayTest, CapacityTooSmallForTheFourLinesTruncatesAndSumsWhatWasReported) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(0, counters(0x01020304u, 0x00000A0Bu, 0x0C0D0E0Fu, 0xFFFFFFFEu));
    const std::string full = text(0x01020304u, 0x00000A0Bu, 0x0C0D0E0Fu, 0xFFFFFFFEu);
    // The first line fits (38), the second is cut to the 11 characters left before the
    // terminator, and the last two lines find one byte of room: they report 0.
    const std::uint32_t n = display(kIf, 50);
    EXPECT_EQ(n, 49u);
    EXPECT_EQ(shown(n), full.substr(0, 49));
    EXPECT_EQ(buf_[49], '\0');
    EXPECT_EQ(buf_[50], '#') << "written past the capacity";
}

TEST_F(ArpDisplayTest, CapacityOfExactlyTheTextLeavesNoRoomForTheLastCharacter) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(0, counters(1, 2, 3, 4));
    const std::string full = text(1, 2, 3, 4);
    const auto size = static_cast<std::uint32_t>(full.size());
    std::uint32_t n = display(kIf, size);
    EXPECT_EQ(n, size - 1);
    EXPECT_EQ(shown(n), full.substr(0, size - 1));
    EXPECT_EQ(buf_[size], '#');
    n = display(kIf, size + 1);
    EXPECT_EQ(n, size);
    EXPECT_EQ(shown(n), full);
}

TEST_F(ArpDisplayTest, CapacityOfOneWritesOnlyTheTerminator) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(0, counters(1, 2, 3, 4));
    EXPECT_EQ(display(kIf, 1), 0u);
    EXPECT_EQ(buf_[0], '\0');
    EXPECT_EQ(buf_[1], '#');
}

TEST_F(ArpDisplayTest, LayerTwoInterfaceHasNoDisplay) {
    add_interface(kIf, 0x0123, 6, 4, true);
    kernel_.reply(0, counters(1, 2, 3, 4));
    EXPECT_EQ(display(kIf, 512), 0u);
    EXPECT_EQ(buf_[0], '#');
    EXPECT_EQ(kernel_.count(), 0u);
}

TEST_F(ArpDisplayTest, OnlyInterfacesOfKindFourHaveADisplay) {
    add_interface(kIf, 0x0123, 6, 3);
    add_interface(kIf + 1, 0x0123, 6, 5);
    kernel_.reply(0, counters(1, 2, 3, 4));
    EXPECT_EQ(display(kIf, 512), 0u);
    EXPECT_EQ(buf_[0], '#');
    EXPECT_EQ(display(kIf + 1, 512), 0u);
    EXPECT_EQ(kernel_.count(), 0u);
}

TEST_F(ArpDisplayTest, UnreadableKindHasNoDisplay) {
    add_interface(kIf, 0x0123, 6, 4);
    ipp_dir_fail_item(kIf, IF_DATA_KIND, 0x40010001u);
    kernel_.reply(0, counters(1, 2, 3, 4));
    EXPECT_EQ(display(kIf, 512), 0u);
    EXPECT_EQ(buf_[0], '#');
    EXPECT_EQ(kernel_.count(), 0u);
    EXPECT_EQ(display(0x7777, 512), 0u) << "an unknown interface";
    EXPECT_EQ(kernel_.count(), 0u);
}

TEST_F(ArpDisplayTest, NullBufferOrZeroSizeWritesNothingAndSendsNothing) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(0, counters(1, 2, 3, 4));
    EXPECT_EQ(ARP_GetIfDisplayInfo(kIf, 512, nullptr), 0u);
    EXPECT_EQ(display(kIf, 0), 0u);
    EXPECT_EQ(buf_[0], '#');
    EXPECT_EQ(kernel_.count(), 0u);
}

TEST_F(ArpDisplayTest, FailedRequestShowsZeros) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(0x40010001u, counters(1, 2, 3, 4));
    const std::uint32_t n = display(kIf, 512);
    EXPECT_EQ(shown(n), text(0, 0, 0, 0));
}

TEST_F(ArpDisplayTest, ShortReplyShowsZeros) {
    add_interface(kIf, 0x0123, 6, 4);
    kernel_.reply(KernelReply{0, counters(1, 2, 3, 4), 12u});
    const std::uint32_t n = display(kIf, 512);
    EXPECT_EQ(shown(n), text(0, 0, 0, 0));
}

TEST_F(ArpDisplayTest, AggregateSumsTheCountersOfEveryNodeThatAnswers) {
    add_interface(kIf, 0x0123, 41, 4);
    const std::uint16_t nodes[] = {0x0011, 0x8002, 0x0033, 0x0044};
    ipp_dir_set_nodes(nodes, 4);
    // Nodes need not be up: every node of the list is asked.
    ipp_dir_set_node_up(0x0011, 1);
    kernel_.answer([](const KernelCall& c) {
        switch (c.node) {
            case 0x00000011u: return KernelReply{0, counters(0x01000000u, 0x00010000u, 0x00000100u, 1), {}};
            case 0xFFFF8002u: return KernelReply{0, counters(0x02000000u, 0x00020000u, 0x00000200u, 2), {}};
            case 0x00000033u: return KernelReply{0x40010001u, counters(0x70000000u, 7, 7, 7), {}};
            default: return KernelReply{0, counters(0x04000000u, 0x00040000u, 0x00000400u, 4), {}};
        }
    });
    const std::uint32_t n = display(kIf, 512);
    const std::vector<KernelCall> calls = kernel_.calls();
    ASSERT_EQ(calls.size(), 4u);
    EXPECT_EQ(calls[0].node, 0x00000011u);
    EXPECT_EQ(calls[1].node, 0xFFFF8002u);
    EXPECT_EQ(calls[2].node, 0x00000033u);
    EXPECT_EQ(calls[3].node, 0x00000044u);
    for (const KernelCall& c : calls) {
        EXPECT_EQ(c.command, kCommand);
        EXPECT_EQ(c.request, (Bytes{0x01, 0x02, 0x03, 0x04}));
        EXPECT_EQ(c.reply_cap, 16u);
    }
    EXPECT_EQ(shown(n), text(0x07000000u, 0x00070000u, 0x00000700u, 7));
}

TEST_F(ArpDisplayTest, AggregateWithoutNodeListShowsZerosAndSendsNothing) {
    add_interface(kIf, 0x0123, 41, 4);
    kernel_.reply(0, counters(1, 2, 3, 4));
    const std::uint32_t n = display(kIf, 512);
    EXPECT_EQ(kernel_.count(), 0u);
    EXPECT_EQ(shown(n), text(0, 0, 0, 0));
}

TEST_F(ArpDisplayTest, AggregateSumWrapsAtThirtyTwoBits) {
    add_interface(kIf, 0x0123, 41, 4);
    const std::uint16_t nodes[] = {0x0011, 0x0022};
    ipp_dir_set_nodes(nodes, 2);
    kernel_.reply(0, counters(0xFFFFFFFFu, 0x80000000u, 1, 0));
    const std::uint32_t n = display(kIf, 512);
    EXPECT_EQ(kernel_.count(), 2u);
    EXPECT_EQ(shown(n), text(0xFFFFFFFEu, 0, 2, 0));
}

TEST_F(ArpDisplayTest, UnreadableTypeAsksTheInterfaceNodeOnly) {
    add_interface(kIf, 0x0123, 41, 4);
    ipp_dir_fail_item(kIf, IF_DATA_TYPE, 0x40010001u);
    const std::uint16_t nodes[] = {0x0011, 0x0022};
    ipp_dir_set_nodes(nodes, 2);
    kernel_.reply(0, counters(5, 6, 7, 8));
    const std::uint32_t n = display(kIf, 512);
    ASSERT_EQ(kernel_.count(), 1u);
    EXPECT_EQ(kernel_.last().node, 0x00000123u);
    EXPECT_EQ(shown(n), text(5, 6, 7, 8));
}

// ---- MAD configuration ----------------------------------------------------------------------

constexpr char kDb[] = "eL2MAD";
constexpr char kGroup[] = "L2MAD";
constexpr char kList[] = "ARP_MAD_CFG";  // 12 bytes with the terminator

// A record as the MAD module stores it: the 48-byte name, then fields of its own.
void add_mad(const char* name, const char* list = kList, std::uint32_t key_len = sizeof kList) {
    std::uint8_t rec[64];
    std::memset(rec, 0, sizeof rec);
    std::memcpy(rec, name, std::min<std::size_t>(std::strlen(name), 48));
    std::memset(rec + 48, 0x5E, 16);
    ipp_dbm_add_record(kDb, kGroup, list, key_len, rec, sizeof rec);
}

class ArpMadDisplayTest : public PlatformTest {
protected:
    void TearDown() override {
        EXPECT_EQ(ipp_dbm_open_handles(), 0u) << "the database was left open";
        EXPECT_EQ(ipp_dbm_open_iterators(), 0u) << "an iterator was left";
        PlatformTest::TearDown();
    }

    std::string run(std::uint16_t show, std::uint32_t* status = nullptr) {
        testing::internal::CaptureStdout();
        const std::uint32_t s = ARP_MADDispalyCfg(show);
        if (status != nullptr) *status = s;
        return testing::internal::GetCapturedStdout();
    }
};

TEST_F(ArpMadDisplayTest, ShowingInterfacesWithThreeConfiguredPrintsTheHeadingAndThreeIndentedNames) {
    add_mad("GigabitEthernet1/0/1");
    add_mad("Vlan-interface20");
    add_mad("Bridge-Aggregation3");
    std::uint32_t status = 0xFFu;
    EXPECT_EQ(run(1, &status),
              "MAD ARP enabled interface:\r\n"
              "  GigabitEthernet1/0/1\r\n"
              "  Vlan-interface20\r\n"
              "  Bridge-Aggregation3\r\n");
    EXPECT_EQ(status, IPSTATUS_OK);
}

TEST_F(ArpMadDisplayTest, NotShowingInterfacesWithConfiguredOnesPrintsOnlyEnabled) {
    add_mad("GigabitEthernet1/0/1");
    add_mad("Vlan-interface20");
    std::uint32_t status = 0xFFu;
    EXPECT_EQ(run(0, &status), "MAD ARP enabled.\r\n");
    EXPECT_EQ(status, IPSTATUS_OK);
}

TEST_F(ArpMadDisplayTest, NoRecordPrintsDisabled) {
    std::uint32_t status = 0xFFu;
    EXPECT_EQ(run(1, &status), "MAD ARP disabled.\r\n");
    EXPECT_EQ(status, IPSTATUS_OK);
    EXPECT_EQ(run(0), "MAD ARP disabled.\r\n");
}

TEST_F(ArpMadDisplayTest, DatabaseThatCannotBeOpenedReadsAsDisabled) {
    add_mad("GigabitEthernet1/0/1");
    ipp_dbm_fail_open(kDb, kGroup, 0x40010007u);
    std::uint32_t status = 0xFFu;
    EXPECT_EQ(run(1, &status), "MAD ARP disabled.\r\n");
    EXPECT_EQ(status, IPSTATUS_OK);
}

TEST_F(ArpMadDisplayTest, OnlyTheArpListOfTheMadDatabaseCounts) {
    add_mad("nd-only", "nd_madCfg", sizeof "nd_madCfg");
    add_mad("short-key", kList, sizeof kList - 1);  // the name without its terminator
    ipp_dbm_add_record("eL2MAD", "OTHER", kList, sizeof kList, "other-group", 12);
    EXPECT_EQ(run(1), "MAD ARP disabled.\r\n");
    add_mad("Ten-GigabitEthernet1/0/9");
    EXPECT_EQ(run(1), "MAD ARP enabled interface:\r\n  Ten-GigabitEthernet1/0/9\r\n");
}

TEST_F(ArpMadDisplayTest, NameFillingAllFortyEightBytesIsPrintedWhole) {
    const std::string name(48, 'N');
    add_mad(name.c_str());
    add_mad("Vlan-interface1");
    EXPECT_EQ(run(1), "MAD ARP enabled interface:\r\n  " + name + "\r\n  Vlan-interface1\r\n");
}

TEST_F(ArpMadDisplayTest, ShorterRecordLeavesNothingOfTheLongerNameBeforeIt) {
    add_mad("GigabitEthernet1/0/10");
    ipp_dbm_add_record(kDb, kGroup, kList, sizeof kList, "Vlan1", 5);  // no terminator stored
    EXPECT_EQ(run(1), "MAD ARP enabled interface:\r\n  GigabitEthernet1/0/10\r\n  Vlan1\r\n");
}

TEST_F(ArpMadDisplayTest, AnyNonZeroShowFlagShowsInterfaces) {
    add_mad("Vlan-interface7");
    EXPECT_EQ(run(0x0100), "MAD ARP enabled interface:\r\n  Vlan-interface7\r\n");
}

}  // namespace
}  // namespace ipt
