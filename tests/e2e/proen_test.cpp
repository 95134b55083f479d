// Protocol-to-CPU requests through the library's public API: single, local, list and
// extended enabling requests, the application smooth, and what the protocol-enable
// service then holds.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <vector>

#include "e2e/e2e_support.hpp"
#include "ipclient/adj.h"
#include "support/statuses.hpp"

namespace e2e {
namespace {

constexpr std::uint32_t kOspf = 89;
constexpr std::uint32_t kVrrp = 112;
constexpr std::uint32_t kBgp = 6;

using ProtocolToCpu = SimTest;

nlohmann::json entries() { return control({{"op", "proen.list"}})["entries"]; }

// Waits until the service holds `n` entries (requests without a reply arrive on their own).
nlohmann::json wait_entries(std::size_t n) {
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    nlohmann::json list = entries();
    while (list.size() != n && std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        list = entries();
    }
    return list;
}

std::vector<std::uint32_t> match_of(const nlohmann::json& e) { return e["match"].get<std::vector<std::uint32_t>>(); }

TEST_F(ProtocolToCpu, GlobalEnableIsAnsweredKeptAndDisabledAgain) {
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 0, kOspf, 0x0800, 0x12345678, 3, 0xE0000005, 0xFFFFFFFF, 9), 0u);
    auto list = entries();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["node"], 1);
    EXPECT_EQ(list[0]["ifindex"], 0) << "a global request carries no interface";
    EXPECT_EQ(list[0]["protocol"], kOspf);
    EXPECT_EQ(match_of(list[0]),
              (std::vector<std::uint32_t>{0x0800, 0x12345678, 3, 0xE0000005, 0xFFFFFFFF, 0, 0, 0}));
    EXPECT_EQ(list[0]["form"], 0);
    EXPECT_EQ(list[0]["local"], false);
    EXPECT_EQ(list[0]["port"], 1680);
    EXPECT_EQ(list[0]["owner"], static_cast<int>(::getpid()));
    EXPECT_EQ(list[0]["marked"], false);

    // The same protocol and match with action 0 disables it.
    ASSERT_EQ(IP_EnableProtocolToCPU(0, 0, kOspf, 0x0800, 0x12345678, 3, 0xE0000005, 0xFFFFFFFF, 0), 0u);
    EXPECT_TRUE(entries().empty());
}

TEST_F(ProtocolToCpu, PerInterfaceRequestsNeedAnInterfaceOfTheDevice) {
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 1, kVrrp, 1, 2, 0, 0, 0, kGe1), 0u);
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 1, kVrrp, 1, 2, 0, 0, 0, kGeVpn), 0u);
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 1, kVrrp, 1, 2, 0, 0, 0, 0), kFailed) << "refused before sending";
    EXPECT_EQ(IP_EnableProtocolToCPU(1, 1, kVrrp, 1, 2, 0, 0, 0, 999), kFailed) << "refused by the service";
    auto list = entries();
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["ifindex"], kGe1);
    EXPECT_EQ(list[1]["ifindex"], kGeVpn);
    EXPECT_EQ(list[1]["protocol"], kVrrp);
    EXPECT_EQ(match_of(list[1]), (std::vector<std::uint32_t>{1, 2, 0, 0, 0, 0, 0, 0}));

    // Disabling on one interface leaves the other.
    ASSERT_EQ(IP_EnableProtocolToCPU(0, 1, kVrrp, 1, 2, 0, 0, 0, kGe1), 0u);
    list = entries();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["ifindex"], kGeVpn);
}

TEST_F(ProtocolToCpu, TheLocalVariantIsServedOnItsOwnPort) {
    ASSERT_EQ(IP_EnableProtocolToCPULocal(1, 1, kBgp, 179, 0, 0, 0, 0, kGe1), 0u);
    const auto list = entries();
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["local"], true);
    EXPECT_EQ(list[0]["port"], 11557);
    EXPECT_EQ(list[0]["ifindex"], kGe1);
    EXPECT_EQ(list[0]["protocol"], kBgp);

    // A later request through the service takes the entry over.
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 1, kBgp, 179, 0, 0, 0, 0, kGe1), 0u);
    const auto after = entries();
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0]["local"], false);
    EXPECT_EQ(after[0]["port"], 1680);
}

