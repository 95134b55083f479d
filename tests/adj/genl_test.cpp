// Generic netlink: family resolution, one command, one reply. Requests to the kernel go to
// the real generic-netlink controller of this machine; request bytes are captured on one end
// of a local socket pair, which the platform passes through untouched (a sequenced-packet
// pair, because it ignores the kernel address that the library passes to sendto and sendmsg).
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "ipclient/adj.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/fixture.hpp"
#include "support/sock_log.hpp"
#include "support/statuses.hpp"

namespace ipt {
namespace {

constexpr std::uint16_t kController = 16;

class AdjGenlTest : public PlatformTest {
protected:
    void SetUp() override {
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET, 0, pair_), 0);
    }
    void TearDown() override {
        for (int fd : pair_) {
            if (fd >= 0) ::close(fd);
        }
        PlatformTest::TearDown();
    }

    // The library's end and the peer's end.
    int lib() const { return pair_[0]; }
    int peer() const { return pair_[1]; }

    Bytes read_peer() const {
        Bytes b(4096);
        const ssize_t n = ::recv(peer(), b.data(), b.size(), MSG_DONTWAIT);
        b.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return b;
    }

    int pair_[2] = {-1, -1};
};

std::uint16_t host16(const Bytes& b, std::size_t at) {
    std::uint16_t v = 0;
    if (at + 2 <= b.size()) std::memcpy(&v, &b[at], 2);
    return v;
}
std::uint32_t host32(const Bytes& b, std::size_t at) {
    std::uint32_t v = 0;
    if (at + 4 <= b.size()) std::memcpy(&v, &b[at], 4);
    return v;
}
void add_host16(Bytes& b, std::uint16_t v) { putraw(b, &v, 2); }
void add_host32(Bytes& b, std::uint32_t v) { putraw(b, &v, 4); }

// A netlink attribute in host order, padded to 4 bytes.
void add_attr(Bytes& b, std::uint16_t type, const Bytes& value) {
    add_host16(b, static_cast<std::uint16_t>(4 + value.size()));
    add_host16(b, type);
    b.insert(b.end(), value.begin(), value.end());
    while (b.size() % 4 != 0) b.push_back(0);
}

Bytes name_value(const std::string& name) {
    Bytes v(name.begin(), name.end());
    v.push_back(0);
    return v;
}

// A controller reply: netlink header, generic header, then the attributes.
Bytes controller_reply(const Bytes& attrs, std::uint16_t type = kController) {
    Bytes b;
    add_host32(b, static_cast<std::uint32_t>(20 + attrs.size()));
    add_host16(b, type);
    add_host16(b, 0);
    add_host32(b, 0);
    add_host32(b, 0);
    b.push_back(1);  // new family
    b.push_back(2);
    add_host16(b, 0);
    b.insert(b.end(), attrs.begin(), attrs.end());
    return b;
}

bool is_open(int fd) { return ::fcntl(fd, F_GETFD) != -1; }

const std::uint8_t kKernelAddr[16] = {0, 16};

// ---- Edge case --------------------------------------------------------------------------

TEST_F(AdjGenlTest, FamilyNameOfThirtyCharactersIsTruncatedToTwentyThreeInTheRequest) {
    const std::string name = "abcdefghijklmnopqrstuvwxyz0123";
    ASSERT_EQ(name.size(), 30u);
    Bytes attrs;
    add_attr(attrs, 2, name_value("abc"));
    add_attr(attrs, 1, {0x34, 0x12});
    const Bytes reply = controller_reply(attrs);
    ASSERT_EQ(::send(peer(), reply.data(), reply.size(), 0), static_cast<ssize_t>(reply.size()));

    std::uint16_t id = 0;
    EXPECT_EQ(ADJ4_GetGenlFamilyId(lib(), name.c_str(), &id), 0u);
    EXPECT_EQ(id, 0x1234u);

    const Bytes req = read_peer();
    ASSERT_EQ(req.size(), 48u);
    // Netlink header: length 20 + 28, type 16, flags 1 (request).
    EXPECT_EQ(host32(req, 0), 48u);
    EXPECT_EQ(host16(req, 4), 16u);
    EXPECT_EQ(host16(req, 6), 1u);
    EXPECT_EQ(host32(req, 8), 0u);   // sequence
    EXPECT_EQ(host32(req, 12), 0u);  // port
    // Generic header: get family, version 0.
    EXPECT_EQ(req[16], 3);
    EXPECT_EQ(req[17], 0);
    EXPECT_EQ(host16(req, 18), 0u);
    // Attribute: length 23 + 5, family name, the first 23 characters and a zero.
    EXPECT_EQ(host16(req, 20), 28u);
    EXPECT_EQ(host16(req, 22), 2u);
    EXPECT_EQ(std::string(req.begin() + 24, req.begin() + 47), name.substr(0, 23));
    EXPECT_EQ(req[47], 0);
}

