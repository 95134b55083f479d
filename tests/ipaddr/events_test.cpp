// Address events on their own socket and interface-configuration messages on the control
// socket.
#include <errno.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "ipaddr_support.hpp"
#include "ipclient/lipc.h"
#include "support/addr_samples.hpp"
#include "support/alloc_counter.hpp"
#include "support/fake_service.hpp"

namespace ipt {
namespace {

constexpr std::uint16_t kEventPort = 11547;
constexpr std::uint16_t kControlPort = 1653;

struct Delivered {
    std::uint32_t event, word2, word3, flag, method;
    IPAddrEntry entry;
};
std::vector<Delivered> g_events;

uint32_t on_event(uint32_t event, IPAddrEntry* entry, uint32_t w2, uint32_t w3, uint32_t flag, uint32_t method) {
    g_events.push_back({event, w2, w3, flag, method, *entry});
    return 0;
}

using IfCfg = std::tuple<std::uint32_t, std::uint32_t, std::uint32_t, std::uint16_t>;
std::vector<IfCfg> g_ifcfg;

uint32_t on_ifcfg(uint32_t c, uint32_t a, uint32_t b, uint16_t d) {
    g_ifcfg.emplace_back(c, a, b, d);
    return 0;
}

class EventsTest : public IPAddrTest {
protected:
    EventsTest() {
        g_events.clear();
        g_ifcfg.clear();
        ipp_dir_set_local_node(4);
    }
};

Bytes event_record(std::uint32_t event, std::uint32_t w2, std::uint32_t w3, const IPAddrEntry& e) {
    Bytes b = words({event, w2, w3});
    put_entry(b, e);
    return b;
}

TEST_F(EventsTest, RegisterSubscribesOnLocalNodeAndWaitsForTheAnswer) {
    Bytes got;
    {
        FakeService svc(4, kEventPort, [&got](Conn& c) {
            got = c.recv_message();
            c.send_message({0, 0, 0, 0});
            c.recv_message();
        });
        const int fd = IPAddr_RegisterEvent(1, 2, 3, 0x04050607, on_event);
        ASSERT_GE(fd, 0);
        EXPECT_EQ(g_pfIPAddr_EvProc, &on_event);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 1u);
        IPAddr_DeregisterEvent(fd);
    }
    EXPECT_EQ(got, msg(1, words({1, 2, 3, 0x04050607})));
    EXPECT_EQ(got.size(), 24u);
    EXPECT_EQ(g_pfIPAddr_EvProc, nullptr);
}

TEST_F(EventsTest, RegisterInMode0DoesNotWait) {
    FakeService svc(4, kEventPort, [](Conn& c) { c.recv_message(); c.recv_message(); });
    const int fd = IPAddr_RegisterEventEx(1, 2, 3, 4, 0, on_event);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    IPAddr_DeregisterEvent(fd);
}

TEST_F(EventsTest, SecondRegistrationReturnsMinusOneAndOpensNoSocket) {
    FakeService svc(4, kEventPort, [](Conn& c) { c.recv_message(); c.recv_message(); });
    const int fd = IPAddr_RegisterEventEx(1, 2, 3, 4, 0, on_event);
    ASSERT_GE(fd, 0);
    const std::uint64_t sockets = ipp_call_count(IPP_CALL_SOCKET);
    EXPECT_EQ(IPAddr_RegisterEventEx(1, 2, 3, 4, 0, on_event), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), sockets);
    IPAddr_DeregisterEvent(fd);
}

