// ARP and ND event dispatch throughput on a real subscription: the service end queues
// datagrams packed with full records (ARP: 60 bytes, 68 to a 4096-byte datagram; ND: 72
// bytes, 56 to a datagram), then ARP_ProcEvent or ND_ProcEvent reads and delivers them;
// beside each, a bare receive loop over the same datagrams (the platform's receive call, as
// the library makes it, without parsing), and the system's recv alone. Each iteration queues
// 256 datagrams, what one drain call reads, outside the timed region. Reported as events
// (records) per second.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "ipclient/arp.h"
#include "ipclient/nd.h"
#include "ipplat/testctl.h"
#include "ipproto/wire.hpp"

extern "C" ssize_t __wrap_recv(int fd, void* buf, size_t len, int flags);

namespace {

constexpr std::uint16_t kMaster = 0x0102;
constexpr std::size_t kDatagramMax = 4096;
constexpr std::size_t kDatagramsPerCall = 256;

std::uint64_t g_events = 0;
std::uint64_t g_sum = 0;

std::uint32_t on_arp_event(std::uint32_t type, void* entry, std::uint16_t field48) {
    std::uint32_t first;
    std::memcpy(&first, entry, sizeof first);
    g_sum += first + type + field48;
    ++g_events;
    return 0;
}

std::uint32_t on_nd_event(std::uint32_t type, NdEventRecord* record) {
    std::uint32_t first;
    std::memcpy(&first, record, sizeof first);
    g_sum += first + type;
    ++g_events;
    return 0;
}

// What differs between the two clients' subscriptions.
struct Arp {
    static constexpr std::uint16_t kPort = ADJ_PORT_ARP;
    static constexpr std::size_t kRecordLen = 60;
    static constexpr std::uint32_t kTypes = 21;  // 0 to 20 delivered
    static int subscribe() { return ARP_RegEvent(1, 2, &on_arp_event); }
    static void unsubscribe(int fd) { ARP_DeregEvent(fd); }
    static std::uint32_t drain(int fd) { return ARP_ProcEvent(fd); }
};
struct Nd {
    static constexpr std::uint16_t kPort = ADJ_PORT_ND;
    static constexpr std::size_t kRecordLen = ND_EVENT_RECORD_HEAD + ND_EVENT_RECORD_LEN;
    static constexpr std::uint32_t kTypes = ND_EVENT_TYPE_COUNT;
    static int subscribe() { return ND_RegEvent(1, 2, &on_nd_event); }
    static void unsubscribe(int fd) { ND_DeregEvent(fd); }
    static std::uint32_t drain(int fd) { return ND_ProcEvent(static_cast<std::uint32_t>(fd)); }
};

template <class Family>
constexpr std::size_t kRecordsPerDatagram = kDatagramMax / Family::kRecordLen;
template <class Family>
constexpr std::int64_t kEventsPerIteration = static_cast<std::int64_t>(kRecordsPerDatagram<Family> * kDatagramsPerCall);

void put_be32(std::uint8_t* p, std::uint32_t v) { ipc::wire::store_be(p, v); }

// One datagram of full records, every delivered type in turn.
template <class Family>
std::vector<std::uint8_t> packed_datagram() {
    std::vector<std::uint8_t> d(kRecordsPerDatagram<Family> * Family::kRecordLen);
    for (std::size_t r = 0; r < kRecordsPerDatagram<Family>; ++r) {
        std::uint8_t* rec = d.data() + r * Family::kRecordLen;
        put_be32(rec, Family::kRecordLen);
        put_be32(rec + 4, static_cast<std::uint32_t>(r % Family::kTypes));
        for (std::size_t k = 8; k < Family::kRecordLen; ++k) rec[k] = static_cast<std::uint8_t>(r + k);
    }
    return d;
}

// A registered subscription to a service end in this process.
template <class Family>
class Subscription {
public:
    Subscription() {
        ipp_reset();
        ipp_dir_set_master(kMaster);
        listen_ = ipp_lipc_listen(kMaster, Family::kPort);
        if (listen_ < 0) return;
        fd_ = Family::subscribe();
        if (fd_ < 0) return;
        peer_ = ::accept(listen_, nullptr, nullptr);
        if (peer_ < 0) return;
        std::uint8_t sub[64];
        if (::recv(peer_, sub, sizeof sub, 0) != 18) return;  // the subscription message
        int big = 8 << 20;
        (void)::setsockopt(peer_, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
        (void)::setsockopt(peer_, SOL_SOCKET, SO_SNDBUFFORCE, &big, sizeof big);
        ok_ = true;
    }
    ~Subscription() {
        if (fd_ >= 0) Family::unsubscribe(fd_);
        if (peer_ >= 0) ::close(peer_);
        if (listen_ >= 0) ::close(listen_);
        ipp_reset();
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;

    bool ok() const { return ok_; }
    int fd() const { return fd_; }
    // Queues one call's worth of datagrams without waiting; false when they did not fit.
    bool fill(const std::vector<std::uint8_t>& d) const {
        for (std::size_t i = 0; i < kDatagramsPerCall; ++i) {
            if (::send(peer_, d.data(), d.size(), MSG_DONTWAIT | MSG_NOSIGNAL) != static_cast<ssize_t>(d.size())) {
                return false;
            }
        }
        return true;
    }

private:
    int listen_ = -1;
    int fd_ = -1;
    int peer_ = -1;
    bool ok_ = false;
};

template <class Family>
void BM_Drain(benchmark::State& state) {
    const Subscription<Family> sub;
    if (!sub.ok()) {
        state.SkipWithError("no subscription");
        return;
    }
    const auto datagram = packed_datagram<Family>();
    g_events = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const bool filled = sub.fill(datagram);
        state.ResumeTiming();
        if (!filled) {
            state.SkipWithError("the datagrams could not be queued");
            break;
        }
        benchmark::DoNotOptimize(Family::drain(sub.fd()));
    }
    if (g_events != static_cast<std::uint64_t>(state.iterations()) * kEventsPerIteration<Family>) {
        state.SkipWithError("events were lost");
    }
    benchmark::DoNotOptimize(g_sum);
    state.SetItemsProcessed(state.iterations() * kEventsPerIteration<Family>);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kDatagramsPerCall * datagram.size()));
}
BENCHMARK_TEMPLATE(BM_Drain, Arp)->Name("BM_ArpProcEvent")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_Drain, Nd)->Name("BM_NdProcEvent")->Unit(benchmark::kMicrosecond);

