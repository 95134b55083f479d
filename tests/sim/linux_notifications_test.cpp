// Route netlink notifications read by a device that mirrors a Linux namespace: malformed
// messages end without hanging and hand over nothing made from bytes outside them.
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <future>
#include <vector>

#include "source/netlink.hpp"

namespace {

class Count : public sim::nl::Sink {
public:
    void link(const sim::nl::Link&, bool) override { ++links; }
    void addr(const sim::nl::Addr&, bool) override { ++addrs; }
    void route(const sim::nl::Route&, bool) override { ++routes; }
    void neigh(const sim::nl::Neigh&, bool) override { ++neighs; }
    int links = 0, addrs = 0, routes = 0, neighs = 0;
};

// Runs the notification callbacks over the bytes on a thread of its own and gives what they
// handed over. A run that does not end within two seconds leaves the process (the thread
// cannot be stopped), which fails the suite instead of hanging it.
Count handed_over(const std::vector<std::uint8_t>& bytes) {
    auto done = std::async(std::launch::async, [&bytes] {
        Count count;
        std::vector<std::uint64_t> buf(bytes.size() / 8 + 2);
        std::memcpy(buf.data(), bytes.data(), bytes.size());
        (void)sim::nl::run_messages(buf.data(), bytes.size(), 0, 0, sim::nl::event_cb,
                                    static_cast<sim::nl::Sink*>(&count));
        return count;
    });
    if (done.wait_for(std::chrono::seconds(2)) != std::future_status::ready) std::quick_exit(1);
    return done.get();
}

int total(const Count& c) { return c.links + c.addrs + c.routes + c.neighs; }

// Found by fuzzing: an address notification followed by a length near 4 GiB, which once
// aligned to a step of nothing and kept the message walk going round for ever.
TEST(LinuxNotifications, AMessageFoundByFuzzingEnds) {
    const std::vector<std::uint8_t> bytes = {
    0x4c, 0x00, 0x00, 0x00, 0x14, 0x00, 0x02, 0x00, 0x01, 0x00, 0x00, 0x00, 0x56, 0x6a, 0x00, 0x00,
    0x02, 0x08, 0x80, 0xfe, 0x01, 0x00, 0x00, 0x00, 0x08, 0x00, 0x01, 0x00, 0x7f, 0x00, 0x00, 0x01,
    0x08, 0x00, 0x02, 0x00, 0x7f, 0x00, 0x00, 0x01, 0x07, 0x00, 0x03, 0x00, 0x6c, 0x6f, 0x00, 0x00,
    0x08, 0x00, 0x08, 0x00, 0x80, 0x00, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
    0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff,
    0x00, 0x14, 0x00, 0x06, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x15, 0x00, 0x00,
    0x00, 0x15, 0x00, 0x00, 0x00, 0x58, 0x00, 0x00, 0x00, 0x14, 0x00, 0x02, 0x00, 0x01, 0x00, 0x00,
    0x00, 0x56, 0x6a, 0x00, 0x00, 0x02, 0x18, 0x80, 0x00, 0x04, 0x00, 0x00, 0x00, 0x08, 0x00, 0x7e,
    0x00, 0xc0, 0x00, 0x02, 0x02, 0x08, 0x00, 0x02, 0x00, 0xc0, 0x00, 0x02, 0x02, 0x08, 0x00, 0x04,
    0x00, 0xc0, 0x00, 0x02, 0xff, 0x09, 0x00, 0x03, 0x00, 0x65, 0x74, 0x68, 0x30, 0x00, 0x00, 0x00,
    0x00, 0x08, 0x00, 0x08, 0x00, 0x33, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x80, 0x00, 0x00,
    0x00, 0x14, 0x00, 0x06, 0x00, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0x15, 0x00, 0x00,
    0x00, 0x15, 0x00, 0x00, 0x00};
    const Count count = handed_over(bytes);
    EXPECT_EQ(count.addrs, 1) << "the whole address message before the bad length is handed over";
    EXPECT_EQ(total(count), 1) << "nothing is made from the bytes after it";
    EXPECT_EQ(sim::nl::whole_messages(bytes.data(), bytes.size()), 76u) << "the address message alone is whole";
}

std::vector<std::uint8_t> message(std::uint32_t len, std::uint16_t type, std::size_t bytes) {
    std::vector<std::uint8_t> m(bytes, 0);
    nlmsghdr h{};
    h.nlmsg_len = len;
    h.nlmsg_type = type;
    std::memcpy(m.data(), &h, sizeof h);
    return m;
}

TEST(LinuxNotifications, ALengthNear4GiBEndsTheReceive) {
    auto bytes = message(20, NLMSG_NOOP, 20);
    const auto bad = message(0xFFFFFFFFu, NLMSG_NOOP, 32);
    bytes.insert(bytes.end(), bad.begin(), bad.end());
    EXPECT_EQ(sim::nl::whole_messages(bytes.data(), bytes.size()), 20u);
    EXPECT_EQ(total(handed_over(bytes)), 0) << "a no-op message hands over nothing and the walk ends";
}

TEST(LinuxNotifications, ALengthShorterThanTheHeaderEndsTheReceive) {
    const auto bytes = message(8, NLMSG_NOOP, 64);
    EXPECT_EQ(sim::nl::whole_messages(bytes.data(), bytes.size()), 0u);
}

TEST(LinuxNotifications, ALengthLongerThanWhatRemainsEndsTheReceive) {
    auto bytes = message(16, NLMSG_NOOP, 16);
    const auto cut = message(40, NLMSG_NOOP, 24);
    bytes.insert(bytes.end(), cut.begin(), cut.end());
    EXPECT_EQ(sim::nl::whole_messages(bytes.data(), bytes.size()), 16u);
    EXPECT_EQ(sim::nl::whole_messages(bytes.data(), 10), 0u) << "fewer bytes than a header";
}

TEST(LinuxNotifications, WholeMessagesAreAllKept) {
    auto bytes = message(18, NLMSG_NOOP, 20);  // 18 bytes, aligned to 20
    const auto second = message(16, NLMSG_NOOP, 16);
    bytes.insert(bytes.end(), second.begin(), second.end());
    EXPECT_EQ(sim::nl::whole_messages(bytes.data(), bytes.size()), 36u);
    const auto last = message(18, NLMSG_NOOP, 18);  // the last message may end unaligned
    EXPECT_EQ(sim::nl::whole_messages(last.data(), last.size()), 18u);
}

}  // namespace
