// The address configuration client: the exact bytes of every request, the handling of the
// service's reply, transport failures and the DHCP client service check.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "ipclient/ipcfg.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/statuses.hpp"
#include "support/wrapped.hpp"

namespace ipt {
namespace {

constexpr std::uint16_t kOwnNode = 0x8000;
constexpr std::uint16_t kCfgPort = 1653;
constexpr std::uint32_t kExchangeFailed = 0x2316002Cu;
constexpr std::uint16_t kMaster = 5;
const char* const kDhcpClient = "DHCPC";

// An IPv4 address or mask in network order, as callers hold it: the bytes a.b.c.d in memory.
std::uint32_t net(std::uint8_t a, std::uint8_t b, std::uint8_t c, std::uint8_t d) {
    const std::uint8_t bytes[4] = {a, b, c, d};
    std::uint32_t v = 0;
    std::memcpy(&v, bytes, sizeof v);
    return v;
}

// The 16-byte request header: kind 0, length after the first 8 bytes, type, body length.
Bytes header(std::uint32_t type, std::uint32_t body_len) {
    Bytes b;
    put32(b, 0);
    put32(b, 8 + body_len);
    put32(b, type);
    put32(b, body_len);
    return b;
}

// A configuration record header: the operation code and 16 zero bits.
void put_op(Bytes& b, std::uint16_t op) {
    put16(b, op);
    put16(b, 0);
}

Bytes address_message(std::uint16_t op, std::uint32_t ifindex, const Bytes& addr, const Bytes& mask,
                      std::uint32_t fourth, std::uint32_t fifth) {
    Bytes b = header(1, 28);
    put_op(b, op);
    put32(b, 0);
    put32(b, ifindex);
    b.insert(b.end(), addr.begin(), addr.end());
    b.insert(b.end(), mask.begin(), mask.end());
    put32(b, fourth);
    put32(b, fifth);
    return b;
}

Bytes context_message(std::uint16_t op, std::uint32_t ifindex, const Bytes& addr, std::uint16_t third) {
    Bytes b = header(1, 16);
    put_op(b, op);
    put32(b, ifindex);
    b.insert(b.end(), addr.begin(), addr.end());
    put16(b, third);
    put16(b, 0);
    return b;
}

Bytes acquisition_message(std::uint16_t op, std::uint32_t ifindex, std::uint32_t method) {
    Bytes b = header(1, 12);
    put_op(b, op);
    put32(b, ifindex);
    put32(b, method);
    return b;
}

Bytes small_message(std::uint16_t op, std::uint32_t ifindex) {
    Bytes b = header(1, 8);
    put_op(b, op);
    put32(b, ifindex);
    return b;
}

Bytes unnumbered_message(std::uint16_t op, std::uint32_t ifindex, std::uint32_t borrowed) {
    Bytes b = header(1, 12);
    put_op(b, op);
    put32(b, ifindex);
    put32(b, borrowed);
    return b;
}

// A reply whose first eight bytes are noise (they are not examined) and whose result is at 8.
Bytes result_reply(std::uint32_t result) {
    Bytes b(8, 0xEE);
    put32(b, result);
    return b;
}

const Bytes kAddr{0xC0, 0xA8, 0x01, 0x02};  // 192.168.1.2
const Bytes kMask{0xFF, 0xFF, 0xF0, 0x00};  // 255.255.240.0
const std::uint32_t kAddrNet = net(0xC0, 0xA8, 0x01, 0x02);
const std::uint32_t kMaskNet = net(0xFF, 0xFF, 0xF0, 0x00);

class IpCfgClientTest : public PlatformTest {
protected:
    // Runs op against a configuration service that answers each of `connections` requests
    // with `reply`; returns op's status and keeps the requests received in `requests`.
    std::uint32_t serve(const Bytes& reply, const std::function<std::uint32_t()>& op, int connections = 1) {
        std::vector<Bytes> got;
        std::uint32_t status = 0;
        {
            FakeService svc(
                kOwnNode, kCfgPort,
                [&got, reply](Conn& c) {
                    got.push_back(c.recv_message());
                    c.send_message(reply);
                },
                connections);
            EXPECT_TRUE(svc.listening());
            status = op();
            EXPECT_EQ(svc.accepted(), connections);
        }
        requests = got;
        return status;
    }

    // The one request received; empty when there was not exactly one.
    Bytes only_request() const {
        EXPECT_EQ(requests.size(), 1u);
        return requests.size() == 1 ? requests[0] : Bytes{};
    }

    std::vector<Bytes> requests;
};

// ---- Exact bytes of every operation ------------------------------------------------------

TEST_F(IpCfgClientTest, AddManualAddrSendsExactlyFortyFourBytesWithTheDocumentedHeader) {
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_AddManualAddr(0x01020304, kAddrNet, kMaskNet, 0x0A0B0C0D); }),
              0u);
    const Bytes want{0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x24, 0x00, 0x00, 0x00, 0x01,  // kind, length, type
                     0x00, 0x00, 0x00, 0x1C,                                                  // body length
                     0x00, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,                          // code 1, zeros
                     0x01, 0x02, 0x03, 0x04,                                                  // interface index
                     0xC0, 0xA8, 0x01, 0x02, 0xFF, 0xFF, 0xF0, 0x00,                          // address, mask
                     0x0A, 0x0B, 0x0C, 0x0D, 0x00, 0x00, 0x00, 0x00};                         // fourth, zero
    const Bytes got = only_request();
    EXPECT_EQ(got.size(), 44u);
    EXPECT_EQ(got, want);
}

