#include "modules/kmod_nd.hpp"

#include <arpa/inet.h>
#include <algorithm>
#include <cstdio>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "context.hpp"
#include "control/args.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/kmod_nd.hpp"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"
#include "modules/resolver.hpp"

namespace sim {
namespace {

using ipc::wire::Reader;
using ipc::wire::Writer;
using nlohmann::json;

constexpr std::uint8_t kFamily = 10;
constexpr std::size_t kAddrLen = 16;
constexpr std::size_t kMacLen = 6;
constexpr std::size_t kKeyLen = 24;
constexpr std::size_t kBatchKeyLen = ipc::proto::nd::batch::kKeyLen;
constexpr std::size_t kSpecifiedLen = 100;
constexpr std::uint32_t kMaxSelector = 2;
constexpr std::uint8_t kKindNoInterface = 6;

using namespace ipc::proto::nd;  // operations, sizes and type lists of the module

// An NS request: header, interface, address.
constexpr std::size_t kNsLen = kHeadLen + 4 + 16;

bool dynamic(const Neighbour& n) { return (static_cast<std::uint8_t>(n.kind) & 1u) != 0; }

bool link_local(const NeighAddr& a) { return a[0] == 0xFE && (a[1] & 0xC0) == 0x80; }

// Whether the node's module keeps the entry: the master keeps them all, another node those
// of the interfaces (or member interfaces) it serves.
bool keeps(const Context& ctx, std::uint16_t node, const Neighbour& n) {
    if (node == ctx.device.master() || node == ctx.device.master_ep()) return true;
    return ctx.device.serves(node, n.ifindex) || (n.port != 0 && ctx.device.serves(node, n.port));
}

std::uint8_t kind_byte(const Context& ctx, const Neighbour& n) {
    return ctx.device.interface(n.ifindex) == nullptr ? kKindNoInterface : static_cast<std::uint8_t>(n.kind);
}

bool ages(const Neighbour& n) { return n.aging != 0 && n.state != NeighState::kIncomplete; }

std::uint32_t refresh_time(const Neighbour& n) { return ages(n) ? n.updated + n.aging : 0; }

void put_entry(Writer& w, const Context& ctx, std::uint16_t node, const Neighbour& n) {
    w.raw(n.addr.data(), kAddrLen).be(n.ifindex).be(n.port).be(std::uint32_t{n.vrf}).be(n.vlan).be(node);
    w.raw(n.mac.data(), kMacLen);
    w.be(static_cast<std::uint8_t>(n.state)).be(static_cast<std::uint8_t>(link_local(n.addr) ? 1 : 0));
    w.be(kind_byte(ctx, n)).zeros(3);
    w.be(n.updated).be(refresh_time(n)).zeros(4);
}

// One record of the batch, in the order of ipproto's batch offsets.
void put_batch_record(Writer& w, const Context& ctx, const Neighbour& n) {
    static_assert(batch::kIfIndex == kAddrLen && batch::kIfIndex2 == batch::kIfIndex + 4 &&
                  batch::kMac == batch::kIfIndex2 + 4 && batch::kState == batch::kMac + kMacLen &&
                  batch::kKind == batch::kState + 1 && batch::kUpdate == batch::kKind + 1 &&
                  batch::kRefresh == batch::kUpdate + 4 && batch::kVlan == batch::kRefresh + 4 &&
                  batch::kVrf == batch::kVlan + 2 && batch::kVsi == batch::kVrf + 2 && batch::kLen == batch::kVsi + 4);
    w.raw(n.addr.data(), kAddrLen).be(n.ifindex).be(n.port).raw(n.mac.data(), kMacLen);
    w.be(static_cast<std::uint8_t>(n.state)).be(kind_byte(ctx, n));
    w.be(n.updated).be(refresh_time(n)).be(n.vlan).be(n.vrf).be(n.vsi);
}

void put_info(Writer& w, const Context& ctx, std::uint16_t node, const Neighbour& n) {
    const std::uint32_t now = ctx.uptime();
    const std::uint32_t age = now > n.updated ? now - n.updated : 0;
    const std::uint32_t left = !ages(n) ? 0 : (n.aging > age ? n.aging - age : 1);
    w.be(n.ifindex).be(n.vrf).be(n.vlan).raw(n.mac.data(), kMacLen);
    w.be(static_cast<std::uint8_t>(n.state)).be(kind_byte(ctx, n));
    w.be(age).be(left).be(n.port).be(node).zeros(2);
}

NeighAddr read_addr(Reader& r) {
    NeighAddr a{};
    r.raw_into(a.data(), a.size());
    return a;
}

// ---- Entry lookups ----------------------------------------------------------------------

std::uint32_t entry_lookup(Context& ctx, std::uint16_t node, bool next, std::span<const std::uint8_t> request,
                           Writer& w) {
    if (request.size() != kKeyLen) return kFailure;
    Reader r(request.data(), request.size());
    const NeighAddr addr = read_addr(r);
    const std::uint32_t ifindex = r.be<std::uint32_t>();
    const std::uint32_t selector = r.be<std::uint32_t>();
    if (!r.ok() || selector > kMaxSelector) return kFailure;
    const auto wanted = [&](const Neighbour& n) { return keeps(ctx, node, n) && (selector != 2 || dynamic(n)); };
    const Neighbour* found = nullptr;
    if (!next) {
        found = ctx.neighs.find(kFamily, ifindex, addr);
        if (found != nullptr && !wanted(*found)) found = nullptr;
    } else {
        std::optional<NeighTable::Key> at = NeighTable::Key{ifindex, addr};
        while (const Neighbour* n = ctx.neighs.next(kFamily, at)) {
            if (selector != 0 && n->ifindex != ifindex) break;
            at = NeighTable::key_of(*n);
            if (wanted(*n)) {
                found = n;
                break;
            }
        }
    }
    if (found == nullptr) return kFailure;
    put_entry(w, ctx, node, *found);
    return 0;
}

std::uint32_t batch(Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request, Writer& w) {
    if (request.size() != kBatchKeyLen) return kFailure;
    Reader r(request.data(), request.size());
    const NeighAddr addr = read_addr(r);
    const std::uint32_t ifindex = r.be<std::uint32_t>();
    std::optional<NeighTable::Key> at = NeighTable::Key{ifindex, addr};
    while (w.room() >= NdModule::kBatchRecordLen) {
        const Neighbour* n = ctx.neighs.next(kFamily, at);
        if (n == nullptr) break;
        at = NeighTable::key_of(*n);
        if (keeps(ctx, node, *n)) put_batch_record(w, ctx, *n);
    }
    return 0;
}

// ---- Interface configuration --------------------------------------------------------------

std::uint32_t if_config_reply(NdModule& m, Context& ctx, std::span<const std::uint8_t> request, Writer& w) {
    if (request.size() != 4) return kFailure;
    const auto ifindex = ipc::wire::load_be<std::uint32_t>(request.data());
    const scenario::Interface* itf = ctx.device.interface(ifindex);
    if (itf == nullptr || !NdModule::l3_type(itf->type)) return kFailure;
    const auto it = m.if_config.find(ifindex);
    const NdIfConfig c = it != m.if_config.end() ? it->second : NdIfConfig{};
    std::uint32_t entries = 0, dynamic_entries = 0;
    std::optional<NeighTable::Key> at = NeighTable::Key{ifindex, NeighAddr{}};
    if (const Neighbour* first = ctx.neighs.find(kFamily, ifindex, NeighAddr{})) {
        ++entries;
        dynamic_entries += dynamic(*first) ? 1u : 0u;
    }
    while (const Neighbour* n = ctx.neighs.next(kFamily, at)) {
        if (n->ifindex != ifindex) break;
        at = NeighTable::key_of(*n);
        ++entries;
        dynamic_entries += dynamic(*n) ? 1u : 0u;
    }
    w.be(c.retransmit_ms).be(c.reachable_ms).be(c.ra_min_interval).be(c.dad_attempts).be(c.ra_interval);
    w.be(c.ra_hop_limit).be(c.ra_lifetime).be(c.ra_preference).be(c.flags).zeros(4).be(c.dest_guard);
    w.be(c.entry_limit);
    const std::size_t name_len = std::min(itf->name.size(), kIfNameLen - 1);
    w.raw(itf->name.data(), name_len).zeros(kIfNameLen - name_len);
    w.be(ifindex).be(std::uint32_t{itf->node}).zeros(2);
    w.be(static_cast<std::uint16_t>(std::min<std::uint32_t>(itf->mtu, 0xFFFF)));
    w.be(std::uint32_t{itf->vrf}).be(entries).be(dynamic_entries);
    return 0;
}

// ---- Module messages -------------------------------------------------------------------

class Message {
public:
    Message(NdModule& m, Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request, Writer& w)
        : m_(m), ctx_(ctx), node_(node), size_(request.size()), r_(request.data(), request.size()), w_(w) {}

