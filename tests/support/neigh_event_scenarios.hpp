// Scenarios that both neighbour families run under names of their own (their APIs call the
// same thing a callback or a handler, a step or a pass): each is one body for both, called
// from the family's test.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

#include "ipplat/testctl.h"
#include "support/neigh_bytes.hpp"
#include "support/neigh_events_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt::neigh {

// The body of the short record of `len` in the walk of short_records_of_every_length.
inline const Bytes& short_record(const std::vector<Delivered>& got, std::size_t len) {
    return got.at(3 * (len - 8) + 1).body;
}

// Host-order words of a body at their offsets.
inline void expect_words(const Bytes& body, std::initializer_list<std::pair<std::size_t, std::uint32_t>> words) {
    for (const auto& [off, value] : words) EXPECT_EQ(host32(body, off), value) << "offset " << off;
}

// The records handed over, as (type, first word).
inline void expect_handed(const std::vector<Delivered>& got,
                          std::initializer_list<std::pair<std::uint32_t, std::uint32_t>> want) {
    ASSERT_EQ(got.size(), want.size());
    std::size_t i = 0;
    for (const auto& [type, marker] : want) {
        EXPECT_EQ(got[i].type, type) << "record " << i;
        EXPECT_EQ(host32(got[i].body, 0), marker) << "record " << i;
        ++i;
    }
}

// The request of this message went out on fd with these flags and this length, after the
// subscription's own.
inline void expect_request(int fd, int svc, const Bytes& want, int flags, std::uint32_t length) {
    expect_adj_message(NeighPeer::recv(svc), want);
    const auto sends = calls_of(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 2u);
    EXPECT_EQ(sends[1].flags, flags);
    EXPECT_EQ(sends[1].length, length);
}

// ---- Subscriptions ------------------------------------------------------------------------

// Subscribing connects to the system master's port with time-outs, sends the subscription
// message without waiting and links a node at the head.
template <class F>
void connects_with_timeouts() {
    using T = NeighEventsTest<F>;
    typename T::Peer peer;
    const int fd = F::reg(0x11223344u, 0xA1B2C3D4u, T::recorder());
    ASSERT_GE(fd, 0);
    expect_adj_message(peer.first_message(0),
                       adj_message(F::kSubscribeType, {0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0, 0xA1, 0xB2, 0xC3, 0xD4}));

    const auto sockets = calls_of(IPP_CALL_SOCKET);
    ASSERT_EQ(sockets.size(), 1u);
    EXPECT_EQ(sockets[0].domain, 37);
    EXPECT_EQ(sockets[0].type, SOCK_DGRAM);
    EXPECT_EQ(sockets[0].protocol, 1);
    EXPECT_EQ(sockets[0].result, fd);

    const auto opts = calls_of(IPP_CALL_SETSOCKOPT, fd);
    ASSERT_EQ(opts.size(), 2u);
    const int options[2] = {0x1005, 0x1006};  // send, then receive time-out
    const std::int64_t seconds[2] = {5, 2};
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(opts[i].level, 1);
        EXPECT_EQ(opts[i].option, options[i]);
        ASSERT_EQ(opts[i].value_len, 16u);
        EXPECT_EQ(option_seconds(opts[i]), seconds[i]);
        EXPECT_EQ(option_microseconds(opts[i]), 0);
    }

    const auto connects = calls_of(IPP_CALL_CONNECT, fd);
    ASSERT_EQ(connects.size(), 1u);
    EXPECT_EQ(connects[0].result, 0);
    expect_reached(connects[0], F::kMaster, F::kPort);

    const auto sends = calls_of(IPP_CALL_SEND, fd);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(sends[0].length, 18u);
    EXPECT_EQ(sends[0].result, 18);

    // The node: the handler and descriptor stored, linked at the head.
    ASSERT_NE(F::head(), nullptr);
    EXPECT_EQ(F::head()->iSocket, fd);
    EXPECT_EQ(F::handler_of(*F::head()), T::recorder());
    EXPECT_EQ(F::head()->pstNext, nullptr);
    EXPECT_EQ(F::head()->ppstPrev, &F::head());
    F::dereg(fd);
}

