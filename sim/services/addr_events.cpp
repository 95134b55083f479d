// Address events on port 11547 of each node.
//
// Subscription [BE32 1][BE32 16][word1][word2][word3][word4]:
//   word1 method mask (0 any); word2 interface index (0 any); word3 VRF index, used when
//   word4 bit 1 is set; word4 bit 0 set: no 4-byte acknowledgement (asynchronous
//   registration). Otherwise the subscription is answered with [BE32 0].
// From the service: [BE32 1][BE32 length][40-byte records] (at most 25 records, so that
// a message fits the client's 1024-byte receive), [BE32 2][BE32 0] keep-alive every
// kKeepAliveEvery, [BE32 3][BE32 0] at the end of a batch replay.
// Record: [BE32 event 1 add, 2 delete, 3 modify][BE32 epoch][BE32 node of the interface]
//         [the address as an IPAddrEntry in wire order].
// From the client: [BE32 2][BE32 0] asks for a batch replay of every address (as add
// events); [BE32 3][BE32 0] answers a keep-alive.
#include <chrono>
#include <cstring>
#include <vector>

#include "core/log.hpp"
#include "ipproto/kmod_addr.hpp"
#include "ipproto/svc_addr.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

using namespace ipc::proto::addr_svc;  // message types and the event record
constexpr std::size_t kRecordLen = kEventRecordLen;
constexpr std::size_t kRecordsPerMessage = 25;

}  // namespace

class AddrEventConn : public Conn {
public:
    AddrEventConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx) {}
    ~AddrEventConn() override { ctx_.addr_subscribers.erase(this); }

    bool wants(const IPAddrInfo& i) const {
        if (!subscribed_) return false;
        const IPAddrKey& k = i.stEntry.stKey;
        if (method_mask_ != 0 && (k.uiMethod & method_mask_) == 0) return false;
        if (ifindex_ != 0 && k.uiIfIndex != ifindex_) return false;
        if (filter_vrf_ && k.usVrfIndex != vrf_) return false;
        return true;
    }

    void send_records(const std::vector<std::uint8_t>& records) {
        for (std::size_t off = 0; off < records.size(); off += kRecordLen * kRecordsPerMessage) {
            const std::size_t n = std::min(records.size() - off, kRecordLen * kRecordsPerMessage);
            std::uint8_t msg[8 + kRecordLen * kRecordsPerMessage];
            ipc::wire::Writer w(msg);
            w.be(ipc::proto::addr_svc::kEvents).be(static_cast<std::uint32_t>(n)).raw(records.data() + off, n);
            capture_lipc(ctx_, *this, "event", w.bytes(), {{"type", "events"}, {"records", n / kRecordLen}});
            send(w.bytes());
        }
    }

protected:
    void message(std::span<const std::uint8_t> msg) override {
        capture_lipc(ctx_, *this, "request", msg, nullptr);
        ipc::wire::Reader r(msg.data(), msg.size());
        const std::uint32_t type = r.be<std::uint32_t>();
        const std::uint32_t len = r.be<std::uint32_t>();
        if (!r.ok() || len != r.remaining()) return refuse("a message whose length disagrees");
        if (type == kSubscribe && len == 16 && !subscribed_) {
            method_mask_ = r.be<std::uint32_t>();
            ifindex_ = r.be<std::uint32_t>();
            vrf_ = static_cast<std::uint16_t>(r.be<std::uint32_t>());
            const std::uint32_t flags = r.be<std::uint32_t>();
            filter_vrf_ = (flags & 2u) != 0;
            subscribed_ = true;
            ctx_.addr_subscribers.insert(this);
            if ((flags & 1u) == 0) {
                std::uint8_t ack[4] = {};
                capture_lipc(ctx_, *this, "answer", ack, {{"type", "subscribed"}});
                send(ack);
            }
            schedule_keepalive();
            return;
        }
        if (type == kBatchRequest && len == 0 && subscribed_) return replay();
        if (type == kKeepAliveAnswer && len == 0) return;
        refuse("an unknown message");
    }

private:
    void refuse(const char* what) {
        SIM_LOG(kWarn, "address events: %s from pid %d; closing", what, static_cast<int>(peer_pid()));
        close();
    }

    void replay() {
        std::vector<std::uint8_t> records;
        ctx_.addrs.each([&](const IPAddrInfo& i) {
            if (!wants(i)) return;
            std::uint8_t rec[kRecordLen];
            ipc::wire::Writer w(rec);
            const auto* itf = ctx_.device.interface(i.stEntry.stKey.uiIfIndex);
            w.be(std::uint32_t{1}).be(ctx_.addrs.epoch()).be(static_cast<std::uint32_t>(itf != nullptr ? itf->node : 0));
            IPAddrEntry e = i.stEntry;
            ipc::wire::swap_fields(std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(&e), sizeof e),
                                   ipc::proto::addr::kEntryFields);
            w.raw(&e, sizeof e);
            records.insert(records.end(), rec, rec + kRecordLen);
        });
        send_records(records);
        std::uint8_t end[8];
        ipc::wire::Writer w(end);
        w.be(kEndSignal).be(std::uint32_t{0});
        send(w.bytes());
    }

    void schedule_keepalive() {
        // A weak check through the subscriber set: the connection may be gone by then.
        loop().after(kKeepAliveEvery, [ctx = &ctx_, self = this] {
            if (ctx->addr_subscribers.count(self) == 0) return;
            std::uint8_t ka[8];
            ipc::wire::Writer w(ka);
            w.be(ipc::proto::addr_svc::kKeepAlive).be(std::uint32_t{0});
            self->send(w.bytes());
            self->schedule_keepalive();
        });
    }

    static constexpr std::chrono::milliseconds kKeepAliveEvery{30'000};

    Context& ctx_;
    bool subscribed_ = false;
    std::uint32_t method_mask_ = 0;
    std::uint32_t ifindex_ = 0;
    std::uint16_t vrf_ = 0;
    bool filter_vrf_ = false;
};

void publish_addr_change(Context& ctx, const AddrChange& change) {
    if (ctx.addr_subscribers.empty()) return;
    std::uint8_t rec[kRecordLen];
    ipc::wire::Writer w(rec);
    const auto* itf = ctx.device.interface(change.info.stEntry.stKey.uiIfIndex);
    w.be(static_cast<std::uint32_t>(change.kind)).be(change.epoch);
    w.be(static_cast<std::uint32_t>(itf != nullptr ? itf->node : 0));
    IPAddrEntry e = change.info.stEntry;
    ipc::wire::swap_fields(std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(&e), sizeof e),
                           ipc::proto::addr::kEntryFields);
    w.raw(&e, sizeof e);
    const std::vector<std::uint8_t> one(rec, rec + kRecordLen);
    // Copy: a subscriber whose send fails leaves the set while we walk it.
    const std::vector<AddrEventConn*> subs(ctx.addr_subscribers.begin(), ctx.addr_subscribers.end());
    for (AddrEventConn* s : subs) {
        if (ctx.addr_subscribers.count(s) != 0 && s->wants(change.info)) s->send_records(one);
    }
}

std::unique_ptr<Conn> make_addr_event_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<AddrEventConn>(ctx, loop, fd, where, pid);
}

}  // namespace sim
