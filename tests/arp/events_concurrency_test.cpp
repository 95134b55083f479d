// ARP event subscriptions under concurrency: several threads each process their own
// subscription while the service feeds them and other threads register and deregister
// subscriptions around them. Every event must arrive exactly once, at the callback of the
// subscription it was sent on. Bounded in count and in time.
#include <gtest/gtest.h>
#include <poll.h>

#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"
#include "support/fixture.hpp"
#include "support/neigh_event_families.hpp"
#include "support/neigh_peer.hpp"
#include "support/neigh_records.hpp"

namespace ipt {
namespace {

using neigh::ArpEvents;
using neigh::event_body;
using neigh::event_record;
using Clock = std::chrono::steady_clock;

constexpr std::uint16_t kMaster = 0x0305;
constexpr std::size_t kSubs = 3;                // processed subscriptions, one thread each
constexpr std::uint32_t kEventsPerSub = 6000;   // events fed to each
constexpr int kChurnThreads = 2;
constexpr int kChurnMaxCycles = 1500;           // registrations per churn thread, at most
constexpr std::size_t kChurnLive = 4;           // registrations a churn thread holds at once
constexpr auto kDeadline = std::chrono::seconds(60);
constexpr std::size_t kFullLen = ArpEvents::kFull;
constexpr std::size_t kDatagramMax = 4096;

// Per subscription: how often each event arrived, and anything that arrived wrong.
struct Tally {
    std::unique_ptr<std::atomic<std::uint32_t>[]> seen{new std::atomic<std::uint32_t>[kEventsPerSub]};
    std::atomic<std::uint32_t> delivered{0};
};
std::array<Tally, kSubs> g_tally;
std::atomic<std::uint32_t> g_wrong{0};        // an event at another subscription's callback
std::atomic<std::uint32_t> g_bad_third{0};    // third argument differing from entry offset 48
std::atomic<std::uint32_t> g_churn_calls{0};  // callbacks of subscriptions never fed

std::uint32_t be32_host(const void* p) {
    std::uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

// The entry's first word is (subscription << 24 | sequence); its field at 48 is the
// sequence's low 16 bits.
template <std::size_t I>
std::uint32_t on_event(std::uint32_t, void* entry, std::uint16_t third) {
    const std::uint32_t marker = be32_host(entry);
    const std::uint32_t seq = marker & 0x00FFFFFFu;
    std::uint16_t field48;
    std::memcpy(&field48, static_cast<std::uint8_t*>(entry) + 48, sizeof field48);
    if (third != field48 || third != static_cast<std::uint16_t>(seq)) g_bad_third.fetch_add(1);
    if ((marker >> 24) != I || seq >= kEventsPerSub) {
        g_wrong.fetch_add(1);
        return 0;
    }
    g_tally[I].seen[seq].fetch_add(1);
    g_tally[I].delivered.fetch_add(1);
    return 0;
}

std::uint32_t on_churn_event(std::uint32_t, void*, std::uint16_t) {
    g_churn_calls.fetch_add(1);
    return 0;
}

constexpr std::array<ARP_EVENT_PF, kSubs> kCallbacks{&on_event<0>, &on_event<1>, &on_event<2>};

// The events of one subscription, packed into datagrams of 1 to 68 records (a skipped
// record of type 30 now and then), in a fixed pseudo-random pattern.
std::vector<Bytes> datagrams_for(std::size_t sub) {
    std::vector<Bytes> out;
    std::uint32_t rng = 0x9E3779B9u * static_cast<std::uint32_t>(sub + 1);
    auto next = [&rng] {
        rng ^= rng << 13;
        rng ^= rng >> 17;
        rng ^= rng << 5;
        return rng;
    };
    std::uint32_t seq = 0;
    while (seq < kEventsPerSub) {
        Bytes d;
        const std::uint32_t want = 1 + next() % 68;
        for (std::uint32_t r = 0; r < want && seq < kEventsPerSub; ++r) {
            if (next() % 16 == 0 && d.size() + 2 * kFullLen <= kDatagramMax) {
                const Bytes skip = event_record(60, 30, event_body(ArpEvents::kBody, 0xFFFFFFFFu));
                d.insert(d.end(), skip.begin(), skip.end());
            }
            if (d.size() + kFullLen > kDatagramMax) break;
            Bytes e = event_body(ArpEvents::kBody, static_cast<std::uint32_t>(sub) << 24 | seq);
            e[48] = static_cast<std::uint8_t>(seq >> 8);
            e[49] = static_cast<std::uint8_t>(seq);
            const Bytes r1 = event_record(60, seq % 21, e);
            d.insert(d.end(), r1.begin(), r1.end());
            ++seq;
        }
        out.push_back(std::move(d));
    }
    return out;
}

class ArpEventsConcurrency : public PlatformTest {
protected:
    ArpEventsConcurrency() {
        ipp_dir_set_master(kMaster);
        for (Tally& t : g_tally) {
            for (std::uint32_t i = 0; i < kEventsPerSub; ++i) t.seen[i].store(0);
            t.delivered.store(0);
        }
        g_wrong.store(0);
        g_bad_third.store(0);
        g_churn_calls.store(0);
    }
    void TearDown() override {
        EXPECT_EQ(g_stARPEventProcList, nullptr) << "a subscription was left registered";
        // A test that stopped early leaves its subscriptions: end them here, so that the
        // tests after it start clean.
        while (g_stARPEventProcList != nullptr) ARP_DeregEvent(g_stARPEventProcList->iSocket);
        PlatformTest::TearDown();
    }
};

TEST_F(ArpEventsConcurrency, ProcessingWhileOthersRegisterAndDeregisterDeliversEveryEventOnceAtItsCallback) {
    NeighPeer peer(kMaster, ArpEvents::kPort, static_cast<int>(kSubs) + kChurnThreads * kChurnMaxCycles,
                   static_cast<int>(kSubs));
    ASSERT_TRUE(peer.listening());

    std::array<int, kSubs> fds{};
    std::array<int, kSubs> svcs{};
    for (std::size_t i = 0; i < kSubs; ++i) {
        fds[i] = ARP_RegEvent(0x5B000000u + static_cast<std::uint32_t>(i), 0, kCallbacks[i]);
        ASSERT_GE(fds[i], 0);
    }
    for (std::size_t i = 0; i < kSubs; ++i) {
        svcs[i] = peer.conn_for(0x5B000000u + static_cast<std::uint32_t>(i), kSubs);
        ASSERT_GE(svcs[i], 0);
    }

    const Clock::time_point deadline = Clock::now() + kDeadline;
    std::atomic<bool> stop{false};
    std::atomic<int> processing{static_cast<int>(kSubs)};
    std::atomic<std::uint32_t> proc_failures{0}, send_failures{0}, churn_failures{0}, churn_cycles{0};
    std::atomic<int> churn_started{0};

    std::vector<std::thread> threads;
    // Churn: registrations and deregistrations at the head, in the middle and at the tail of
    // the list for as long as the subscriptions are being processed; now and then a churned
    // subscription is processed too (its service end is closed: it reads empty datagrams).
    for (int t = 0; t < kChurnThreads; ++t) {
        threads.emplace_back([&, t] {
            std::deque<int> live;
            for (int c = 0; c < kChurnMaxCycles && processing.load() > 0 && Clock::now() < deadline; ++c) {
                const int fd = ARP_RegEvent(0xC0000000u | static_cast<std::uint32_t>(t << 16 | c), 0, &on_churn_event);
                if (fd < 0) {
                    churn_failures.fetch_add(1);
                    continue;
                }
                live.push_back(fd);
                if (c % 10 == 0 && ARP_ProcEvent(fd) != 0) churn_failures.fetch_add(1);
                if (live.size() >= kChurnLive) {
                    // Alternate between the oldest and the newest of this thread's records.
                    const bool oldest = (c & 1) != 0;
                    const int gone = oldest ? live.front() : live.back();
                    if (oldest) {
                        live.pop_front();
                    } else {
                        live.pop_back();
                    }
                    ARP_DeregEvent(gone);
                }
                churn_cycles.fetch_add(1);
                if (c == 0) churn_started.fetch_add(1);
                std::this_thread::yield();
            }
            for (const int fd : live) ARP_DeregEvent(fd);
        });
    }
    while (churn_started.load() < kChurnThreads && Clock::now() < deadline) std::this_thread::yield();
    const std::uint32_t cycles_before = churn_cycles.load();

    // Processing: each thread waits on its own descriptor and processes it when readable,
    // until all its events arrived and the churn has moved on meanwhile (a loaded machine
    // may run the processing before the churn threads get a turn), or the time is up.
    for (std::size_t i = 0; i < kSubs; ++i) {
        threads.emplace_back([&, i] {
            while ((g_tally[i].delivered.load() < kEventsPerSub || churn_cycles.load() <= cycles_before) &&
                   Clock::now() < deadline && !stop.load()) {
                pollfd p{fds[i], POLLIN, 0};
                if (::poll(&p, 1, 50) <= 0) continue;
                if (ARP_ProcEvent(fds[i]) != 0) proc_failures.fetch_add(1);
            }
            processing.fetch_sub(1);
        });
    }
    // Feeding: the service sends each subscription its datagrams.
    for (std::size_t i = 0; i < kSubs; ++i) {
        threads.emplace_back([&, i] {
            for (const Bytes& d : datagrams_for(i)) {
                if (stop.load() || Clock::now() >= deadline) return;
                if (!NeighPeer::send(svcs[i], d)) {
                    send_failures.fetch_add(1);
                    return;
                }
            }
        });
    }
    for (std::thread& th : threads) th.join();
    stop.store(true);

    EXPECT_LT(Clock::now(), deadline) << "the run did not finish in time";
    EXPECT_EQ(send_failures.load(), 0u);
    EXPECT_EQ(proc_failures.load(), 0u);
    EXPECT_EQ(churn_failures.load(), 0u);
    EXPECT_GT(churn_cycles.load(), cycles_before) << "registrations went on while events were processed";
    EXPECT_EQ(g_wrong.load(), 0u) << "events reached another subscription's callback";
    EXPECT_EQ(g_bad_third.load(), 0u);
    EXPECT_EQ(g_churn_calls.load(), 0u);
    for (std::size_t i = 0; i < kSubs; ++i) {
        EXPECT_EQ(g_tally[i].delivered.load(), kEventsPerSub) << "subscription " << i;
        std::uint32_t missing = 0, repeated = 0;
        for (std::uint32_t s = 0; s < kEventsPerSub; ++s) {
            const std::uint32_t n = g_tally[i].seen[s].load();
            if (n == 0) ++missing;
            if (n > 1) ++repeated;
        }
        EXPECT_EQ(missing, 0u) << "subscription " << i;
        EXPECT_EQ(repeated, 0u) << "subscription " << i;
    }

    // Only the processed subscriptions are left, and they leave cleanly.
    std::size_t left = 0;
    for (const ARP_EVENT_PROC_NODE_S* r = g_stARPEventProcList; r != nullptr; r = r->pstNext) ++left;
    EXPECT_EQ(left, kSubs);
    for (const int fd : fds) ARP_DeregEvent(fd);
}

// Registrations and deregistrations alone, from several threads at once: the list ends
// empty and whole, with every record's back link pointing at the link that points at it.
TEST_F(ArpEventsConcurrency, ConcurrentRegistrationsKeepTheListConsistent) {
    constexpr int kThreads = 4;
    constexpr int kEach = 40;
    NeighPeer peer(kMaster, ArpEvents::kPort, kThreads * kEach, 0);
    std::atomic<std::uint32_t> failures{0};
    std::vector<std::vector<int>> held(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int c = 0; c < kEach; ++c) {
                const int fd = ARP_RegEvent(static_cast<std::uint32_t>(t), static_cast<std::uint32_t>(c), &on_churn_event);
                if (fd < 0) {
                    failures.fetch_add(1);
                    continue;
                }
                held[static_cast<std::size_t>(t)].push_back(fd);
                if (c % 3 == 2) {  // keep two of every three
                    ARP_DeregEvent(held[static_cast<std::size_t>(t)].front());
                    held[static_cast<std::size_t>(t)].erase(held[static_cast<std::size_t>(t)].begin());
                }
            }
        });
    }
    for (std::thread& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0u);

    std::size_t kept = 0;
    for (const auto& h : held) kept += h.size();
    std::size_t n = 0;
    ARP_EVENT_PROC_NODE_S** link = &g_stARPEventProcList;
    for (ARP_EVENT_PROC_NODE_S* r = g_stARPEventProcList; r != nullptr; r = r->pstNext) {
        EXPECT_EQ(r->ppstPrev, link);
        link = &r->pstNext;
        ++n;
    }
    EXPECT_EQ(n, kept);
    for (const auto& h : held) {
        for (const int fd : h) ARP_DeregEvent(fd);
    }
    EXPECT_EQ(g_stARPEventProcList, nullptr);
}

}  // namespace
}  // namespace ipt