    std::uint32_t run() {
        const std::uint32_t op = r_.be<std::uint32_t>();
        const std::uint32_t len = r_.be<std::uint32_t>();
        if (!r_.ok()) return kFailure;
        const bool short_word = op == kOpDeleteDynamic || op == kOpResolve;
        if (short_word ? (len != kAddrIfClaimed || size_ != kAddrIfLen) : len != size_) return kFailure;
        const NdParams& p = m_.params;
        switch (op) {
            case kOpInfo: return info(false);
            case kOpInfoByIP: return info(true);
            case kOpHopLimit: return bare() ? byte(p.hop_limit) : kFailure;
            case kOpStaleAging: return bare() ? word(p.stale_aging) : kFailure;
            case kOpStaleAgingUnit: return bare() ? word(p.stale_aging_unit) : kFailure;
            case kOpLinkLocalMinimize: return bare() ? byte(p.link_local_flags) : kFailure;
            case kOpOnOffLogMove: return bare() ? byte(p.log_flags) : kFailure;
            case kOpIPConflict: return bare() ? byte(p.conflict_flags) : kFailure;
            case kOpSnpDadRetTime: return bare() ? word(p.snp_dad_retrans) : kFailure;
            case kOpSnpInvalidTime: return bare() ? word(p.snp_invalid) : kFailure;
            case kOpSnpValidTime: return bare() ? word(p.snp_valid) : kFailure;
            case kOpRate: return bare() ? word(p.rate) : kFailure;
            case kOpExt3Bitmap: return bare() ? word(p.ext3_bitmap) : kFailure;
            case kOpAlarmThreshold: return counters(false);
            case kOpAttackStat: return counters(true);
            case kOpSendRA: return advert(true);
            case kOpSendNA: return advert(false);
            case kOpDeleteDynamic: return remove_dynamic();
            case kOpResolve: return resolve();
            case kOpSendNS: return solicit();
            case kOpSendSpecify: return specified();
            default: return kFailure;
        }
    }

private:
    bool bare() const { return size_ == kHeadLen; }
    std::uint32_t byte(std::uint8_t v) {
        w_.be(v);
        return 0;
    }
    std::uint32_t word(std::uint32_t v) {
        w_.be(v);
        return 0;
    }