TEST_F(IpCfgClientTest, AddManualAddrExtSendsTheAddRecord) {
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(serve(result_reply(0),
                    [&ext] { return IPCfg_AddManualAddrExt(0x01020304, kAddrNet, kMaskNet, 0x11223344, &ext); }),
              0u);
    EXPECT_EQ(only_request(), address_message(1, 0x01020304, kAddr, kMask, 0x11223344, 0));
}

TEST_F(IpCfgClientTest, DelManualAddrSendsCodeTwo) {
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_DelManualAddr(0x05060708, kAddrNet, kMaskNet, 0x01000002); }),
              0u);
    EXPECT_EQ(only_request(), address_message(2, 0x05060708, kAddr, kMask, 0x01000002, 0));
}

TEST_F(IpCfgClientTest, AddBackUpAddrSendsCodeThirteenWithTheFifthArgument) {
    EXPECT_EQ(serve(result_reply(0),
                    [] { return IPCfg_AddBackUpAddr(0x01020304, kAddrNet, kMaskNet, 0x0A0B0C0D, 0x10203040); }),
              0u);
    EXPECT_EQ(only_request(), address_message(13, 0x01020304, kAddr, kMask, 0x0A0B0C0D, 0x10203040));
}

TEST_F(IpCfgClientTest, DelBackUpAddrSendsCodeFourteenWithTheFifthArgument) {
    EXPECT_EQ(serve(result_reply(0),
                    [] { return IPCfg_DelBackUpAddr(0x01020304, kAddrNet, kMaskNet, 0x0A0B0C0D, 0x10203040); }),
              0u);
    EXPECT_EQ(only_request(), address_message(14, 0x01020304, kAddr, kMask, 0x0A0B0C0D, 0x10203040));
}

TEST_F(IpCfgClientTest, AddContextAddrSendsCodeElevenWithTheSixteenBitThirdArgument) {
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_AddContextAddr(0x01020304, kAddrNet, 0x0A0B); }), 0u);
    const Bytes want = context_message(11, 0x01020304, kAddr, 0x0A0B);
    EXPECT_EQ(want.size(), 32u);
    EXPECT_EQ(only_request(), want);
}

TEST_F(IpCfgClientTest, DelContextAddrSendsThirtyTwoBytesWithCodeTwelveTheIndexAndZeros) {
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_DelContextAddr(0x01020304); }), 0u);
    const Bytes want{0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x18, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x10,
                     0x00, 0x0C, 0x00, 0x00, 0x01, 0x02, 0x03, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    const Bytes got = only_request();
    EXPECT_EQ(got.size(), 32u);
    EXPECT_EQ(got, want);
}

TEST_F(IpCfgClientTest, SetDhcpSendsAcquisitionRecordWithMethodThree) {
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_SetDhcp(0x01020304, 1); }), 0u);
    const Bytes want = acquisition_message(7, 0x01020304, 3);
    EXPECT_EQ(want.size(), 28u);
    EXPECT_EQ(only_request(), want);
}

TEST_F(IpCfgClientTest, SetDhcpEnableOneSendsCodeSevenAndOtherValuesSendCodeEight) {
    EXPECT_EQ(serve(
                  result_reply(0),
                  [] {
                      return IPCfg_SetDhcp(0x01020304, 1) | IPCfg_SetDhcp(0x01020304, 2) |
                             IPCfg_SetDhcp(0x01020304, 0) | IPCfg_SetDhcp(0x01020304, 0x101);
                  },
                  4),
              0u);
    ASSERT_EQ(requests.size(), 4u);
    EXPECT_EQ(requests[0], acquisition_message(7, 0x01020304, 3));
    EXPECT_EQ(requests[1], acquisition_message(8, 0x01020304, 3));
    EXPECT_EQ(requests[2], acquisition_message(8, 0x01020304, 3));
    EXPECT_EQ(requests[3], acquisition_message(8, 0x01020304, 3));
}

TEST_F(IpCfgClientTest, SetBootpSendsMethodFourWithCodeSevenOrEight) {
    EXPECT_EQ(serve(
                  result_reply(0), [] { return IPCfg_SetBootp(0x01020304, 1) | IPCfg_SetBootp(0x01020304, 3); }, 2),
              0u);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], acquisition_message(7, 0x01020304, 4));
    EXPECT_EQ(requests[1], acquisition_message(8, 0x01020304, 4));
}

TEST_F(IpCfgClientTest, SetDhcpAutocfgSendsMethodSixWithCodeSevenOrEight) {
    EXPECT_EQ(serve(
                  result_reply(0),
                  [] { return IPCfg_SetDhcp_Autocfg(0x01020304, 1) | IPCfg_SetDhcp_Autocfg(0x01020304, 0); }, 2),
              0u);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0], acquisition_message(7, 0x01020304, 6));
    EXPECT_EQ(requests[1], acquisition_message(8, 0x01020304, 6));
}

