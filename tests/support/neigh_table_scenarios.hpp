// Owner-table scenarios that both neighbour families run under names of their own: each is
// one body for both, called from the family's test with its values.
#pragma once

#include <errno.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

#include "ipplat/testctl.h"
#include "support/neigh_channel.hpp"
#include "support/neigh_tables_fixture.hpp"
#include "support/statuses.hpp"

namespace ipt::neigh {

// ---- OpenFlow connections ------------------------------------------------------------------

// The OpenFlow connection goes to the local node, reports version 6 and is closed by the
// disconnect; the caller checks its options.
template <class F>
void openflow_connect_reaches_local_node() {
    int fd = -1;
    NeighTablesTest<F>::on_openflow_connection([](Conn& c) { (void)c.recv_message(1024, 200); }, [&fd](int open) {
        fd = open;
        EXPECT_TRUE(is_open(fd));
    });
    // Looked at once the service's thread is gone: it could otherwise be given the number.
    ASSERT_GE(fd, 0);
    EXPECT_FALSE(is_open(fd));
    const auto connects = calls_of(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    expect_reached(connects[0], kLocalNode, F::kPort);
}

// Without a service the connection fails, its socket closed, and the version is set anyway.
template <class F>
void connect_without_service_sets_version() {
    std::uint32_t version = 0;
    EXPECT_EQ(F::connect(&version), -1);
    EXPECT_EQ(version, 6u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 1u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

// Without a place for the version nothing is opened: -1, all ones as a word.
template <class F>
void connect_without_version_opens_nothing() {
    EXPECT_EQ(static_cast<std::uint32_t>(F::connect(nullptr)), 0xFFFFFFFFu);
    EXPECT_EQ(ipp_call_count(IPP_CALL_SOCKET), 0u);
}

// A delete carries the family's delete type and returns the service's status word.
template <class F>
void delete_returns_service_status() {
    using T = NeighTablesTest<F>;
    Bytes got;
    Bytes buf = T::openflow_buffer(1, 0x3C);
    std::uint32_t status = 0;
    T::on_openflow_connection(T::answering(got, {0x9A, 0xBC, 0xDE, 0xF0}),
                              [&](int fd) { status = F::remove(fd, buf.data(), 1); });
    EXPECT_EQ(status, 0x9ABCDEF0u);
    EXPECT_EQ(got, T::openflow_wire(F::kDeleteType, 1, 0x3C));
}

// A batch whose send fails returns 0 without waiting for a reply.
template <class F>
void failed_send_returns_zero(std::uint32_t (*batch)(std::int32_t, void*, std::uint32_t)) {
    using T = NeighTablesTest<F>;
    Bytes buf = T::openflow_buffer(1);
    std::uint32_t status = 1;
    T::on_openflow_connection([](Conn& c) { (void)c.recv_message(1024, 200); },
                              [&](int fd) {
                                  ipp_fault_inject(IPP_CALL_SEND, 1, EAGAIN);
                                  status = batch(fd, buf.data(), 1);
                              });
    EXPECT_EQ(status, 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

// ---- Rule connections ----------------------------------------------------------------------

// The rule connection goes to the system master's endpoint, without time-outs.
template <class F>
void rule_connect_reaches_master_endpoint() {
    int fd = -1;
    {
        FakeService svc(kMasterEp, F::kPort, [](Conn& c) { (void)c.recv_message(1024, 200); });
        fd = F::rule_connect();
        ASSERT_GE(fd, 0);
        F::rule_disconnect(fd);
    }
    // Looked at once the service's thread is gone: it could otherwise be given the number.
    EXPECT_FALSE(is_open(fd));
    EXPECT_EQ(ipp_call_count(IPP_CALL_SETSOCKOPT), 0u);
    const auto connects = calls_of(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    expect_reached(connects[0], kMasterEp, F::kPort);
}

// Runs op on a rule connection whose service has closed its end, then disconnects.
template <class F>
void with_closed_rule_peer(const std::function<void(int)>& op) {
    int fd = -1;
    {
        FakeService svc(kMasterEp, F::kPort, [](Conn&) {});
        fd = F::rule_connect();
        ASSERT_GE(fd, 0);
    }  // the service closed its end
    op(fd);
    F::rule_disconnect(fd);
    EXPECT_FALSE(is_open(fd));
}

// One request on a rule connection goes out whole with the table flags, answered by no
// reply, and returns 0.
template <class F>
void sends_one_table_message(const std::function<std::uint32_t(int)>& op, const Bytes& want) {
    std::uint32_t status = 1;
    const auto got = NeighTablesTest<F>::on_rule_connection([&](int fd) { status = op(fd); });
    EXPECT_EQ(status, 0u);
    ASSERT_EQ(got.size(), 1u);
    expect_adj_message(got[0], want);
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, kTableFlags);
    EXPECT_EQ(sends[0].length, want.size());
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
}

// Requests on a rule connection that fail before anything is sent.
template <class F>
void refused_before_sending(const std::function<std::vector<std::uint32_t>(int)>& op) {
    std::vector<std::uint32_t> results;
    const auto got = NeighTablesTest<F>::on_rule_connection([&](int fd) { results = op(fd); });
    EXPECT_EQ(results, std::vector<std::uint32_t>(results.size(), kFailed));
    EXPECT_FALSE(results.empty());
    EXPECT_TRUE(got.empty());
    EXPECT_EQ(ipp_call_count(IPP_CALL_SEND), 0u);
}

// ---- Switch exchanges ----------------------------------------------------------------------
//
// A suppression switch is one exchange with a daemon: connect, send, read a reply word.

// A code word, a flag byte and a 32-bit word at `word_at`, zero-filled to len bytes.
inline Bytes switch_payload(std::initializer_list<std::uint8_t> head, std::size_t word_at, std::uint32_t word,
                            std::size_t len) {
    Bytes p(head);
    p.resize(word_at, 0);
    put32(p, word);
    p.resize(len, 0);
    return p;
}

// One exchange with a service at (node, port) that answers reply: the messages it read.
inline std::vector<Bytes> with_exchange_service(std::uint16_t node, std::uint16_t port, const Bytes& reply,
                                                const std::function<void()>& op) {
    std::vector<Bytes> got;
    {
        FakeService svc(node, port, [&got, reply](Conn& c) {
            got.push_back(c.recv_message());
            c.send_message(reply);
        });
        op();
    }
    return got;
}

// The exchange's socket: both time-outs of 5 seconds, one connect to (node, port), one send
// with these flags, closed once.
inline void expect_exchange(std::uint16_t node, std::uint16_t port, int send_flags) {
    const auto opts = calls_of(IPP_CALL_SETSOCKOPT);
    ASSERT_EQ(opts.size(), 2u);
    const int options[2] = {0x1005, 0x1006};
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(opts[i].level, 1);
        EXPECT_EQ(opts[i].option, options[i]);
        EXPECT_EQ(option_seconds(opts[i]), 5);
    }
    const auto connects = calls_of(IPP_CALL_CONNECT);
    ASSERT_EQ(connects.size(), 1u);
    expect_reached(connects[0], node, port);
    const auto sends = calls_of(IPP_CALL_SEND);
    ASSERT_EQ(sends.size(), 1u);
    EXPECT_EQ(sends[0].flags, send_flags);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

// A service that reads the request and closes without a reply: the exchange fails and the
// state stays.
inline void closing_without_reply_fails(std::uint16_t node, std::uint16_t port,
                                        const std::function<std::uint32_t(std::uint32_t*)>& get) {
    std::uint32_t state = 55, status = 0;
    {
        FakeService svc(node, port, [](Conn& c) { (void)c.recv_message(); });
        status = get(&state);
    }
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(state, 55u);
}

// A short send fails the exchange without a read.
inline void short_send_fails_without_reading(std::uint16_t node, std::uint16_t port,
                                             const std::function<std::uint32_t()>& set) {
    std::uint32_t status = 0;
    {
        FakeService svc(node, port, [](Conn& c) { (void)c.recv_message(1024, 500); });
        ipp_fault_short_send(1, 10);
        status = set();
    }
    EXPECT_EQ(status, kFailed);
    EXPECT_EQ(ipp_call_count(IPP_CALL_RECV), 0u);
    EXPECT_EQ(ipp_call_count(IPP_CALL_CLOSE), 1u);
}

}  // namespace ipt::neigh
