// Virtual sleep, redirected run-time libraries and the platform's inet_ntop.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "ipplat/testctl.h"
#include "support/fixture.hpp"
#include "support/wrapped.hpp"

namespace ipt {
namespace {

class RuntimeTest : public PlatformTest {};

TEST_F(RuntimeTest, VirtualSleepIsCountedAndInstant) {
    EXPECT_EQ(__wrap_sleep(1), 0u);
    EXPECT_EQ(__wrap_sleep(10), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SLEEP), 2u);
    EXPECT_EQ(ipp_sleep_total_seconds(), 11u);
}

TEST_F(RuntimeTest, RedirectedLibraryLoadsFromTheTree) {
    EXPECT_EQ(__wrap_dlopen("/lib/libl2vpn.so", RTLD_LAZY), nullptr);
    ipp_dlopen_redirect("/lib/libl2vpn.so", FAKE_VPN_PATH);
    void* h = __wrap_dlopen("/lib/libl2vpn.so", RTLD_LAZY);
    ASSERT_NE(h, nullptr);
    using Fn = unsigned (*)(unsigned);
    const auto fn = reinterpret_cast<Fn>(dlsym(h, "L2VPN_GetVxlanByVsiIndex"));
    ASSERT_NE(fn, nullptr);
    EXPECT_EQ(fn(7), 7007u);
    dlclose(h);
    ipp_dlopen_redirect("/lib/libl2vpn.so", nullptr);
    EXPECT_EQ(__wrap_dlopen("/lib/libl2vpn.so", RTLD_LAZY), nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_DLOPEN), 3u);
}

TEST_F(RuntimeTest, InetNtopFormatsBothFamilies) {
    const std::uint8_t v4[4] = {192, 168, 0, 1};
    char text[46];
    EXPECT_STREQ(__wrap_inet_ntop(2, v4, text, 16), "192.168.0.1");
    std::uint8_t v6[16] = {0xfe, 0x80};
    v6[15] = 1;
    EXPECT_STREQ(__wrap_inet_ntop(10, v6, text, sizeof text), "fe80::1");
    EXPECT_EQ(__wrap_inet_ntop(2, v4, text, 4), nullptr);
}

TEST_F(RuntimeTest, InetNtopGivesTheSystemsTextForEveryOctetWidth) {
    // Every octet value in every place, against the system's own conversion.
    char mine[16], theirs[16];
    for (unsigned v = 0; v < 256; ++v) {
        const std::uint8_t a[4] = {static_cast<std::uint8_t>(v), static_cast<std::uint8_t>(255 - v),
                                   static_cast<std::uint8_t>(v * 7), static_cast<std::uint8_t>(v / 3)};
        ASSERT_NE(__wrap_inet_ntop(2, a, mine, sizeof mine), nullptr);
        ASSERT_NE(::inet_ntop(AF_INET, a, theirs, sizeof theirs), nullptr);
        ASSERT_STREQ(mine, theirs);
    }
}

TEST_F(RuntimeTest, InetNtopRefusesARoomOneByteShortAndWritesNothing) {
    const std::uint8_t a[4] = {10, 200, 3, 45};  // "10.200.3.45": 11 characters and the terminator
    char text[16];
    std::memset(text, 'x', sizeof text);
    errno = 0;
    EXPECT_EQ(__wrap_inet_ntop(2, a, text, 11), nullptr);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(text[0], 'x') << "nothing written";
    EXPECT_STREQ(__wrap_inet_ntop(2, a, text, 12), "10.200.3.45");
}

}  // namespace
}  // namespace ipt
