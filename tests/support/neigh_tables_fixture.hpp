// The fixture of the neighbour owner-table tests, for one family: the directory's nodes and
// the rule interface, connections to a fake service that runs a script, OpenFlow batches as
// the caller lays them out and as they travel, and roaming records.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <span>
#include <utility>
#include <vector>

#include "ipplat/testctl.h"
#include "support/fake_service.hpp"
#include "support/fixture.hpp"
#include "support/neigh_directory.hpp"
#include "support/neigh_table_families.hpp"

namespace ipt::neigh {

constexpr std::uint16_t kLocalNode = 0x0102;
constexpr std::uint16_t kMasterEp = 0x0305;
constexpr std::uint32_t kRuleIf = 0x00012345;
constexpr int kTableFlags = 256;

// The bytes of a record laid out as the caller has it: byte k of each is base + k, so that
// every field reads differently in the two orders.
inline Bytes patterned(std::size_t len, std::uint8_t base) {
    Bytes b(len);
    for (std::size_t k = 0; k < len; ++k) b[k] = static_cast<std::uint8_t>(base + k);
    return b;
}

// The same bytes as they travel: every listed field reversed.
inline Bytes swapped(Bytes b, std::span<const Field> fields) {
    for (const Field& f : fields) {
        const auto at = b.begin() + static_cast<std::ptrdiff_t>(f.off);
        std::reverse(at, at + static_cast<std::ptrdiff_t>(f.width));
    }
    return b;
}

// A record's bytes as they lie in memory, and a record made of such bytes.
template <class T>
Bytes bytes_of(const T& v) {
    const auto* p = reinterpret_cast<const std::uint8_t*>(&v);
    return Bytes(p, p + sizeof v);
}
template <class T>
T from_bytes(const Bytes& b) {
    T v{};
    std::memcpy(&v, b.data(), std::min(sizeof v, b.size()));
    return v;
}

// A rule of bytes that all differ on the rule interface, kind 6 and class 8 (a valid one);
// the caller sets its address.
template <class Rule>
Rule patterned_rule() {
    auto r = from_bytes<Rule>(patterned(sizeof(Rule), 0));
    r.uiIfIndex = kRuleIf;
    r.ucKind = 6;
    r.ucClass = 8;
    return r;
}

// Reads every message until the client closes.
inline std::vector<Bytes> drain(Conn& c) {
    std::vector<Bytes> out;
    for (Bytes m = c.recv_message(70000); !m.empty(); m = c.recv_message(70000)) out.push_back(std::move(m));
    return out;
}

// A roaming detection message's payload: its 12-byte head of 16-bit words, then the records.
inline Bytes roaming_payload(std::initializer_list<std::uint16_t> head, const Bytes& records) {
    Bytes p;
    for (const std::uint16_t w : head) put16(p, w);
    p.insert(p.end(), records.begin(), records.end());
    return p;
}

// A rule's delete request: the key bytes, the interface big-endian, the class byte at
// class_at, zero-filled to len.
inline Bytes rule_delete_payload(const Bytes& key, std::uint32_t ifindex, std::size_t class_at, std::uint8_t cls,
                                 std::size_t len) {
    Bytes p = key;
    put32(p, ifindex);
    p.resize(class_at, 0);
    p.push_back(cls);
    p.resize(len, 0);
    return p;
}

inline Bytes roaming_records(std::size_t len) {
    Bytes b(len);
    for (std::size_t i = 0; i < len; ++i) b[i] = static_cast<std::uint8_t>(0x81 + i * 3);
    return b;
}

template <class F>
class NeighTablesTest : public PlatformTest {
public:
    using Family = F;

    // The caller's buffer: header room (byte 1 set to a marker the library must leave),
    // then n entries of distinct bytes.
    static Bytes openflow_buffer(std::uint32_t n, std::uint8_t marker = 0xEE) {
        Bytes buf(6 + n * F::kEntryLen, 0xA5);
        buf[1] = marker;
        for (std::uint32_t i = 0; i < n; ++i) {
            const Bytes e = entry_bytes(i + 1);
            std::copy(e.begin(), e.end(), buf.begin() + static_cast<std::ptrdiff_t>(6 + i * F::kEntryLen));
        }
        return buf;
    }

    // The message those entries make: type, the caller's marker, BE16 length, BE16 count,
    // the entries converted.
    static Bytes openflow_wire(std::uint8_t type, std::uint32_t n, std::uint8_t marker = 0xEE) {
        Bytes b{type, marker};
        put16(b, static_cast<std::uint16_t>(n * F::kEntryLen));
        put16(b, static_cast<std::uint16_t>(n));
        for (std::uint32_t i = 0; i < n; ++i) {
            const Bytes e = swapped(entry_bytes(i + 1), F::kEntryFields);
            b.insert(b.end(), e.begin(), e.end());
        }
        return b;
    }

    // Runs op on an OpenFlow connection to a service running script.
    static void on_openflow_connection(const FakeService::Script& script, const std::function<void(int)>& op) {
        FakeService svc(kLocalNode, F::kPort, script);
        std::uint32_t version = 0;
        const int fd = F::connect(&version);
        EXPECT_GE(fd, 0);
        EXPECT_EQ(version, 6u);
        if (fd < 0) return;
        op(fd);
        F::disconnect(fd);
    }

    // Runs op on a rule connection to a service that records what arrives, and returns the
    // messages received.
    static std::vector<Bytes> on_rule_connection(const std::function<void(int)>& op) {
        std::vector<Bytes> got;
        {
            FakeService svc(kMasterEp, F::kPort, [&got](Conn& c) { got = drain(c); });
            const int fd = F::rule_connect();
            EXPECT_GE(fd, 0);
            if (fd < 0) return got;
            op(fd);
            F::rule_disconnect(fd);
        }
        return got;
    }

    // Refreshes the first n entries of buf on a connection whose service answers reply:
    // the status, and the message the service read.
    static std::pair<std::uint32_t, Bytes> refresh_exchange(Bytes& buf, std::uint32_t n, Bytes reply) {
        Bytes got;
        std::uint32_t status = 0xDEADBEEF;
        on_openflow_connection(answering(got, std::move(reply)),
                               [&](int fd) { status = F::refresh(fd, buf.data(), n); });
        return {status, got};
    }

    // A service that reads one message into got and answers reply.
    static FakeService::Script answering(Bytes& got, Bytes reply) {
        return [&got, reply](Conn& c) {
            got = c.recv_message(70000);
            c.send_message(reply);
        };
    }

protected:
    NeighTablesTest() {
        ipp_dir_set_local_node(kLocalNode);
        ipp_dir_set_master_ep(kMasterEp);
        ipp_dir_set_master(0x0709);
        auto itf = interface_entry(kRuleIf, kLocalNode);
        std::snprintf(itf.name, sizeof itf.name, "Ten-GigabitEthernet1/0/1");
        add_to_directory(itf);
    }

private:
    static Bytes entry_bytes(std::uint32_t seed) {
        return patterned(F::kEntryLen, static_cast<std::uint8_t>(0x11 * seed));
    }
};

}  // namespace ipt::neigh
