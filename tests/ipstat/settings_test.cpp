// ECMP, load-sharing, configuration, TTL, MTU and forwarding settings: the requests sent to
// the IP module and the conversion of every reply.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <vector>

#include "ipstat/ipstat_support.hpp"
#include "support/kernel_call.hpp"

namespace ipt {
namespace {

constexpr std::uint32_t kNotSupported = 0x40010008u;

// The value a little-endian host reads from four big-endian bytes left as they came.
std::uint32_t raw32(const Bytes& b, std::size_t at) {
    std::uint32_t v = 0;
    std::memcpy(&v, b.data() + at, 4);
    return v;
}

class IpStatSettingsTest : public IpStatTest {
protected:
    void expect_one_call(std::uint32_t node, const Bytes& request, std::uint32_t cap) const {
        expect_only_call(kernel, {node, kIpCommand, request, cap, cap == 0, {}, false});
    }
};

// ---- ECMP ----------------------------------------------------------------------------------

TEST_F(IpStatSettingsTest, GetEcmpSendsTheWordToTheGivenNodeAndConvertsBothWords) {
    kernel.reply(0, be32s({0x01020304u, 0x0A0B0C0Du}));
    std::array<std::uint32_t, 2> ecmp{};
    EXPECT_EQ(IP_GetEcmp(0x0203, 0x00040017u, ecmp.data()), 0u);
    expect_one_call(0x203, Bytes{0x00, 0x17, 0x00, 0x04}, 8);
    EXPECT_EQ(ecmp[0], 0x01020304u);
    EXPECT_EQ(ecmp[1], 0x0A0B0C0Du);
}

TEST_F(IpStatSettingsTest, GetEcmpWithAFourByteReplyReturnsZeroAndLeavesTheBufferUnconverted) {
    const Bytes reply = be32s({0x01020304u});
    kernel.reply(0, reply);
    std::array<std::uint32_t, 2> ecmp{0u, 0x55667788u};
    EXPECT_EQ(IP_GetEcmp(1, 0x17, ecmp.data()), 0u);
    EXPECT_EQ(ecmp[0], raw32(reply, 0));  // 0x04030201 here: the bytes as received
    EXPECT_EQ(ecmp[0], 0x04030201u);
    EXPECT_EQ(ecmp[1], 0x55667788u);
}

TEST_F(IpStatSettingsTest, GetEcmpConvertsOnlyAReplyOfExactlyEightBytes) {
    const Bytes reply = be32s({0x11223344u, 0x55667788u});
    kernel.reply(KernelReply{0, reply, 7u});
    std::array<std::uint32_t, 2> ecmp{};
    EXPECT_EQ(IP_GetEcmp(1, 0x17, ecmp.data()), 0u);
    EXPECT_EQ(ecmp[0], raw32(reply, 0));
    EXPECT_EQ(ecmp[1], raw32(reply, 4));
}

TEST_F(IpStatSettingsTest, GetEcmpPassesAFailingStatusThrough) {
    kernel.reply(KernelReply{0x5555u, be32s({1, 2}), std::nullopt});
    std::array<std::uint32_t, 2> ecmp{};
    EXPECT_EQ(IP_GetEcmp(0x8000, 0x17, ecmp.data()), 0x5555u);
    EXPECT_EQ(kernel.last().node, kOwnNodeWord);
}

TEST_F(IpStatSettingsTest, GetEcmpModeSendsTheWordToTheOwnNodeAndConvertsEightWords) {
    const auto want = counters32(8, 0x10203040u);
    kernel.reply(0, be32s(want));
    std::array<std::uint32_t, 8> mode{};
    EXPECT_EQ(IP_GetEcmpMode(0xABCD0102u, mode.data()), 0u);
    expect_one_call(kOwnNodeWord, Bytes{0x01, 0x02, 0xAB, 0xCD}, 32);
    EXPECT_EQ(std::vector<std::uint32_t>(mode.begin(), mode.end()), want);
}

TEST_F(IpStatSettingsTest, GetEcmpModeLeavesAReplyOfAnotherLengthUnconverted) {
    const Bytes reply = be32s(counters32(8, 0x10203040u));
    for (const std::uint32_t len : {28u, 4u, 33u}) {
        kernel.answer([&reply, len](const KernelCall&) { return KernelReply{0, reply, len}; });
        std::array<std::uint32_t, 8> mode{};
        EXPECT_EQ(IP_GetEcmpMode(0x20, mode.data()), 0u) << "length " << len;
        for (std::size_t i = 0; i < 8; ++i) EXPECT_EQ(mode[i], raw32(reply, i * 4)) << "length " << len;
    }
}

TEST_F(IpStatSettingsTest, GetEcmpModePassesAFailingStatusThrough) {
    kernel.reply(KernelReply{0x6666u, be32s(counters32(8, 1)), std::nullopt});
    std::array<std::uint32_t, 8> mode{};
    EXPECT_EQ(IP_GetEcmpMode(0x20, mode.data()), 0x6666u);
}

// ---- Load-sharing mode ----------------------------------------------------------------------

TEST_F(IpStatSettingsTest, GetLoadSharingModeSendsTheWordToTheGivenNodeAndConvertsFourWords) {
    const auto want = counters32(4, 0xA1B2C3D4u);
    kernel.reply(0, be32s(want));
    std::array<std::uint32_t, 4> mode{};
    EXPECT_EQ(IP_GetLoadSharingMode(0x9001, 0x00100042u, mode.data()), 0u);
    expect_one_call(0xFFFF9001u, Bytes{0x00, 0x42, 0x00, 0x10}, 16);
    EXPECT_EQ(std::vector<std::uint32_t>(mode.begin(), mode.end()), want);
}

TEST_F(IpStatSettingsTest, GetLoadSharingModeConvertsAllFourWordsWhateverTheLength) {
    kernel.reply(0, be32s({0x01020304u, 0x05060708u}));  // 8 bytes come, the other words stay
    std::array<std::uint32_t, 4> mode{0u, 0u, 0x11223344u, 0xA0B0C0D0u};
    EXPECT_EQ(IP_GetLoadSharingMode(1, 0x42, mode.data()), 0u);
    EXPECT_EQ(mode[0], 0x01020304u);
    EXPECT_EQ(mode[1], 0x05060708u);
    EXPECT_EQ(mode[2], 0x44332211u);
    EXPECT_EQ(mode[3], 0xD0C0B0A0u);
}

TEST_F(IpStatSettingsTest, GetLoadSharingModeLeavesTheBufferUnconvertedOnFailure) {
    const Bytes reply = be32s(counters32(4, 0x01020304u));
    kernel.reply(KernelReply{0x7777u, reply, std::nullopt});
    std::array<std::uint32_t, 4> mode{};
    EXPECT_EQ(IP_GetLoadSharingMode(1, 0x42, mode.data()), 0x7777u);
    for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(mode[i], raw32(reply, i * 4)) << "word " << i;
}

// ---- IP configuration -------------------------------------------------------------------------

TEST_F(IpStatSettingsTest, GetConfSendsOperation35ToTheLocalNodeAndConvertsFourWords) {
    ipp_dir_set_local_node(0x0123);
    const auto want = counters32(4, 0x0F1E2D3Cu);
    kernel.reply(0, be32s(want));
    std::array<std::uint32_t, 4> conf{};
    EXPECT_EQ(IP_GetConf(16, conf.data()), 0u);
    expect_one_call(0x123, req_bare(35), 16);
    EXPECT_EQ(std::vector<std::uint32_t>(conf.begin(), conf.end()), want);
}

TEST_F(IpStatSettingsTest, GetConfAcceptsABufferLargerThanSixteenBytes) {
    const auto want = counters32(4, 0x0F1E2D3Cu);
    kernel.reply(0, be32s(want));
    std::array<std::uint32_t, 6> conf{0, 0, 0, 0, 0x99u, 0x98u};
    EXPECT_EQ(IP_GetConf(24, conf.data()), 0u);
    EXPECT_EQ(std::vector<std::uint32_t>(conf.begin(), conf.begin() + 4), want);
    EXPECT_EQ(conf[4], 0x99u);
    EXPECT_EQ(conf[5], 0x98u);
}

TEST_F(IpStatSettingsTest, GetConfWithABufferBelowSixteenBytesOrNullFailsBeforeSending) {
    kernel.reply(0, be32s(counters32(4, 1)));
    std::array<std::uint32_t, 4> conf{};
    EXPECT_EQ(IP_GetConf(15, conf.data()), kFailed);
    EXPECT_EQ(IP_GetConf(0, conf.data()), kFailed);
    EXPECT_EQ(IP_GetConf(16, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
    EXPECT_EQ(conf, (std::array<std::uint32_t, 4>{}));
}

TEST_F(IpStatSettingsTest, GetConfCopiesAShortReplyAndStillConvertsAllFourWords) {
    kernel.reply(0, be32s({0x01020304u, 0x05060708u}));
    std::array<std::uint32_t, 4> conf{0u, 0u, 0x11223344u, 0xA0B0C0D0u};
    EXPECT_EQ(IP_GetConf(16, conf.data()), 0u);
    EXPECT_EQ(conf[0], 0x01020304u);
    EXPECT_EQ(conf[1], 0x05060708u);
    EXPECT_EQ(conf[2], 0x44332211u);
    EXPECT_EQ(conf[3], 0xD0C0B0A0u);
}

TEST_F(IpStatSettingsTest, GetConfPassesAFailingStatusThrough) {
    kernel.reply(KernelReply{0x4321u, be32s(counters32(4, 0x01020304u)), std::nullopt});
    std::array<std::uint32_t, 4> conf{9, 8, 7, 6};
    EXPECT_EQ(IP_GetConf(16, conf.data()), 0x4321u);
    EXPECT_EQ(kernel.count(), 1u);
}

// ---- Default TTL -------------------------------------------------------------------------------

TEST_F(IpStatSettingsTest, SetIPDefaultTTLSendsOperation14WithTheTtlAndNoReply) {
    kernel.reply(0);
    EXPECT_EQ(IP_SetIPDefaultTTL(0x01020340u, 0x0405), 0u);
    expect_one_call(0x405, req_with(14, 0x01020340u), 0);
}

TEST_F(IpStatSettingsTest, SetIPDefaultTTLPassesTheChannelStatusThrough) {
    kernel.reply(0x00ABCDEFu);
    EXPECT_EQ(IP_SetIPDefaultTTL(64, 0x8000), 0x00ABCDEFu);
    EXPECT_EQ(kernel.last().node, kOwnNodeWord);
}

TEST_F(IpStatSettingsTest, GetDefTTLSendsOperation15AndReturnsTheLowEightBits) {
    kernel.reply(0, be32s({0x123456ABu}));
    EXPECT_EQ(IP_GetDefTTL(), 0xABu);
    expect_one_call(kOwnNodeWord, req_bare(15), 4);
}

TEST_F(IpStatSettingsTest, GetDefTTLReadsTheLastByteOfTheBigEndianWord) {
    kernel.reply(0, Bytes{0x40, 0x00, 0x00, 0x3F});
    EXPECT_EQ(IP_GetDefTTL(), 0x3Fu);
}

TEST_F(IpStatSettingsTest, GetDefTTLWithAFailingChannelReturns255) {
    kernel.reply(KernelReply{0x40010001u, Bytes{0, 0, 0, 64}, std::nullopt});
    EXPECT_EQ(IP_GetDefTTL(), 255u);
    EXPECT_EQ(kernel.count(), 1u);
}

TEST_F(IpStatSettingsTest, GetDefTTLWithAThreeByteReplyReturns255) {
    kernel.reply(KernelReply{0, Bytes{0, 0, 0, 64}, 3u});
    EXPECT_EQ(IP_GetDefTTL(), 255u);
}

TEST_F(IpStatSettingsTest, GetDefTTLWithAFiveByteReplyReturns255) {
    kernel.reply(KernelReply{0, Bytes{0, 0, 0, 64}, 5u});
    EXPECT_EQ(IP_GetDefTTL(), 255u);
}

TEST_F(IpStatSettingsTest, SetForwardingAndSetDefTTLReturn40010008WhateverHappens) {
    EXPECT_EQ(IP_SetForwarding(), kNotSupported);
    EXPECT_EQ(IP_SetDefTTL(), kNotSupported);
    kernel.reply(0, be32s({64}));
    EXPECT_EQ(IP_SetForwarding(), kNotSupported);
    EXPECT_EQ(IP_SetDefTTL(), kNotSupported);
    ipp_dir_clear_nodes();
    EXPECT_EQ(IP_SetForwarding(), kNotSupported);
    EXPECT_EQ(IP_SetDefTTL(), kNotSupported);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Forwarding switch ---------------------------------------------------------------------------

TEST_F(IpStatSettingsTest, GetForwardingReturnsTheExportedGlobalWhichStartsAtOne) {
    EXPECT_EQ(g_uiIPForwarding, 1u);
    EXPECT_EQ(IP_GetForwarding(), 1u);
    const std::uint32_t saved = g_uiIPForwarding;
    g_uiIPForwarding = 0xDEADu;
    EXPECT_EQ(IP_GetForwarding(), 0xDEADu);
    g_uiIPForwarding = 0;
    EXPECT_EQ(IP_GetForwarding(), 0u);
    g_uiIPForwarding = saved;
    EXPECT_EQ(IP_SetForwarding(), kNotSupported);
    EXPECT_EQ(g_uiIPForwarding, saved);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Interface MTU -------------------------------------------------------------------------------

TEST_F(IpStatSettingsTest, GetIfMTUSendsOperation11WithTheIndexAndConvertsTheReply) {
    kernel.reply(0, be32s({0x000005DCu + 0x01020000u}));
    std::uint32_t mtu = 0;
    EXPECT_EQ(IP_GetIfMTU(0x0A0B0C0Du, &mtu), 0u);
    expect_one_call(kOwnNodeWord, req_with(11, 0x0A0B0C0Du), 4);
    EXPECT_EQ(mtu, 0x010205DCu);
}

TEST_F(IpStatSettingsTest, GetIfMTUDoesNotLookAtTheReturnedLength) {
    kernel.reply(KernelReply{0, be32s({1500}), 0u});
    std::uint32_t mtu = 0;
    EXPECT_EQ(IP_GetIfMTU(3, &mtu), 0u);
    EXPECT_EQ(mtu, 1500u);
}

TEST_F(IpStatSettingsTest, GetIfMTUPassesAFailingStatusThroughAndLeavesTheMtuAlone) {
    kernel.reply(KernelReply{0x1212u, be32s({1500}), std::nullopt});
    std::uint32_t mtu = 77;
    EXPECT_EQ(IP_GetIfMTU(3, &mtu), 0x1212u);
    EXPECT_EQ(mtu, 77u);
}

TEST_F(IpStatSettingsTest, GetIfMTUWithANullPointerFailsBeforeSending) {
    kernel.reply(0, be32s({1500}));
    EXPECT_EQ(IP_GetIfMTU(3, nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

// ---- Forwarding configuration word -------------------------------------------------------------

TEST_F(IpStatSettingsTest, GetIPFWConfSendsOperation108AndConvertsTheSixteenBitValue) {
    kernel.reply(0, Bytes{0x12, 0x34});
    std::uint16_t conf = 0;
    EXPECT_EQ(IP_GetIPFWConf(&conf), 0u);
    expect_one_call(kOwnNodeWord, req_bare(108), 2);
    EXPECT_EQ(conf, 0x1234u);
}

TEST_F(IpStatSettingsTest, GetIPFWConfZeroesTheValueEvenWhenTheChannelFails) {
    kernel.reply(KernelReply{0x2468u, Bytes{0x12, 0x34}, std::nullopt});
    std::uint16_t conf = 0xBEEF;
    EXPECT_EQ(IP_GetIPFWConf(&conf), 0x2468u);
    EXPECT_EQ(conf, 0u);
}

TEST_F(IpStatSettingsTest, GetIPFWConfWithANullPointerFailsBeforeSending) {
    kernel.reply(0, Bytes{0x12, 0x34});
    EXPECT_EQ(IP_GetIPFWConf(nullptr), kFailed);
    EXPECT_EQ(kernel.count(), 0u);
}

}  // namespace
}  // namespace ipt