TEST_F(IpCfgClientTest, SetCellularSendsCodeNineOnlyForEnableOneElseTen) {
    EXPECT_EQ(serve(
                  result_reply(0),
                  [] {
                      return IPCfg_SetCellular(0x01020304, 1) | IPCfg_SetCellular(0x01020304, 0) |
                             IPCfg_SetCellular(0x01020304, 2);
                  },
                  3),
              0u);
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0].size(), 24u);
    EXPECT_EQ(requests[0], small_message(9, 0x01020304));
    EXPECT_EQ(requests[1], small_message(10, 0x01020304));
    EXPECT_EQ(requests[2], small_message(10, 0x01020304));
}

TEST_F(IpCfgClientTest, SetNegoSendsCodeSixForAnyNonZeroFlagElseFive) {
    EXPECT_EQ(serve(
                  result_reply(0),
                  [] {
                      return IPCfg_Mor_SetNego(0x01020304, 1) | IPCfg_Mor_SetNego(0x01020304, 0) |
                             IPCfg_Mor_SetNego(0x01020304, 0x0100);
                  },
                  3),
              0u);
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], small_message(6, 0x01020304));
    EXPECT_EQ(requests[1], small_message(5, 0x01020304));
    EXPECT_EQ(requests[2], small_message(6, 0x01020304));
}

TEST_F(IpCfgClientTest, SetUnnumberSendsBorrowedIndexWithCodeFourForNonZeroFlagElseThree) {
    EXPECT_EQ(serve(
                  result_reply(0),
                  [] {
                      return IPCfg_Mor_SetUnnumber(0x01020304, 0x05060708, 0x8000) |
                             IPCfg_Mor_SetUnnumber(0x01020304, 0x05060708, 0);
                  },
                  2),
              0u);
    ASSERT_EQ(requests.size(), 2u);
    EXPECT_EQ(requests[0].size(), 28u);
    EXPECT_EQ(requests[0], unnumbered_message(4, 0x01020304, 0x05060708));
    EXPECT_EQ(requests[1], unnumbered_message(3, 0x01020304, 0x05060708));
}

TEST_F(IpCfgClientTest, SetDebugSendsTheRecordBigEndianAsMessageTypeTwo) {
    IPCFG_DEBUG_S debug{0x0102, 0x0304, 0x05060708};
    EXPECT_EQ(serve(result_reply(0), [&debug] { return IPCfg_Mor_SetDebug(&debug); }), 0u);
    Bytes want = header(2, 8);
    put16(want, 0x0102);
    put16(want, 0x0304);
    put32(want, 0x05060708);
    EXPECT_EQ(want.size(), 24u);
    EXPECT_EQ(only_request(), want);
}

