#include "services/adjacency.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <set>
#include <vector>

#include "context.hpp"
#include "control/args.hpp"
#include "core/log.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

using ipc::wire::Reader;
using ipc::wire::Writer;

using namespace ipc::proto::adj;  // message head, event types and the record header
constexpr std::size_t kHeader = kMsgHeadLen;
constexpr std::size_t kDatagram = kDatagramMax;
namespace adj4 = ipc::proto::adj4;
namespace adj6 = ipc::proto::adj6;

// What a message asks of the service.
enum class Op : std::uint8_t {
    kSubscribe, kConcernAdd, kConcernDel, kBatchAll, kBatchVsi, kBatchAc, kBatchVlan, kBatchIf,
    kRefresh, kDelete, kSmoothStart, kSmoothEnd, kOpenFlowSmooth, kVerify, kRoaming, kQuery,
};

struct MsgRoute {
    std::uint8_t type;
    Op op;
    std::int8_t table;  // index into the family's tables, -1 none
};

// Tables of each family, in the order of AdjState::tables.
constexpr TableShape kV4Tables[] = {
    {"openflow", 40, {{{0, 4}, {4, 4}, {}}}, {}, {}},
    {"rules", 52, {{{0, 4}, {4, 4}, {29, 1}}}, {29, 1}, {2, 1}},
    {"vsi-suppression", 32, {{{0, 4}, {8, 4}, {}}}, {28, 1}, {0, 1}},
    {"vlan-suppression", 16, {{{0, 4}, {8, 2}, {}}}, {}, {}},
};
constexpr TableShape kV6Tables[] = {
    {"openflow", 48, {{{0, 4}, {4, 16}, {}}}, {}, {}},
    {"rules", 64, {{{0, 16}, {16, 4}, {41, 1}}}, {41, 1}, {2, 1}},
    {"vsi-suppression", 44, {{{0, 4}, {8, 16}, {}}}, {40, 1}, {0, 1}},
};
constexpr std::int8_t kOpenFlow = 0, kRules = 1, kVsiSup = 2, kVlanSup = 3;

constexpr MsgRoute kV4Routes[] = {
    {adj4::kSubscribe, Op::kSubscribe, -1},
    {adj4::kAddConcerned, Op::kConcernAdd, -1},
    {adj4::kDelConcerned, Op::kConcernDel, -1},
    {adj4::kBatchReplay, Op::kBatchAll, -1},
    {adj4::kBatchByVsi, Op::kBatchVsi, -1},
    {adj4::kBatchByAc, Op::kBatchAc, -1},
    {adj4::kBatchByVlan, Op::kBatchVlan, -1},
    {adj4::kOpenFlowRefresh, Op::kRefresh, kOpenFlow},
    {adj4::kOpenFlowDelete, Op::kDelete, kOpenFlow},
    {adj4::kOpenFlowSmoothStart, Op::kSmoothStart, kOpenFlow},
    {adj4::kOpenFlowSmoothEnd, Op::kSmoothEnd, kOpenFlow},
    {adj4::kOpenFlowVerify, Op::kVerify, kOpenFlow},
    {adj4::kRuleRefresh, Op::kRefresh, kRules},
    {adj4::kRuleDelete, Op::kDelete, kRules},
    {adj4::kRuleSmoothStart, Op::kSmoothStart, kRules},
    {adj4::kRuleSmoothEnd, Op::kSmoothEnd, kRules},
    {adj4::kVsiRefresh, Op::kRefresh, kVsiSup},
    {adj4::kVsiDelete, Op::kDelete, kVsiSup},
    {adj4::kVsiSmoothStart, Op::kSmoothStart, kVsiSup},
    {adj4::kVsiSmoothEnd, Op::kSmoothEnd, kVsiSup},
    {adj4::kVlanRefresh, Op::kRefresh, kVlanSup},
    {adj4::kVlanDelete, Op::kDelete, kVlanSup},
    {adj4::kVlanSmoothStart, Op::kSmoothStart, kVlanSup},
    {adj4::kVlanSmoothEnd, Op::kSmoothEnd, kVlanSup},
    {adj4::kRoaming, Op::kRoaming, -1},
    {adj4::kSwitch, Op::kQuery, -1},
};
constexpr MsgRoute kV6Routes[] = {
    {adj6::kSubscribe, Op::kSubscribe, -1},
    {adj6::kAddConcerned, Op::kConcernAdd, -1},
    {adj6::kDelConcerned, Op::kConcernDel, -1},
    {adj6::kBatchReplay, Op::kBatchAll, -1},
    {adj6::kBatchByVsi, Op::kBatchVsi, -1},
    {adj6::kBatchByIf, Op::kBatchIf, -1},
    {adj6::kOpenFlowRefresh, Op::kRefresh, kOpenFlow},
    {adj6::kOpenFlowDelete, Op::kDelete, kOpenFlow},
    {adj6::kOpenFlowSmooth, Op::kOpenFlowSmooth, kOpenFlow},
    {adj6::kRuleRefresh, Op::kRefresh, kRules},
    {adj6::kRuleDelete, Op::kDelete, kRules},
    {adj6::kRuleSmoothStart, Op::kSmoothStart, kRules},
    {adj6::kRuleSmoothEnd, Op::kSmoothEnd, kRules},
    {adj6::kVsiRefresh, Op::kRefresh, kVsiSup},
    {adj6::kVsiDelete, Op::kDelete, kVsiSup},
    {adj6::kVsiSmoothStart, Op::kSmoothStart, kVsiSup},
    {adj6::kVsiSmoothEnd, Op::kSmoothEnd, kVsiSup},
    {adj6::kRoaming, Op::kRoaming, -1},
};

