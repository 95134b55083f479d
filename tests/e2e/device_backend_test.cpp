// The platform's device backend against a device that answers wrongly: a reply is never
// read past what arrived, and a device that goes away leaves the calls failing cleanly.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "e2e/e2e_support.hpp"
#include "ipclient/kernel.h"
#include "ipplat/platform.h"
#include "ipproto/device.hpp"
#include "ipproto/endpoints.hpp"
#include "ipproto/wire.hpp"

namespace e2e {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A device that greets and then answers every control-channel call with `answer`.
class LyingDevice {
public:
    explicit LyingDevice(Bytes answer) : answer_(std::move(answer)) {
        listener_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un sun{};
        const socklen_t len = ipc::names::device(instance(), &sun);
        ok_ = ::bind(listener_, reinterpret_cast<const sockaddr*>(&sun), len) == 0 && ::listen(listener_, 8) == 0;
        thread_ = std::thread([this] { serve(); });
    }
    ~LyingDevice() {
        ::shutdown(listener_, SHUT_RDWR);
        const int conn = conn_.load();
        if (conn >= 0) ::shutdown(conn, SHUT_RDWR);
        thread_.join();
        ::close(listener_);
    }
    bool ok() const { return ok_; }

private:
    void serve() {
        for (;;) {
            const int fd = ::accept(listener_, nullptr, nullptr);
            if (fd < 0) return;
            conn_.store(fd);
            std::uint8_t buf[4096];
            for (;;) {
                const ssize_t n = ::recv(fd, buf, sizeof buf, 0);
                if (n < 4) break;
                if (ipc::wire::load_be<std::uint32_t>(buf) == static_cast<std::uint32_t>(ipc::device::Call::kHello)) {
                    const std::uint8_t hello[6] = {0, 0, 0, 0, 0, 1};
                    ::send(fd, hello, sizeof hello, MSG_NOSIGNAL);
                } else {
                    ::send(fd, answer_.data(), answer_.size(), MSG_NOSIGNAL);
                }
            }
            conn_.store(-1);
            ::close(fd);
        }
    }

    Bytes answer_;
    int listener_ = -1;
    std::atomic<int> conn_{-1};
    bool ok_ = false;
    std::thread thread_;
};

TEST(DeviceBackendE2E, ReturnedLengthNeverExceedsWhatArrived) {
    // Status 0, a claimed length of 1000, and 8 bytes.
    LyingDevice dev({0, 0, 0, 0, 0, 0, 0x03, 0xE8, 1, 2, 3, 4, 5, 6, 7, 8});
    ASSERT_TRUE(dev.ok());
    std::uint8_t reply[52];
    std::memset(reply, 0xEE, sizeof reply);
    std::uint32_t returned = 0;
    ASSERT_EQ(CIOCTL(0xFFFF8000u, 0x260001, 0, nullptr, sizeof reply, reply, &returned), 0u);
    EXPECT_EQ(returned, 8u);
    EXPECT_EQ(reply[7], 8u);
    EXPECT_EQ(reply[8], 0xEEu) << "nothing written past what arrived";

    IPAddrEntry key{};
    IPAddrEntry entries[2];
    std::uint32_t count = 2;
    EXPECT_EQ(IPAddr_Drvk_GetMatchAddr(0x8000, &key, &count, entries), 0x40010001u) << "8 bytes: not whole entries";
    EXPECT_EQ(count, 2u);
}

TEST(DeviceBackendE2E, AnswerShorterThanItsHeaderFails) {
    LyingDevice dev({0, 0, 0, 0, 0, 0});  // a status and half a length
    ASSERT_TRUE(dev.ok());
    std::uint8_t reply[8];
    std::uint32_t returned = 77;
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x260001, 0, nullptr, sizeof reply, reply, &returned), 0x40010001u);
    EXPECT_EQ(returned, 0u);
    std::uint32_t count = 0;
    EXPECT_EQ(DEV_GetAllNodes(&count), nullptr) << "a list that did not arrive is no list";
    EXPECT_EQ(count, 0u);
}