TEST_F(EventsTest, RegisterWithoutCallbackFails) {
    EXPECT_EQ(IPAddr_RegisterEvent(1, 2, 3, 4, nullptr), -1);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

TEST_F(EventsTest, RegisterWithoutServiceFailsAndRegistersNothing) {
    EXPECT_EQ(IPAddr_RegisterEvent(1, 2, 3, 4, on_event), -1);
    EXPECT_EQ(g_pfIPAddr_EvProc, nullptr);
}

TEST_F(EventsTest, RegisterReceiveErrorClosesAndFails) {
    FakeService svc(4, kEventPort, [](Conn& c) { c.recv_message(); });
    ipp_fault_inject(IPP_CALL_RECV, 1, ECONNRESET);
    EXPECT_EQ(IPAddr_RegisterEvent(1, 2, 3, 4, on_event), -1);
    EXPECT_EQ(g_pfIPAddr_EvProc, nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

TEST_F(EventsTest, RegisterLetsAShortSendThrough) {
    FakeService svc(4, kEventPort, [](Conn& c) { c.recv_message(); c.recv_message(); });
    ipp_fault_short_send(1, 10);
    const int fd = IPAddr_RegisterEvent(1, 2, 3, 4, on_event);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);  // no answer awaited after a short send
    IPAddr_DeregisterEvent(fd);
}

// Registers in mode 0 against a service that sends `messages` and then records what the
// client answers until it closes.
class EventSession {
public:
    EventSession(std::vector<Bytes> messages, std::vector<Bytes>* answers)
        : svc_(4, kEventPort, [messages, answers](Conn& c) {
              c.recv_message();
              for (const Bytes& m : messages) c.send_message(m);
              for (Bytes m; !(m = c.recv_message(65536, 2000)).empty();) answers->push_back(m);
          }) {
        fd_ = IPAddr_RegisterEventEx(1, 2, 3, 4, 0, on_event);
    }
    ~EventSession() { IPAddr_DeregisterEvent(fd_); }
    int fd() const { return fd_; }

private:
    FakeService svc_;
    int fd_ = -1;
};

TEST_F(EventsTest, EventMessageOfLength80CallsHandlerTwiceInRecordOrder) {
    IPAddrEntry a = sample_entry();
    IPAddrEntry b = sample_entry();
    b.stKey.uiIfIndex = 0x0A0B0C0D;
    b.uiFlag = 0x11223344;
    b.stKey.uiMethod = 8;
    Bytes payload = event_record(0x01000002, 0x0300, 0x04000005, a);
    const Bytes second = event_record(7, 8, 9, b);
    payload.insert(payload.end(), second.begin(), second.end());
    std::vector<Bytes> answers;
    {
        EventSession s({msg(1, payload)}, &answers);
        ASSERT_GE(s.fd(), 0);
        ASSERT_TRUE(readable_within(s.fd()));
        EXPECT_EQ(IPAddr_HandleEvent(s.fd()), 0u);
    }
    ASSERT_EQ(g_events.size(), 2u);
    EXPECT_EQ(g_events[0].event, 0x01000002u);
    EXPECT_EQ(g_events[0].word2, 0x0300u);
    EXPECT_EQ(g_events[0].word3, 0x04000005u);
    EXPECT_TRUE(same_bytes(g_events[0].entry, a));
    EXPECT_EQ(g_events[0].flag, a.uiFlag);
    EXPECT_EQ(g_events[0].method, a.stKey.uiMethod);
    EXPECT_EQ(g_events[1].event, 7u);
    EXPECT_TRUE(same_bytes(g_events[1].entry, b));
    EXPECT_EQ(g_events[1].flag, 0x11223344u);
    EXPECT_EQ(g_events[1].method, 8u);
    EXPECT_TRUE(answers.empty());
}

TEST_F(EventsTest, KeepAliveIsAnsweredWithExactlyEightBytes) {
    std::vector<Bytes> answers;
    {
        EventSession s({words({2, 0})}, &answers);
        ASSERT_TRUE(readable_within(s.fd()));
        EXPECT_EQ(IPAddr_HandleEvent(s.fd()), 0u);
    }
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], words({3, 0}));
}

TEST_F(EventsTest, EndSignalReturnsItsCode) {
    std::vector<Bytes> answers;
    EventSession s({words({3, 0})}, &answers);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleEvent(s.fd()), IPSTATUS_EVENT_RESYNC);
}

