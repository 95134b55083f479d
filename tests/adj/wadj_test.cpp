// WLAN adjacency: control requests and the event subscription.
#include <gtest/gtest.h>
#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cstring>
#include <vector>

#include "ipclient/adj.h"
#include "ipplat/testctl.h"
#include "support/directory_interface.hpp"
#include "support/fake_kernel.hpp"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/sock_log.hpp"

namespace ipt {
namespace {

struct Event {
    std::uint32_t type;
    bool has_entry;
    std::uint32_t first;
    Bytes rest;
};
std::vector<Event> g_events;

uint32_t on_event(uint32_t type, void* entry) {
    Event e{type, entry != nullptr, 0, {}};
    if (entry != nullptr) {
        std::memcpy(&e.first, entry, 4);
        const auto* p = static_cast<const std::uint8_t*>(entry);
        e.rest.assign(p + 4, p + 8);
    }
    g_events.push_back(e);
    return 0;
}

uint32_t other_event(uint32_t, void*) { return 0; }

class WlanTest : public PlatformTest {
protected:
    WlanTest() { g_events.clear(); }
    void TearDown() override {
        g_pfWADJ4EventProc = nullptr;
        PlatformTest::TearDown();
    }
};

Bytes record(std::uint32_t len, std::uint32_t type, std::uint32_t first, std::uint32_t word12, std::size_t pad = 0) {
    Bytes b;
    put32(b, len);
    put32(b, type);
    put32(b, first);
    put32(b, word12);
    b.resize(b.size() + pad, 0x5A);
    return b;
}

// A WLAN service that takes the subscription, sends `datagrams`, and waits for the close.
class Session {
public:
    Session(std::vector<Bytes> datagrams, Bytes* subscription = nullptr)
        : svc_(0x8000, 1641, [datagrams, subscription](Conn& c) {
              Bytes sub = c.recv_message();
              if (subscription != nullptr) *subscription = sub;
              for (const Bytes& d : datagrams) c.send_message(d);
              c.recv_message(65536, 2000);
          }) {
        fd_ = WADJ4_RegEvent(0x01020304, on_event);
    }
    ~Session() { WADJ4_DeregEvent(fd_); }
    int fd() const { return fd_; }

private:
    FakeService svc_;
    int fd_ = -1;
};

TEST_F(WlanTest, RegisterSubscribesWithTypeFiveAndTimeOuts) {
    Bytes sub;
    {
        Session s({}, &sub);
        ASSERT_GE(s.fd(), 0);
        EXPECT_EQ(g_pfWADJ4EventProc, &on_event);
    }
    EXPECT_EQ(sub, (Bytes{5, 0, 0, 8, 0, 1, 0x01, 0x02, 0x03, 0x04, 0, 0, 0, 0}));
    const auto opts = sock_events(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    timeval five{5, 0}, one{1, 0};
    EXPECT_EQ(opts[0].option, 0x1005);
    EXPECT_EQ(std::memcmp(opts[0].value, &five, 16), 0);
    EXPECT_EQ(opts[1].option, 0x1006);
    EXPECT_EQ(std::memcmp(opts[1].value, &one, 16), 0);
    expect_one_connect(0x8000, 0x0669);
    const auto sends = sock_events(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, 64);
    EXPECT_EQ(g_pfWADJ4EventProc, nullptr);
}

TEST_F(WlanTest, RegisterWithoutServiceFails) {
    EXPECT_EQ(WADJ4_RegEvent(1, on_event), -1);
    EXPECT_EQ(g_pfWADJ4EventProc, nullptr);
}

TEST_F(WlanTest, SecondRegistrationReplacesTheCallbackAndEitherDeregistrationClearsIt) {
    FakeService svc(0x8000, 1641, [](Conn& c) { c.recv_message(); c.recv_message(65536, 2000); }, 2);
    const int a = WADJ4_RegEvent(1, on_event);
    const int b = WADJ4_RegEvent(2, other_event);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    EXPECT_EQ(g_pfWADJ4EventProc, &other_event);
    WADJ4_DeregEvent(a);
    EXPECT_EQ(g_pfWADJ4EventProc, nullptr);
    WADJ4_DeregEvent(b);
    WADJ4_DeregEvent(-1);
}

TEST_F(WlanTest, ProcessWithoutCallbackFails) { EXPECT_EQ(WADJ4_ProcEvent(3), IPSTATUS_FAILED); }

TEST_F(WlanTest, RecordsAreConvertedAndDeliveredInOrder) {
    Bytes d = record(20, 1, 0x0A0B0C0D, 7, 4);
    const Bytes second = record(16, 2, 0, 0);
    const Bytes third = record(20, 0, 0x11223344, 0x55667788, 4);
    d.insert(d.end(), second.begin(), second.end());
    d.insert(d.end(), third.begin(), third.end());
    Session s({d});
    ASSERT_GE(s.fd(), 0);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    ASSERT_EQ(g_events.size(), 3u);
    EXPECT_EQ(g_events[0].type, 1u);
    EXPECT_TRUE(g_events[0].has_entry);
    EXPECT_EQ(g_events[0].first, 0x0A0B0C0Du);
    EXPECT_EQ(g_events[0].rest, (Bytes{0, 0, 0, 7}));  // the rest of the entry as sent
    EXPECT_EQ(g_events[1].type, 2u);
    EXPECT_FALSE(g_events[1].has_entry);
    EXPECT_EQ(g_events[2].type, 0u);
    EXPECT_EQ(g_events[2].first, 0x11223344u);
}

TEST_F(WlanTest, ProcEventReceivesWithoutBlocking) {
    Session s({record(20, 1, 0x0A0B0C0D, 7, 4)});
    ASSERT_GE(s.fd(), 0);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    EXPECT_EQ(g_events.size(), 1u);
    // The service is still connected and has nothing more to send: a receive that does not
    // block finds nothing and the call fails at once.
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), IPSTATUS_FAILED);
    const auto recvs = sock_events(IPP_CALL_RECV);
    ASSERT_EQ(recvs.size(), 2u);
    for (const ipp_sock_event& ev : recvs) {
        EXPECT_EQ(ev.fd, s.fd());
        EXPECT_EQ(ev.flags, MSG_DONTWAIT);
        EXPECT_EQ(ev.length, 4096u);
    }
    EXPECT_EQ(recvs[1].result, -1);
    EXPECT_EQ(recvs[1].err, EAGAIN);
}

TEST_F(WlanTest, RecordWithZeroWordAtTwelveProducesNoCallback) {
    Bytes d = record(20, 1, 5, 0, 4);
    Session s({d});
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    EXPECT_TRUE(g_events.empty());
}

TEST_F(WlanTest, DatagramOfNineteenBytesProducesNoCallbackAndReturnsZero) {
    Bytes d = record(19, 1, 5, 6);
    d.resize(19);
    Session s({d});
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    EXPECT_TRUE(g_events.empty());
}

TEST_F(WlanTest, OtherTypesAreSteppedOver) {
    Bytes d = record(20, 9, 5, 6, 4);
    const Bytes next = record(20, 1, 5, 6, 4);
    d.insert(d.end(), next.begin(), next.end());
    Session s({d});
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    ASSERT_EQ(g_events.size(), 1u);
    EXPECT_EQ(g_events[0].type, 1u);
}

TEST_F(WlanTest, RecordShorterThanItsHeaderEndsTheDatagram) {
    Bytes d = record(0, 1, 5, 6, 4);  // a zero length would never advance
    const Bytes next = record(20, 1, 5, 6, 4);
    d.insert(d.end(), next.begin(), next.end());
    Session s({d});
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    EXPECT_TRUE(g_events.empty());
}

TEST_F(WlanTest, RecordLongerThanWhatRemainsEndsTheDatagram) {
    Bytes d = record(20, 1, 5, 6, 4);
    const Bytes torn = record(4000, 1, 7, 8, 8);
    d.insert(d.end(), torn.begin(), torn.end());
    Session s({d});
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    ASSERT_EQ(g_events.size(), 1u);
    EXPECT_EQ(g_events[0].first, 5u);
}

TEST_F(WlanTest, FewerThanTwentyBytesLeftEndTheDatagram) {
    Bytes d = record(20, 1, 5, 6, 4);
    const Bytes tail = record(16, 1, 7, 8);  // a whole record, but under 20 bytes remain
    d.insert(d.end(), tail.begin(), tail.end());
    Session s({d});
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), 0u);
    EXPECT_EQ(g_events.size(), 1u);
}