// The replay request: a bare head of count zero, sent without waiting.
template <class F>
void replay_is_bare_header() {
    typename NeighEventsTest<F>::Subscribed s;
    ASSERT_GE(s.fd, 0);
    F::replay(s.fd);
    expect_request(s.fd, s.svc, adj_message(F::kReplayType, {}, 0), MSG_DONTWAIT, 6);
    F::dereg(s.fd);
}

// Every request that answers a status reports a failed send, and a short one; the replay's
// failure is dropped; the subscription works on.
template <class F>
void requests_report_failed_send(std::size_t cut_request, std::uint32_t cut_at) {
    typename NeighEventsTest<F>::Subscribed s;
    const int fd = s.fd;
    ASSERT_GE(fd, 0);
    ipp_fault_inject(IPP_CALL_SEND, static_cast<std::uint32_t>(F::kRequests), EAGAIN);
    for (std::size_t i = 0; i < F::kRequests; ++i) EXPECT_EQ(F::request(fd, i), kFailed) << "request " << i;
    ipp_fault_short_send(1, cut_at);
    EXPECT_EQ(F::request(fd, cut_request), kFailed) << "a short send";
    ipp_fault_inject(IPP_CALL_SEND, 1, EPIPE);
    F::replay(fd);  // no status: the failure is dropped
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u + F::kRequests + 1u + 1u);
    EXPECT_EQ(F::request(fd, 0), 0u) << "the subscription still works";
    F::dereg(fd);
}

template <class F>
void null_batches_refused() {
    typename NeighEventsTest<F>::Subscribed s;
    const int fd = s.fd;
    ASSERT_GE(fd, 0);
    for (const std::uint32_t status : F::null_batches(fd)) EXPECT_EQ(status, kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 1u);  // the subscription only
    F::dereg(fd);
}

// Ending a subscription that was never made still closes the descriptor.
template <class F>
void dereg_never_registered_closes() {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair), 0);
    F::dereg(pair[0]);
    EXPECT_FALSE(is_open(pair[0]));
    EXPECT_EQ(errno, EBADF);
    const auto closes = calls_of(IPP_CALL_CLOSE);
    ASSERT_EQ(closes.size(), 1u);
    EXPECT_EQ(closes[0].fd, pair[0]);
    EXPECT_EQ(closes[0].result, 0);
    EXPECT_TRUE(NeighPeer::peer_closed(pair[1]));
    ::close(pair[1]);
}

