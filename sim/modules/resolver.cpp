#include "modules/resolver.hpp"

#include <algorithm>

#include "context.hpp"

namespace sim {

bool resolve_neighbour(Context& ctx, std::uint8_t family, std::uint32_t ifindex, const NeighAddr& addr) {
    const auto* itf = ctx.device.interface(ifindex);
    if (itf == nullptr) return false;
    // A writable mirrored system resolves the neighbour itself; the table follows its answer.
    if (ctx.mirror != nullptr && ctx.mirror->writable()) {
        (void)ctx.mirror->resolve(family, ifindex, addr);
        return false;
    }
    const std::size_t len = family == 10 ? 16 : 4;
    const auto host = std::find_if(ctx.hosts.begin(), ctx.hosts.end(), [&](const scenario::Host& h) {
        return h.ifindex == ifindex && (h.family == 10) == (family == 10) && std::equal(addr.begin(), addr.begin() + len, h.addr);
    });
    const Neighbour* had = ctx.neighs.find(family, ifindex, addr);
    Neighbour n = had != nullptr ? *had : Neighbour{};
    n.family = family;
    n.ifindex = ifindex;
    n.addr = addr;
    n.vrf = itf->vrf;
    n.node = itf->node;
    n.updated = ctx.uptime();
    if (host != ctx.hosts.end()) {
        std::copy(std::begin(host->mac), std::end(host->mac), n.mac.begin());
        n.state = NeighState::kReachable;
        if (had == nullptr || had->kind != NeighKind::kStatic) n.kind = NeighKind::kDynamic;
        // A full table learns nothing (the refusal is counted); the request itself was sent.
        (void)ctx.neighs.put(n);
        return true;
    }
    // A static or resolved entry stays as it is; only a missing one starts incomplete.
    if (had != nullptr) return false;
    n.state = NeighState::kIncomplete;
    n.kind = NeighKind::kDynamic;
    n.incomplete_since = n.updated;
    (void)ctx.neighs.put(n);
    ctx.loop.after(kIncompleteLife, [&ctx, family, ifindex, addr] {
        const Neighbour* e = ctx.neighs.find(family, ifindex, addr);
        if (e != nullptr && e->state == NeighState::kIncomplete) ctx.neighs.remove(family, ifindex, addr);
    });
    return false;
}

}  // namespace sim