TEST_F(WlanTest, ProcessWithNothingQueuedFails) {
    Session s({});
    ASSERT_GE(s.fd(), 0);
    EXPECT_EQ(WADJ4_ProcEvent(s.fd()), IPSTATUS_FAILED);
}

class WlanControlTest : public WlanTest {
protected:
    void expect_call(const Bytes& request) {
        ASSERT_EQ(kernel.count(), 1u);
        const KernelCall c = kernel.last();
        EXPECT_EQ(c.node, 0xFFFF8000u);
        EXPECT_EQ(c.command, 0x150001u);
        EXPECT_EQ(c.request, request);
        EXPECT_EQ(c.reply_cap, 4u);
    }
    FakeKernel kernel;
};

TEST_F(WlanControlTest, RefreshCarriesTheWordsAsGivenAndTheEntry) {
    kernel.reply(0x77, {9, 9, 9, 9});
    std::uint8_t entry[200];
    for (int i = 0; i < 200; ++i) entry[i] = static_cast<std::uint8_t>(i);
    EXPECT_EQ(WADJ4_Refresh(0x01020304, 0x05060708, entry), 0x77u);
    Bytes want = {0, 208, 0, 0};
    const std::uint32_t first = 0x01020304, second = 0x05060708;
    putraw(want, &first, 4);
    putraw(want, &second, 4);
    putraw(want, entry, 200);
    expect_call(want);
}

TEST_F(WlanControlTest, DeleteCarriesWordAndInterface) {
    kernel.reply(0);
    EXPECT_EQ(WADJ4_Delete(0x0A0B0C0D, 0x11223344), 0u);
    Bytes want = {1, 8, 0, 0};
    const std::uint32_t first = 0x0A0B0C0D, ifindex = 0x11223344;
    putraw(want, &first, 4);
    putraw(want, &ifindex, 4);
    expect_call(want);
}

TEST_F(WlanControlTest, DeleteByIfPlacesInterfaceAndSelector) {
    kernel.reply(0);
    EXPECT_EQ(WADJ4_DeleteByIf(0x11223344, 0xABCD), 0u);
    Bytes want(212, 0);
    want[0] = 2;
    want[1] = 208;
    const std::uint32_t ifindex = 0x11223344;
    const std::uint16_t selector = 0xABCD;
    std::memcpy(&want[8], &ifindex, 4);
    std::memcpy(&want[34], &selector, 2);
    expect_call(want);
}

TEST_F(WlanControlTest, DeletesOnAnInterfaceOfKindFourFailWithoutRequest) {
    DirInterface(5).kind(4).add();
    EXPECT_EQ(WADJ4_Delete(1, 5), IPSTATUS_FAILED);
    EXPECT_EQ(WADJ4_DeleteByIf(5, 1), IPSTATUS_FAILED);
    EXPECT_EQ(kernel.count(), 0u);
}

}  // namespace
}  // namespace ipt
