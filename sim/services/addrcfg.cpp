// The address configuration service and address control socket, port 1653 of each node.
//
// Two kinds of client meet here. Configuration clients send one request of kind 0
// ([BE32 0][BE32 length][BE32 message type][BE32 body length][body]) and read one answer:
//   [BE32 1][BE32 12][BE32 result][BE32 value][BE16 VRF][2 zero bytes]
// where value is, after an address change, the interface's number of addresses (or on a
// conflict the index of the interface that holds the other address), and VRF the
// interface's VRF. Control sockets of the address library send messages [BE32 op][BE32
// length][payload]: address changes (op 2), address flags (3), acknowledgements (4),
// smooth phases (5), net protocol (8) and interface-configuration requests (op 1); the
// answers to ops 2, 3 and 8 are [BE32 1][BE32 4][BE32 result].
//
// Meanings the service gives to the words the library only forwards:
//  - the fourth argument of a manual or backup address: bit 0 marks a sub address; it is
//    kept in uiInfo1; the fifth argument of a backup address in uiInfo2;
//  - address flag (op 3): the caller word is the interface index; the method bit is
//    switched on (value non-zero) or off for the interface;
//  - smooth phase (op 5): the first word is a method mask; at the start every address with
//    such a method (on the interface of the second word, 0 all) is marked; an add of the
//    same address clears the mark; at the end the marked addresses are deleted;
//  - net protocol (op 8): interface index, protocol bits, action;
//  - interface-configuration records [A][B][C][D]: A interface index, B the new value,
//    C what changed (1 methods, 2 unnumbered interface, 3 negotiation, 4 cellular,
//    5 number of addresses), D the interface's VRF.
#include <array>
#include <set>
#include <utility>

#include "core/log.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/kmod_addr.hpp"
#include "ipproto/svc_addr.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

using namespace ipc::proto::addr_svc;  // operations and sub-operations of the service

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kNoWait = 0x40;

// One interface-configuration record in a control-socket message: [BE32 0][BE32 24]
// [BE32 1 records][BE32 16][A][B][C][BE16 D][2 zero bytes].
constexpr std::size_t kIfCfgMessageLen = 32;
std::span<const std::uint8_t> ifcfg_message(std::array<std::uint8_t, kIfCfgMessageLen>& out, std::uint32_t a,
                                            std::uint32_t b, std::uint32_t c, std::uint16_t d) {
    ipc::wire::Writer w(out);
    w.be(std::uint32_t{0}).be(std::uint32_t{24}).be(std::uint32_t{1}).be(std::uint32_t{16});
    w.be(a).be(b).be(c).be(d).be(std::uint16_t{0});
    return w.bytes();
}

enum IfCfgWhat : std::uint32_t {
    kMethods = kIfCfgMethods,
    kUnnumbered = kIfCfgUnnumbered,
    kNego = kIfCfgNego,
    kCellular = kIfCfgCellular,
    kAddrCount = kIfCfgAddrCount,
};

// Acquisition methods of a configuration request and the method bits they switch.
std::uint32_t method_bits(std::uint32_t method) {
    switch (method) {
        case 3: return 4;   // DHCP
        case 4: return 8;   // BOOTP
        case 6: return 4;   // DHCP auto-configuration
        default: return 0;
    }
}

}  // namespace

class AddrCfgConn : public StoringConn {
public:
    AddrCfgConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : StoringConn(ctx.store, loop, fd, where, pid), ctx_(ctx) {}
    ~AddrCfgConn() override { ctx_.ifcfg_subscribers.erase(this); }