    const scenario::Interface* interface(std::uint32_t ifindex) const { return ctx_.device.interface(ifindex); }
    bool sends_on(std::uint32_t ifindex) const {
        return interface(ifindex) != nullptr && ctx_.device.serves(node_, ifindex);
    }

    // Operations 0 and 38: {address, BE32 interface index}.
    std::uint32_t info(bool by_ip) {
        if (size_ != kHeadLen + kAddrLen + 4) return kFailure;
        const NeighAddr addr = read_addr(r_);
        const std::uint32_t ifindex = r_.be<std::uint32_t>();
        const Neighbour* found = nullptr;
        if (!by_ip) {
            found = ctx_.neighs.find(kFamily, ifindex, addr);
        } else if (ifindex == 0) {
            found = ctx_.neighs.find_addr(kFamily, addr);
            if (found != nullptr && !keeps(ctx_, node_, *found)) {
                found = nullptr;
                ctx_.neighs.each(kFamily, [&](const Neighbour& n) {
                    if (found == nullptr && n.addr == addr && keeps(ctx_, node_, n)) found = &n;
                });
            }
        }
        if (found == nullptr || !keeps(ctx_, node_, *found)) return kFailure;
        put_info(w_, ctx_, node_, *found);
        return 0;
    }

    // Operations 45 and 46: {selector byte, 3 zero bytes}.
    std::uint32_t counters(bool attack) {
        if (size_ != kHeadLen + 4) return kFailure;
        const std::uint8_t selector = r_.be<std::uint8_t>();
        const std::pair<std::uint16_t, std::uint8_t> key{node_, selector};
        if (!attack) {
            const auto it = m_.alarm.find(key);
            w_.be(it != m_.alarm.end() ? it->second : std::uint64_t{0});
            return 0;
        }
        const auto it = m_.attack.find(key);
        const std::array<std::uint64_t, 4> zero{};
        for (const std::uint64_t v : it != m_.attack.end() ? it->second : zero) w_.be(v);
        return 0;
    }