// ---- Family resolution --------------------------------------------------------------------

TEST_F(AdjGenlTest, GetFamilyIdRequestForShortNameIsPaddedToFourBytes) {
    Bytes attrs;
    add_attr(attrs, 2, name_value("nlctrl"));
    add_attr(attrs, 1, {0x10, 0x00});
    const Bytes reply = controller_reply(attrs);
    ASSERT_EQ(::send(peer(), reply.data(), reply.size(), 0), static_cast<ssize_t>(reply.size()));
    std::uint16_t id = 0;
    EXPECT_EQ(ADJ4_GetGenlFamilyId(lib(), "nlctrl", &id), 0u);
    EXPECT_EQ(id, 16u);
    const Bytes req = read_peer();
    ASSERT_EQ(req.size(), 32u);
    EXPECT_EQ(host32(req, 0), 32u);
    EXPECT_EQ(host16(req, 20), 11u);
    EXPECT_EQ(host16(req, 22), 2u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(req.data() + 24)), "nlctrl");
    EXPECT_EQ(req[30], 0);

    const auto sendtos = sock_events(IPP_CALL_SENDTO);
    ASSERT_EQ(sendtos.size(), 1u);
    EXPECT_EQ(sendtos[0].fd, lib());
    EXPECT_EQ(sendtos[0].length, 32u);
    EXPECT_EQ(sendtos[0].addr_len, 16u);
    EXPECT_EQ(std::memcmp(sendtos[0].addr, kKernelAddr, 16), 0);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(recvs[0].length, 48u);
}

TEST_F(AdjGenlTest, GetFamilyIdSkipsTheFirstAttributeRoundedUpToFour) {
    Bytes attrs;
    add_attr(attrs, 2, name_value("abcdefghijklmno"));  // 4 + 16 = 20
    add_attr(attrs, 1, {0xCD, 0xAB});
    const Bytes reply = controller_reply(attrs);
    ASSERT_EQ(reply.size(), 48u);  // the id attribute ends exactly within the 48 bytes read
    ASSERT_EQ(::send(peer(), reply.data(), reply.size(), 0), static_cast<ssize_t>(reply.size()));
    std::uint16_t id = 0;
    EXPECT_EQ(ADJ4_GetGenlFamilyId(lib(), "abcdefghijklmno", &id), 0u);
    EXPECT_EQ(id, 0xABCDu);
}

TEST_F(AdjGenlTest, GetFamilyIdRejectsReplyWhoseSecondAttributeIsNotTheId) {
    Bytes attrs;
    add_attr(attrs, 2, name_value("nlctrl"));
    add_attr(attrs, 3, {0x01, 0x00, 0x00, 0x00});  // version, not the id
    const Bytes reply = controller_reply(attrs);
    ASSERT_EQ(::send(peer(), reply.data(), reply.size(), 0), static_cast<ssize_t>(reply.size()));
    std::uint16_t id = 0x7777;
    EXPECT_EQ(ADJ4_GetGenlFamilyId(lib(), "nlctrl", &id), kFailed);
    EXPECT_EQ(id, 0x7777u);
}

TEST_F(AdjGenlTest, GetFamilyIdWithoutReplyFails) {
    std::uint16_t id = 0x7777;
    EXPECT_EQ(ADJ4_GetGenlFamilyId(lib(), "nlctrl", &id), kFailed);  // nothing queued: no wait
    EXPECT_EQ(id, 0x7777u);
    EXPECT_EQ(read_peer().size(), 32u);  // the request went
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 1u);
    EXPECT_EQ(recvs[0].result, -1);
    EXPECT_EQ(recvs[0].err, EAGAIN);
}