TEST_F(IpCfgClientTest, SetDebugLeavesTheCallersRecordConvertedToBigEndian) {
    IPCFG_DEBUG_S debug{0x0102, 0x0304, 0x05060708};
    EXPECT_EQ(serve(result_reply(0), [&debug] { return IPCfg_Mor_SetDebug(&debug); }), 0u);
    const Bytes want{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
    Bytes in_memory(sizeof debug);
    std::memcpy(in_memory.data(), &debug, sizeof debug);
    EXPECT_EQ(in_memory, want);
}

TEST_F(IpCfgClientTest, SetDebugWithNullRecordFailsAndSendsNothing) {
    FakeService svc(kOwnNode, kCfgPort, [](Conn& c) { c.recv_message(); });
    EXPECT_EQ(IPCfg_Mor_SetDebug(nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    EXPECT_EQ(svc.accepted(), 0);
}

TEST_F(IpCfgClientTest, GetUnnumberedIfSendsQueryAsMessageTypeThree) {
    std::uint32_t borrowed = 0;
    EXPECT_EQ(serve(result_reply(7), [&borrowed] { return IPCfg_Mor_GetUnnumberedIf(0x01020304, &borrowed); }), 0u);
    Bytes want = header(3, 4);
    put32(want, 0x01020304);
    EXPECT_EQ(want.size(), 20u);
    EXPECT_EQ(only_request(), want);
}

TEST_F(IpCfgClientTest, GetUnnumberedIfReturnsTheBorrowedIndex) {
    std::uint32_t borrowed = 0;
    EXPECT_EQ(serve(result_reply(7), [&borrowed] { return IPCfg_Mor_GetUnnumberedIf(9, &borrowed); }), 0u);
    EXPECT_EQ(borrowed, 7u);
    EXPECT_EQ(serve(result_reply(0x01020304), [&borrowed] { return IPCfg_Mor_GetUnnumberedIf(9, &borrowed); }), 0u);
    EXPECT_EQ(borrowed, 0x01020304u);
}

TEST_F(IpCfgClientTest, GetUnnumberedIfAnswerZeroMeansNoneAndIsReportedAsFailure) {
    std::uint32_t borrowed = 0;
    EXPECT_EQ(serve(result_reply(0), [&borrowed] { return IPCfg_Mor_GetUnnumberedIf(9, &borrowed); }), kExchangeFailed);
}

TEST_F(IpCfgClientTest, GetUnnumberedIfWithNullOutFailsAndSendsNothing) {
    EXPECT_EQ(IPCfg_Mor_GetUnnumberedIf(9, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

// ---- Builders ----------------------------------------------------------------------------

TEST_F(IpCfgClientTest, BuildersChooseTheDeleteCodeForAnyNonZeroFlag) {
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(serve(
                  result_reply(0),
                  [&ext] {
                      return ipcfg_SetAddr(5, 1, kAddrNet, kMaskNet, 2, &ext) |
                             ipcfg_SetAddr(0, 1, kAddrNet, kMaskNet, 2, nullptr) |
                             ipcfg_SetBackUpAddr(0x100, 1, kAddrNet, kMaskNet, 2, 3) |
                             ipcfg_SetBackUpAddr(0, 1, kAddrNet, kMaskNet, 2, 3) |
                             ipcfg_SetContextAddr(2, 1, kAddrNet, 4) | ipcfg_SetContextAddr(0, 1, kAddrNet, 4);
                  },
                  6),
              0u);
    ASSERT_EQ(requests.size(), 6u);
    EXPECT_EQ(requests[0], address_message(2, 1, kAddr, kMask, 2, 0));
    EXPECT_EQ(requests[1], address_message(1, 1, kAddr, kMask, 2, 0));
    EXPECT_EQ(requests[2], address_message(14, 1, kAddr, kMask, 2, 3));
    EXPECT_EQ(requests[3], address_message(13, 1, kAddr, kMask, 2, 3));
    EXPECT_EQ(requests[4], context_message(12, 1, kAddr, 4));
    EXPECT_EQ(requests[5], context_message(11, 1, kAddr, 4));
}

TEST_F(IpCfgClientTest, SetCfgSendsTheGivenMethodAsItStands) {
    EXPECT_EQ(serve(result_reply(0), [] { return ipcfg_SetCfg(0x01020304, 0x0A0B0C0D, 1); }), 0u);
    EXPECT_EQ(only_request(), acquisition_message(7, 0x01020304, 0x0A0B0C0D));
}

// ---- Reply handling ----------------------------------------------------------------------

TEST_F(IpCfgClientTest, ServiceResultIsReturnedAsItStandsByEveryOperation) {
    const std::uint32_t answer = 0x0A0B0C0D;
    IPCFG_REPLY_EXT_S ext{};
    IPCFG_DEBUG_S debug{1, 2, 3};
    const std::vector<std::function<std::uint32_t()>> ops = {
        [] { return IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0); },
        [&ext] { return IPCfg_AddManualAddrExt(1, kAddrNet, kMaskNet, 0, &ext); },
        [] { return IPCfg_DelManualAddr(1, kAddrNet, kMaskNet, 0); },
        [] { return IPCfg_AddBackUpAddr(1, kAddrNet, kMaskNet, 0, 0); },
        [] { return IPCfg_DelBackUpAddr(1, kAddrNet, kMaskNet, 0, 0); },
        [] { return IPCfg_AddContextAddr(1, kAddrNet, 0); },
        [] { return IPCfg_DelContextAddr(1); },
        [] { return IPCfg_SetDhcp(1, 1); },
        [] { return IPCfg_SetBootp(1, 1); },
        [] { return IPCfg_SetDhcp_Autocfg(1, 1); },
        [] { return IPCfg_SetCellular(1, 1); },
        [] { return IPCfg_Mor_SetNego(1, 1); },
        [] { return IPCfg_Mor_SetUnnumber(1, 2, 1); },
        [&debug] { return IPCfg_Mor_SetDebug(&debug); },
    };
    for (std::size_t i = 0; i < ops.size(); ++i) {
        EXPECT_EQ(serve(result_reply(answer), ops[i]), answer) << "operation " << i;
    }
}

TEST_F(IpCfgClientTest, ExtendedReplyFieldsAreConvertedAndTheLastTwoBytesCopiedRaw) {
    Bytes reply(8, 0xEE);
    put32(reply, 0x0A0B0C0D);
    put32(reply, 0x11223344);
    put16(reply, 0x5566);
    reply.push_back(0x77);
    reply.push_back(0x88);
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(serve(reply, [&ext] { return IPCfg_AddManualAddrExt(1, kAddrNet, kMaskNet, 0, &ext); }), 0x0A0B0C0Du);
    EXPECT_EQ(ext.uiResult, 0x0A0B0C0Du);
    EXPECT_EQ(ext.uiValue, 0x11223344u);
    EXPECT_EQ(ext.usValue, 0x5566u);
    EXPECT_EQ(ext.aucRaw[0], 0x77);
    EXPECT_EQ(ext.aucRaw[1], 0x88);
}

TEST_F(IpCfgClientTest, SetAddrWithoutExtendedReplyStillReturnsTheResult) {
    EXPECT_EQ(serve(result_reply(0x01020304), [] { return ipcfg_SetAddr(0, 1, kAddrNet, kMaskNet, 0, nullptr); }),
              0x01020304u);
}

TEST_F(IpCfgClientTest, SendAndRevFromPortSendsTheBytesAsGivenAndReturnsTheResult) {
    const Bytes req{0x10, 0x20, 0x30, 0x40, 0x50, 0x60, 0x70};
    std::uint32_t result = 0;
    EXPECT_EQ(serve(result_reply(0x01020304),
                    [&req, &result] {
                        return IPCfg_SendAndRevFromPort(req.data(), static_cast<std::uint32_t>(req.size()), &result);
                    }),
              0u);
    EXPECT_EQ(result, 0x01020304u);
    EXPECT_EQ(only_request(), req);
}

TEST_F(IpCfgClientTest, SendAndRevFromPortExtFillsTheExtendedReplyFromTheRequestBuffer) {
    std::uint8_t buf[IPCFG_REPLY_SIZE] = {0xA1, 0xA2, 0xA3};
    Bytes reply(8, 0xEE);
    put32(reply, 0x01020304);
    put32(reply, 0x05060708);
    put16(reply, 0x090A);
    reply.push_back(0x0B);
    reply.push_back(0x0C);
    reply.resize(30, 0xDD);
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(serve(reply, [&buf, &ext] { return IPCfg_SendAndRevFromPortExt(buf, 3, &ext); }), 0u);
    EXPECT_EQ(only_request(), (Bytes{0xA1, 0xA2, 0xA3}));
    EXPECT_EQ(ext.uiResult, 0x01020304u);
    EXPECT_EQ(ext.uiValue, 0x05060708u);
    EXPECT_EQ(ext.usValue, 0x090Au);
    EXPECT_EQ(ext.aucRaw[0], 0x0B);
    EXPECT_EQ(ext.aucRaw[1], 0x0C);
    // The reply was received into the request buffer itself.
    EXPECT_EQ(Bytes(buf, buf + reply.size()), reply);
}

TEST_F(IpCfgClientTest, ReplyShorterThanTwelveBytesIsAcceptedAndMissingResultBytesReadAsZero) {
    std::uint32_t borrowed = 0;
    // Four bytes: nothing of the result arrives.
    EXPECT_EQ(serve(Bytes{1, 2, 3, 4}, [] { return IPCfg_SetCellular(1, 1); }), 0u);
    // Ten bytes: the first half of the result arrives.
    EXPECT_EQ(serve(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0xAB, 0xCD}, [] { return IPCfg_DelContextAddr(1); }), 0xABCD0000u);
    EXPECT_EQ(serve(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 0x00, 0x07},
                    [&borrowed] { return IPCfg_Mor_GetUnnumberedIf(1, &borrowed); }),
              0u);
    EXPECT_EQ(borrowed, 0x00070000u);
    std::uint32_t result = 0xFFFFFFFF;
    const Bytes req{1, 2, 3};
    EXPECT_EQ(serve(Bytes{9}, [&req, &result] { return IPCfg_SendAndRevFromPort(req.data(), 3, &result); }), 0u);
    EXPECT_EQ(result, 0u);
}

TEST_F(IpCfgClientTest, ShortReplyToAnAddressOperationReadsTheRequestBytesAsResult) {
    // Address operations use the extended exchange, whose receive buffer is the request:
    // bytes 8-11 not reached by a four-byte reply still hold the message type, 1.
    EXPECT_EQ(serve(Bytes{1, 2, 3, 4}, [] { return IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0); }), 1u);
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(serve(Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10},
                    [&ext] { return IPCfg_AddManualAddrExt(0x01020304, kAddrNet, kMaskNet, 0x0A0B0C0D, &ext); }),
              0x090A0001u);
    // Bytes 12-19 of the request: the code and zero, then eight zero bytes of the record.
    EXPECT_EQ(ext.uiResult, 0x090A0001u);
    EXPECT_EQ(ext.uiValue, 0x0000001Cu);
    EXPECT_EQ(ext.usValue, 0x0001u);
    EXPECT_EQ(ext.aucRaw[0], 0x00);
    EXPECT_EQ(ext.aucRaw[1], 0x00);
}

TEST_F(IpCfgClientTest, ShortReplyToTheExtendedExchangeLeavesTheRequestBytesAsResult) {
    // The extended exchange receives into the request buffer: what the reply does not
    // reach is what the request held there.
    std::uint8_t buf[IPCFG_REPLY_SIZE] = {};
    for (std::size_t i = 0; i < sizeof buf; ++i) buf[i] = static_cast<std::uint8_t>(i);
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(serve(Bytes{0xF0, 0xF1, 0xF2, 0xF3}, [&buf, &ext] { return IPCfg_SendAndRevFromPortExt(buf, 20, &ext); }),
              0u);
    EXPECT_EQ(ext.uiResult, 0x08090A0Bu);
    EXPECT_EQ(ext.uiValue, 0x0C0D0E0Fu);
    EXPECT_EQ(ext.usValue, 0x1011u);
    EXPECT_EQ(ext.aucRaw[0], 0x12);
    EXPECT_EQ(ext.aucRaw[1], 0x13);
}

TEST_F(IpCfgClientTest, ReplyIsReadWithOneWaitAllReceiveOfAtMostSixtyFourBytes) {
    Bytes reply = result_reply(0x01020304);
    reply.resize(100, 0x55);
    EXPECT_EQ(serve(reply, [] { return IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0); }), 0x01020304u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
    bool seen = false;
    for (std::uint32_t i = 0; i < ipp_sock_log_count(); ++i) {
        ipp_sock_event ev{};
        ASSERT_EQ(ipp_sock_log_get(i, &ev), 0);
        if (ev.call != IPP_CALL_RECV) continue;
        seen = true;
        EXPECT_EQ(ev.flags, 0x100);
        EXPECT_EQ(ev.length, 64u);
        EXPECT_EQ(ev.result, 64);
    }
    EXPECT_TRUE(seen);
}

TEST_F(IpCfgClientTest, ExchangeUsesOnePointToPointSocketToPort1653OnTheOwnNodeAndClosesIt) {
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_DelContextAddr(3); }), 0u);
    std::vector<ipp_sock_event> log;
    for (std::uint32_t i = 0; i < ipp_sock_log_count(); ++i) {
        ipp_sock_event ev{};
        ASSERT_EQ(ipp_sock_log_get(i, &ev), 0);
        log.push_back(ev);
    }
    ASSERT_EQ(log.size(), 5u);
    EXPECT_EQ(log[0].call, IPP_CALL_SOCKET);
    EXPECT_EQ(log[0].domain, 37);
    EXPECT_EQ(log[0].type, 2);
    EXPECT_EQ(log[0].protocol, 1);
    const int fd = log[0].result;
    EXPECT_GE(fd, 0);
    EXPECT_EQ(log[1].call, IPP_CALL_CONNECT);
    EXPECT_EQ(log[1].fd, fd);
    EXPECT_EQ(log[1].addr_len, 16u);
    const LipcAddr want(kOwnNode, kCfgPort);
    EXPECT_EQ(Bytes(log[1].addr, log[1].addr + 16), Bytes(want.b, want.b + 16));
    EXPECT_EQ(log[2].call, IPP_CALL_SEND);
    EXPECT_EQ(log[2].fd, fd);
    EXPECT_EQ(log[2].flags, 0);
    EXPECT_EQ(log[2].length, 32u);
    EXPECT_EQ(log[3].call, IPP_CALL_RECV);
    EXPECT_EQ(log[3].fd, fd);
    EXPECT_EQ(log[4].call, IPP_CALL_CLOSE);
    EXPECT_EQ(log[4].fd, fd);
}