template <class F>
void proc_unregistered_fails() {
    EXPECT_EQ(F::proc(12345), kFailed);
    EXPECT_EQ(F::proc(0), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

// A subscription without a handler is kept, and processing it reads nothing.
template <class F>
void kept_without_handler() {
    typename NeighEventsTest<F>::Subscribed s(nullptr);
    const int fd = s.fd, svc = s.svc;
    ASSERT_GE(fd, 0);
    using T = NeighEventsTest<F>;
    ASSERT_EQ(T::list_length(), 1u);
    EXPECT_EQ(F::handler_of(*F::head()), nullptr);
    ASSERT_TRUE(NeighPeer::send(svc, T::full(1, 1)));
    EXPECT_EQ(T::proc(fd), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    F::dereg(fd);
}

// One receive without a handler fails before reading; the datagram stays for one with it.
template <class F>
void step_without_handler() {
    using T = NeighEventsTest<F>;
    typename T::Subscribed s;
    const int fd = s.fd, svc = s.svc;
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(NeighPeer::send(svc, T::full(1, 1)));
    EXPECT_EQ(F::step(fd, nullptr), kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(F::step(fd, T::recorder()), 0u);
    EXPECT_EQ(delivered().size(), 1u);
    EXPECT_EQ(F::step(fd, T::recorder()), kFailed) << "nothing more to read";
    F::dereg(fd);
}

// ---- Handlers that change the subscriptions ------------------------------------------------

template <class F>
void deregister_own_from_handler() {
    using T = NeighEventsTest<F>;
    typename T::Peer peer;
    const auto [fd, svc] = T::subscribe(peer, 0, T::hook_recorder());
    ASSERT_GE(fd, 0);
    int calls = 0;
    seen().hook = [&calls, fd = fd] {
        if (++calls == 1) F::dereg(fd);
    };
    ASSERT_TRUE(NeighPeer::send(svc, concat({T::full(1, 1), T::full(1, 2)})));
    ASSERT_TRUE(NeighPeer::send(svc, T::full(1, 3)));
    EXPECT_EQ(T::proc(fd), 0u);
    // The records already received are delivered; the closed descriptor ends the call.
    EXPECT_EQ(delivered().size(), 2u);
    EXPECT_EQ(F::head(), nullptr);
    EXPECT_FALSE(is_open(fd));
    const auto recvs = calls_of(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[1].result, -1);
    EXPECT_EQ(recvs[1].err, EBADF);
}

template <class F>
void register_from_handler() {
    using T = NeighEventsTest<F>;
    typename T::Peer peer(2);
    const auto [fd, svc] = T::subscribe(peer, 0, T::hook_recorder(), 0x1111);
    ASSERT_GE(fd, 0);
    int added = -1;
    seen().hook = [&added] {
        if (added < 0) added = F::reg(0x2222, 0, &F::template on_event<5>);
    };
    ASSERT_TRUE(NeighPeer::send(svc, T::full(1, 1)));
    EXPECT_EQ(T::proc(fd), 0u);
    ASSERT_GE(added, 0);
    ASSERT_EQ(T::list_length(), 2u);
    EXPECT_EQ(F::head()->iSocket, added);
    const int added_svc = peer.conn_for(0x2222, 2);
    ASSERT_GE(added_svc, 0);
    ASSERT_TRUE(NeighPeer::send(added_svc, T::full(7, 0x77)));
    EXPECT_EQ(T::proc(added), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[1].handler, 5);
    EXPECT_EQ(host32(got[1].body, 0), 0x77u);
    F::dereg(added);
    F::dereg(fd);
}

// ---- Deliveries ----------------------------------------------------------------------------

// 300 queued datagrams: one processing reads 256 and no more, the next the other 44.
template <class F>
void bound_of_256() {
    typename NeighEventsTest<F>::Subscribed s;
    const int fd = s.fd, svc = s.svc;
    ASSERT_GE(fd, 0);
    using T = NeighEventsTest<F>;
    for (std::uint32_t i = 0; i < 300; ++i) {
        ASSERT_TRUE(NeighPeer::send_now(svc, T::full(i % F::kTypes, i))) << "datagram " << i << " could not be queued";
    }
    EXPECT_EQ(T::proc(fd), 0u);
    auto got = delivered();
    ASSERT_EQ(got.size(), 256u);
    for (std::uint32_t i = 0; i < 256; ++i) EXPECT_EQ(host32(got[i].body, 0), i);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u) << "the call stops after 256 datagrams without a further read";
    EXPECT_EQ(T::proc(fd), 0u);
    got = delivered();
    ASSERT_EQ(got.size(), 300u);
    for (std::uint32_t i = 0; i < 300; ++i) {
        EXPECT_EQ(host32(got[i].body, 0), i);
        EXPECT_EQ(got[i].type, i % F::kTypes);
    }
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 256u + 45u);
    F::dereg(fd);
}

// Every delivered type, then the first one past them, which is skipped.
template <class F>
void every_type_delivered() {
    using T = NeighEventsTest<F>;
    Bytes datagram;
    for (std::uint32_t t = 0; t <= F::kTypes; ++t) {
        const Bytes r = T::full(t, 100 + t);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    const auto got = T::deliver({datagram});
    ASSERT_EQ(got.size(), F::kTypes);
    for (std::uint32_t t = 0; t < F::kTypes; ++t) {
        EXPECT_EQ(got[t].type, t);
        EXPECT_EQ(host32(got[t].body, 0), 100 + t);
    }
}

// As many whole records as 4096 bytes hold (zero-padded to 4096 when asked), in one receive.
template <class F>
void full_datagram(bool pad) {
    typename NeighEventsTest<F>::Subscribed s;
    const int fd = s.fd, svc = s.svc;
    ASSERT_GE(fd, 0);
    using T = NeighEventsTest<F>;
    Bytes datagram;
    for (std::uint32_t i = 0; i < 4096 / F::kFull; ++i) {
        const Bytes r = T::full(i % F::kTypes, i);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    if (pad) datagram.resize(4096, 0);  // trailing zero bytes: a record of length 0 ends the walk
    ASSERT_EQ(datagram.size(), pad ? 4096u : F::kPerDatagram * F::kFull);
    ASSERT_TRUE(NeighPeer::send(svc, datagram));
    EXPECT_EQ(T::proc(fd), 0u);
    const auto got = delivered();
    ASSERT_EQ(got.size(), F::kPerDatagram);
    for (std::uint32_t i = 0; i < F::kPerDatagram; ++i) EXPECT_EQ(host32(got[i].body, 0), i);
    const auto recvs = calls_of(IPP_CALL_RECV, fd);
    ASSERT_EQ(recvs.size(), 2u);
    EXPECT_EQ(recvs[0].flags, MSG_DONTWAIT);
    EXPECT_EQ(recvs[0].length, 4096u);
    EXPECT_EQ(recvs[0].result, static_cast<int>(datagram.size()));
    F::dereg(fd);
}

// Whole records of bytes falling by `step` match the model, each converted once.
template <class F>
void full_records_match_model(int step, std::initializer_list<std::uint32_t> lens) {
    using T = NeighEventsTest<F>;
    const Bytes wire = body_pattern(F::kBody, 0xF3, -step);
    Bytes datagram;
    for (const std::uint32_t len : lens) {
        const Bytes r = T::rec(len, 4, wire);
        datagram.insert(datagram.end(), r.begin(), r.end());
    }
    const auto got = T::deliver({datagram});
    ASSERT_EQ(got.size(), lens.size());
    std::size_t i = 0;
    for (const std::uint32_t len : lens) {
        EXPECT_EQ(got[i].body, T::expected(wire, len)) << "record " << i << ": each record is converted once";
        ++i;
    }
}

// Records of every length from 8 to max_len, each after a whole record of other bytes (which
// leaves nothing behind) and before a marker record that shows where the walk went on.
template <class F>
void short_records_of_every_length(std::uint32_t max_len) {
    typename NeighEventsTest<F>::Subscribed s;
    const int fd = s.fd, svc = s.svc;
    ASSERT_GE(fd, 0);
    using T = NeighEventsTest<F>;
    const Bytes other = body_pattern(F::kBody, 0xC0, 1);
    const Bytes wire = T::wire(0x51525354);
    for (std::uint32_t len = 8; len <= max_len; ++len) {
        const std::uint32_t type = len % F::kTypes;
        ASSERT_TRUE(NeighPeer::send(svc, concat({T::rec(static_cast<std::uint32_t>(F::kFull), 1, other),
                                                 T::rec(len, type, wire), T::full(F::kTypes - 1, 0xC0FFEE00u + len)})));
        EXPECT_EQ(T::proc(fd), 0u);
        const auto got = delivered();
        ASSERT_EQ(got.size(), 3u * (len - 7)) << "length " << len;
        const Delivered& d = got[got.size() - 2];
        EXPECT_EQ(d.type, type);
        EXPECT_EQ(d.body, T::expected(wire, len)) << "length " << len;
        if constexpr (F::kHasThird) {
            EXPECT_EQ(d.third, host16(d.body, F::kThirdAt)) << "length " << len;
        }
        EXPECT_EQ(got.back().type, F::kTypes - 1);
        EXPECT_EQ(host32(got.back().body, 0), 0xC0FFEE00u + len) << "length " << len;
    }
    F::dereg(fd);
}

}  // namespace ipt::neigh