    void push_ifcfg(std::span<const std::uint8_t> msg) {
        capture_lipc(ctx_, *this, "event", msg, {{"type", "interface-configuration"}});
        send(msg);
    }

protected:
    void request(std::span<const std::uint8_t> msg) override {
        ipc::wire::Reader r(msg.data(), msg.size());
        const std::uint32_t op = r.be<std::uint32_t>();
        const std::uint32_t len = r.be<std::uint32_t>();
        if (!r.ok() || len != r.remaining()) {
            capture_lipc(ctx_, *this, "request", msg, {{"error", "length disagrees"}});
            return answer_control(kFailure);
        }
        switch (static_cast<Op>(op)) {
            case Op::kConfig: return config_request(r, msg);
            case Op::kIfCfg: return ifcfg_request(r, msg);
            case Op::kAddrChange: return address_change(r, msg);
            case Op::kAddrFlag: return address_flag(r, msg);
            case Op::kAck: return capture_lipc(ctx_, *this, "request", msg, {{"op", "acknowledgement"}});
            case Op::kSmooth: return smooth(r, msg);
            case Op::kNetProtocol: return net_protocol(r, msg);
            default:
                capture_lipc(ctx_, *this, "request", msg, {{"error", "unknown operation"}});
                return answer_control(kFailure);
        }
    }

private:
    void answer_control(std::uint32_t result) {
        result = stored(result);
        std::uint8_t out[12];
        ipc::wire::Writer w(out);
        w.be(std::uint32_t{1}).be(std::uint32_t{4}).be(result);
        capture_lipc(ctx_, *this, "answer", w.bytes(), {{"result", result}});
        send(w.bytes());
    }

    void answer_config(std::uint32_t result, std::uint32_t value, std::uint16_t vrf) {
        result = stored(result);
        std::uint8_t out[20];
        ipc::wire::Writer w(out);
        w.be(std::uint32_t{1}).be(std::uint32_t{12}).be(result).be(value).be(vrf).be(std::uint16_t{0});
        capture_lipc(ctx_, *this, "answer", w.bytes(), {{"result", result}, {"value", value}, {"vrf", vrf}});
        send(w.bytes());
    }

    bool writes_through() const { return ctx_.mirror != nullptr && ctx_.mirror->writable(); }

    std::uint16_t vrf_of(std::uint32_t ifindex) const {
        const auto* itf = ctx_.device.interface(ifindex);
        return itf != nullptr ? itf->vrf : 0;
    }

    void ifcfg_changed(std::uint32_t ifindex, IfCfgWhat what, std::uint32_t value) {
        ctx_.addrs.settings_changed(ifindex);
        publish_ifcfg(ctx_, ifindex, value, what, vrf_of(ifindex));
    }

