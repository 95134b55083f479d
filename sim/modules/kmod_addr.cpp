#include "modules/kmod_addr.hpp"

#include <cstring>

#include "ipproto/kmod_addr.hpp"
#include "ipproto/wire.hpp"

namespace sim {
namespace {

namespace codec = ipc::proto::addr;
using codec::Op;
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
constexpr std::size_t payload_len(Op op) {
    switch (op) {
        case Op::kAddIP: return 52;
        case Op::kDelIP: return 20;
        case Op::kLookupAddr: return 28;
        case Op::kGetConflictAddr: return 28;
        case Op::kGetMatchAddr: return 32;
        case Op::kGetMatchAddrNum: return 28;
        case Op::kGetMatchBestNet: return 28;
        case Op::kGetNextAddrOnIf: return 32;
        case Op::kGetPriorAddrOnIf: return 8;
        case Op::kGetFwdAddrInVrf: return 2;
        case Op::kGetNextAddrInVrf: return 34;
        case Op::kSetCfgMethod: return 8;
        case Op::kClearCfgMethod: return 8;
        case Op::kGetIFMethod: return 4;
        case Op::kGetBatchAddrOnIF: return 28;
        case Op::kGetNextIf: return 4;
        case Op::kGetBatchEvNotify: return 28;
        case Op::kGetRTEvNotifyInfo: return 0;
        case Op::kGetAddrCountOnIF: return 12;
        case Op::kSetDbgInfo: return 8;
        case Op::kGetDbgInfo: return 2;
        case Op::kIncAddrGlobalEpoch: return 8;
        case Op::kGetAddrGlobalEpoch: return 8;
        case Op::kSelectSrcAddr: return 14;
        case Op::kSetDrvMethod: return 8;
        case Op::kGetLoopBackInfo: return 4;
        case Op::kModMainIP: return 72;
        case Op::kSearchGWAddr: return 10;
        case Op::kSetNetProtocol: return 12;
        case Op::kGetNetProtoBit: return 4;
        case Op::kGetMaxAddrInVrf: return 10;
        case Op::kAddVFWIP: return 12;
        case Op::kDelVFWIP: return 12;
        case Op::kGetMac: return 24;
        case Op::kSetMacType: return 6;
        case Op::kGetMatchAddrByIP: return 8;
        case Op::kGetNextMatchAddrByIP: return 32;
        case Op::kGetConflictAddr2CfgRecover: return 28;
    }
    return SIZE_MAX;
}

bool known(std::uint32_t op) {
    return op <= 39 && op != 10 && op != 19;
}

}  // namespace

std::uint32_t AddrModule::add(const IPAddrInfo& info, const IPAddrInfo** other) {
    if (const IPAddrInfo* c = table_.conflict(info.stEntry)) {
        if (other != nullptr) *other = c;
        return kAddrConflict;
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
    if (!r.ok() || !known(op_word) || len != r.remaining() || len != payload_len(static_cast<Op>(op_word))) {
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

    switch (static_cast<Op>(op_word)) {
        case Op::kAddIP: return add(read_info(r));
        case Op::kDelIP: {
            const IPAddrKey k = read_key(r);
            return table_.remove(k.uiIfIndex, k.uiAddr) ? kAddrOk : kAddrFailure;
        }
        case Op::kLookupAddr: {
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
        case Op::kGetConflictAddr:
        case Op::kGetConflictAddr2CfgRecover: {
            const IPAddrEntry e = read_entry(r);
            const IPAddrInfo* c = table_.conflict(e);
            write_entry(w, c != nullptr ? c->stEntry : e);
            return done(c != nullptr ? kAddrConflict : kAddrOk);
        }
        case Op::kGetMatchAddr: {
            const IPAddrEntry key = read_entry(r);
            const std::uint32_t wanted = r.be<std::uint32_t>();
            const std::size_t limit = std::min<std::size_t>(wanted, reply.size() / sizeof(IPAddrEntry));
            for (const IPAddrInfo* rec : table_.match(key, limit)) write_entry(w, rec->stEntry);
            return done(kAddrOk);
        }
        case Op::kGetMatchAddrNum: {
            w.be(static_cast<std::uint32_t>(table_.match_count(read_entry(r))));
            return done(kAddrOk);
        }
        case Op::kGetMatchBestNet: return entry_or_fail(table_.best_net(read_entry(r)));
        case Op::kGetNextAddrOnIf: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            const std::uint32_t mode = r.be<std::uint32_t>();
            const IPAddrKey k = read_key(r);
            const IPAddrInfo* rec = table_.next(ifindex, mask, mode == 1, k.uiIfIndex, k.uiAddr);
            if (rec == nullptr) return kAddrFailure;
            write_info(w, *rec);
            return done(kAddrOk);
        }
        case Op::kGetPriorAddrOnIf: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            return entry_or_fail(table_.prior(ifindex, r.be<std::uint32_t>()));
        }
        case Op::kGetFwdAddrInVrf: {
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
        case Op::kGetNextAddrInVrf: {
            const std::uint32_t mask = r.be<std::uint32_t>();
            const std::uint16_t vrf = r.be<std::uint16_t>();
            return entry_or_fail(table_.next_in_vrf(vrf, mask, read_entry(r)));
        }
        case Op::kSetCfgMethod:
        case Op::kClearCfgMethod: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t bits = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr) return kAddrFailure;
            IfSettings& s = table_.settings(ifindex);
            s.cfg_methods = static_cast<Op>(op_word) == Op::kSetCfgMethod ? (s.cfg_methods | bits) : (s.cfg_methods & ~bits);
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case Op::kGetIFMethod: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr) return kAddrFailure;
            w.be(table_.methods_on(ifindex));
            return done(kAddrOk);
        }
        case Op::kGetBatchAddrOnIF:
        case Op::kGetBatchEvNotify: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            const IPAddrKey k = read_key(r);
            const bool events = static_cast<Op>(op_word) == Op::kGetBatchEvNotify;
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
        case Op::kGetNextIf: {
            const std::uint32_t next = table_.next_interface(r.be<std::uint32_t>());
            if (next == 0) return kAddrFailure;
            w.be(next);
            return done(kAddrOk);
        }
        case Op::kGetRTEvNotifyInfo: {
            std::uint32_t interfaces = 0;
            for (std::uint32_t i = table_.next_interface(0); i != 0; i = table_.next_interface(i)) ++interfaces;
            w.be(table_.epoch()).be(static_cast<std::uint32_t>(table_.size())).be(interfaces);
            return done(kAddrOk);
        }
        case Op::kGetAddrCountOnIF: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            const std::uint32_t vrf = r.be<std::uint32_t>();
            w.be(table_.count(ifindex, mask, static_cast<std::uint16_t>(vrf > 0xFFFF ? kAnyVrf : vrf)));
            return done(kAddrOk);
        }
        case Op::kSetDbgInfo: {
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
        case Op::kGetDbgInfo: {
            w.be(debug_word(node, r.be<std::uint16_t>()));
            return done(kAddrOk);
        }
        case Op::kIncAddrGlobalEpoch: table_.bump_epoch(); return kAddrOk;
        case Op::kGetAddrGlobalEpoch: {
            w.be(static_cast<std::uint8_t>(table_.epoch() & 0xFF));
            return done(kAddrOk);
        }
        case Op::kSelectSrcAddr: {
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
        case Op::kSetDrvMethod: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t method = r.be<std::uint32_t>();
            if (!device_.serves(node, ifindex)) return kAddrFailure;
            table_.settings(ifindex).drv_method = method;
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case Op::kGetLoopBackInfo: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            if (!device_.serves(node, ifindex)) return kAddrFailure;
            w.be(static_cast<std::uint16_t>(device_.interface(ifindex)->type == kTypeLoopback ? 1 : 0));
            return done(kAddrOk);
        }
        case Op::kModMainIP: {
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
        case Op::kSearchGWAddr: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            std::uint32_t gw = 0;
            r.raw_into(&gw, 4);
            return entry_or_fail(table_.gateway(ifindex, gw, r.be<std::uint16_t>()));
        }
        case Op::kSetNetProtocol: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint32_t bits = r.be<std::uint32_t>();
            const std::uint32_t action = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr || (action != 1 && action != 2)) return kAddrFailure;
            IfSettings& s = table_.settings(ifindex);
            s.net_proto = action == 1 ? (s.net_proto | bits) : (s.net_proto & ~bits);
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case Op::kGetNetProtoBit: {
            const IfSettings* s = table_.find_settings(r.be<std::uint32_t>());
            w.be(s != nullptr ? s->net_proto : 0u);
            return done(kAddrOk);
        }
        case Op::kGetMaxAddrInVrf: {
            const std::uint16_t vrf = r.be<std::uint16_t>();
            const std::uint32_t mask = r.be<std::uint32_t>();
            return entry_or_fail(table_.max_in_vrf(vrf, mask, r.be<std::uint32_t>()));
        }
        case Op::kAddVFWIP: {
            const std::uint32_t id = r.be<std::uint32_t>();
            std::uint32_t addr = 0;
            r.raw_into(&addr, 4);
            vfw_[id] = {r.be<std::uint16_t>(), addr};
            table_.bump_epoch();
            return kAddrOk;
        }
        case Op::kDelVFWIP: {
            const bool gone = vfw_.erase(r.be<std::uint32_t>()) != 0;
            if (gone) table_.bump_epoch();
            return gone ? kAddrOk : kAddrFailure;
        }
        case Op::kGetMac: {
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
        case Op::kSetMacType: {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            if (device_.interface(ifindex) == nullptr) return kAddrFailure;
            table_.settings(ifindex).mac_type = r.be<std::uint16_t>();
            table_.settings_changed(ifindex);
            return kAddrOk;
        }
        case Op::kGetMatchAddrByIP: {
            const std::uint32_t word = r.be<std::uint32_t>();
            std::uint32_t addr = 0;
            r.raw_into(&addr, 4);
            return entry_or_fail(table_.by_ip(addr, static_cast<std::uint16_t>(word > 0xFFFF ? kAnyVrf : word), 0, false));
        }
        case Op::kGetNextMatchAddrByIP: {
            const std::uint32_t word = r.be<std::uint32_t>();
            const IPAddrEntry pos = read_entry(r);
            return entry_or_fail(table_.by_ip(pos.stKey.uiAddr, static_cast<std::uint16_t>(word > 0xFFFF ? kAnyVrf : word),
                                              pos.stKey.uiIfIndex, true));
        }
    }
    return kAddrFailure;
}

}  // namespace sim