TEST_F(EventsTest, UnknownTypeIsIgnored) {
    std::vector<Bytes> answers;
    EventSession s({words({9, 40}), }, &answers);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleEvent(s.fd()), 0u);
    EXPECT_TRUE(g_events.empty());
}

TEST_F(EventsTest, FewerThanEightBytesOrNothingQueuedFails) {
    std::vector<Bytes> answers;
    EventSession s({{0, 0, 0, 1}}, &answers);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleEvent(s.fd()), IPSTATUS_FAILED);
    EXPECT_EQ(IPAddr_HandleEvent(s.fd()), IPSTATUS_FAILED);  // nothing queued: no blocking
    EXPECT_EQ(IPAddr_HandleEvent(-1), IPSTATUS_FAILED);
}

TEST_F(EventsTest, EventLengthBeyondTheBytesReceivedDeliversOnlyWholeReceivedRecords) {
    Bytes payload = event_record(1, 0, 0, sample_entry());
    const Bytes more = event_record(2, 0, 0, sample_entry());
    payload.insert(payload.end(), more.begin(), more.end());
    Bytes m = words({1, 400});  // claims ten records, two follow
    m.insert(m.end(), payload.begin(), payload.end());
    m.resize(m.size() + 7, 0xEE);  // and a torn third one
    std::vector<Bytes> answers;
    EventSession s({m}, &answers);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleEvent(s.fd()), 0u);
    ASSERT_EQ(g_events.size(), 2u);
    EXPECT_EQ(g_events[1].event, 2u);
}

TEST_F(EventsTest, EventLengthNotAMultipleOfTheRecordDeliversWholeRecordsOnly) {
    Bytes m = words({1, 50});
    const Bytes r = event_record(1, 0, 0, sample_entry());
    m.insert(m.end(), r.begin(), r.end());
    m.resize(8 + 50, 0);
    std::vector<Bytes> answers;
    EventSession s({m}, &answers);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleEvent(s.fd()), 0u);
    EXPECT_EQ(g_events.size(), 1u);
}

TEST_F(EventsTest, BatchRequestIsEightBytes) {
    std::vector<Bytes> answers;
    {
        EventSession s({}, &answers);
        EXPECT_EQ(IPAddr_RequestBatchEvent(s.fd()), 0u);
    }
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0], words({2, 0}));
    EXPECT_EQ(IPAddr_RequestBatchEvent(-1), IPSTATUS_FAILED);
}

TEST_F(EventsTest, DeregisterOfNegativeSocketDoesNothing) {
    g_pfIPAddr_EvProc = on_event;
    IPAddr_DeregisterEvent(-1);
    EXPECT_EQ(g_pfIPAddr_EvProc, &on_event);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 0u);
}

// ---- interface configuration ----

Bytes ifcfg_inner(std::uint32_t type, const Bytes& records) {
    Bytes inner = words({type, static_cast<std::uint32_t>(records.size())});
    inner.insert(inner.end(), records.begin(), records.end());
    return msg(0, inner);
}

Bytes ifcfg_record(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint16_t d) {
    Bytes r = words({a, b, c});
    put16(r, d);
    put16(r, 0);
    return r;
}

// A control-socket session: the service receives the registration, sends `messages`, then
// records what the client sends until it closes.
class ControlSession {
public:
    ControlSession(std::vector<Bytes> messages, std::vector<Bytes>* received)
        : svc_(0x8000, kControlPort, [messages, received](Conn& c) {
              for (const Bytes& m : messages) c.send_message(m);
              for (Bytes m; !(m = c.recv_message(65536, 2000)).empty();) received->push_back(m);
          }) {
        fd_ = IPAddr_Open();
    }
    ~ControlSession() { IP_CloseSock(fd_); }
    int fd() const { return fd_; }

private:
    FakeService svc_;
    int fd_ = -1;
};

