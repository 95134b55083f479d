#include "modules/kmod_fib.hpp"

#include <algorithm>
#include <cstring>

#include "context.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/wire.hpp"
#include "modules/fib_control.hpp"
#include "modules/module.hpp"

namespace sim {
namespace {

using ipc::wire::Writer;

namespace fib = ipc::proto::fib;

constexpr std::size_t kSearchMax = ipc::proto::fib::kSearchMaxEntries;
constexpr std::size_t kSearchEntry = ipc::proto::fib::kSearchEntryLen;
constexpr std::uint16_t kMaxPaths = 8;

std::array<std::uint8_t, 16> prefix_of(const std::uint8_t* addr, std::size_t len) {
    std::array<std::uint8_t, 16> out{};
    std::memcpy(out.data(), addr, len);
    return out;
}

std::uint8_t mask_len(std::uint32_t network_mask) {
    return static_cast<std::uint8_t>(std::popcount(ipc::wire::load_be<std::uint32_t>(&network_mask)));
}

void put_host(std::uint8_t* at, const void* v, std::size_t n) { std::memcpy(at, v, n); }

// One 128-byte search entry, in host order as the kernel keeps it.
void search_entry(std::uint8_t* e, const Route& r, std::uint16_t node) {
    std::memset(e, 0, kSearchEntry);
    const std::uint32_t vrf = r.vrf, node_word = node, flags = r.active ? 1u : 0u;
    const std::uint16_t family = r.family;
    put_host(e + FIB_ENTRY_VRF_OFFSET, &vrf, 4);
    put_host(e + FIB_ENTRY_IFINDEX_OFFSET, &r.ifindex, 4);
    e[FIB_ENTRY_PREFIX_LEN_OFFSET] = r.prefix_len;
    put_host(e + FIB_ENTRY_FAMILY_OFFSET, &family, 2);
    std::memcpy(e + FIB_ENTRY_NEXTHOP_OFFSET, r.next_hop.data(), 16);
    std::memcpy(e + FIB_ENTRY_DEST_OFFSET, r.prefix.data(), 16);
    put_host(e + FIB_ENTRY_NODE_OFFSET, &node_word, 4);
    put_host(e + FIB_ENTRY_FLAGS_OFFSET, &flags, 4);
    e[FIB_ENTRY_TYPE_OFFSET] = r.type;
    e[FIB_ENTRY_HOPS_OFFSET] = static_cast<std::uint8_t>(std::min<std::size_t>(1 + r.more.size(), 0xFF));
    std::uint8_t* hop = e + FIB_ENTRY_MORE_HOPS_OFFSET;
    for (std::size_t i = 0; i < r.more.size() && i < FIB_ENTRY_MORE_HOPS_MAX; ++i, hop += FIB_ENTRY_HOP_SIZE) {
        put_host(hop, &r.more[i].ifindex, 4);
        std::memcpy(hop + 4, r.more[i].next_hop.data(), 16);
    }
}

class FibDump : public DumpCursor {
public:
    FibDump(const FibTable& table, std::uint16_t node) : table_(table), node_(node) {}

    std::uint32_t pull(std::span<std::uint8_t> out, std::size_t* len) override {
        *len = 0;
        if (out.size() < 8 + FibModule::kDumpEntryLen) return kFailure;
        Writer w(out);
        const std::uint32_t entry_len = FibModule::kDumpEntryLen;
        w.zeros(4).raw(&entry_len, 4);  // the entry size travels in host order
        std::size_t n = 0;
        // The route whose paths go on from the last pull, as it is now.
        std::optional<Route> r = hop_ > 0 && last_ ? table_.find(*last_) : std::nullopt;
        if (r && hop_ > r->more.size()) r.reset();
        while (w.room() >= FibModule::kDumpEntryLen) {
            // A multipath route is an entry a path, one after the other; a route that
            // changed between two pulls goes on with the paths it has now.
            if (!r) {
                r = table_.next(2, node_, last_, &at_);
                if (!r) break;
                last_ = FibTable::key_of(*r);
                hop_ = 0;
            }
            entry(w, *r, hop_);
            ++n;
            if (hop_ < r->more.size()) {
                ++hop_;
            } else {
                hop_ = 0;
                r.reset();
            }
        }
        if (n == 0) return 0;
        *len = w.size();
        return kDumpMoreData;
    }

private:
    // The route's entry for one of its paths: 0 the first, k its k-th further hop.
    static void entry(Writer& w, const Route& r, std::size_t hop) {
        const std::uint32_t mask = r.prefix_len == 0 ? 0 : ~std::uint32_t{0} << (32 - r.prefix_len);
        const Hop* h = hop > 0 ? &r.more[hop - 1] : nullptr;
        w.be(r.vrf).zeros(2).raw(r.prefix.data(), 4).be(mask).raw(h != nullptr ? h->next_hop.data() : r.next_hop.data(), 4);
        w.be(r.label).be(h != nullptr ? h->ifindex : r.via_ifindex).be(r.tunnel);
        w.raw(h != nullptr ? h->mac.data() : r.mac.data(), 6).raw(h != nullptr ? h->own_mac.data() : r.own_mac.data(), 6);
        w.be(r.vlan).be(r.port).be(h != nullptr ? h->ifindex : r.ifindex);
    }

