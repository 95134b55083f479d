// The platform's netlink address form {length, 16, ...} reaches the Linux kernel as a
// sockaddr_nl: resolving the generic-netlink controller's own family answers 16.
#include <gtest/gtest.h>
#include <linux/genetlink.h>
#include <linux/netlink.h>
#include <sys/uio.h>

#include <cstring>

#include "support/fixture.hpp"
#include "support/wrapped.hpp"

namespace ipt {
namespace {

constexpr std::size_t align4(std::size_t n) { return (n + 3) & ~std::size_t{3}; }

// A get-family request for "nlctrl", laid out as the library lays it out.
std::size_t family_request(std::uint8_t* buf) {
    const char name[] = "nlctrl";
    const std::size_t attr_len = 4 + sizeof name;
    const std::size_t total = NLMSG_HDRLEN + GENL_HDRLEN + align4(attr_len);
    std::memset(buf, 0, total);
    auto* nl = reinterpret_cast<nlmsghdr*>(buf);
    nl->nlmsg_len = static_cast<std::uint32_t>(total);
    nl->nlmsg_type = GENL_ID_CTRL;
    nl->nlmsg_flags = NLM_F_REQUEST;
    auto* g = reinterpret_cast<genlmsghdr*>(buf + NLMSG_HDRLEN);
    g->cmd = CTRL_CMD_GETFAMILY;
    auto* a = reinterpret_cast<nlattr*>(buf + NLMSG_HDRLEN + GENL_HDRLEN);
    a->nla_len = static_cast<std::uint16_t>(attr_len);
    a->nla_type = CTRL_ATTR_FAMILY_NAME;
    std::memcpy(a + 1, name, sizeof name);
    return total;
}

std::uint16_t family_id_of(const std::uint8_t* reply, ssize_t n) {
    if (n < static_cast<ssize_t>(NLMSG_HDRLEN + GENL_HDRLEN)) return 0;
    std::size_t off = NLMSG_HDRLEN + GENL_HDRLEN;
    while (off + 4 <= static_cast<std::size_t>(n)) {
        nlattr a;
        std::memcpy(&a, reply + off, sizeof a);
        if (a.nla_len < 4) break;
        if (a.nla_type == CTRL_ATTR_FAMILY_ID && a.nla_len >= 6) {
            std::uint16_t id;
            std::memcpy(&id, reply + off + 4, 2);
            return id;
        }
        off += align4(a.nla_len);
    }
    return 0;
}

// A generic-netlink socket with the controller's get-family request ready to send, and the
// family the reply names.
class NetlinkTest : public PlatformTest {
protected:
    void SetUp() override {
        fd = __wrap_socket(AF_NETLINK, SOCK_RAW, NETLINK_GENERIC);
        ASSERT_GE(fd, 0);
        len = family_request(req);
    }
    void TearDown() override {
        if (fd >= 0) __wrap_close(fd);
        PlatformTest::TearDown();
    }
    std::uint16_t replied_family() {
        std::uint8_t reply[4096];
        const ssize_t n = __wrap_recv(fd, reply, sizeof reply, 0);
        return family_id_of(reply, n);
    }

    int fd = -1;
    std::uint8_t req[64];
    std::size_t len = 0;
};

TEST_F(NetlinkTest, ControllerFamilyResolvesTo16ThroughSendto) {
    std::uint8_t kernel_addr[16] = {0, 16};
    ASSERT_EQ(__wrap_sendto(fd, req, len, 0, reinterpret_cast<sockaddr*>(kernel_addr), 16),
              static_cast<ssize_t>(len));
    EXPECT_EQ(replied_family(), 16u);
}

TEST_F(NetlinkTest, ControllerFamilyResolvesTo16ThroughSendmsgInThreePieces) {
    std::uint8_t kernel_addr[16] = {16, 16};
    iovec iov[3] = {{req, NLMSG_HDRLEN}, {req + NLMSG_HDRLEN, GENL_HDRLEN},
                    {req + NLMSG_HDRLEN + GENL_HDRLEN, len - NLMSG_HDRLEN - GENL_HDRLEN}};
    msghdr msg{};
    msg.msg_name = kernel_addr;
    msg.msg_namelen = 16;
    msg.msg_iov = iov;
    msg.msg_iovlen = 3;
    ASSERT_EQ(__wrap_sendmsg(fd, &msg, 0), static_cast<ssize_t>(len));
    EXPECT_EQ(replied_family(), 16u);
}

}  // namespace
}  // namespace ipt