    // Operations 2 and 3: {BE32 interface, address, link-layer address, BE16 parameter}.
    std::uint32_t advert(bool ra) {
        if (size_ != kHeadLen + 4 + kAddrLen + kMacLen + 2) return kFailure;
        const std::uint32_t ifindex = r_.be<std::uint32_t>();
        const NeighAddr addr = read_addr(r_);
        std::array<std::uint8_t, kMacLen> mac{};
        r_.raw_into(mac.data(), mac.size());
        const std::uint16_t param = r_.be<std::uint16_t>();
        if (!sends_on(ifindex)) return kFailure;
        NdSent& s = m_.sent[ifindex];
        ++(ra ? s.ra : s.na);
        s.last_addr = addr;
        s.last_mac = mac;
        if (ra) s.ra_param = param;
        return 0;
    }

    // Operations 4 and 6: {address, BE32 interface}.
    std::uint32_t remove_dynamic() {
        const NeighAddr addr = read_addr(r_);
        const std::uint32_t ifindex = r_.be<std::uint32_t>();
        const Neighbour* n = ctx_.neighs.find(kFamily, ifindex, addr);
        if (n == nullptr || !dynamic(*n)) return kFailure;
        ctx_.neighs.remove(kFamily, ifindex, addr);
        return 0;
    }

    std::uint32_t resolve() {
        const NeighAddr addr = read_addr(r_);
        const std::uint32_t ifindex = r_.be<std::uint32_t>();
        if (!sends_on(ifindex) || addr == NeighAddr{}) return kFailure;
        (void)solicit_on(ifindex, addr);
        return 0;
    }

    // Operation 8: {BE32 interface, address}; answers whether a host answered.
    std::uint32_t solicit() {
        if (size_ != kNsLen) return kFailure;
        const std::uint32_t ifindex = r_.be<std::uint32_t>();
        const NeighAddr addr = read_addr(r_);
        // The unspecified address names no neighbour: nothing to solicit.
        if (interface(ifindex) == nullptr || addr == NeighAddr{}) return kFailure;
        w_.be(std::uint32_t{solicit_on(ifindex, addr) ? 1u : 0u});
        return 0;
    }

    bool solicit_on(std::uint32_t ifindex, const NeighAddr& addr) {
        NdSent& s = m_.sent[ifindex];
        ++s.ns;
        s.last_addr = addr;
        return resolve_neighbour(ctx_, kFamily, ifindex, addr);
    }