// ---- Transport failures ------------------------------------------------------------------

TEST_F(IpCfgClientTest, ClosedPeerWithoutReplyIsAnExchangeFailure) {
    const Bytes req{1, 2, 3, 4};
    std::uint32_t result = 0x5A5A5A5A;
    IPCFG_REPLY_EXT_S ext{};
    {
        FakeService svc(
            kOwnNode, kCfgPort, [](Conn& c) { c.recv_message(); }, 4);
        EXPECT_EQ(IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0), kExchangeFailed);
        EXPECT_EQ(IPCfg_SetCellular(1, 1), kExchangeFailed);
        EXPECT_EQ(IPCfg_SendAndRevFromPort(req.data(), 4, &result), kFailed);
        std::uint8_t buf[IPCFG_REPLY_SIZE] = {1, 2, 3, 4};
        EXPECT_EQ(IPCfg_SendAndRevFromPortExt(buf, 4, &ext), kFailed);
        EXPECT_EQ(svc.accepted(), 4);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 4u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 4u);
}

TEST_F(IpCfgClientTest, EveryExportedOperationReturnsExchangeFailureWhenNoServiceListens) {
    IPCFG_REPLY_EXT_S ext{};
    IPCFG_DEBUG_S debug{1, 2, 3};
    std::uint32_t borrowed = 0x5A5A5A5A;
    EXPECT_EQ(IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0), kExchangeFailed);
    EXPECT_EQ(IPCfg_AddManualAddrExt(1, kAddrNet, kMaskNet, 0, &ext), kExchangeFailed);
    EXPECT_EQ(IPCfg_DelManualAddr(1, kAddrNet, kMaskNet, 0), kExchangeFailed);
    EXPECT_EQ(IPCfg_AddBackUpAddr(1, kAddrNet, kMaskNet, 0, 0), kExchangeFailed);
    EXPECT_EQ(IPCfg_DelBackUpAddr(1, kAddrNet, kMaskNet, 0, 0), kExchangeFailed);
    EXPECT_EQ(IPCfg_AddContextAddr(1, kAddrNet, 0), kExchangeFailed);
    EXPECT_EQ(IPCfg_DelContextAddr(1), kExchangeFailed);
    EXPECT_EQ(IPCfg_SetDhcp(1, 1), kExchangeFailed);
    EXPECT_EQ(IPCfg_SetBootp(1, 1), kExchangeFailed);
    EXPECT_EQ(IPCfg_SetDhcp_Autocfg(1, 1), kExchangeFailed);
    EXPECT_EQ(IPCfg_SetCellular(1, 1), kExchangeFailed);
    EXPECT_EQ(IPCfg_Mor_SetNego(1, 1), kExchangeFailed);
    EXPECT_EQ(IPCfg_Mor_SetUnnumber(1, 2, 1), kExchangeFailed);
    EXPECT_EQ(IPCfg_Mor_SetDebug(&debug), kExchangeFailed);
    EXPECT_EQ(IPCfg_Mor_GetUnnumberedIf(1, &borrowed), kExchangeFailed);
    // Every attempt opened and closed its own socket.
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 15u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 15u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

