// The fixture of the neighbour-event tests, for one family: a clean subscription list and
// recorder before each test, the family's peer, records and model, and the calls that must
// not hang. The suites of both families and the family-only tests build on it.
#pragma once

#include <gtest/gtest.h>

#include <set>
#include <utility>
#include <vector>

#include "ipplat/testctl.h"
#include "support/fixture.hpp"
#include "support/neigh_bytes.hpp"
#include "support/neigh_event_families.hpp"
#include "support/neigh_peer.hpp"
#include "support/neigh_channel.hpp"

namespace ipt::neigh {

template <class F>
class NeighEventsTest : public PlatformTest {
public:
    using Family = F;
    using Handler = typename F::Handler;

    // The family's service on its system master.
    struct Peer : NeighPeer {
        explicit Peer(int connections = 1) : NeighPeer(F::kMaster, F::kPort, connections) {}
    };

    // A subscription on a peer of its own; the test ends it.
    struct Subscribed {
        explicit Subscribed(Handler h = recorder(), std::uint32_t first = 1, int connections = 1)
            : peer(connections), fd(F::reg(first, 2, h)), svc(fd >= 0 ? peer.conn(0) : -1) {}
        Peer peer;
        int fd;
        int svc;
    };

    static constexpr Handler recorder() { return &F::template on_event<0>; }
    static constexpr Handler hook_recorder() { return &F::template on_event<kHookHandler>; }

    // Processes the subscription, failing fast if the call does not return.
    static std::uint32_t proc(int fd) {
        std::uint32_t rc = 0xDEADBEEF;
        bounded("processing a subscription", [&] { rc = F::proc(fd); });
        return rc;
    }

    // Subscribes to the peer and returns the subscriber's and the service's descriptors.
    static std::pair<int, int> subscribe(NeighPeer& peer, std::size_t index = 0, Handler h = recorder(),
                                         std::uint32_t first = 1) {
        const int fd = F::reg(first, 2, h);
        return {fd, fd >= 0 ? peer.conn(index) : -1};
    }

    static std::size_t list_length() {
        std::size_t n = 0;
        for (const typename F::Node* r = F::head(); r != nullptr; r = r->pstNext) ++n;
        return n;
    }

    // The family's body of the pattern with a marker, records and the handler's model.
    static Bytes wire(std::uint32_t marker) { return event_body(F::kBody, marker); }
    static Bytes rec(std::uint32_t len, std::uint32_t type, const Bytes& body) { return event_record(len, type, body); }
    static Bytes rec(std::uint32_t len, std::uint32_t type, std::uint32_t marker) {
        return event_record(len, type, wire(marker));
    }
    static Bytes full(std::uint32_t type, std::uint32_t marker) {
        return rec(static_cast<std::uint32_t>(F::kFull), type, marker);
    }
    static Bytes expected(const Bytes& wire_body, std::size_t len) {
        return expected_body(wire_body, len, F::kSwapped, F::kDefaultsAt);
    }

    // Subscribes, queues the datagrams, processes once and ends the subscription: what the
    // handler was handed.
    static std::vector<Delivered> deliver(std::initializer_list<Bytes> datagrams) {
        Peer peer;
        const auto [fd, svc] = subscribe(peer);
        EXPECT_GE(fd, 0);
        EXPECT_GE(svc, 0);
        if (fd < 0 || svc < 0) return {};
        for (const Bytes& d : datagrams) EXPECT_TRUE(NeighPeer::send(svc, d));
        EXPECT_EQ(proc(fd), 0u);
        F::dereg(fd);
        return delivered();
    }

protected:
    NeighEventsTest() {
        ipp_dir_set_master(F::kMaster);
        F::reset();
        forget_delivered();
        seen().hook = nullptr;
    }
    void TearDown() override {
        EXPECT_EQ(F::head(), nullptr) << "a subscription was left registered";
        // A test that stopped early leaves its subscriptions: end them here, so that the
        // tests after it start clean.
        while (F::head() != nullptr) F::dereg(F::head()->iSocket);
        F::expect_clean();
        seen().hook = nullptr;
        F::reset();
        PlatformTest::TearDown();
    }
};

// Malformed datagrams. A full datagram is read first, so that the receive buffer holds
// well-formed records past the end of the malformed datagram read into it next: a record
// read beyond what was received would show up as an extra record handed over.
template <class F>
class NeighEventsMalformedTest : public NeighEventsTest<F> {
public:
    using Base = NeighEventsTest<F>;