constexpr std::uint8_t kQueryVlanSuppression = adj4::kGetVlan;
constexpr std::uint8_t kOpenFlowSmoothStartCode = adj6::kSmoothStartMark, kOpenFlowSmoothEndCode = adj6::kSmoothEndMark;

const MsgRoute* route_of(bool v6, std::uint8_t type) {
    const std::span<const MsgRoute> routes = v6 ? std::span<const MsgRoute>(kV6Routes) : std::span<const MsgRoute>(kV4Routes);
    const auto it = std::find_if(routes.begin(), routes.end(), [&](const MsgRoute& r) { return r.type == type; });
    return it == routes.end() ? nullptr : &*it;
}

// One event record of an entry, in wire order.
void put_record(Writer& w, bool v6, std::uint32_t type, const Neighbour& n) {
    const std::uint32_t vsi = n.vsi, link = n.link, state = static_cast<std::uint32_t>(n.state),
                        kind = static_cast<std::uint32_t>(n.kind);
    if (!v6) {
        w.be(static_cast<std::uint32_t>(adj4::kEventRecordLen)).be(type);
        w.be(n.ifindex).raw(n.addr.data(), 4).be(vsi).be(link).be(n.vlan).be(std::uint16_t{0});
        w.raw(n.mac.data(), 6).zeros(2).be(state).be(kind).be(n.aging).be(n.port);
        w.zeros(2).be(n.node).be(n.vrf).zeros(2);
        return;
    }
    w.be(static_cast<std::uint32_t>(adj6::kEventRecordLen)).be(type);
    w.be(n.ifindex).raw(n.addr.data(), 16).be(vsi).be(link).be(n.vlan).be(n.vrf);
    w.raw(n.mac.data(), 6).zeros(2).be(state).be(kind).be(n.aging).be(n.port);
    w.zeros(2).be(n.node).be(std::uint16_t{0}).zeros(2);
}

constexpr std::size_t record_len(bool v6) { return v6 ? adj6::kEventRecordLen : adj4::kEventRecordLen; }