    // Adds an address for a configuration request or a control socket.
    std::uint32_t add_address(IPAddrInfo info, std::uint32_t* value) {
        const std::uint32_t ifindex = info.stEntry.stKey.uiIfIndex;
        const auto* itf = ctx_.device.interface(ifindex);
        if (itf == nullptr || info.stEntry.stKey.uiAddr == 0 || info.stEntry.stKey.uiMask == 0) return kFailure;
        // An interface that holds as many addresses as its limit allows takes no new one; the
        // mirrored system is not touched.
        if (ctx_.addrs.find(ifindex, info.stEntry.stKey.uiAddr) == nullptr && ctx_.addr_module.full(ifindex)) {
            return kNoResources;
        }
        // A conflict the device refuses is refused before the mirrored system is touched.
        if (ctx_.addrs.find(ifindex, info.stEntry.stKey.uiAddr) == nullptr) {
            if (const IPAddrInfo* c = ctx_.addrs.conflict(info.stEntry)) {
                if (value != nullptr) *value = c->stEntry.stKey.uiIfIndex;
                return kAddrConflict;
            }
        }
        // A writable mirrored system carries the change out first; what it refuses is refused.
        // Should the request not be stored after all, the system's change is taken back.
        if (writes_through()) {
            if (ctx_.mirror->add_address(info) != 0) return kFailure;
            ctx_.store.on_rollback([m = ctx_.mirror, info] {
                (void)m->delete_address(info.stEntry.stKey.uiIfIndex, info.stEntry.stKey.uiAddr, info.stEntry.stKey.uiMask);
            });
        }
        unmark(ifindex, info.stEntry.stKey.uiAddr);
        // A main address replaces the interface's main address of the same method.
        const bool sub = (info.stEntry.uiFlag & kFlagSub) != 0;
        const IPAddrInfo* other = nullptr;
        const IPAddrInfo* existing = ctx_.addrs.find(ifindex, info.stEntry.stKey.uiAddr);
        std::uint32_t status = kOk;
        if (existing == nullptr) {
            status = ctx_.addr_module.add(info, &other);
            if (status != kOk) {
                if (writes_through()) {
                    (void)ctx_.mirror->delete_address(ifindex, info.stEntry.stKey.uiAddr, info.stEntry.stKey.uiMask);
                }
                if (value != nullptr && other != nullptr) *value = other->stEntry.stKey.uiIfIndex;
                return status;
            }
        } else {
            ctx_.addrs.put(info);
        }
        if (!sub) {
            std::vector<std::uint32_t> replaced;
            ctx_.addrs.each([&](const IPAddrInfo& rec) {
                const IPAddrKey& k = rec.stEntry.stKey;
                if (k.uiIfIndex == ifindex && k.uiAddr != info.stEntry.stKey.uiAddr &&
                    (rec.stEntry.uiFlag & kFlagSub) == 0 && k.uiMethod == info.stEntry.stKey.uiMethod) {
                    replaced.push_back(k.uiAddr);
                }
            });
            for (const std::uint32_t a : replaced) {
                const IPAddrInfo* old = ctx_.addrs.find(ifindex, a);
                if (writes_through() && old != nullptr &&
                    ctx_.mirror->delete_address(ifindex, a, old->stEntry.stKey.uiMask) == 0) {
                    ctx_.store.on_rollback([m = ctx_.mirror, gone = *old] { (void)m->add_address(gone); });
                }
                ctx_.addrs.remove(ifindex, a);
            }
        }
        if (value != nullptr) *value = ctx_.addrs.count(ifindex, 0, kAnyVrf);
        publish_ifcfg(ctx_, ifindex, ctx_.addrs.count(ifindex, 0, kAnyVrf), kAddrCount, vrf_of(ifindex));
        return kOk;
    }

    std::uint32_t delete_address(std::uint32_t ifindex, std::uint32_t addr, std::uint32_t* value) {
        const IPAddrInfo* had = ctx_.addrs.find(ifindex, addr);
        if (had != nullptr && writes_through()) {
            if (ctx_.mirror->delete_address(ifindex, addr, had->stEntry.stKey.uiMask) != 0) return kFailure;
            ctx_.store.on_rollback([m = ctx_.mirror, gone = *had] { (void)m->add_address(gone); });
        }
        if (!ctx_.addrs.remove(ifindex, addr)) return kFailure;
        if (value != nullptr) *value = ctx_.addrs.count(ifindex, 0, kAnyVrf);
        publish_ifcfg(ctx_, ifindex, ctx_.addrs.count(ifindex, 0, kAnyVrf), kAddrCount, vrf_of(ifindex));
        return kOk;
    }