TEST_F(ProtocolToCpu, AListIsSentElementByElementWithoutReplies) {
    ProenEnableItem items[3] = {
        {{1, 0, kOspf, 10, 11, 12, 13, 14, kGe1}},   // global: the interface word is cleared
        {{1, 1, kVrrp, 20, 21, 22, 23, 24, kGeVpn}},
        {{1, 1, kBgp, 30, 0, 0, 0, 0, 0}},            // per interface without one: skipped
    };
    ASSERT_EQ(IP_EnableProtocolPacketListToCPU(3, items), 0u);
    EXPECT_EQ(items[0].auiWord[8], 0u);
    const auto list = wait_entries(2);
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(list[0]["ifindex"], 0);
    EXPECT_EQ(list[0]["protocol"], kOspf);
    EXPECT_EQ(match_of(list[0]), (std::vector<std::uint32_t>{10, 11, 12, 13, 14, 0, 0, 0}));
    EXPECT_EQ(list[1]["ifindex"], kGeVpn);
    EXPECT_EQ(list[1]["protocol"], kVrrp);
    EXPECT_EQ(match_of(list[1]), (std::vector<std::uint32_t>{20, 21, 22, 23, 24, 0, 0, 0}));

    // A second list disables the OSPF entry.
    ProenEnableItem off[1] = {{{0, 0, kOspf, 10, 11, 12, 13, 14, 0}}};
    ASSERT_EQ(IP_EnableProtocolPacketListToCPU(1, off), 0u);
    const auto left = wait_entries(1);
    ASSERT_EQ(left.size(), 1u);
    EXPECT_EQ(left[0]["protocol"], kVrrp);
}

TEST_F(ProtocolToCpu, TheExtendedFormCarriesItsOwnWords) {
    ProenEnableItemEx items[2] = {};
    // Element words: 0 action, 1 per-interface flag, 2 protocol, 3..9 match words, 10 interface.
    const std::uint32_t first[11] = {1, 1, kOspf, 0x100, 0x200, 0x300, 0x400, 0x500, 0x600, 0x700, kGe1};
    const std::uint32_t second[11] = {1, 0, kVrrp, 1, 2, 3, 4, 5, 6, 7, kGeVpn};
    std::copy(std::begin(first), std::end(first), items[0].auiWord);
    std::copy(std::begin(second), std::end(second), items[1].auiWord);
    items[0].usHalf = 0xBEEF;
    items[1].usHalf = 0x0102;
    ASSERT_EQ(IP_EnableProtocolToCpuEx(2, items, 0xCAFE0001), 0u);
    const auto list = wait_entries(2);
    ASSERT_EQ(list.size(), 2u);
    // Both carry the interface, the first element's flag being set.
    EXPECT_EQ(list[0]["ifindex"], kGe1);
    EXPECT_EQ(list[0]["protocol"], kOspf);
    EXPECT_EQ(list[0]["form"], 3);
    EXPECT_EQ(list[0]["ex_word"], 0xCAFE0001u);
    // Payload 40 = word 3, 44..56 = words 5..8, 64 = word 4, 68 = the half word, 72 = word 9.
    EXPECT_EQ(match_of(list[0]),
              (std::vector<std::uint32_t>{0x100, 0x300, 0x400, 0x500, 0x600, 0x200, 0xBEEF, 0x700}));
    EXPECT_EQ(list[1]["ifindex"], kGeVpn);
    EXPECT_EQ(list[1]["protocol"], kVrrp);
    EXPECT_EQ(match_of(list[1]), (std::vector<std::uint32_t>{1, 3, 4, 5, 6, 2, 0x0102, 7}));
}

