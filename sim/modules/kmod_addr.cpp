#include "modules/kmod_addr.hpp"

#include <cstring>

#include "context.hpp"
#include "ipproto/kmod_addr.hpp"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"

namespace sim {
namespace {

namespace codec = ipc::proto::addr;
using AddrOp = codec::Op;
using ipc::wire::Reader;
using ipc::wire::Writer;

template <class Rec, std::size_t N>
Rec read_record(Reader& r, const std::array<ipc::wire::Field, N>& fields) {
    Rec rec{};
    r.raw_into(&rec, sizeof rec);
    codec::to_host(&rec, fields);
    return rec;
}

IPAddrEntry read_entry(Reader& r) { return read_record<IPAddrEntry>(r, codec::kEntryFields); }
IPAddrKey read_key(Reader& r) { return read_record<IPAddrKey>(r, codec::kKeyFields); }
IPAddrInfo read_info(Reader& r) { return read_record<IPAddrInfo>(r, codec::kInfoFields); }

// Writes a host-order record in wire order.
template <class Rec, std::size_t N>
void write_record(Writer& w, const Rec& rec, const std::array<ipc::wire::Field, N>& fields) {
    if (std::uint8_t* p = w.reserve(sizeof rec)) {
        std::memcpy(p, &rec, sizeof rec);
        ipc::wire::swap_fields(std::span<std::uint8_t>(p, sizeof rec), fields);
    }
}
void write_entry(Writer& w, const IPAddrEntry& e) { write_record(w, e, codec::kEntryFields); }
void write_info(Writer& w, const IPAddrInfo& i) { write_record(w, i, codec::kInfoFields); }

// Expected payload length of each operation.
constexpr std::size_t payload_len(AddrOp op) {
    switch (op) {
        case AddrOp::kAddIP: return 52;
        case AddrOp::kDelIP: return 20;
        case AddrOp::kLookupAddr: return 28;
        case AddrOp::kGetConflictAddr: return 28;
        case AddrOp::kGetMatchAddr: return 32;
        case AddrOp::kGetMatchAddrNum: return 28;
        case AddrOp::kGetMatchBestNet: return 28;
        case AddrOp::kGetNextAddrOnIf: return 32;
        case AddrOp::kGetPriorAddrOnIf: return 8;
        case AddrOp::kGetFwdAddrInVrf: return 2;
        case AddrOp::kGetNextAddrInVrf: return 34;
        case AddrOp::kSetCfgMethod: return 8;
        case AddrOp::kClearCfgMethod: return 8;
        case AddrOp::kGetIFMethod: return 4;
        case AddrOp::kGetBatchAddrOnIF: return 28;
        case AddrOp::kGetNextIf: return 4;
        case AddrOp::kGetBatchEvNotify: return 28;
        case AddrOp::kGetRTEvNotifyInfo: return 0;
        case AddrOp::kGetAddrCountOnIF: return 12;
        case AddrOp::kSetDbgInfo: return 8;
        case AddrOp::kGetDbgInfo: return 2;
        case AddrOp::kIncAddrGlobalEpoch: return 8;
        case AddrOp::kGetAddrGlobalEpoch: return 8;
        case AddrOp::kSelectSrcAddr: return 14;
        case AddrOp::kSetDrvMethod: return 8;
        case AddrOp::kGetLoopBackInfo: return 4;
        case AddrOp::kModMainIP: return 72;
        case AddrOp::kSearchGWAddr: return 10;
        case AddrOp::kSetNetProtocol: return 12;
        case AddrOp::kGetNetProtoBit: return 4;
        case AddrOp::kGetMaxAddrInVrf: return 10;
        case AddrOp::kAddVFWIP: return 12;
        case AddrOp::kDelVFWIP: return 12;
        case AddrOp::kGetMac: return 24;
        case AddrOp::kSetMacType: return 6;
        case AddrOp::kGetMatchAddrByIP: return 8;
        case AddrOp::kGetNextMatchAddrByIP: return 32;
        case AddrOp::kGetConflictAddr2CfgRecover: return 28;
    }
    return SIZE_MAX;
}

bool known(std::uint32_t op) {
    return op <= 39 && op != 10 && op != 19;
}

}  // namespace

std::size_t AddrModule::on_interface(std::uint32_t ifindex) const {
    return table_.count(ifindex, 0, kAnyVrf);
}

bool AddrModule::full(std::uint32_t ifindex) {
    if (!capacity_ || on_interface(ifindex) < *capacity_) return false;
    ++refused_;
    return true;
}

std::uint32_t AddrModule::add(const IPAddrInfo& info, const IPAddrInfo** other) {
    if (const IPAddrInfo* c = table_.conflict(info.stEntry)) {
        if (other != nullptr) *other = c;
        return kAddrConflict;
    }
    if (table_.find(info.stEntry.stKey.uiIfIndex, info.stEntry.stKey.uiAddr) == nullptr &&
        full(info.stEntry.stKey.uiIfIndex)) {
        return kNoResources;
    }
    table_.put(info);
    return kAddrOk;
}

std::uint32_t AddrModule::debug_word(std::uint16_t node, std::uint16_t item) const {
    const auto it = debug_.find({node, item});
    return it == debug_.end() ? 0 : it->second;
}

std::uint32_t AddrModule::handle(std::uint16_t node, std::span<const std::uint8_t> request,
                                 std::span<std::uint8_t> reply, std::uint32_t* returned) {
    *returned = 0;
    Reader r(request.data(), request.size());
    const std::uint32_t op_word = r.be<std::uint32_t>();
    const std::uint32_t len = r.be<std::uint32_t>();
    if (!r.ok() || !known(op_word) || len != r.remaining() || len != payload_len(static_cast<AddrOp>(op_word))) {
        return kAddrFailure;
    }
    Writer w(reply);
    auto done = [&](std::uint32_t status) {
        *returned = w.ok() ? static_cast<std::uint32_t>(w.size()) : 0;
        return w.ok() ? status : kAddrFailure;
    };
    auto entry_or_fail = [&](const IPAddrInfo* rec) {
        if (rec == nullptr) return kAddrFailure;
        write_entry(w, rec->stEntry);
        return done(kAddrOk);
    };

    switch (static_cast<AddrOp>(op_word)) {
        case AddrOp::kAddIP: return add(read_info(r));
        case AddrOp::kDelIP: {
            const IPAddrKey k = read_key(r);
            return table_.remove(k.uiIfIndex, k.uiAddr) ? kAddrOk : kAddrFailure;
        }
        case AddrOp::kLookupAddr: {
            const IPAddrEntry e = read_entry(r);
            const IPAddrKey& k = e.stKey;
            const IPAddrInfo* rec = nullptr;
            if (k.uiIfIndex != kAnyIf) {
                rec = table_.find(k.uiIfIndex, k.uiAddr);
                if (rec != nullptr && k.usVrfIndex != kAnyVrf && rec->stEntry.stKey.usVrfIndex != k.usVrfIndex) {
                    rec = nullptr;
                }
            } else {
                rec = table_.by_ip(k.uiAddr, k.usVrfIndex, 0, false);
            }
            if (rec != nullptr && k.uiMethod != 0 && (rec->stEntry.stKey.uiMethod & k.uiMethod) == 0) rec = nullptr;
            if (rec == nullptr) return kAddrFailure;
            write_info(w, *rec);
            return done(kAddrOk);
        }
        case AddrOp::kGetConflictAddr:
        case AddrOp::kGetConflictAddr2CfgRecover: {
            const IPAddrEntry e = read_entry(r);
            const IPAddrInfo* c = table_.conflict(e);
            write_entry(w, c != nullptr ? c->stEntry : e);
            return done(c != nullptr ? kAddrConflict : kAddrOk);
        }
        case AddrOp::kGetMatchAddr: {
            const IPAddrEntry key = read_entry(r);
            const std::uint32_t wanted = r.be<std::uint32_t>();
            const std::size_t limit = std::min<std::size_t>(wanted, reply.size() / sizeof(IPAddrEntry));
            for (const IPAddrInfo* rec : table_.match(key, limit)) write_entry(w, rec->stEntry);
            return done(kAddrOk);
        }
        case AddrOp::kGetMatchAddrNum: {
            w.be(static_cast<std::uint32_t>(table_.match_count(read_entry(r))));
            return done(kAddrOk);
        }
        case AddrOp::kGetMatchBestNet: return entry_or_fail(table_.best_net(read_entry(r)));
        case AddrOp::kGetNextAddrOnIf: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            const std::uint32_t mode = r.be<std::uint32_t>();
            const IPAddrKey k = read_key(r);
            const IPAddrInfo* rec = table_.next(ifindex, mask, mode == 1, k.uiIfIndex, k.uiAddr);
            if (rec == nullptr) return kAddrFailure;
            write_info(w, *rec);
            return done(kAddrOk);
        }
        case AddrOp::kGetPriorAddrOnIf: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            return entry_or_fail(table_.prior(ifindex, r.be<std::uint32_t>()));
        }
        case AddrOp::kGetFwdAddrInVrf: {
            const std::uint16_t vrf = r.be<std::uint16_t>();
            const IPAddrInfo* found = nullptr;
            table_.each([&](const IPAddrInfo& rec) {
                const auto* itf = device_.interface(rec.stEntry.stKey.uiIfIndex);
                if (found == nullptr && rec.stEntry.stKey.usVrfIndex == vrf && itf != nullptr &&
                    itf->type == kTypeLoopback) {
                    found = &rec;
                }
            });
            return entry_or_fail(found != nullptr ? found : table_.first_in_vrf(vrf, 0));
        }
        case AddrOp::kGetNextAddrInVrf: {
            const std::uint32_t mask = r.be<std::uint32_t>();
            const std::uint16_t vrf = r.be<std::uint16_t>();
            return entry_or_fail(table_.next_in_vrf(vrf, mask, read_entry(r)));
        }
        case AddrOp::kSetCfgMethod:
        case AddrOp::kClearCfgMethod: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t bits = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr) return kAddrFailure;
            IfSettings& s = table_.settings(ifindex);
            s.cfg_methods = static_cast<AddrOp>(op_word) == AddrOp::kSetCfgMethod ? (s.cfg_methods | bits) : (s.cfg_methods & ~bits);
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case AddrOp::kGetIFMethod: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr) return kAddrFailure;
            w.be(table_.methods_on(ifindex));
            return done(kAddrOk);
        }
        case AddrOp::kGetBatchAddrOnIF:
        case AddrOp::kGetBatchEvNotify: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            const IPAddrKey k = read_key(r);
            const bool events = static_cast<AddrOp>(op_word) == AddrOp::kGetBatchEvNotify;
            const std::size_t rec_len = events ? 40 : sizeof(IPAddrInfo);
            bool last = true;
            const std::uint32_t start_if = (k.uiAddr == 0 && k.usVrfIndex == kAnyVrf) ? 0 : k.uiIfIndex;
            for (const IPAddrInfo* rec : table_.after(ifindex, mask, start_if, k.uiAddr, reply.size() / rec_len, &last)) {
                if (events) {
                    w.be(std::uint32_t{1}).be(table_.epoch()).be(static_cast<std::uint32_t>(node));
                    write_entry(w, rec->stEntry);
                } else {
                    write_info(w, *rec);
                }
            }
            return done(last ? kAddrLastBatch : kAddrOk);
        }
        case AddrOp::kGetNextIf: {
            const std::uint32_t next = table_.next_interface(r.be<std::uint32_t>());
            if (next == 0) return kAddrFailure;
            w.be(next);
            return done(kAddrOk);
        }
        case AddrOp::kGetRTEvNotifyInfo: {
            std::uint32_t interfaces = 0;
            for (std::uint32_t i = table_.next_interface(0); i != 0; i = table_.next_interface(i)) ++interfaces;
            w.be(table_.epoch()).be(static_cast<std::uint32_t>(table_.size())).be(interfaces);
            return done(kAddrOk);
        }
        case AddrOp::kGetAddrCountOnIF: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            const std::uint32_t vrf = r.be<std::uint32_t>();
            w.be(table_.count(ifindex, mask, static_cast<std::uint16_t>(vrf > 0xFFFF ? kAnyVrf : vrf)));
            return done(kAddrOk);
        }
        case AddrOp::kSetDbgInfo: {
            const std::uint16_t item = r.be<std::uint16_t>();
            const std::uint16_t how = r.be<std::uint16_t>();
            const std::uint32_t word = r.be<std::uint32_t>();
            std::uint32_t& v = debug_[{node, item}];
            switch (how) {
                case 0: v = word; break;
                case 1: v |= word; break;
                case 2: v &= ~word; break;
                default: return kAddrFailure;
            }
            return kAddrOk;
        }
        case AddrOp::kGetDbgInfo: {
            w.be(debug_word(node, r.be<std::uint16_t>()));
            return done(kAddrOk);
        }
        case AddrOp::kIncAddrGlobalEpoch: table_.bump_epoch(); return kAddrOk;
        case AddrOp::kGetAddrGlobalEpoch: {
            w.be(static_cast<std::uint8_t>(table_.epoch() & 0xFF));
            return done(kAddrOk);
        }
        case AddrOp::kSelectSrcAddr: {
            std::uint32_t dst = 0, want = 0;
            r.raw_into(&dst, 4);
            const std::uint16_t vrf = r.be<std::uint16_t>();
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            r.raw_into(&want, 4);
            const bool any_if = ifindex == 0 || ifindex == kAnyIf;
            const IPAddrInfo* src = nullptr;
            if (want != 0) {
                src = any_if ? table_.by_ip(want, vrf, 0, false) : table_.find(ifindex, want);
            }
            if (src == nullptr) {
                IPAddrEntry key{};
                key.stKey.usVrfIndex = any_if ? vrf : kAnyVrf;
                key.stKey.uiIfIndex = any_if ? kAnyIf : ifindex;
                key.stKey.uiAddr = dst;
                src = table_.best_net(key);
            }
            if (src == nullptr && !any_if) src = table_.prior(ifindex, 0);
            if (src == nullptr) return kAddrFailure;
            w.raw(&src->stEntry.stKey.uiAddr, 4);
            return done(kAddrOk);
        }
        case AddrOp::kSetDrvMethod: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t method = r.be<std::uint32_t>();
            if (!device_.serves(node, ifindex)) return kAddrFailure;
            table_.settings(ifindex).drv_method = method;
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case AddrOp::kGetLoopBackInfo: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            if (!device_.serves(node, ifindex)) return kAddrFailure;
            w.be(static_cast<std::uint16_t>(device_.interface(ifindex)->type == kTypeLoopback ? 1 : 0));
            return done(kAddrOk);
        }
        case AddrOp::kModMainIP: {
            const IPAddrKey old = read_key(r);
            IPAddrInfo next = read_info(r);
            const IPAddrInfo* was = table_.find(old.uiIfIndex, old.uiAddr);
            if (was == nullptr) return kAddrFailure;
            const IPAddrInfo* c = table_.conflict(next.stEntry);
            if (c != nullptr && !(c->stEntry.stKey.uiIfIndex == old.uiIfIndex && c->stEntry.stKey.uiAddr == old.uiAddr)) {
                return kAddrConflict;
            }
            table_.remove(old.uiIfIndex, old.uiAddr);
            next.stEntry.uiFlag &= ~kFlagSub;
            table_.put(next);
            return kAddrOk;
        }
        case AddrOp::kSearchGWAddr: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            std::uint32_t gw = 0;
            r.raw_into(&gw, 4);
            return entry_or_fail(table_.gateway(ifindex, gw, r.be<std::uint16_t>()));
        }
        case AddrOp::kSetNetProtocol: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t bits = r.be<std::uint32_t>();
            const std::uint32_t action = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr || (action != 1 && action != 2)) return kAddrFailure;
            IfSettings& s = table_.settings(ifindex);
            s.net_proto = action == 1 ? (s.net_proto | bits) : (s.net_proto & ~bits);
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case AddrOp::kGetNetProtoBit: {
            const IfSettings* s = table_.find_settings(r.be<std::uint32_t>());
            w.be(s != nullptr ? s->net_proto : 0u);
            return done(kAddrOk);
        }
        case AddrOp::kGetMaxAddrInVrf: {
            const std::uint16_t vrf = r.be<std::uint16_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            return entry_or_fail(table_.max_in_vrf(vrf, mask, r.be<std::uint32_t>()));
        }
        case AddrOp::kAddVFWIP: {
            const std::uint32_t id = r.be<std::uint32_t>();
            std::uint32_t addr = 0;
            r.raw_into(&addr, 4);
            vfw_[id] = {r.be<std::uint16_t>(), addr};
            table_.bump_epoch();
            return kAddrOk;
        }
        case AddrOp::kDelVFWIP: {
            const bool gone = vfw_.erase(r.be<std::uint32_t>()) != 0;
            if (gone) table_.bump_epoch();
            return gone ? kAddrOk : kAddrFailure;
        }
        case AddrOp::kGetMac: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            (void)r.be<std::uint16_t>();
            const std::uint16_t presence = r.be<std::uint16_t>();
            (void)r.raw(4);
            std::uint32_t addr = 0;
            r.raw_into(&addr, 4);
            const auto* itf = device_.interface(ifindex);
            if (itf == nullptr) return kAddrFailure;
            if (presence == 1 && table_.find(ifindex, addr) == nullptr) return kAddrFailure;
            const IfSettings* s = table_.find_settings(ifindex);
            w.raw(itf->mac, 6).be(static_cast<std::uint32_t>(s != nullptr ? s->mac_type : 0));
            return done(kAddrOk);
        }
        case AddrOp::kSetMacType: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr) return kAddrFailure;
            table_.settings(ifindex).mac_type = r.be<std::uint16_t>();
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case AddrOp::kGetMatchAddrByIP: {
            const std::uint32_t word = r.be<std::uint32_t>();
            std::uint32_t addr = 0;
            r.raw_into(&addr, 4);
            return entry_or_fail(table_.by_ip(addr, static_cast<std::uint16_t>(word > 0xFFFF ? kAnyVrf : word), 0, false));
        }
        case AddrOp::kGetNextMatchAddrByIP: {
            const std::uint32_t word = r.be<std::uint32_t>();
            const IPAddrEntry pos = read_entry(r);
            return entry_or_fail(table_.by_ip(pos.stKey.uiAddr, static_cast<std::uint16_t>(word > 0xFFFF ? kAnyVrf : word),
                                              pos.stKey.uiIfIndex, true));
        }
    }
    return kAddrFailure;
}

// The module's table: its command, and the addresses and settings it keeps.
const KernelModuleOps kAddrModuleOps{
    .name = "addr",
    .serves = [](std::uint32_t command) { return command == AddrModule::kCommand; },
    .handle = [](Context& ctx, const KernelCall& call) {
        return ctx.addr_module.handle(call.node, call.request, call.reply, call.returned);
    },
    .restore = [](Context& ctx) { return ctx.addr_module.restore(ctx.store); },
};

}  // namespace sim
