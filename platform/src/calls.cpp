// Call counters, injected faults, the socket call log and the global reset.
#include <array>
#include <atomic>
#include <cstring>
#include <mutex>
#include <vector>

#include "leaf_mutex.hpp"
#include "device.hpp"
#include "internal.hpp"

namespace ipp {
namespace {

struct Fault {
    std::uint32_t times = 0;
    int err = 0;
};

struct Calls {
    std::array<std::atomic<std::uint64_t>, IPP_CALL_COUNT> counts{};
    LeafMutex mu;
    std::array<Fault, IPP_CALL_COUNT> faults{};
    std::uint32_t short_times = 0;
    std::uint32_t short_bytes = 0;
    std::vector<ipp_sock_event> log;
};

constexpr std::size_t kLogCapacity = 4096;

Calls& calls() {
    static Calls c;
    return c;
}

}  // namespace

void count(ipp_call call) noexcept {
    if (call >= 0 && call < IPP_CALL_COUNT) calls().counts[call].fetch_add(1, std::memory_order_relaxed);
}

std::optional<int> take_fault(ipp_call call) noexcept {
    Calls& c = calls();
    const std::lock_guard lock(c.mu);
    Fault& f = c.faults[call];
    if (f.times == 0) return std::nullopt;
    --f.times;
    return f.err;
}

std::optional<std::uint32_t> take_short_send() noexcept {
    Calls& c = calls();
    const std::lock_guard lock(c.mu);
    if (c.short_times == 0) return std::nullopt;
    --c.short_times;
    return c.short_bytes;
}

void log_sock(const ipp_sock_event& ev) noexcept {
    Calls& c = calls();
    const std::lock_guard lock(c.mu);
    if (c.log.size() < kLogCapacity) c.log.push_back(ev);
}

void reset_calls() noexcept {
    Calls& c = calls();
    for (auto& n : c.counts) n.store(0);
    const std::lock_guard lock(c.mu);
    c.faults = {};
    c.short_times = 0;
    c.short_bytes = 0;
    c.log.clear();
    c.log.reserve(kLogCapacity);
}

}  // namespace ipp

extern "C" {

void ipp_reset(void) {
    ipp::dev::disable();
    ipp::reset_calls();
    ipp::reset_kernel();
    ipp::reset_directory();
    ipp::reset_lipc();
    ipp::reset_services();
    ipp::reset_dump();
    ipp::reset_dbm();
    ipp::reset_kevent();
    ipp::reset_anchor();
    ipp::reset_runtime();
}

uint64_t ipp_call_count(ipp_call call) {
    if (call < 0 || call >= IPP_CALL_COUNT) return 0;
    return ipp::calls().counts[call].load();
}

void ipp_fault_inject(ipp_call call, uint32_t times, int err) {
    if (call < 0 || call >= IPP_CALL_COUNT) return;
    auto& c = ipp::calls();
    const std::lock_guard lock(c.mu);
    c.faults[call] = {times, err};
}

void ipp_fault_short_send(uint32_t times, uint32_t bytes) {
    auto& c = ipp::calls();
    const std::lock_guard lock(c.mu);
    c.short_times = times;
    c.short_bytes = bytes;
}

uint32_t ipp_sock_log_count(void) {
    auto& c = ipp::calls();
    const std::lock_guard lock(c.mu);
    return static_cast<uint32_t>(c.log.size());
}

int ipp_sock_log_get(uint32_t i, ipp_sock_event* out) {
    auto& c = ipp::calls();
    const std::lock_guard lock(c.mu);
    if (out == nullptr || i >= c.log.size()) return -1;
    *out = c.log[i];
    return 0;
}

}  // extern "C"
