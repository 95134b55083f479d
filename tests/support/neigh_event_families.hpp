// The two neighbour families of event subscriptions, ARP (IPv4) and ND (IPv6), described for
// the tests that run once per family: their calls, their numbers on the wire and handlers
// that record what they are handed.
#pragma once

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "support/fake_kernel.hpp"
#include "support/neigh_records.hpp"

namespace ipt::neigh {

// One record as a handler was handed it: which handler, the type, the body (converted, as
// the handler saw it) and, for ARP, the third argument.
struct Delivered {
    int handler;
    std::uint32_t type;
    Bytes body;
    std::uint16_t third;
};

// The handler that runs the hook after recording its record, and the one that only counts
// (without an allocation).
constexpr int kHookHandler = 99;
constexpr int kCountingHandler = 98;

// What the handlers saw, in arrival order, and the hook they run.
struct Seen {
    std::mutex mu;
    std::vector<Delivered> delivered;
    std::function<void()> hook;
    std::uint64_t counted = 0;
};
inline Seen& seen() {
    static Seen s;
    return s;
}
inline std::vector<Delivered> delivered() {
    const std::lock_guard lock(seen().mu);
    return seen().delivered;
}
inline void forget_delivered() {
    const std::lock_guard lock(seen().mu);
    seen().delivered.clear();
}
inline void note(int handler, std::uint32_t type, const void* body, std::size_t len, std::uint16_t third) {
    const auto* p = static_cast<const std::uint8_t*>(body);
    {
        const std::lock_guard lock(seen().mu);
        seen().delivered.push_back({handler, type, Bytes(p, p + len), third});
    }
    if (handler == kHookHandler && seen().hook) seen().hook();
}

// A family's numbers: its system master in the tests and its adjacency port, the body of an
// event record, the whole records 4096 bytes hold, where the two defaults of a short body
// lie, the count of delivered types (0 to Types - 1), and its subscription and replay
// message types.
template <std::uint16_t Master, std::uint16_t Port, std::size_t Body, std::size_t PerDatagram,
          std::size_t DefaultsAt, std::uint32_t Types, std::uint8_t SubscribeType, std::uint8_t ReplayType>
struct EventNumbers {
    static constexpr std::uint16_t kMaster = Master, kPort = Port;
    static constexpr std::size_t kBody = Body, kFull = kRecordHead + Body, kPerDatagram = PerDatagram,
                                 kDefaultsAt = DefaultsAt;
    static constexpr std::uint32_t kTypes = Types;
    static constexpr std::uint8_t kSubscribeType = SubscribeType, kReplayType = ReplayType;
};

// A family's calls on a subscription; the descriptor is passed as the family's API takes it.
template <auto Reg, auto Dereg, auto Proc, auto Step, auto Replay>
struct EventCalls {
    static std::int32_t reg(std::uint32_t first, std::uint32_t second, auto handler) {
        return Reg(first, second, handler);
    }
    static void dereg(std::int32_t fd) { Dereg(fd); }
    static std::uint32_t proc(std::int32_t fd) { return call_with_fd(Proc, fd); }
    static std::uint32_t step(std::int32_t fd, auto handler) { return Step(fd, handler); }
    static void replay(std::int32_t fd) { Replay(fd); }

private:
    template <class Fd>
    static std::uint32_t call_with_fd(std::uint32_t (*call)(Fd), std::int32_t fd) {
        return call(static_cast<Fd>(fd));
    }
};

struct ArpEvents : EventNumbers<0x0203, 11537, 52, 68, 8, 21, 34, 52>,
                   EventCalls<&ARP_RegEvent, &ARP_DeregEvent, &ARP_ProcEvent, &arp_EventProc, &ARP_RequestBatchEvent> {
    static constexpr const char* kName = "Arp";
    using Node = ARP_EVENT_PROC_NODE_S;
    using Handler = ARP_EVENT_PF;
    static constexpr bool kHasThird = true;
    static constexpr std::size_t kThirdAt = 48;  // the field handed over as the third argument
    static constexpr std::array<Field, 11> kSwapped{
        {{0, 4}, {8, 4}, {12, 4}, {16, 2}, {18, 2}, {28, 4}, {32, 4}, {36, 4}, {40, 4}, {46, 2}, {48, 2}}};

    static Node*& head() { return g_stARPEventProcList; }
    static Handler handler_of(const Node& n) { return n.pfCallback; }

    template <int N>
    static std::uint32_t on_event(std::uint32_t type, void* entry, std::uint16_t third) {
        if constexpr (N == kCountingHandler) {
            ++seen().counted;
        } else {
            note(N, type, entry, kBody, third);
        }
        return 0;
    }

    // The requests on a subscription that answer a status: the concerned address added and
    // removed, then the batch replays by AC, by VSI and by VLAN.
    static constexpr std::size_t kRequests = 5;
    static std::uint32_t request(std::int32_t fd, std::size_t i) {
        static const ARP_BATCH_REQ_S ac{1, 2, 3, 4};
        static const ARP_BATCH_VSI_REQ_S vsi{1, 2, 3};
        switch (i) {
            case 0: return ARP_AddConcernedIP(fd, 1, 2);
            case 1: return ARP_DelConcernedIP(fd, 1, 2);
            case 2: return ARP_RequestBatchByAc(fd, &ac);
            case 3: return ARP_RequestBatchByVsi(fd, &vsi);
            default: return ARP_RequestBatchByVlan(fd, 1, 2);
        }
    }
    static std::vector<std::uint32_t> null_batches(std::int32_t fd) {
        return {ARP_RequestBatchByAc(fd, nullptr), ARP_RequestBatchByVsi(fd, nullptr)};
    }

    static void reset() {}
    static void expect_clean() {}
};

struct NdEvents : EventNumbers<0x0305, 11554, 64, 56, 20, 16, 19, 36>,
                  EventCalls<&ND_RegEvent, &ND_DeregEvent, &ND_ProcEvent, &nd_RecvEvents, &ND_RequestBatchEvent> {
    static constexpr const char* kName = "Nd";
    static constexpr bool kHasThird = false;
    // The record's big-endian words.
    static constexpr std::array<Field, 11> kSwapped{
        {{0, 4}, {20, 4}, {24, 4}, {28, 2}, {30, 2}, {40, 4}, {44, 4}, {48, 4}, {52, 4}, {58, 2}, {60, 2}}};
    using Node = NdEventProcNode;
    using Handler = NdEventProc;

    static Node*& head() { return g_stNDEventProcList; }
    static Handler handler_of(const Node& n) { return n.pfProc; }

    template <int N>
    static std::uint32_t on_event(std::uint32_t type, NdEventRecord* rec) {
        if constexpr (N == kCountingHandler) return ++seen().counted, 0u;
        note(N, type, rec, kBody, 0);
        return 0xFFFFFFFFu;  // ignored
    }

    // The requests on a subscription that answer a status: the concerned address added and
    // removed, then the batch replays by VSI and by interface.
    static constexpr std::size_t kRequests = 4;
    static std::uint32_t request(std::int32_t fd, std::size_t i) {
        static const NdBatchKey key{1, 2, {3, 4}, 5};
        const NdIPv6Addr addr{};
        switch (i) {
            case 0: return ND_AddConcernedIPv6(fd, 1, addr);
            case 1: return ND_DelConcernedIPv6(fd, 1, addr);
            case 2: return ND_RequestBatchByVsi(fd, &key);
            default: return ND_RequestBatchByIF(fd, &key);
        }
    }
    static std::vector<std::uint32_t> null_batches(std::int32_t fd) {
        return {ND_RequestBatchByVsi(fd, nullptr), ND_RequestBatchByIF(fd, nullptr)};
    }

    // The bound on receive passes and the error handler are the process's: every test
    // starts from the defaults, and leaves no kernel-event subscription behind.
    static void reset() {
        g_uiNdEventEpollLoop = 256;
        g_pfNdOpenFlowProc = nullptr;
    }
    static void expect_clean() {
        EXPECT_EQ(ipp_kevent_subscriptions(), 0u) << "a kernel-event subscription was left open";
    }
};

}  // namespace ipt::neigh
