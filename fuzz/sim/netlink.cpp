// The route netlink notifications a device mirroring a Linux namespace reads: the fuzzer's
// bytes as one receive of the notification socket, run through the same per-type callbacks
// (links, addresses, routes, neighbours) that validate every attribute before use.
#include <libmnl/libmnl.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "source/netlink.hpp"

namespace {

// Keeps what the parsers hand over and reads every field, so that a value made from bytes
// outside the message would show.
class Keep : public sim::nl::Sink {
public:
    void link(const sim::nl::Link& l, bool gone) override {
        sum_ += l.index + l.name.size() + l.arphrd + l.flags + l.mtu + l.master + l.kind.size() +
                l.slave_kind.size() + (gone ? 1u : 0u);
        if (l.mac) sum_ += (*l.mac)[5];
        if (l.vrf_table) sum_ += *l.vrf_table;
        if (l.stats) sum_ += l.stats->rx_packets;
    }
    void addr(const sim::nl::Addr& a, bool gone) override {
        sum_ += a.ifindex + a.prefix_len + a.addr + a.flags + (gone ? 1u : 0u);
    }
    void route(const sim::nl::Route& r, bool gone) override {
        sum_ += r.family + r.table + r.type + r.dst_len + r.flags + r.dst[15] + r.oif + (gone ? 1u : 0u);
        if (r.gateway) sum_ += (*r.gateway)[15];
    }
    void neigh(const sim::nl::Neigh& n, bool gone) override {
        sum_ += n.family + n.ifindex + n.state + n.flags + n.addr[15] + (gone ? 1u : 0u);
        if (n.mac) sum_ += (*n.mac)[0];
    }
    std::uint64_t sum() const noexcept { return sum_; }

private:
    std::uint64_t sum_ = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // A receive buffer of its own, aligned as the socket's is, holding exactly the bytes.
    std::vector<std::uint64_t> buf((size + 7) / 8 + 1);
    std::memcpy(buf.data(), data, size);
    Keep keep;
    (void)sim::nl::run_messages(buf.data(), size, 0, 0, sim::nl::event_cb, static_cast<sim::nl::Sink*>(&keep));
    volatile std::uint64_t seen = keep.sum();
    (void)seen;
    return 0;
}