    static void run(const Bytes& malformed, std::size_t expected_from_malformed) {
        typename Base::Peer peer;
        const auto [fd, svc] = Base::subscribe(peer);
        ASSERT_GE(fd, 0);
        Bytes whole;
        for (std::uint32_t i = 0; i < F::kPerDatagram; ++i) {
            const Bytes r = Base::full(6, 0xAA000000u + i);
            whole.insert(whole.end(), r.begin(), r.end());
        }
        const std::uint64_t recvs_before = ipp_call_count(IPP_CALL_RECV);
        ASSERT_TRUE(NeighPeer::send(svc, whole));
        ASSERT_TRUE(NeighPeer::send(svc, malformed));
        ASSERT_TRUE(NeighPeer::send(svc, Base::full(9, 0x99999999u)));  // still delivered
        EXPECT_EQ(Base::proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), F::kPerDatagram + expected_from_malformed + 1u);
        for (std::size_t i = F::kPerDatagram; i < F::kPerDatagram + expected_from_malformed; ++i) {
            EXPECT_EQ(host32(got[i].body, 0) & 0xFF000000u, 0xBB000000u) << "record " << i;
        }
        EXPECT_EQ(host32(got.back().body, 0), 0x99999999u);
        EXPECT_EQ(ipp_call_count(IPP_CALL_RECV) - recvs_before, 4u);
        F::dereg(fd);
    }

    // A record of `type` whose length byte says each of `lens`, between two good ones.
    static void run_with_length(std::uint32_t type, std::initializer_list<std::uint8_t> lens,
                                std::uint32_t first_len = 24) {
        for (const std::uint8_t len : lens) {
            Bytes bad = Base::full(type, 0xBB000003u);
            bad[3] = len;
            SCOPED_TRACE(static_cast<int>(len));
            run(concat({Base::rec(first_len, 1, 0xBB000001u), bad, Base::full(4, 0xBB000004u)}), 1);
            forget_delivered();
        }
    }
};

// Registration failures. A failed registration returns -1 and leaves no record and no
// descriptor behind: every socket it created was closed, once and successfully. When no
// connection reached the service, the process holds exactly the descriptors it held before;
// otherwise the service's own end of the connection is open too, and the fixture checks for
// leaks once the service is gone.
template <class F>
class NeighEventsRegFailureTest : public NeighEventsTest<F> {
public:
    static void expect_clean_failure(std::int32_t rc, const std::set<int>* before) {
        EXPECT_EQ(rc, -1);
        EXPECT_EQ(static_cast<std::uint32_t>(rc), 0xFFFFFFFFu);
        EXPECT_EQ(F::head(), nullptr);
        if (before != nullptr) {
            EXPECT_EQ(open_descriptors(), *before);
        }
        for (const auto& s : calls_of(IPP_CALL_SOCKET)) {
            if (s.result < 0) continue;
            const auto closes = calls_of(IPP_CALL_CLOSE, s.result);
            ASSERT_EQ(closes.size(), 1u) << "socket " << s.result << " closed once";
            EXPECT_EQ(closes[0].result, 0);
        }
    }
    static std::int32_t reg_one() { return F::reg(1, 2, NeighEventsTest<F>::recorder()); }

    // A registration, with the service listening, whose first call of a kind fails.
    static void expect_fault_fails(ipp_call call, int err) {
        typename NeighEventsTest<F>::Peer peer;
        const auto before = open_descriptors();
        ipp_fault_inject(call, 1, err);
        expect_clean_failure(reg_one(), &before);
    }
};

}  // namespace ipt::neigh