TEST_F(ProtocolToCpu, SmoothEndDropsWhatWasNotEnabledAgain) {
    const int fd = PROEN_Open();
    ASSERT_GE(fd, 0);
    EXPECT_EQ(PROEN_GetSocketFd(), fd);
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 0, kOspf, 1, 0, 0, 0, 0, 0), 0u);
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 1, kVrrp, 2, 0, 0, 0, 0, kGe1), 0u);
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 0, kBgp, 3, 0, 0, 0, 0, 0), 0u);
    ASSERT_EQ(entries().size(), 3u);

    // Start: the process's entries are marked.
    ASSERT_EQ(PROEN_AppSmoothStart(0, 0), 0u);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    auto list = entries();
    while (!(list.size() == 3 && list[0]["marked"] == true && list[2]["marked"] == true) &&
           std::chrono::steady_clock::now() < until) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        list = entries();
    }
    ASSERT_EQ(list.size(), 3u);
    for (const auto& e : list) EXPECT_EQ(e["marked"], true);

    // The owner enables OSPF again; the end drops VRRP and BGP.
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 0, kOspf, 1, 0, 0, 0, 0, 0), 0u);
    ASSERT_EQ(PROEN_AppSmoothEnd(0, 0), 0u);
    list = wait_entries(1);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["protocol"], kOspf);
    EXPECT_EQ(list[0]["marked"], false);
    PROEN_Close(fd);
    EXPECT_EQ(PROEN_GetSocketFd(), -1);
}

TEST_F(ProtocolToCpu, ASmoothLimitedToOneProtocolLeavesTheOthers) {
    const int fd = PROEN_Open();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 0, kOspf, 1, 0, 0, 0, 0, 0), 0u);
    ASSERT_EQ(IP_EnableProtocolToCPU(1, 0, kBgp, 3, 0, 0, 0, 0, 0), 0u);
    // First argument: the protocol scope; second: the interface scope.
    ASSERT_EQ(PROEN_AppSmoothStart(kBgp, 0), 0u);
    ASSERT_EQ(PROEN_AppSmoothEnd(kBgp, 0), 0u);
    const auto list = wait_entries(1);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(list[0]["protocol"], kOspf);
    PROEN_Close(fd);
}

TEST_F(ProtocolToCpu, MalformedRequestsAreAnsweredWithTheGeneralFailure) {
    const int fd = PROEN_MSG_MsgStart(0x8000, PROEN_PORT);
    ASSERT_GE(fd, 0);
    std::uint8_t reply[4] = {};
    std::uint16_t len = sizeof reply;
    const std::uint8_t short_payload[10] = {};
    ASSERT_EQ(PROEN_MSG_GetMsg(PROEN_MSG_ENABLE, fd, sizeof short_payload, short_payload, &len, reply), 0u);
    ASSERT_EQ(len, 4u);
    EXPECT_EQ(reply[0], 0x40);
    EXPECT_EQ(reply[1], 0x01);
    EXPECT_EQ(reply[2], 0x00);
    EXPECT_EQ(reply[3], 0x01);

    // A 96-byte payload without the bytes 00 38 at 32 is malformed too.
    std::uint8_t no_marker[PROEN_REQUEST_LEN] = {};
    no_marker[3] = 1;
    len = sizeof reply;
    ASSERT_EQ(PROEN_MSG_GetMsg(PROEN_MSG_ENABLE, fd, sizeof no_marker, no_marker, &len, reply), 0u);
    EXPECT_EQ(reply[0], 0x40);
    EXPECT_EQ(reply[3], 0x01);

    // An unknown message type.
    std::uint8_t smooth[8] = {};
    len = sizeof reply;
    ASSERT_EQ(PROEN_MSG_GetMsg(9, fd, sizeof smooth, smooth, &len, reply), 0u);
    EXPECT_EQ(reply[0], 0x40);

    // A well-formed smooth start that asks for a reply is answered 0.
    len = sizeof reply;
    ASSERT_EQ(PROEN_MSG_GetMsg(PROEN_MSG_SMOOTH_START, fd, sizeof smooth, smooth, &len, reply), 0u);
    EXPECT_EQ(reply[0] | reply[1] | reply[2] | reply[3], 0);
    PROEN_MSG_MsgEnd(fd);
    EXPECT_TRUE(entries().empty());
}

}  // namespace
}  // namespace e2e