TEST_F(EventsTest, RegIfCfgEventSendsRegistrationAndEmptiesQueueWithoutFreeing) {
    std::vector<Bytes> received;
    auto* data = static_cast<std::uint8_t*>(std::malloc(4));
    auto* rec = static_cast<IPAddrCfgRec*>(std::calloc(1, sizeof(IPAddrCfgRec)));
    rec->uiLen = 4;
    rec->pData = data;
    g_stCfgList.pstHead = g_stCfgList.pstTail = rec;
    {
        ControlSession s({}, &received);
        const ipt::FreeWatch rec_watch(rec);
        const ipt::FreeWatch data_watch(data);
        EXPECT_EQ(IPAddr_RegIfCfgEvent(s.fd(), 0x0A0B0C0D, on_ifcfg), 0u);
        EXPECT_EQ(g_stCfgList.pstHead, nullptr);
        EXPECT_EQ(g_stCfgList.pstTail, nullptr);
        // Dropped, not freed: the queued record and its message are still the caller's.
        if (ipt::allocations_observable()) {
            EXPECT_FALSE(rec_watch.freed());
            EXPECT_FALSE(data_watch.freed());
        }
        EXPECT_EQ(rec->pData, data);
        EXPECT_EQ(IPAddr_RegIfCfgEvent(s.fd(), 1, on_ifcfg), IPSTATUS_FAILED);
        IPAddr_DeregIfCfgEvent(s.fd(), 0x01020304);
        IPAddr_DeregIfCfgEvent(s.fd(), 0x05060708);  // nothing registered: nothing sent
    }
    std::free(data);
    std::free(rec);
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0], msg(1, words({1, 4, 0x0A0B0C0D})));
    EXPECT_EQ(received[0].size(), 20u);
    EXPECT_EQ(received[1], msg(1, words({2, 4, 0x01020304})));
    EXPECT_EQ(g_pfIFCfg_EvProc, nullptr);
}

TEST_F(EventsTest, RegIfCfgEventShortSendRegistersNothing) {
    std::vector<Bytes> received;
    ControlSession s({}, &received);
    ipp_fault_short_send(1, 4);
    EXPECT_EQ(IPAddr_RegIfCfgEvent(s.fd(), 1, on_ifcfg), IPSTATUS_FAILED);
    EXPECT_EQ(g_pfIFCfg_EvProc, nullptr);
    EXPECT_EQ(IPAddr_RegIfCfgEvent(s.fd(), 1, nullptr), IPSTATUS_FAILED);
}

TEST_F(EventsTest, HandleIfCfgMsgHandlesQueuedMessageBeforeReadingOnePerCall) {
    std::vector<Bytes> received;
    const Bytes on_socket = ifcfg_inner(1, ifcfg_record(7, 8, 9, 10));
    ControlSession s({on_socket}, &received);
    ASSERT_EQ(IPAddr_RegIfCfgEvent(s.fd(), 1, on_ifcfg), 0u);
    ASSERT_TRUE(readable_within(s.fd()));
    const Bytes first = ifcfg_inner(1, ifcfg_record(1, 2, 3, 4));
    const Bytes second = ifcfg_inner(1, ifcfg_record(0x01020304, 0x05060708, 0x090A0B0C, 0x0D0E));

    for (const Bytes& q : {first, second}) {
        auto* rec = static_cast<IPAddrCfgRec*>(std::calloc(1, sizeof(IPAddrCfgRec)));
        rec->uiLen = static_cast<std::uint32_t>(q.size());
        rec->pData = std::malloc(q.size());
        std::memcpy(rec->pData, q.data(), q.size());
        if (g_stCfgList.pstTail != nullptr) g_stCfgList.pstTail->pstNext = rec;
        else g_stCfgList.pstHead = rec;
        g_stCfgList.pstTail = rec;
    }
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);
    ASSERT_EQ(g_ifcfg.size(), 1u);
    EXPECT_EQ(g_ifcfg[0], IfCfg(3, 1, 2, 4));
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);
    ASSERT_EQ(g_ifcfg.size(), 2u);
    EXPECT_EQ(g_ifcfg[1], IfCfg(0x090A0B0C, 0x01020304, 0x05060708, 0x0D0E));
    EXPECT_EQ(g_stCfgList.pstHead, nullptr);
    EXPECT_EQ(g_stCfgList.pstTail, nullptr);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);  // now the socket
    ASSERT_EQ(g_ifcfg.size(), 3u);
    EXPECT_EQ(g_ifcfg[2], IfCfg(9, 7, 8, 10));
    IPAddr_DeregIfCfgEvent(s.fd(), 1);
}