// A neighbour of kind OpenFlow from an OpenFlow entry (wire order).
Neighbour openflow_neighbour(Context& ctx, bool v6, std::span<const std::uint8_t> e) {
    Neighbour n;
    n.family = v6 ? 10 : 2;
    n.kind = NeighKind::kOpenFlow;
    Reader r(e.data(), e.size());
    n.ifindex = r.be<std::uint32_t>();
    r.raw_into(n.addr.data(), v6 ? 16 : 4);
    n.vrf = static_cast<std::uint16_t>(r.be<std::uint32_t>());
    r.raw_into(n.mac.data(), 6);
    n.vlan = r.be<std::uint16_t>();
    n.port = r.be<std::uint32_t>();
    n.aging = r.be<std::uint32_t>();
    if (const auto* itf = ctx.device.interface(n.ifindex)) n.node = itf->node;
    n.updated = ctx.uptime();
    return n;
}

}  // namespace

class AdjConn;

struct AdjState {
    explicit AdjState(bool v6) {
        for (const TableShape& t : v6 ? std::span<const TableShape>(kV6Tables) : std::span<const TableShape>(kV4Tables)) {
            tables.emplace_back(t);
        }
    }
    std::vector<SmoothTable> tables;
    std::set<AdjConn*> subscribers;
    std::set<AdjConn*> pending;  // subscribers with records waiting for the end of the round
    bool flush_scheduled = false;
    std::uint64_t roaming_reports = 0;
    std::uint64_t roaming_records = 0;
};

namespace {

void restarted(AdjState& state) {
    for (SmoothTable& t : state.tables) {
        std::set<std::uint32_t> scopes;
        for (const auto& [key, item] : t.items()) scopes.insert(item.scope);
        for (const std::uint32_t s : scopes) t.smooth_start(s);
    }
    state.roaming_reports = 0;
    state.roaming_records = 0;
}

}  // namespace

void adj4_restarted(Context& ctx) { restarted(ctx.adj.of(false)); }
void adj6_restarted(Context& ctx) { restarted(ctx.adj.of(true)); }

AdjServices::AdjServices() : state_{std::make_unique<AdjState>(false), std::make_unique<AdjState>(true)} {}
AdjServices::~AdjServices() = default;

class AdjConn : public Conn {
public:
    AdjConn(Context& ctx, bool v6, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx), v6_(v6), state_(ctx.adj.of(v6)) {}
    ~AdjConn() override { closed(); }

    bool wants(std::uint32_t type, const Neighbour& n, bool replay) const {
        if (!subscribed_) return false;
        if (types_ != 0 && (type >= 32 || (types_ >> type & 1u) == 0)) return false;
        if (ifindex_ != 0 && n.ifindex != ifindex_) return false;
        if (replay || concerned_.empty()) return true;
        return concerned_.count({0xFFFFFFFFu, n.addr}) != 0 || concerned_.count({n.vrf, n.addr}) != 0;
    }

    // Queues one event record of an entry.
    void queue(std::uint32_t type, const Neighbour& n) {
        std::uint8_t rec[kRecordHead + 64];
        Writer w(std::span<std::uint8_t>(rec, record_len(v6_)));
        put_record(w, v6_, type, n);
        append(w.bytes());
    }
    void queue_end() {
        std::uint8_t rec[kRecordHead];
        Writer w(rec);
        w.be(static_cast<std::uint32_t>(kRecordHead)).be(static_cast<std::uint32_t>(kBatchEnd));
        append(w.bytes());
    }
    // Adds a record to the datagram being filled; a full datagram goes out first.
    void append(std::span<const std::uint8_t> rec) {
        if (out_.size() + rec.size() > kDatagram) flush();
        out_.insert(out_.end(), rec.begin(), rec.end());
    }
    void flush() {
        if (out_.empty()) return;
        if (ctx_.capture.on()) capture_lipc(ctx_, *this, "event", out_, {{"type", "events"}});
        send(out_);
        out_.clear();
    }

protected:
    void message(std::span<const std::uint8_t> msg) override {
        const auto m = read_adj_message(msg);
        const MsgRoute* route = m ? route_of(v6_, m->type) : nullptr;
        if (route == nullptr) {
            if (ctx_.capture.on()) capture_lipc(ctx_, *this, "request", msg, {{"error", "malformed or unknown"}});
            SIM_LOG(kDebug, "adjacency service: dropped a malformed or unknown message from pid %d",
                    static_cast<int>(peer_pid()));
            return;
        }
        if (ctx_.capture.on()) capture_lipc(ctx_, *this, "request", msg, {{"type", m->type}});
        handle(*route, m->count, m->payload);
    }

