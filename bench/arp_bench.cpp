// ARP event dispatch throughput on a real subscription: the service end queues datagrams
// packed with full 60-byte records (68 to a 4096-byte datagram, 4080 bytes used), then
// ARP_ProcEvent reads and delivers them; beside it, a bare receive loop over the same
// datagrams (the platform's receive call, as the library makes it, without parsing), and
// the system's recv alone. Each iteration queues 256 datagrams, what one ARP_ProcEvent call
// reads, outside the timed region. Reported as events (records) per second.
#include <benchmark/benchmark.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "ipclient/arp.h"
#include "ipplat/testctl.h"

extern "C" ssize_t __wrap_recv(int fd, void* buf, size_t len, int flags);

namespace {

constexpr std::uint16_t kMaster = 0x0102;
constexpr std::uint16_t kPort = 11537;
constexpr std::size_t kRecordLen = 60;
constexpr std::size_t kDatagramMax = 4096;
constexpr std::size_t kRecordsPerDatagram = kDatagramMax / kRecordLen;  // 68
constexpr std::size_t kDatagramsPerCall = 256;
constexpr std::int64_t kEventsPerIteration = static_cast<std::int64_t>(kRecordsPerDatagram * kDatagramsPerCall);

std::uint64_t g_events = 0;
std::uint64_t g_sum = 0;

std::uint32_t on_event(std::uint32_t type, void* entry, std::uint16_t field48) {
    std::uint32_t first;
    std::memcpy(&first, entry, sizeof first);
    g_sum += first + type + field48;
    ++g_events;
    return 0;
}

void put_be32(std::uint8_t* p, std::uint32_t v) {
    p[0] = static_cast<std::uint8_t>(v >> 24);
    p[1] = static_cast<std::uint8_t>(v >> 16);
    p[2] = static_cast<std::uint8_t>(v >> 8);
    p[3] = static_cast<std::uint8_t>(v);
}

// One datagram of 68 full records, types 0 to 20 in turn.
std::vector<std::uint8_t> packed_datagram() {
    std::vector<std::uint8_t> d(kRecordsPerDatagram * kRecordLen);
    for (std::size_t r = 0; r < kRecordsPerDatagram; ++r) {
        std::uint8_t* rec = d.data() + r * kRecordLen;
        put_be32(rec, kRecordLen);
        put_be32(rec + 4, static_cast<std::uint32_t>(r % 21));
        for (std::size_t k = 8; k < kRecordLen; ++k) rec[k] = static_cast<std::uint8_t>(r + k);
    }
    return d;
}

// A registered subscription to a service end in this process.
class Subscription {
public:
    Subscription() {
        ipp_reset();
        ipp_dir_set_master(kMaster);
        listen_ = ipp_lipc_listen(kMaster, kPort);
        if (listen_ < 0) return;
        fd_ = ARP_RegEvent(1, 2, &on_event);
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
        if (fd_ >= 0) ARP_DeregEvent(fd_);
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

void BM_ArpProcEvent(benchmark::State& state) {
    const Subscription sub;
    if (!sub.ok()) {
        state.SkipWithError("no subscription");
        return;
    }
    const auto datagram = packed_datagram();
    g_events = 0;
    for (auto _ : state) {
        state.PauseTiming();
        const bool filled = sub.fill(datagram);
        state.ResumeTiming();
        if (!filled) {
            state.SkipWithError("the datagrams could not be queued");
            break;
        }
        benchmark::DoNotOptimize(ARP_ProcEvent(sub.fd()));
    }
    if (g_events != static_cast<std::uint64_t>(state.iterations()) * kEventsPerIteration) {
        state.SkipWithError("events were lost");
    }
    benchmark::DoNotOptimize(g_sum);
    state.SetItemsProcessed(state.iterations() * kEventsPerIteration);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(kDatagramsPerCall * datagram.size()));
}
BENCHMARK(BM_ArpProcEvent)->Unit(benchmark::kMicrosecond);

// The same datagrams received through the platform's receive call, as ARP_ProcEvent's own
// receive step makes it, and not parsed.
template <bool Platform>
void BM_ArpBareReceive(benchmark::State& state) {
    const Subscription sub;
    if (!sub.ok()) {
        state.SkipWithError("no subscription");
        return;
    }
    const auto datagram = packed_datagram();
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
    state.SetItemsProcessed(state.iterations() * kEventsPerIteration);
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
}
BENCHMARK_TEMPLATE(BM_ArpBareReceive, true)->Name("BM_ArpBareReceive/platform")->Unit(benchmark::kMicrosecond);
BENCHMARK_TEMPLATE(BM_ArpBareReceive, false)->Name("BM_ArpBareReceive/system")->Unit(benchmark::kMicrosecond);

}  // namespace