    void config_request(ipc::wire::Reader& r, std::span<const std::uint8_t> msg) {
        const std::uint32_t type = r.be<std::uint32_t>();
        const std::uint32_t body_len = r.be<std::uint32_t>();
        if (!r.ok() || body_len != r.remaining()) {
            capture_lipc(ctx_, *this, "request", msg, {{"error", "body length disagrees"}});
            return answer_config(kFailure, 0, 0);
        }
        if (type == 2) {  // debug setting: kept nowhere but the capture
            capture_lipc(ctx_, *this, "request", msg, {{"request", "debug"}});
            return answer_config(body_len == 8 ? kOk : kFailure, 0, 0);
        }
        if (type == 3) {  // unnumbered-interface query
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const IfSettings* s = ctx_.addrs.find_settings(ifindex);
            capture_lipc(ctx_, *this, "request", msg, {{"request", "unnumbered query"}, {"ifindex", ifindex}});
            return answer_config(r.ok() && body_len == 4 ? (s != nullptr ? s->unnumbered : 0) : kFailure, 0, 0);
        }
        if (type != 1 || body_len < 8) {
            capture_lipc(ctx_, *this, "request", msg, {{"error", "unknown message type"}});
            return answer_config(kFailure, 0, 0);
        }
        const std::uint16_t code = r.be<std::uint16_t>();
        (void)r.be<std::uint16_t>();
        std::uint32_t value = 0;
        std::uint32_t result = kFailure;
        std::uint32_t ifindex = 0;
        nlohmann::json fields{{"request", "configuration"}, {"code", code}};
        if ((code == 1 || code == 2 || code == 13 || code == 14) && body_len == 28) {
            (void)r.be<std::uint32_t>();
            ifindex = r.be<std::uint32_t>();
            IPAddrInfo info{};
            info.stEntry.stKey.uiIfIndex = ifindex;
            r.raw_into(&info.stEntry.stKey.uiAddr, 4);
            r.raw_into(&info.stEntry.stKey.uiMask, 4);
            const std::uint32_t fourth = r.be<std::uint32_t>();
            const std::uint32_t fifth = r.be<std::uint32_t>();
            info.stEntry.stKey.usVrfIndex = vrf_of(ifindex);
            info.stEntry.stKey.uiMethod = 1;
            info.stEntry.uiFlag = (fourth & 1u) != 0 ? kFlagSub : 0;
            info.uiInfo1 = fourth;
            info.uiInfo2 = code >= 13 ? fifth : 0;
            fields["ifindex"] = ifindex;
            result = (code == 1 || code == 13) ? add_address(info, &value)
                                               : delete_address(ifindex, info.stEntry.stKey.uiAddr, &value);
        } else if ((code == 11 || code == 12) && body_len == 16) {
            ifindex = r.be<std::uint32_t>();
            std::uint32_t addr = 0;
            r.raw_into(&addr, 4);
            const std::uint16_t third = r.be<std::uint16_t>();
            fields["ifindex"] = ifindex;
            if (ctx_.device.interface(ifindex) != nullptr) {
                IfSettings& s = ctx_.addrs.settings(ifindex);
                if (code == 11) {
                    s.contexts.emplace_back(addr, third);
                } else {
                    s.contexts.clear();
                }
                ctx_.addrs.settings_changed(ifindex);
                result = kOk;
            }
        } else if ((code == 7 || code == 8) && body_len == 12) {
            ifindex = r.be<std::uint32_t>();
            const std::uint32_t method = r.be<std::uint32_t>();
            fields["ifindex"] = ifindex;
            fields["method"] = method;
            const std::uint32_t bits = method_bits(method);
            if (ctx_.device.interface(ifindex) != nullptr && bits != 0) {
                IfSettings& s = ctx_.addrs.settings(ifindex);
                s.cfg_methods = code == 7 ? (s.cfg_methods | bits) : (s.cfg_methods & ~bits);
                if (method == 6) s.autocfg = code == 7 ? 1 : 0;
                ifcfg_changed(ifindex, kMethods, s.cfg_methods);
                result = kOk;
            }
        } else if ((code == 9 || code == 10 || code == 5 || code == 6) && body_len == 8) {
            ifindex = r.be<std::uint32_t>();
            fields["ifindex"] = ifindex;
            if (ctx_.device.interface(ifindex) != nullptr) {
                IfSettings& s = ctx_.addrs.settings(ifindex);
                if (code == 9 || code == 10) {
                    s.cellular = code == 9 ? 1 : 0;
                    ifcfg_changed(ifindex, kCellular, s.cellular);
                } else {
                    s.nego = code == 6 ? 1 : 0;
                    ifcfg_changed(ifindex, kNego, s.nego);
                }
                result = kOk;
            }
        } else if ((code == 3 || code == 4) && body_len == 12) {
            ifindex = r.be<std::uint32_t>();
            const std::uint32_t borrowed = r.be<std::uint32_t>();
            fields["ifindex"] = ifindex;
            if (ctx_.device.interface(ifindex) != nullptr &&
                (code == 3 || ctx_.device.interface(borrowed) != nullptr)) {
                IfSettings& s = ctx_.addrs.settings(ifindex);
                s.unnumbered = code == 4 ? borrowed : 0;
                ifcfg_changed(ifindex, kUnnumbered, s.unnumbered);
                result = kOk;
            }
        } else {
            fields["error"] = "unknown operation or length";
        }
        capture_lipc(ctx_, *this, "request", msg, std::move(fields));
        answer_config(result, value, vrf_of(ifindex));
    }