    void closed() override {
        state_.subscribers.erase(this);
        state_.pending.erase(this);
    }

private:
    void handle(const MsgRoute& route, std::uint16_t count, std::span<const std::uint8_t> p) {
        Reader r(p.data(), p.size());
        switch (route.op) {
            case Op::kSubscribe: {
                const auto types = r.be<std::uint32_t>();
                (void)r.be<std::uint32_t>();
                const auto ifindex = r.be<std::uint32_t>();
                if (!r.ok()) return;
                types_ = types;
                ifindex_ = ifindex;
                subscribed_ = true;
                state_.subscribers.insert(this);
                return;
            }
            case Op::kConcernAdd:
            case Op::kConcernDel: return concern(route.op == Op::kConcernAdd, p);
            case Op::kBatchAll: return replay([](const Neighbour&) { return true; });
            case Op::kBatchVsi:
            case Op::kBatchAc: {
                const auto vsi = r.be<std::uint32_t>();
                const auto link = r.be<std::uint32_t>();
                (void)r.raw(v6_ ? 2 : 4);
                const auto last = v6_ ? std::uint32_t{r.be<std::uint16_t>()} : r.be<std::uint32_t>();
                if (!r.ok()) return;
                const bool by_ac = route.op == Op::kBatchAc;
                return replay([=](const Neighbour& n) {
                    if (n.vsi != vsi) return false;
                    if ((by_ac || link != 0xFFFFFFFFu) && n.link != link) return false;
                    return !by_ac || last == 0xFFFF || n.vlan == last;
                });
            }
            case Op::kBatchVlan: {
                (void)r.raw(12);
                const auto vlan = r.be<std::uint32_t>();
                if (!r.ok()) return;
                return replay([=](const Neighbour& n) { return n.vlan == vlan; });
            }
            case Op::kBatchIf: {
                const auto ifindex = r.be<std::uint32_t>();
                if (!r.ok()) return;
                return replay([=](const Neighbour& n) { return n.ifindex == ifindex; });
            }
            case Op::kRefresh:
            case Op::kDelete: return entries(route, count, p);
            case Op::kSmoothStart:
            case Op::kSmoothEnd: return smooth(route.table, route.op == Op::kSmoothStart, p);
            case Op::kOpenFlowSmooth: {
                const auto code = r.be<std::uint8_t>();
                if (!r.ok() || (code != kOpenFlowSmoothStartCode && code != kOpenFlowSmoothEndCode)) return status(kFailure);
                smooth(kOpenFlow, code == kOpenFlowSmoothStartCode, p);
                return status(0);
            }
            case Op::kVerify: {
                std::uint8_t head[kHeader];
                Writer w(head);
                w.be(std::uint8_t{adj4::kOpenFlowVerifyEnd}).zeros(1).be(std::uint16_t{0}).be(std::uint16_t{0});
                send(w.bytes());
                return;
            }
            case Op::kRoaming:
                ++state_.roaming_reports;
                state_.roaming_records += ipc::wire::View(p.data(), p.size()).be<std::uint16_t>(8).value_or(0);
                return;
            case Op::kQuery: return query(p);
        }
    }

