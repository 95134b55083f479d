// WLAN adjacency events on port 1641 of each node that is up: the changes of the node's
// WLAN adjacency table (modules/kmod_wlan.hpp) for the processes that subscribed.
//
// From the client, adjacency messages [u8 type][u8 reserved][BE16 payload length]
// [BE16 count][payload]:
//   type 5, payload [BE32 selector][4 zero bytes]: subscribe. Selector 0 follows every entry
//   of the node; any other selector only the entries of the interface with that index (the
//   cleared event reaches every subscriber of the node whose table was emptied). A second
//   subscription replaces the selector.
// Nothing is answered. Any other message closes the connection.
//
// To a subscriber, datagrams of at most 4096 bytes holding records back to back:
//   entry record, 216 bytes: [BE32 216][BE32 type: 0 refreshed (new or replaced), 1 deleted]
//     [BE32 first word][BE32 interface index][the 200-byte entry as it was refreshed];
//     the interface index at record offset 12 is never zero: every entry record is valid;
//   cleared record, 20 bytes: [BE32 20][BE32 2][12 zero bytes]: the node's table was
//     emptied (control operation "wlan.clear"); it is 20 bytes long so that a datagram
//     holding it alone is read.
// The entries removed by one delete by interface travel together, as many records a
// datagram as fit (18).
//
// Control operations ("node": 1-32767, a node of the device):
//   "wlan.list" {"node": N optional} -> {"entries": [{"node", "first", "ifindex", "vlan",
//     "entry": 400 hex digits}], "subscribers": number of subscribed connections};
//   "wlan.clear" {"node": N optional} -> {"removed": number of entries}; every node that had
//     entries sends the cleared record.
#include <cstring>
#include <stdexcept>
#include <vector>

#include "control/args.hpp"
#include "core/log.hpp"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

using ipc::proto::wlan_events::kSubscribe;
using ipc::proto::wlan_events::kSubscribeLen;
constexpr std::size_t kDatagramMax = 4096;
constexpr std::size_t kEntryRecordLen = 16 + WlanEntry::kLen;
constexpr std::size_t kClearedRecordLen = 20;

void entry_record(std::vector<std::uint8_t>& out, std::uint32_t type, const WlanEntry& e) {
    std::uint8_t rec[kEntryRecordLen];
    ipc::wire::Writer w(rec);
    w.be(static_cast<std::uint32_t>(kEntryRecordLen)).be(type).be(e.first).be(e.ifindex);
    w.raw(e.data.data(), e.data.size());
    out.insert(out.end(), rec, rec + kEntryRecordLen);
}

}  // namespace

class WlanEventConn : public Conn {
public:
    WlanEventConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx) {}
    ~WlanEventConn() override { ctx_.wlan_subscribers.erase(this); }

    bool wants(const WlanEntry& e) const { return selector_ == 0 || e.ifindex == selector_; }

    // Sends whole records, as many a datagram as fit.
    void send_records(std::span<const std::uint8_t> records, std::size_t record_len) {
        const std::size_t per = (kDatagramMax / record_len) * record_len;
        for (std::size_t off = 0; off < records.size(); off += per) {
            const auto part = records.subspan(off, std::min(per, records.size() - off));
            capture_lipc(ctx_, *this, "event", part, {{"records", part.size() / record_len}});
            if (!send(part)) return;
        }
    }

protected:
    void message(std::span<const std::uint8_t> msg) override {
        capture_lipc(ctx_, *this, "request", msg, nullptr);
        const auto m = read_adj_message(msg);
        const auto payload = m ? m->payload : std::span<const std::uint8_t>{};
        ipc::wire::Reader r(payload.data(), payload.size());
        const auto selector = r.be<std::uint32_t>();
        const auto zero = r.be<std::uint32_t>();
        if (!m || m->type != kSubscribe || m->payload.size() != kSubscribeLen || !r.ok() || zero != 0) {
            SIM_LOG(kWarn, "WLAN adjacency events: an unknown message from pid %d; closing",
                    static_cast<int>(peer_pid()));
            return close();
        }
        selector_ = selector;
        ctx_.wlan_subscribers.insert(this);
    }

    void closed() override { ctx_.wlan_subscribers.erase(this); }

private:
    Context& ctx_;
    std::uint32_t selector_ = 0;
};

namespace {

void publish_wlan_change(Context& ctx, const WlanChange& c) {
    // Copy: a subscriber whose send fails may leave the set while we walk it.
    const std::vector<WlanEventConn*> subs(ctx.wlan_subscribers.begin(), ctx.wlan_subscribers.end());
    for (WlanEventConn* s : subs) {
        if (ctx.wlan_subscribers.count(s) == 0 || s->where().node != c.node) continue;
        std::vector<std::uint8_t> records;
        if (c.kind == WlanChange::kCleared) {
            std::uint8_t rec[kClearedRecordLen];
            ipc::wire::Writer w(rec);
            w.be(static_cast<std::uint32_t>(kClearedRecordLen)).be(std::uint32_t{ipc::proto::wlan_events::kClear}).zeros(12);
            s->send_records(w.bytes(), kClearedRecordLen);
            continue;
        }
        for (const WlanEntry& e : c.entries) {
            if (s->wants(e)) entry_record(records, c.kind, e);
        }
        if (!records.empty()) s->send_records(records, kEntryRecordLen);
    }
}

}  // namespace

std::unique_ptr<Conn> make_wlan_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<WlanEventConn>(ctx, loop, fd, where, pid);
}

void register_wlan(Context& ctx) {
    ctx.wlan.add_observer([&ctx](const WlanChange& c) { publish_wlan_change(ctx, c); });
    ctx.control.on("wlan.list", [&ctx](const nlohmann::json& req) {
        const auto node = arg::node_if(ctx, req);
        nlohmann::json entries = nlohmann::json::array();
        ctx.wlan.each([&](const WlanEntry& e) {
            if (node && e.node != *node) return;
            entries.push_back({{"node", e.node},
                               {"first", e.first},
                               {"ifindex", e.ifindex},
                               {"vlan", e.vlan()},
                               {"entry", hex(e.data)}});
        });
        return nlohmann::json{{"entries", entries}, {"subscribers", ctx.wlan_subscribers.size()}};
    });
    ctx.control.on("wlan.clear", [&ctx](const nlohmann::json& req) {
        return nlohmann::json{{"removed", ctx.wlan.clear(arg::node_if(ctx, req))}};
    });
}

}  // namespace sim