TEST_F(AdjGenlTest, GetFamilyIdSendFailureFailsWithoutReceiving) {
    ipp_fault_inject(IPP_CALL_SENDTO, 1, ENOBUFS);
    std::uint16_t id = 0;
    EXPECT_EQ(ADJ4_GetGenlFamilyId(lib(), "nlctrl", &id), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

TEST_F(AdjGenlTest, GetFamilyIdOnTheKernelResolvesTheController) {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW, 16);
    ASSERT_GE(fd, 0);
    std::uint16_t id = 0;
    EXPECT_EQ(ADJ4_GetGenlFamilyId(fd, "nlctrl", &id), 0u);
    EXPECT_EQ(id, 16u);
    ::close(fd);
}

// ---- Open and close -----------------------------------------------------------------------

TEST_F(AdjGenlTest, GenlOpenOfControllerGivesFamily16AndASocket) {
    ADJ_GENL_S genl{};
    genl.iSock = -1;
    genl.pcFamilyName = "nlctrl";
    ASSERT_EQ(ADJ4_GenlOpen(&genl), 0u);
    EXPECT_GE(genl.iSock, 0);
    EXPECT_EQ(genl.usFamilyId, 16u);
    expect_one_socket(16, 3, 16, genl.iSock);
    const auto sendtos = sock_events(IPP_CALL_SENDTO);
    ASSERT_EQ(sendtos.size(), 1u);
    EXPECT_EQ(sendtos[0].fd, genl.iSock);
    EXPECT_EQ(std::memcmp(sendtos[0].addr, kKernelAddr, 16), 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
    const int fd = genl.iSock;
    ADJ4_GenlClose(&genl);
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjGenlTest, GenlOpenOfUnknownFamilyFailsAndClosesItsSocket) {
    ADJ_GENL_S genl{};
    genl.iSock = -1;
    genl.pcFamilyName = "adjnosuchfamily";
    EXPECT_EQ(ADJ4_GenlOpen(&genl), kFailed);
    EXPECT_EQ(genl.iSock, -1);
    const auto sockets = sock_events(IPP_CALL_SOCKET);
    const auto closes = sock_events(IPP_CALL_CLOSE);
    ASSERT_EQ(sockets.size(), 1u);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_GE(sockets[0].result, 0);
    EXPECT_EQ(closes[0].fd, sockets[0].result);
}

TEST_F(AdjGenlTest, GenlOpenSocketFailureFails) {
    ipp_fault_inject(IPP_CALL_SOCKET, 1, EMFILE);
    ADJ_GENL_S genl{};
    genl.iSock = -1;
    genl.pcFamilyName = "nlctrl";
    EXPECT_EQ(ADJ4_GenlOpen(&genl), kFailed);
    EXPECT_EQ(genl.iSock, -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SENDTO), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

TEST_F(AdjGenlTest, GenlCloseClosesTheSocketAndFreesTheBuffer) {
    ADJ_GENL_S genl{};
    genl.iSock = ::socket(AF_NETLINK, SOCK_RAW, 16);
    ASSERT_GE(genl.iSock, 0);
    const int fd = genl.iSock;
    genl.pBuffer = std::malloc(256);  // a leak here is reported by the sanitizer build
    ASSERT_NE(genl.pBuffer, nullptr);
    ADJ4_GenlClose(&genl);
    EXPECT_FALSE(is_open(fd));
    const auto closes = sock_events(IPP_CALL_CLOSE);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].fd, fd);
}

TEST_F(AdjGenlTest, GenlCloseWithoutSocketOnlyFreesTheBuffer) {
    ADJ_GENL_S genl{};
    genl.iSock = -1;
    genl.pBuffer = std::malloc(64);
    ADJ4_GenlClose(&genl);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);

    ADJ_GENL_S empty{};
    empty.iSock = -1;
    ADJ4_GenlClose(&empty);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

// ---- Commands -----------------------------------------------------------------------------

TEST_F(AdjGenlTest, GenlSendCmdSendsHeadersThenPayloadToTheKernelAddress) {
    ADJ_GENL_S genl{};
    genl.iSock = lib();
    genl.usFamilyId = 0x1234;
    genl.usFlags = 5;
    genl.ucCmd = 9;
    const std::uint8_t payload[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(ADJ4_GenlSendCmd(&genl, payload, sizeof payload), 0u);
    const Bytes got = read_peer();
    ASSERT_EQ(got.size(), 28u);
    EXPECT_EQ(host32(got, 0), 28u);
    EXPECT_EQ(host16(got, 4), 0x1234u);
    EXPECT_EQ(host16(got, 6), 5u);
    EXPECT_EQ(got[16], 9);
    EXPECT_EQ(std::memcmp(got.data() + 20, payload, 8), 0);
    const auto sends = sock_events(IPP_CALL_SENDMSG);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].fd, lib());
    EXPECT_EQ(sends[0].length, 28u);
    EXPECT_EQ(sends[0].addr_len, 16u);
    EXPECT_EQ(std::memcmp(sends[0].addr, kKernelAddr, 16), 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SENDTO), 0u);
}