    const FibTable& table_;
    std::uint16_t node_;
    std::optional<FibTable::Key> last_;
    FibTable::Position at_;  // where last_ is, while the table's records stay in place
    std::size_t hop_ = 0;  // the path of last_ to deliver next; 0: the next route's first
};

}  // namespace

std::size_t FibModule::routes_on(std::uint16_t node, std::uint8_t family, bool active_only,
                                 std::optional<std::uint16_t> vrf) const {
    std::size_t n = 0;
    std::optional<FibTable::Key> at;
    FibTable::Position pos;
    while (const std::optional<Route> r = table_.next(family, node, at, &pos)) {
        at = FibTable::key_of(*r);
        if ((!active_only || r->active) && (!vrf || r->vrf == *vrf)) ++n;
    }
    return n;
}

std::uint32_t FibModule::handle(std::uint16_t node, std::uint32_t command, std::span<const std::uint8_t> request,
                                std::span<std::uint8_t> reply, std::uint32_t* returned) {
    *returned = 0;
    Writer w(reply);
    auto done = [&](std::uint32_t status) {
        *returned = w.ok() ? static_cast<std::uint32_t>(w.size()) : 0;
        return w.ok() ? status : kFailure;
    };
    const auto vrfs = static_cast<std::uint32_t>(device_.vrfs().size());
    switch (command) {
        case fib::kCmd4SpecData: {
            if (!request.empty()) return kFailure;
            w.be(static_cast<std::uint32_t>(routes_on(node, 2, false))).be(static_cast<std::uint32_t>(routes_on(node, 2, true)));
            w.be(vrfs).zeros(4).be(table_.change_seq(2)).be(kMaxPaths).zeros(2).be(static_cast<std::uint32_t>(node));
            w.zeros(80 - 28);
            return done(0);
        }
        case fib::kCmd6SpecData: {
            if (!request.empty()) return kFailure;
            w.be(static_cast<std::uint32_t>(routes_on(node, 10, false))).be(static_cast<std::uint32_t>(routes_on(node, 10, true)));
            w.be(vrfs).be(table_.change_seq(10)).be(kMaxPaths).zeros(2).be(static_cast<std::uint32_t>(node));
            w.zeros(44 - 24);
            return done(0);
        }
        case fib::kCmd4Search:
        case fib::kCmd6Search: {
            const bool v6 = command == fib::kCmd6Search;
            if (request.size() != (v6 ? 52u : 44u)) return kFailure;
            std::uint64_t wanted = 0;
            std::uint32_t instance = 0;
            std::memcpy(&wanted, request.data(), 8);
            std::memcpy(&instance, request.data() + 8, 4);
            const std::uint8_t* key = request.data() + 8;
            std::array<std::uint8_t, 16> prefix{};
            std::uint8_t len = 0;
            if (v6) {
                prefix = prefix_of(key + 8, 16);
                len = key[24];
            } else {
                std::uint32_t mask = 0;
                std::memcpy(&mask, key + 12, 4);
                prefix = prefix_of(key + 8, 4);
                len = mask_len(mask);
            }
            const std::size_t limit = std::min<std::size_t>({wanted, kSearchMax, (reply.size() - std::min<std::size_t>(reply.size(), 8)) / kSearchEntry});
            std::uint8_t* count_at = w.reserve(8);
            std::uint64_t n = 0;
            table_.exact(v6 ? 10 : 2, instance, prefix, len, node, [&](const Route& r) {
                if (n >= limit) return false;
                if (std::uint8_t* e = w.reserve(kSearchEntry)) search_entry(e, r, node);
                ++n;
                return true;
            });
            if (count_at != nullptr) std::memcpy(count_at, &n, 8);
            return done(0);
        }
        case fib::kCmd4RouteChangeSeq:
        case fib::kCmd6RouteChangeSeq:
            if (!request.empty()) return kFailure;
            w.be(table_.change_seq(command == fib::kCmd6RouteChangeSeq ? 10 : 2));
            return done(0);
        case fib::kCmdConCheckStat:
        case fib::kCmdAlarmThresholdStat: {
            if (request.size() != 4) return kFailure;
            std::uint32_t selector = 0;
            std::memcpy(&selector, request.data(), 4);
            std::uint64_t value = 0;
            if (command == fib::kCmdConCheckStat) {
                value = selector == 2 || selector == 10 ? routes_on(node, static_cast<std::uint8_t>(selector), false) : 0;
            } else if (selector <= 0xFFFF) {
                value = routes_on(node, 2, false, static_cast<std::uint16_t>(selector)) +
                        routes_on(node, 10, false, static_cast<std::uint16_t>(selector));
            }
            w.be(value);
            return done(0);
        }
        default: return kFailure;
    }
}

std::unique_ptr<DumpCursor> FibModule::dump(std::uint16_t node, std::span<const std::uint8_t> request) const {
    if (request.size() != 8 || request[0] != 11) return nullptr;
    return std::make_unique<FibDump>(table_, node);
}

namespace {
constexpr KernelDump kFibDumps[] = {
    {FibModule::kDumpRequest,
     [](Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request) { return ctx.fib_module.dump(node, request); }},
};
}  // namespace

// The module's table: its range of commands, the dump of its table, its control operations.
const KernelModuleOps kFibModuleOps{
    .name = "fib",
    .serves = [](std::uint32_t command) {
        return command >= FibModule::kFirstCommand && command <= FibModule::kLastCommand;
    },
    .handle = [](Context& ctx, const KernelCall& call) {
        return ctx.fib_module.handle(call.node, call.command, call.request, call.reply, call.returned);
    },
    .dumps = kFibDumps,
    .controls = register_fib_control,
};

}  // namespace sim