TEST_F(IpCfgClientTest, ExchangeOperationsReturnGeneralFailureWhenNoServiceListens) {
    const Bytes req{1, 2, 3, 4};
    std::uint32_t result = 0x5A5A5A5A;
    EXPECT_EQ(IPCfg_SendAndRevFromPort(req.data(), 4, &result), kFailed);
    std::uint8_t buf[IPCFG_REPLY_SIZE] = {1, 2, 3, 4};
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(IPCfg_SendAndRevFromPortExt(buf, 4, &ext), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 2u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 2u);
}

TEST_F(IpCfgClientTest, ExchangeWithNullArgumentsFailsBeforeOpeningASocket) {
    const Bytes req{1, 2, 3, 4};
    std::uint32_t result = 0;
    IPCFG_REPLY_EXT_S ext{};
    EXPECT_EQ(IPCfg_SendAndRevFromPort(req.data(), 4, nullptr), kFailed);
    EXPECT_EQ(IPCfg_SendAndRevFromPort(nullptr, 4, &result), kFailed);
    EXPECT_EQ(IPCfg_SendAndRevFromPortExt(nullptr, 4, &ext), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(IpCfgClientTest, SocketFailureIsAnExchangeFailure) {
    ipp_fault_inject(IPP_CALL_SOCKET, 2, EMFILE);
    const Bytes req{1, 2, 3, 4};
    std::uint32_t result = 0;
    EXPECT_EQ(IPCfg_SendAndRevFromPort(req.data(), 4, &result), kFailed);
    EXPECT_EQ(IPCfg_Mor_SetNego(1, 1), kExchangeFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 0u);
}

TEST_F(IpCfgClientTest, ConnectInterruptedAnyNumberOfTimesIsRetried) {
    ipp_fault_inject(IPP_CALL_CONNECT, 20, EINTR);
    EXPECT_EQ(serve(result_reply(0x01020304), [] { return IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0); }),
              0x01020304u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 21u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
}

TEST_F(IpCfgClientTest, ConnectFailingWithAlreadyConnectedCountsAsConnected) {
    // The injected answer keeps the socket unconnected, so the send that follows fails; what
    // matters is that the exchange went on to send after one connect.
    ipp_fault_inject(IPP_CALL_CONNECT, 1, EISCONN);
    EXPECT_EQ(IPCfg_Mor_SetNego(1, 1), kExchangeFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(IpCfgClientTest, ConnectFailingWithOtherErrorEndsTheExchangeAtOnce) {
    {
        FakeService svc(kOwnNode, kCfgPort, [](Conn& c) { c.send_message(result_reply(0)); });
        ipp_fault_inject(IPP_CALL_CONNECT, 1, EACCES);
        EXPECT_EQ(IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0), kExchangeFailed);
        EXPECT_EQ(svc.accepted(), 0);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(IpCfgClientTest, ConnectFailingWithOtherErrorGivesGeneralFailureFromTheExchange) {
    ipp_fault_inject(IPP_CALL_CONNECT, 1, ETIMEDOUT);
    const Bytes req{1, 2, 3, 4};
    std::uint32_t result = 0;
    EXPECT_EQ(IPCfg_SendAndRevFromPort(req.data(), 4, &result), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CONNECT), 1u);
}

TEST_F(IpCfgClientTest, InterruptedReceiveIsRetried) {
    ipp_fault_inject(IPP_CALL_RECV, 3, EINTR);
    EXPECT_EQ(serve(result_reply(0x0A0B0C0D), [] { return IPCfg_DelManualAddr(1, kAddrNet, kMaskNet, 0); }),
              0x0A0B0C0Du);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 4u);
}

TEST_F(IpCfgClientTest, FailedReceiveOtherThanInterruptedEndsTheExchange) {
    {
        FakeService svc(kOwnNode, kCfgPort, [](Conn& c) {
            c.recv_message();
            c.send_message(result_reply(0));
        });
        ipp_fault_inject(IPP_CALL_RECV, 1, ECONNRESET);
        EXPECT_EQ(IPCfg_DelManualAddr(1, kAddrNet, kMaskNet, 0), kExchangeFailed);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(IpCfgClientTest, FailedSendEndsTheExchangeWithoutReceiving) {
    {
        FakeService svc(kOwnNode, kCfgPort, [](Conn& c) { c.recv_message(); });
        ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
        EXPECT_EQ(IPCfg_SetCellular(1, 1), kExchangeFailed);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(IpCfgClientTest, PartialSendIsNotDetected) {
    ipp_fault_short_send(1, 10);
    EXPECT_EQ(serve(result_reply(0x01020304), [] { return IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0); }),
              0x01020304u);
    EXPECT_EQ(only_request().size(), 10u);
}

// ---- The DHCP client service check -------------------------------------------------------

using AcquisitionOp = std::uint32_t (*)(std::uint32_t, std::uint32_t);
struct NamedOp {
    const char* name;
    AcquisitionOp op;
};
const NamedOp kAcquisitionOps[] = {
    {"SetDhcp", IPCfg_SetDhcp},
    {"SetBootp", IPCfg_SetBootp},
    {"SetDhcp_Autocfg", IPCfg_SetDhcp_Autocfg},
};

class DhcpClientCheckTest : public IpCfgClientTest {
protected:
    DhcpClientCheckTest() {
        ipp_dir_set_local_node(1);
        ipp_dir_set_master(kMaster);
    }
    void script_status(std::uint32_t status) { ipp_service_script(kMaster, kDhcpClient, &status, 1); }
    static std::uint32_t status_calls() { return ipp_service_status_calls(kMaster, kDhcpClient); }
    static std::uint32_t start_calls() { return ipp_service_start_calls(kMaster, kDhcpClient); }
};

TEST_F(DhcpClientCheckTest, RunningServiceIsLeftAlone) {
    for (const NamedOp& o : kAcquisitionOps) {
        ipp_reset();
        ipp_dir_set_master(kMaster);
        script_status(2);
        EXPECT_EQ(serve(result_reply(0x01020304), [&o] { return o.op(1, 1); }), 0x01020304u) << o.name;
        EXPECT_EQ(status_calls(), 1u) << o.name;
        EXPECT_EQ(start_calls(), 0u) << o.name;
    }
}

TEST_F(DhcpClientCheckTest, StartingServiceCountsAsRunning) {
    script_status(1);
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_SetDhcp(1, 0); }), 0u);
    EXPECT_EQ(status_calls(), 1u);
    EXPECT_EQ(start_calls(), 0u);
}

TEST_F(DhcpClientCheckTest, StoppedServiceIsStartedOnTheMaster) {
    for (const NamedOp& o : kAcquisitionOps) {
        ipp_reset();
        ipp_dir_set_local_node(1);
        ipp_dir_set_master(kMaster);
        script_status(0);
        EXPECT_EQ(serve(result_reply(0x0A0B0C0D), [&o] { return o.op(1, 1); }), 0x0A0B0C0Du) << o.name;
        EXPECT_EQ(status_calls(), 1u) << o.name;
        EXPECT_EQ(start_calls(), 1u) << o.name;
        EXPECT_EQ(ipp_service_start_calls(1, kDhcpClient), 0u) << o.name;
    }
}

TEST_F(DhcpClientCheckTest, AbsentServiceIsStarted) {
    script_status(4);
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_SetBootp(1, 2); }), 0u);
    EXPECT_EQ(start_calls(), 1u);
}