    void concern(bool add, std::span<const std::uint8_t> p) {
        Reader r(p.data(), p.size());
        std::uint32_t scope = 0;
        NeighAddr addr{};
        if (!v6_) {
            // The scope word travels in the sender's own byte order.
            const auto s = r.raw(4);
            if (s.size() == 4) std::memcpy(&scope, s.data(), 4);
            r.raw_into(addr.data(), 4);
        } else {
            r.raw_into(addr.data(), 16);
            scope = r.be<std::uint32_t>();
        }
        if (!r.ok()) return;
        if (add) {
            if (concerned_.size() >= kMaxConcerned) return;
            concerned_.insert({scope, addr});
        } else {
            concerned_.erase({scope, addr});
        }
    }

    template <class Match>
    void replay(Match match) {
        if (!subscribed_) return;
        flush();
        const std::uint8_t family = v6_ ? 10 : 2;
        ctx_.neighs.each(family, [&](const Neighbour& n) {
            if (match(n) && wants(kPresent, n, true)) queue(kPresent, n);
        });
        if (types_ == 0 || (types_ >> kBatchEnd & 1u) != 0) queue_end();
        flush();
    }

    void entries(const MsgRoute& route, std::uint16_t count, std::span<const std::uint8_t> p) {
        SmoothTable& t = state_.tables[static_cast<std::size_t>(route.table)];
        const std::size_t len = t.shape().entry_len;
        const bool openflow = route.table == kOpenFlow;
        const std::size_t n = openflow ? count : 1;
        if (n == 0 || p.size() != n * len) {
            if (openflow) status(kFailure);
            return;
        }
        for (std::size_t i = 0; i < n; ++i) {
            const auto e = p.subspan(i * len, len);
            if (route.op == Op::kRefresh) {
                // Rules belong to the owner that announced the resend on this connection.
                const auto scope = route.table == kRules ? std::optional<std::uint32_t>(owned_scope(rule_owner_, t.scope_of(e)))
                                                         : std::nullopt;
                if (!t.refresh(e, scope)) {
                    if (openflow) return status(kFailure);
                    continue;
                }
                if (openflow) {
                    const Neighbour nb = openflow_neighbour(ctx_, v6_, e);
                    // The service keeps the entry; a full neighbour table counts the refusal.
                    if (ctx_.device.interface(nb.ifindex) != nullptr) (void)ctx_.neighs.put(nb);
                }
            } else if (t.remove(e) && openflow) {
                drop_openflow_neighbour(e);
            }
        }
        if (openflow) status(0);
    }

    void smooth(std::int8_t table, bool start, std::span<const std::uint8_t> p) {
        SmoothTable& t = state_.tables[static_cast<std::size_t>(table)];
        std::uint32_t scope = t.smooth_scope_of(p);
        if (table == kRules) {
            // [BE16 owner][class][0]: rules are bracketed by owner and class.
            const auto owner = ipc::wire::View(p.data(), p.size()).be<std::uint16_t>(0).value_or(0);
            if (start) rule_owner_ = owner;
            scope = owned_scope(owner, scope);
        }
        if (start) return t.smooth_start(scope);
        for (const auto& item : t.smooth_end(scope)) {
            if (table == kOpenFlow) drop_openflow_neighbour(item.entry);
        }
    }

    void drop_openflow_neighbour(std::span<const std::uint8_t> e) {
        const Neighbour nb = openflow_neighbour(ctx_, v6_, e);
        const Neighbour* had = ctx_.neighs.find(nb.family, nb.ifindex, nb.addr);
        if (had != nullptr && had->kind == NeighKind::kOpenFlow) ctx_.neighs.remove(nb.family, nb.ifindex, nb.addr);
    }