    void ifcfg_request(ipc::wire::Reader& r, std::span<const std::uint8_t> msg) {
        const std::uint32_t sub = r.be<std::uint32_t>();
        const std::uint32_t vlen = r.be<std::uint32_t>();
        capture_lipc(ctx_, *this, "request", msg, {{"op", "interface-configuration"}, {"sub", sub}});
        if (!r.ok() || vlen != r.remaining()) return close();
        switch (sub) {
            case kIfCfgRegister: ctx_.ifcfg_subscribers.insert(this); return;
            case kIfCfgDeregister: ctx_.ifcfg_subscribers.erase(this); return;
            case kIfCfgBatch: return replay_ifcfg();
            case kIfCfgKeepAliveAnswer: return;
            default: return close();
        }
    }

    void replay_ifcfg() {
        for (const auto& [ifindex, s] : ctx_.addrs.all_settings()) {
            push_record(ifindex, s.cfg_methods, kMethods);
            if (s.unnumbered != 0) push_record(ifindex, s.unnumbered, kUnnumbered);
        }
        std::uint8_t end[16];
        ipc::wire::Writer w(end);
        w.be(std::uint32_t{0}).be(std::uint32_t{8}).be(std::uint32_t{3}).be(std::uint32_t{0});
        push_ifcfg(w.bytes());
    }

    void push_record(std::uint32_t a, std::uint32_t b, std::uint32_t c) {
        std::array<std::uint8_t, kIfCfgMessageLen> out;
        push_ifcfg(ifcfg_message(out, a, b, c, vrf_of(a)));
    }

    void address_change(ipc::wire::Reader& r, std::span<const std::uint8_t> msg) {
        const std::uint32_t action = r.be<std::uint32_t>();
        const std::uint32_t flags = r.be<std::uint32_t>();
        IPAddrInfo info{};
        r.raw_into(&info, sizeof info);
        ipc::proto::addr::to_host(&info);
        const std::uint16_t mad = r.be<std::uint16_t>();
        (void)r.raw(2);
        nlohmann::json fields{{"op", "address change"}, {"action", action}, {"flags", flags},
                              {"ifindex", info.stEntry.stKey.uiIfIndex}, {"mad", mad}};
        if (!r.ok() || r.remaining() != 0) {
            fields["error"] = "payload is not 64 bytes";
            capture_lipc(ctx_, *this, "request", msg, std::move(fields));
            return answer_control(kFailure);
        }
        capture_lipc(ctx_, *this, "request", msg, std::move(fields));
        std::uint32_t result = kFailure;
        if (action == 0) {
            if (info.stEntry.stKey.usVrfIndex == kAnyVrf) info.stEntry.stKey.usVrfIndex = vrf_of(info.stEntry.stKey.uiIfIndex);
            result = add_address(info, nullptr);
        } else if (action == 1) {
            result = delete_address(info.stEntry.stKey.uiIfIndex, info.stEntry.stKey.uiAddr, nullptr);
        }
        if ((flags & kNoWait) == 0) answer_control(result);
    }

    void address_flag(ipc::wire::Reader& r, std::span<const std::uint8_t> msg) {
        const std::uint32_t ifindex = r.be<std::uint32_t>();
        const std::uint32_t bit = r.be<std::uint32_t>();
        const std::uint32_t value = r.be<std::uint32_t>();
        capture_lipc(ctx_, *this, "request", msg, {{"op", "address flag"}, {"ifindex", ifindex}, {"bit", bit}});
        if (!r.ok() || r.remaining() != 0 || (bit != 4 && bit != 8) || ctx_.device.interface(ifindex) == nullptr) {
            return answer_control(kFailure);
        }
        IfSettings& s = ctx_.addrs.settings(ifindex);
        s.cfg_methods = value != 0 ? (s.cfg_methods | bit) : (s.cfg_methods & ~bit);
        ifcfg_changed(ifindex, kMethods, s.cfg_methods);
        answer_control(kOk);
    }