TEST_F(DhcpClientCheckTest, FailedStatusQueryLeadsToAStart) {
    script_status(2);
    ipp_service_set_status_result(kMaster, kDhcpClient, 0x40010001u);
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_SetDhcp_Autocfg(1, 1); }), 0u);
    EXPECT_EQ(status_calls(), 1u);
    EXPECT_EQ(start_calls(), 1u);
}

TEST_F(DhcpClientCheckTest, FailedStartIsNotReported) {
    ipp_service_set_start_result(kMaster, kDhcpClient, 0x40010001u);
    EXPECT_EQ(serve(result_reply(0x00000123), [] { return IPCfg_SetDhcp(1, 1); }), 0x00000123u);
    EXPECT_EQ(start_calls(), 1u);
}

TEST_F(DhcpClientCheckTest, MasterOnTheOwnNodeAliasIsNotChecked) {
    ipp_dir_set_master(0x8000);
    EXPECT_EQ(serve(result_reply(0), [] { return IPCfg_SetDhcp(1, 1); }), 0u);
    EXPECT_EQ(ipp_service_status_calls(0x8000, kDhcpClient), 0u);
    EXPECT_EQ(ipp_service_start_calls(0x8000, kDhcpClient), 0u);
    EXPECT_EQ(ipp_service_status_calls(1, kDhcpClient), 0u);
    EXPECT_EQ(ipp_service_start_calls(1, kDhcpClient), 0u);
}