    void query(std::span<const std::uint8_t> p) {
        const ipc::wire::View v(p.data(), p.size());
        if (v.be<std::uint8_t>(0).value_or(0) != kQueryVlanSuppression) return status(kFailure);
        const auto vlan = v.be<std::uint16_t>(14);
        if (!vlan) return status(kFailure);
        std::uint32_t on = 0;
        for (const auto& [k, item] : state_.tables[kVlanSup].items()) {
            if (ipc::wire::View(item.entry.data(), item.entry.size()).be<std::uint16_t>(8) == vlan) on = 1;
        }
        std::uint8_t out[16];
        Writer w(out);
        w.zeros(12).be(on);
        send(w.bytes());
    }

    void status(std::uint32_t value) { answer_word(ctx_, *this, value); }

    // The scope of a rule: its owner and class.
    static std::uint32_t owned_scope(std::uint16_t owner, std::uint32_t cls) { return std::uint32_t{owner} * 256u + cls; }

    static constexpr std::size_t kMaxConcerned = 4096;

    Context& ctx_;
    bool v6_;
    AdjState& state_;
    std::uint16_t rule_owner_ = 0;  // owner of the last rule resend announced here
    bool subscribed_ = false;
    std::uint32_t types_ = 0;
    std::uint32_t ifindex_ = 0;
    std::set<std::pair<std::uint32_t, NeighAddr>> concerned_;
    std::vector<std::uint8_t> out_;
};

std::unique_ptr<Conn> make_adj4_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<AdjConn>(ctx, false, loop, fd, where, pid);
}

std::unique_ptr<Conn> make_adj6_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<AdjConn>(ctx, true, loop, fd, where, pid);
}

void publish_neigh_change(Context& ctx, const NeighChange& change) {
    const bool v6 = change.entry.family == 10;
    AdjState& st = ctx.adj.of(v6);
    if (st.subscribers.empty()) return;
    const std::uint32_t type = change.kind == NeighChange::kAdd      ? kAdded
                               : change.kind == NeighChange::kUpdate ? kChanged
                                                                     : kDeleted;
    // Copy: queueing may send a full datagram, and a subscriber whose send fails closes and
    // leaves the set.
    const std::vector<AdjConn*> subs(st.subscribers.begin(), st.subscribers.end());
    for (AdjConn* s : subs) {
        if (st.subscribers.count(s) == 0 || !s->wants(type, change.entry, false)) continue;
        s->queue(type, change.entry);
        if (st.subscribers.count(s) != 0) st.pending.insert(s);
    }
    // Changes of one round share datagrams; they go out once the round's work is done.
    if (st.flush_scheduled || st.pending.empty()) return;
    st.flush_scheduled = true;
    ctx.loop.after(std::chrono::milliseconds(0), [&st] {
        st.flush_scheduled = false;
        // Copy: a subscriber whose send fails closes and leaves the set.
        const std::vector<AdjConn*> due(st.pending.begin(), st.pending.end());
        st.pending.clear();
        for (AdjConn* s : due) {
            if (st.subscribers.count(s) != 0) s->flush();
        }
    });
}

// "adj.tables" takes "family" 4 or 6 (default 4).
void register_adj_control(Context& ctx) {
    ctx.control.on("adj.tables", [&ctx](const nlohmann::json& req) {
        const auto family = arg::number(req, "family", {4, 6}, 4);
        AdjState& st = ctx.adj.of(family == 6);
        nlohmann::json out;
        for (const SmoothTable& t : st.tables) {
            nlohmann::json entries = nlohmann::json::array();
            for (const auto& [k, item] : t.items()) {
                std::string hex;
                for (const std::uint8_t b : item.entry) {
                    char two[3];
                    std::snprintf(two, sizeof two, "%02x", static_cast<unsigned>(b));
                    hex += two;
                }
                entries.push_back({{"scope", item.scope}, {"stale", item.stale}, {"entry", hex}});
            }
            out[std::string(t.shape().name)] = entries;
        }
        out["roaming_reports"] = st.roaming_reports;
        out["roaming_records"] = st.roaming_records;
        out["subscribers"] = st.subscribers.size();
        return out;
    });
}

}  // namespace sim