// The same datagrams received through the platform's receive call, as the drains' own
// receive step makes it, and not parsed.
template <class Family, bool Platform>
void BM_BareReceive(benchmark::State& state) {
    const Subscription<Family> sub;
    if (!sub.ok()) {
        state.SkipWithError("no subscription");
        return;
    }
    const auto datagram = packed_datagram<Family>();
    alignas(8) std::uint8_t buf[kDatagramMax];
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const bool filled = sub.fill(datagram);
        state.ResumeTiming();
        if (!filled) {
            state.SkipWithError("the datagrams could not be queued");
            break;
        }
        for (std::size_t i = 0; i < kDatagramsPerCall; ++i) {
            const ssize_t n = Platform ? __wrap_recv(sub.fd(), buf, sizeof buf, MSG_DONTWAIT)
                                       : ::recv(sub.fd(), buf, sizeof buf, MSG_DONTWAIT);
            if (n > 0) bytes += static_cast<std::uint64_t>(n);
        }
        benchmark::DoNotOptimize(buf);
    }
    if (bytes != static_cast<std::uint64_t>(state.iterations()) * kDatagramsPerCall * datagram.size()) {
        state.SkipWithError("datagrams were lost");
    }
    state.SetItemsProcessed(state.iterations() * kEventsPerIteration<Family>);
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK_TEMPLATE(BM_BareReceive, Arp, true)->Name("BM_ArpBareReceive/platform")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_BareReceive, Arp, false)->Name("BM_ArpBareReceive/system")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_BareReceive, Nd, true)->Name("BM_NdBareReceive/platform")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_BareReceive, Nd, false)->Name("BM_NdBareReceive/system")->Unit(benchmark::kMicrosecond);

}  // namespace