TEST_F(DhcpClientCheckTest, SetDhcpChecksAndStartsTheServiceEvenWhenNoServiceListens) {
    EXPECT_EQ(IPCfg_SetDhcp(1, 1), kExchangeFailed);
    EXPECT_EQ(status_calls(), 1u);
    EXPECT_EQ(start_calls(), 1u);
}

TEST_F(DhcpClientCheckTest, CheckWithoutListenerLeavesARunningServiceAlone) {
    for (const NamedOp& o : kAcquisitionOps) {
        ipp_reset();
        ipp_dir_set_master(kMaster);
        script_status(3);
        EXPECT_EQ(o.op(1, 1), kExchangeFailed) << o.name;
        EXPECT_EQ(status_calls(), 1u) << o.name;
        EXPECT_EQ(start_calls(), 0u) << o.name;
    }
}

TEST_F(DhcpClientCheckTest, EveryChangeIsFollowedByItsOwnCheck) {
    script_status(0);
    EXPECT_EQ(
        serve(
            result_reply(0), [] { return IPCfg_SetDhcp(1, 1) | IPCfg_SetBootp(1, 0) | ipcfg_SetCfg(1, 3, 1); }, 3),
        0u);
    EXPECT_EQ(status_calls(), 3u);
    EXPECT_EQ(start_calls(), 3u);
}

TEST_F(DhcpClientCheckTest, OtherOperationsDoNotCheck) {
    IPCFG_DEBUG_S debug{1, 2, 3};
    std::uint32_t borrowed = 0;
    EXPECT_EQ(serve(
                  result_reply(5),
                  [&debug, &borrowed] {
                      return IPCfg_SetCellular(1, 1) | IPCfg_AddManualAddr(1, kAddrNet, kMaskNet, 0) |
                             IPCfg_Mor_SetNego(1, 1) | IPCfg_Mor_SetDebug(&debug) |
                             IPCfg_Mor_GetUnnumberedIf(1, &borrowed);
                  },
                  5),
              5u);
    EXPECT_EQ(status_calls(), 0u);
    EXPECT_EQ(start_calls(), 0u);
}

}  // namespace
}  // namespace ipt