TEST(DeviceBackendE2E, DeviceThatGoesAwayLeavesCallsFailing) {
    {
        LyingDevice dev({0, 0, 0, 0, 0, 0, 0, 0});
        ASSERT_TRUE(dev.ok());
        std::uint32_t returned = 0;
        EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x260001, 0, nullptr, 0, nullptr, &returned), 0u);
    }
    std::uint32_t returned = 5;
    EXPECT_EQ(CIOCTL(0xFFFF8000u, 0x260001, 0, nullptr, 0, nullptr, &returned), 0x40010001u);
    EXPECT_EQ(returned, 0u);
}

// Directory answers are kept for a short while per thread, but never across connections: a
// simulator restarted on another scenario is asked again at once.
TEST(DeviceDirectory, AnswersOfAnEarlierSimulatorAreNotKept) {
    std::string text;
    run({IPSIMD_PATH, "--print-default-scenario"}, &text);
    SimProcess first;
    ASSERT_TRUE(first.start()) << first.log();
    char name[IF_NAME_SIZE] = {};
    ASSERT_EQ(IF_GetDataByIfIndex(kGe1, IF_DATA_NAME, name), 0u);
    EXPECT_STREQ(name, "GigabitEthernet1/0/1");
    std::uint16_t chassis = LIP_GetChassID(2), slot = LIP_GetSlotID(2);
    EXPECT_EQ(chassis, 1u);
    EXPECT_EQ(slot, 1u);
    ASSERT_EQ(first.stop(), 0);

    std::string renamed = text;
    for (auto at = renamed.find("GigabitEthernet1/0/1"); at != std::string::npos;
         at = renamed.find("GigabitEthernet1/0/1", at))
        renamed.replace(at, 20, "GigabitEthernet9/0/1");
    const auto node2 = renamed.find("{number: 2, chassis: 1, slot: 1");
    ASSERT_NE(node2, std::string::npos);
    renamed.replace(node2, 31, "{number: 2, chassis: 1, slot: 7");
    SimProcess second;
    ASSERT_TRUE(second.start({"--scenario", temp_file("renamed.yaml", renamed)})) << second.log();
    ASSERT_EQ(IF_GetDataByIfIndex(kGe1, IF_DATA_NAME, name), 0u);
    EXPECT_STREQ(name, "GigabitEthernet9/0/1") << "the restarted simulator's name, not the kept one";
    EXPECT_EQ(LIP_GetSlotID(2), 7u);
    EXPECT_EQ(second.stop(), 0);
}

// Within one connection the answer is kept for at most a tenth of a second: a walk that names
// the same interface for every record asks once, and a change is seen soon after.
TEST(DeviceDirectory, AKeptAnswerGivesTheSameBytesAsTheFirst) {
    SimProcess sim;
    ASSERT_TRUE(sim.start()) << sim.log();
    char a[IF_NAME_SIZE], b[IF_NAME_SIZE];
    std::memset(a, 0x55, sizeof a);
    std::memset(b, 0x55, sizeof b);
    ASSERT_EQ(IF_GetDataByIfIndex(kGeNode2, IF_DATA_NAME, a), 0u);
    ASSERT_EQ(IF_GetDataByIfIndex(kGeNode2, IF_DATA_NAME, b), 0u);
    EXPECT_EQ(std::memcmp(a, b, sizeof a), 0) << "the whole 32-byte item, terminator and padding alike";
    std::uint16_t node = 0;
    ASSERT_EQ(IF_GetDataByIfIndex(kGeNode2, IF_DATA_NODE, &node), 0u);
    EXPECT_EQ(node, 2u);
    EXPECT_EQ(IF_GetDataByIfIndex(4242, IF_DATA_NAME, a), 0x40010001u) << "an unknown interface still fails";
    EXPECT_EQ(IF_GetDataByIfIndex(4242, IF_DATA_NAME, a), 0x40010001u) << "and fails again when kept";
    EXPECT_EQ(sim.stop(), 0);
}

}  // namespace
}  // namespace e2e