TEST_F(AdjGenlTest, GenlSendCmdFailureFails) {
    ADJ_GENL_S genl{};
    genl.iSock = lib();
    genl.usFamilyId = 16;
    genl.usFlags = 1;
    genl.ucCmd = 3;
    const std::uint8_t payload[4] = {};
    ipp_fault_inject(IPP_CALL_SENDMSG, 1, ENOBUFS);
    EXPECT_EQ(ADJ4_GenlSendCmd(&genl, payload, sizeof payload), kFailed);
    EXPECT_TRUE(read_peer().empty());
}

TEST_F(AdjGenlTest, GenlSendCmdReachesTheKernel) {
    ADJ_GENL_S genl{};
    genl.iSock = -1;
    genl.pcFamilyName = "nlctrl";
    ASSERT_EQ(ADJ4_GenlOpen(&genl), 0u);
    genl.usFlags = 1;
    genl.ucCmd = 3;
    Bytes attrs;
    add_attr(attrs, 2, name_value("nlctrl"));
    EXPECT_EQ(ADJ4_GenlSendCmd(&genl, attrs.data(), static_cast<std::uint32_t>(attrs.size())), 0u);
    std::uint8_t reply[4096];
    const ssize_t n = ::recv(genl.iSock, reply, sizeof reply, 0);
    ASSERT_GE(n, 20);
    std::uint16_t type;
    std::memcpy(&type, reply + 4, 2);
    EXPECT_EQ(type, 16u);
    ADJ4_GenlClose(&genl);
}

// ---- One request, one reply ---------------------------------------------------------------

TEST_F(AdjGenlTest, GenlRecvDoItOnControllerReturnsAReplyOfTheFamily) {
    Bytes attrs;
    add_attr(attrs, 2, name_value("nlctrl"));
    std::vector<std::uint8_t> reply(4096, 0xAA);
    EXPECT_EQ(ADJ4_GenlRecvDoIt("nlctrl", 3, attrs.data(), static_cast<std::uint32_t>(attrs.size()),
                                static_cast<std::uint32_t>(reply.size()), reply.data()),
              0u);
    const Bytes got(reply.begin(), reply.end());
    EXPECT_EQ(host16(got, 4), 16u);
    const std::uint32_t len = host32(got, 0);
    ASSERT_GT(len, 20u);
    ASSERT_LT(len, reply.size());
    EXPECT_EQ(got[16], 1);  // the controller answers with "new family"
    // The rest of the buffer was cleared before the receive.
    for (std::size_t i = len; i < reply.size(); ++i) ASSERT_EQ(reply[i], 0) << "byte " << i;

    const auto sends = sock_events(IPP_CALL_SENDMSG);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].length, 20u + attrs.size());
    EXPECT_EQ(std::memcmp(sends[0].addr, kKernelAddr, 16), 0);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 2u);  // family resolution, then the reply
    EXPECT_EQ(recvs[1].flags, MSG_DONTWAIT);
    EXPECT_EQ(recvs[1].length, 4096u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjGenlTest, GenlRecvDoItWithErrorReplyFailsAndCloses) {
    Bytes attrs;
    add_attr(attrs, 2, name_value("adjnosuchfamily"));
    std::uint8_t reply[512];
    EXPECT_EQ(ADJ4_GenlRecvDoIt("nlctrl", 3, attrs.data(), static_cast<std::uint32_t>(attrs.size()), sizeof reply,
                                reply),
              kFailed);
    std::uint16_t type;
    std::memcpy(&type, reply + 4, 2);
    EXPECT_EQ(type, 2u);  // the kernel's error report arrived and was not taken
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(AdjGenlTest, GenlRecvDoItOfUnknownFamilyFailsWithoutSendingTheCommand) {
    std::uint8_t reply[64];
    std::memset(reply, 0xAA, sizeof reply);
    EXPECT_EQ(ADJ4_GenlRecvDoIt("adjnosuchfamily", 1, nullptr, 0, sizeof reply, reply), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SENDMSG), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    EXPECT_EQ(reply[0], 0xAA);  // untouched
}

TEST_F(AdjGenlTest, GenlRecvDoItSendFailureFailsWithoutReceivingAndCloses) {
    ipp_fault_inject(IPP_CALL_SENDMSG, 1, ENOBUFS);
    Bytes attrs;
    add_attr(attrs, 2, name_value("nlctrl"));
    std::uint8_t reply[64];
    std::memset(reply, 0xAA, sizeof reply);
    EXPECT_EQ(ADJ4_GenlRecvDoIt("nlctrl", 3, attrs.data(), static_cast<std::uint32_t>(attrs.size()), sizeof reply,
                                reply),
              kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);  // only the family resolution's
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
    EXPECT_EQ(reply[0], 0xAA);
}

}  // namespace
}  // namespace ipt