    // Operation 12: the 100-byte record; its interface is the BE32 at record offset 48.
    std::uint32_t specified() {
        if (size_ != kHeadLen + kSpecifiedLen) return kFailure;
        std::array<std::uint8_t, kSpecifiedLen> record{};
        r_.raw_into(record.data(), record.size());
        const auto ifindex = ipc::wire::load_be<std::uint32_t>(record.data() + 48);
        if (!sends_on(ifindex)) return kFailure;
        NdSent& s = m_.sent[ifindex];
        ++s.specified;
        s.specified_record = record;
        return 0;
    }

    NdModule& m_;
    Context& ctx_;
    std::uint16_t node_;
    std::size_t size_;
    Reader r_;
    Writer& w_;
};

// ---- Control operations -------------------------------------------------------------------

// Sets a field from the request's key when it has one.
template <class T>
void set_if(const std::optional<T>& v, T& field) {
    if (v) field = *v;
}

std::string hex(const std::uint8_t* p, std::size_t n) {
    std::string s;
    char b[3];
    for (std::size_t i = 0; i < n; ++i) {
        std::snprintf(b, sizeof b, "%02x", p[i]);
        s += b;
    }
    return s;
}

std::string addr_text(const NeighAddr& a) {
    char b[INET6_ADDRSTRLEN] = {};
    ::inet_ntop(AF_INET6, a.data(), b, sizeof b);
    return b;
}

json params_json(const NdParams& p) {
    return {{"hop_limit", p.hop_limit},       {"stale_aging", p.stale_aging},
            {"stale_aging_unit", p.stale_aging_unit}, {"link_local_flags", p.link_local_flags},
            {"log_flags", p.log_flags},       {"conflict_flags", p.conflict_flags},
            {"snp_dad_retrans", p.snp_dad_retrans}, {"snp_invalid", p.snp_invalid},
            {"snp_valid", p.snp_valid},       {"rate", p.rate},
            {"ext3_bitmap", p.ext3_bitmap}};
}

json if_config_json(const NdIfConfig& c) {
    return {{"retransmit", c.retransmit_ms},  {"reachable", c.reachable_ms}, {"ra_min_interval", c.ra_min_interval},
            {"dad_attempts", c.dad_attempts}, {"ra_interval", c.ra_interval}, {"ra_hop_limit", c.ra_hop_limit},
            {"ra_lifetime", c.ra_lifetime},   {"ra_preference", c.ra_preference}, {"flags", c.flags},
            {"dest_guard", c.dest_guard},     {"entry_limit", c.entry_limit}};
}

json sent_json(const NdSent& s) {
    json out = {{"ra", s.ra},
                {"na", s.na},
                {"ns", s.ns},
                {"specified", s.specified},
                {"address", addr_text(s.last_addr)},
                {"mac", mac_text(s.last_mac)},
                {"ra_param", s.ra_param}};
    if (s.specified != 0) {
        const std::uint8_t* r = s.specified_record.data();
        const auto be32 = [r](std::size_t off) { return ipc::wire::load_be<std::uint32_t>(r + off); };
        const auto be16 = [r](std::size_t off) { return ipc::wire::load_be<std::uint16_t>(r + off); };
        out["last_specified"] = {{"head", hex(r, 48)},       {"ifindex", be32(48)}, {"word52", be32(52)},
                                 {"raw56", hex(r + 56, 4)},  {"word60", be32(60)},  {"half64", be16(64)},
                                 {"half66", be16(66)},       {"word68", be32(68)},  {"word72", be32(72)},
                                 {"word76", be32(76)},       {"tail", hex(r + 80, 20)}};
    }
    return out;
}

}  // namespace

bool NdModule::l3_type(std::uint32_t type) noexcept {
    return std::find(kL3Types.begin(), kL3Types.end(), type) != kL3Types.end();
}

std::uint32_t NdModule::handle(Context& ctx, std::uint16_t node, std::uint32_t command,
                               std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                               std::uint32_t* returned) {
    *returned = 0;
    Writer w(reply);
    std::uint32_t status = kFailure;
    switch (command) {
        case kExact: status = entry_lookup(ctx, node, false, request, w); break;
        case kNext: status = entry_lookup(ctx, node, true, request, w); break;
        case kBatch: status = batch(ctx, node, request, w); break;
        case kIfConfig: status = if_config_reply(*this, ctx, request, w); break;
        case kMessage: status = Message(*this, ctx, node, request, w).run(); break;
        default: break;
    }
    // A reply that does not fit the caller's room is not given at all.
    if (!w.ok()) return kFailure;
    if (status == 0) *returned = static_cast<std::uint32_t>(w.size());
    return status;
}

// Control operations and the ranges of their values (each also where it is read):
//   nd.params: "hop_limit" 1-255; "stale_aging_unit" 0 (seconds) or 1 (minutes);
//     "link_local_flags", "log_flags", "conflict_flags" 0-255; the others 0-4294967295;
//   nd.counters: "node" 1-32767 and a node of the device; "selector" 0-255 (default 0);
//     "alarm" and the four "attack" counters 0-18446744073709551615;
//   nd.if_config: "interface" or "ifindex", an index (1-4294967295) or name of the
//     device's; "ra_hop_limit" 0-255, "ra_lifetime" 0-65535, "ra_preference" 0-3 (as an RA
//     carries them); the others 0-4294967295;
//   nd.sent: "interface" or "ifindex";
//   nd.entry: "interface" or "ifindex"; "address" IPv6; "port" 0 or an interface; "vlan"
//     0-4095; "vsi" and "aging" 0-4294967295; "remove" true or false.
void NdModule::attach(Context& ctx) {
    // Every value is read before anything changes: a refused request changes nothing.
    ctx.control.on("nd.params", [this](const json& req) {
        NdParams p = params;
        set_if(arg::whole_if<std::uint8_t, 1, 255>(req, "hop_limit"), p.hop_limit);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "stale_aging"), p.stale_aging);
        set_if(arg::whole_if<std::uint32_t, 0, 1>(req, "stale_aging_unit"), p.stale_aging_unit);
        set_if(arg::whole_if<std::uint8_t, 0, 0xFF>(req, "link_local_flags"), p.link_local_flags);
        set_if(arg::whole_if<std::uint8_t, 0, 0xFF>(req, "log_flags"), p.log_flags);
        set_if(arg::whole_if<std::uint8_t, 0, 0xFF>(req, "conflict_flags"), p.conflict_flags);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "snp_dad_retrans"), p.snp_dad_retrans);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "snp_invalid"), p.snp_invalid);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "snp_valid"), p.snp_valid);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "rate"), p.rate);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "ext3_bitmap"), p.ext3_bitmap);
        params = p;
        return params_json(params);
    });
    ctx.control.on("nd.counters", [this, &ctx](const json& req) {
        const std::uint16_t node = arg::node(ctx, req);
        const std::pair<std::uint16_t, std::uint8_t> key{node, arg::whole<std::uint8_t, 0, 0xFF>(req, "selector", 0)};
        constexpr std::uint64_t kMost = ~std::uint64_t{0};
        const auto new_attack = arg::wholes_if<std::uint64_t, 0, kMost, 4>(req, "attack");
        const auto new_alarm = arg::whole_if<std::uint64_t, 0, kMost>(req, "alarm");
        if (new_attack) attack[key] = *new_attack;
        if (new_alarm) alarm[key] = *new_alarm;
        const auto a = attack.find(key);
        const auto al = alarm.find(key);
        return json{{"alarm", al != alarm.end() ? al->second : 0},
                    {"attack", a != attack.end() ? a->second : std::array<std::uint64_t, 4>{}}};
    });
    ctx.control.on("nd.if_config", [this, &ctx](const json& req) {
        const std::uint32_t ifindex = arg::interface_or_ifindex(ctx, req);
        if (!l3_type(ctx.device.interface(ifindex)->type)) {
            throw std::invalid_argument("interface " + std::to_string(ifindex) + " is not of an ND layer-3 type");
        }
        NdIfConfig c = if_config.count(ifindex) != 0 ? if_config.at(ifindex) : NdIfConfig{};
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "retransmit"), c.retransmit_ms);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "reachable"), c.reachable_ms);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "ra_min_interval"), c.ra_min_interval);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "dad_attempts"), c.dad_attempts);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "ra_interval"), c.ra_interval);
        // An RA carries its hop limit in a byte, its lifetime in 16 bits, its preference in 2.
        set_if(arg::whole_if<std::uint32_t, 0, 0xFF>(req, "ra_hop_limit"), c.ra_hop_limit);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFF>(req, "ra_lifetime"), c.ra_lifetime);
        set_if(arg::whole_if<std::uint32_t, 0, 3>(req, "ra_preference"), c.ra_preference);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "flags"), c.flags);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "dest_guard"), c.dest_guard);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "entry_limit"), c.entry_limit);
        if_config[ifindex] = c;
        return if_config_json(c);
    });
    ctx.control.on("nd.sent", [this, &ctx](const json& req) {
        const std::uint32_t ifindex = arg::interface_or_ifindex(ctx, req);
        const auto it = sent.find(ifindex);
        return sent_json(it != sent.end() ? it->second : NdSent{});
    });
    ctx.control.on("nd.entry", [&ctx](const json& req) {
        const std::uint32_t ifindex = arg::interface_or_ifindex(ctx, req);
        const NeighAddr addr = arg::address6(req, "address").bytes;
        if (addr == NeighAddr{}) throw std::invalid_argument("the address :: is no neighbour");
        if (arg::flag(req, "remove", false)) {
            if (!ctx.neighs.remove(kFamily, ifindex, addr)) throw std::invalid_argument("no such entry");
            return json::object();
        }
        const Neighbour* had = ctx.neighs.find(kFamily, ifindex, addr);
        Neighbour n = had != nullptr ? *had : Neighbour{};
        const scenario::Interface* itf = ctx.device.interface(ifindex);
        n.family = kFamily;
        n.ifindex = ifindex;
        n.addr = addr;
        n.vrf = itf->vrf;
        n.node = itf->node;
        set_if(arg::mac_if(req, "mac"), n.mac);
        set_if(arg::word_if<NeighState>(req, "state",
                            {{"incomplete", NeighState::kIncomplete},
                             {"reachable", NeighState::kReachable},
                             {"stale", NeighState::kStale},
                             {"delay", NeighState::kDelay},
                             {"probe", NeighState::kProbe}}),
               n.state);
        set_if(arg::word_if<NeighKind>(req, "kind",
                            {{"dynamic", NeighKind::kDynamic},
                             {"static", NeighKind::kStatic},
                             {"openflow", NeighKind::kOpenFlow},
                             {"rule", NeighKind::kRule}}),
               n.kind);
        // The member interface of an aggregate: 0 (none) or an interface of the device.
        if (const json* port = arg::find(req, "port")) {
            n.port = port->is_number_unsigned() && port->get<std::uint64_t>() == 0
                         ? 0
                         : arg::interface_value(ctx, *port, "port");
        }
        set_if(arg::whole_if<std::uint16_t, 0, 4095>(req, "vlan"), n.vlan);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "vsi"), n.vsi);
        n.aging = n.kind == NeighKind::kStatic ? 0 : (had != nullptr && had->aging != 0 ? had->aging : 1200);
        set_if(arg::whole_if<std::uint32_t, 0, 0xFFFFFFFF>(req, "aging"), n.aging);
        n.updated = ctx.uptime();
        if (!ctx.neighs.put(n)) throw std::invalid_argument(neigh_full_text(ctx.neighs, n));
        return json::object();
    });
}

// The module's table: its commands and its control operations.
const KernelModuleOps kNdModuleOps{
    .name = "nd",
    .serves = NdModule::serves_command,
    .handle = [](Context& ctx, const KernelCall& call) {
        return ctx.nd.handle(ctx, call.node, call.command, call.request, call.reply, call.returned);
    },
    .controls = [](Context& ctx) { ctx.nd.attach(ctx); },
};

}  // namespace sim
