// The IPStack daemon (port 1648) and the port-attack daemon (port 4418).
//
// Both read framed messages [BE16 type][BE16 total length][payload]. The IPStack daemon
// understands:
//   type 13, payload [BE16 24][BE16 4][BE32 interface index] (an IP module request): the
//     interface's BPA
//     configuration, answered framed: [BE16 13][BE16 8][BE16 inbound][BE16 outbound];
//   type 14, payload [BE32 interface index][BE16 inbound][BE16 outbound]: sets it;
// the port-attack daemon:
//   type 1, payload [BE32 interface index][BE32 level]: sets the interface's port-attack
//     defence level (0 off);
//   type 2, payload [BE32 interface index]: answers the level as the result.
// Every other message (and type 14 and the port-attack types) is answered with 8 bytes
// [BE32 result][BE32 0], result 0 or 0x40010001 for an unknown type, a length that
// disagrees or an unknown interface. Settings persist with the interface's settings.
#include "core/log.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/kmod_ipstat.hpp"
#include "ipproto/svc_daemons.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

// A setting is stored before it is acknowledged (kStoreFailed, and undone, when it cannot be).
class DaemonConn : public StoringConn {
public:
    DaemonConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid, bool port_attack)
        : StoringConn(ctx.store, loop, fd, where, pid), ctx_(ctx), port_attack_(port_attack) {}

protected:
    void request(std::span<const std::uint8_t> msg) override {
        ipc::wire::Reader r(msg.data(), msg.size());
        const std::uint16_t type = r.be<std::uint16_t>();
        const std::uint16_t total = r.be<std::uint16_t>();
        if (!r.ok() || total != msg.size()) {
            capture_lipc(ctx_, *this, "request", msg, {{"error", "length disagrees"}});
            return result(kFailure);
        }
        capture_lipc(ctx_, *this, "request", msg, {{"type", type}});
        if (port_attack_) return port_attack(type, r);
        ipstack(type, r);
    }

private:
    void result(std::uint32_t value) {
        value = stored(value);
        std::uint8_t out[8];
        ipc::wire::Writer w(out);
        w.be(value).be(std::uint32_t{0});
        capture_lipc(ctx_, *this, "answer", w.bytes(), {{"result", value}});
        send(w.bytes());
    }

    bool known_if(std::uint32_t ifindex) const { return ctx_.device.interface(ifindex) != nullptr; }

    void ipstack(std::uint16_t type, ipc::wire::Reader& r) {
        if (type == ipc::proto::ipstack::kBpaCfgType) {
            const std::uint16_t op = r.be<std::uint16_t>();
            const std::uint16_t len = r.be<std::uint16_t>();
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            if (!r.ok() || r.remaining() != 0 || op != static_cast<std::uint16_t>(ipc::proto::ipstat::Op::kBpaCfg) || len != 4 || !known_if(ifindex)) return result(kFailure);
            const IfSettings* s = ctx_.addrs.find_settings(ifindex);
            std::uint8_t out[8];
            ipc::wire::Writer w(out);
            w.be(std::uint16_t{13}).be(std::uint16_t{8});
            w.be(static_cast<std::uint16_t>(s != nullptr ? s->bpa_in : 0));
            w.be(static_cast<std::uint16_t>(s != nullptr ? s->bpa_out : 0));
            capture_lipc(ctx_, *this, "answer", w.bytes(), {{"type", 13}});
            send(w.bytes());
            return;
        }
        if (type == 14) {
            const std::uint32_t ifindex = r.be<std::uint32_t>();
            const std::uint16_t in = r.be<std::uint16_t>();
            const std::uint16_t out = r.be<std::uint16_t>();
            if (!r.ok() || r.remaining() != 0 || !known_if(ifindex)) return result(kFailure);
            IfSettings& s = ctx_.addrs.settings(ifindex);
            s.bpa_in = in;
            s.bpa_out = out;
            ctx_.addrs.settings_changed(ifindex);
            return result(0);
        }
        result(kFailure);
    }

    void port_attack(std::uint16_t type, ipc::wire::Reader& r) {
        const std::uint32_t ifindex = r.be<std::uint32_t>();
        if (type == 1) {
            const std::uint32_t level = r.be<std::uint32_t>();
            if (!r.ok() || r.remaining() != 0 || !known_if(ifindex)) return result(kFailure);
            ctx_.addrs.settings(ifindex).port_attack = level;
            ctx_.addrs.settings_changed(ifindex);
            return result(0);
        }
        if (type == 2) {
            if (!r.ok() || r.remaining() != 0 || !known_if(ifindex)) return result(kFailure);
            const IfSettings* s = ctx_.addrs.find_settings(ifindex);
            return result(s != nullptr ? s->port_attack : 0);
        }
        result(kFailure);
    }

    Context& ctx_;
    bool port_attack_;
};

}  // namespace

std::unique_ptr<Conn> make_ipstack_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<DaemonConn>(ctx, loop, fd, where, pid, false);
}

std::unique_ptr<Conn> make_portatk_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<DaemonConn>(ctx, loop, fd, where, pid, true);
}

void capture_lipc(Context& ctx, const Conn& conn, const char* dir, std::span<const std::uint8_t> bytes,
                  nlohmann::json fields) {
    if (!ctx.capture.on()) return;
    ctx.capture.record({dir, conn.where().node, "lipc", conn.where().port, 0, static_cast<int>(conn.peer_pid())}, bytes,
                       std::move(fields));
}

std::optional<AdjMessage> read_adj_message(std::span<const std::uint8_t> msg) {
    ipc::wire::Reader r(msg.data(), msg.size());
    AdjMessage m;
    m.type = r.be<std::uint8_t>();
    (void)r.be<std::uint8_t>();  // reserved
    const auto len = r.be<std::uint16_t>();
    m.count = r.be<std::uint16_t>();
    if (!r.ok() || len != r.remaining()) return std::nullopt;
    m.payload = r.rest();
    return m;
}

void answer_word(Context& ctx, Conn& conn, std::uint32_t word) {
    std::uint8_t out[4];
    ipc::wire::store_be(out, word);
    capture_lipc(ctx, conn, "answer", out, {{"word", word}});
    conn.send(out);
}

}  // namespace sim