TEST_F(EventsTest, QueuedMessageNotStartingWithZeroIsDropped) {
    const Bytes q = msg(5, words({1, 16}));
    auto* rec = static_cast<IPAddrCfgRec*>(std::calloc(1, sizeof(IPAddrCfgRec)));
    rec->uiLen = static_cast<std::uint32_t>(q.size());
    rec->pData = std::malloc(q.size());
    std::memcpy(rec->pData, q.data(), q.size());
    g_stCfgList.pstHead = g_stCfgList.pstTail = rec;
    g_pfIFCfg_EvProc = on_ifcfg;
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(-1), 0u);
    EXPECT_TRUE(g_ifcfg.empty());
    EXPECT_EQ(g_stCfgList.pstHead, nullptr);
}

TEST_F(EventsTest, IfCfgKeepAliveIsAnsweredWithSubOperationFour) {
    std::vector<Bytes> received;
    {
        ControlSession s({ifcfg_inner(2, {})}, &received);
        ASSERT_TRUE(readable_within(s.fd()));
        EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);
    }
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0], msg(1, words({4, 0})));
    EXPECT_EQ(received[0].size(), 16u);
}

TEST_F(EventsTest, IfCfgEndSignalAndOtherTypes) {
    std::vector<Bytes> received;
    ControlSession s({ifcfg_inner(3, {}), ifcfg_inner(8, {}), msg(2, words({1, 0}))}, &received);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), IPSTATUS_EVENT_RESYNC);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);  // first word not 0: not for us
}

TEST_F(EventsTest, IfCfgFailedReadGivesZeroAndDeliversNothing) {
    std::vector<Bytes> received;
    ControlSession s({}, &received);
    g_pfIFCfg_EvProc = on_ifcfg;
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);  // nothing queued: the read fails at once
    EXPECT_TRUE(g_ifcfg.empty());
}

TEST_F(EventsTest, IfCfgRecordsBeyondReceivedBytesAreNotRead) {
    std::vector<Bytes> received;
    Bytes m = ifcfg_inner(1, ifcfg_record(1, 2, 3, 4));
    // Inner length claims 64 bytes (four records); one whole record and 5 torn bytes follow.
    m[12] = 0;
    m[13] = 0;
    m[14] = 0;
    m[15] = 64;
    m.resize(m.size() + 5, 0xAB);
    ControlSession s({m}, &received);
    g_pfIFCfg_EvProc = on_ifcfg;
    ASSERT_TRUE(readable_within(s.fd()));
    EXPECT_EQ(IPAddr_HandleIfCfgMsg(s.fd()), 0u);
    ASSERT_EQ(g_ifcfg.size(), 1u);
    EXPECT_EQ(g_ifcfg[0], IfCfg(3, 1, 2, 4));
}

TEST_F(EventsTest, BatchIfCfgRequestIsSixteenBytes) {
    std::vector<Bytes> received;
    {
        ControlSession s({}, &received);
        EXPECT_EQ(IPAddr_RequestBatchIfCfg(s.fd()), 0u);
    }
    ASSERT_EQ(received.size(), 1u);
    EXPECT_EQ(received[0], msg(1, words({3, 0})));
    EXPECT_EQ(IPAddr_RequestBatchIfCfg(-1), IPSTATUS_FAILED);
}

}  // namespace
}  // namespace ipt