    void smooth(ipc::wire::Reader& r, std::span<const std::uint8_t> msg) {
        const std::uint32_t phase = r.be<std::uint32_t>();
        (void)r.be<std::uint32_t>();
        const std::uint32_t mask = r.be<std::uint32_t>();
        const std::uint32_t ifindex = r.be<std::uint32_t>();
        capture_lipc(ctx_, *this, "request", msg, {{"op", "smooth"}, {"phase", phase}, {"mask", mask}});
        if (!r.ok() || r.remaining() != 0) return close();
        if (phase == 1) {
            marked_.clear();
            ctx_.addrs.each([&](const IPAddrInfo& rec) {
                const IPAddrKey& k = rec.stEntry.stKey;
                if ((k.uiMethod & mask) != 0 && (ifindex == 0 || k.uiIfIndex == ifindex)) marked_.insert({k.uiIfIndex, k.uiAddr});
            });
        } else if (phase == 2) {
            for (const auto& [i, a] : marked_) delete_address(i, a, nullptr);
            marked_.clear();
        }
    }

    void unmark(std::uint32_t ifindex, std::uint32_t addr) { marked_.erase({ifindex, addr}); }

    void net_protocol(ipc::wire::Reader& r, std::span<const std::uint8_t> msg) {
        const std::uint32_t ifindex = r.be<std::uint32_t>();
        const std::uint32_t bits = r.be<std::uint32_t>();
        const std::uint32_t action = r.be<std::uint32_t>();
        capture_lipc(ctx_, *this, "request", msg, {{"op", "net protocol"}, {"ifindex", ifindex}, {"action", action}});
        if (!r.ok() || r.remaining() != 0 || (action != 1 && action != 2) || ctx_.device.interface(ifindex) == nullptr) {
            return answer_control(kFailure);
        }
        IfSettings& s = ctx_.addrs.settings(ifindex);
        s.net_proto = action == 1 ? (s.net_proto | bits) : (s.net_proto & ~bits);
        ctx_.addrs.settings_changed(ifindex);
        answer_control(kOk);
    }

    Context& ctx_;
    std::set<std::pair<std::uint32_t, std::uint32_t>> marked_;
};

void publish_ifcfg(Context& ctx, std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint16_t d) {
    // Sent once the request's change is stored; never for a change that was rolled back.
    ctx.store.after_commit([&ctx, a, b, c, d] {
        if (ctx.ifcfg_subscribers.empty()) return;
        std::array<std::uint8_t, kIfCfgMessageLen> out;
        const auto msg = ifcfg_message(out, a, b, c, d);
        const std::vector<AddrCfgConn*> subs(ctx.ifcfg_subscribers.begin(), ctx.ifcfg_subscribers.end());
        for (AddrCfgConn* s : subs) {
            if (ctx.ifcfg_subscribers.count(s) != 0) s->push_ifcfg(msg);
        }
    });
}

// A configuration request gets its answer with the status, value 0 and VRF 0; an address
// change, an address flag or a net protocol message the control answer; the rest have no
// answer, so nothing is sent.
void refuse_addrcfg(Conn& conn, std::span<const std::uint8_t> request, std::uint32_t status) {
    ipc::wire::Reader r(request.data(), request.size());
    const auto op = static_cast<Op>(r.be<std::uint32_t>());
    if (!r.ok()) return;
    std::uint8_t out[20];
    ipc::wire::Writer w(out);
    if (op == Op::kConfig) {
        w.be(std::uint32_t{1}).be(std::uint32_t{12}).be(status).be(std::uint32_t{0}).be(std::uint32_t{0});
    } else if (op == Op::kAddrChange || op == Op::kAddrFlag || op == Op::kNetProtocol) {
        w.be(std::uint32_t{1}).be(std::uint32_t{4}).be(status);
    } else {
        return;
    }
    conn.send(w.bytes());
}

std::unique_ptr<Conn> make_addrcfg_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<AddrCfgConn>(ctx, loop, fd, where, pid);
}

}  // namespace sim
