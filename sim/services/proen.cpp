// The protocol-to-CPU service on ports 1680 and 11557 (services/proen.hpp describes the
// messages and what the service keeps).
#include "services/proen.hpp"

#include "control/args.hpp"
#include "core/log.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/svc_daemons.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

constexpr std::uint32_t kEnable = 1;
constexpr std::uint32_t kSmoothStart = 4;
constexpr std::uint32_t kSmoothEnd = 6;
constexpr std::uint32_t kWaitsForReply = ipc::proto::proen::kWaitReply;
using ipc::proto::proen::kNoReply;
constexpr std::uint32_t kHeaderVersion = 1;
constexpr std::uint32_t kHeaderLen = 20;
constexpr std::uint16_t kRecordSize = 0x0060;
constexpr std::uint16_t kMatchLen = 0x0038;
constexpr std::size_t kEnableLen = 96;
constexpr std::size_t kSmoothLen = 8;
using ipc::proto::proen::kFormEx;
using ipc::proto::proen::kFormSingle;

bool in_scope(const ProenEntry& e, std::uint16_t node, pid_t owner, std::uint32_t ifindex, std::uint32_t protocol) {
    return e.node == node && e.owner == owner && (ifindex == 0 || e.ifindex == ifindex) &&
           (protocol == 0 || e.protocol == protocol);
}

class ProenConn : public Conn {
public:
    ProenConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx) {}

protected:
    void message(std::span<const std::uint8_t> msg) override {
        ipc::wire::Reader r(msg.data(), msg.size());
        const auto type = r.be<std::uint32_t>();
        const auto reply_flag = r.be<std::uint32_t>();
        const auto version = r.be<std::uint32_t>();
        const auto header_len = r.be<std::uint32_t>();
        const auto record_size = r.be<std::uint16_t>();
        const auto pad = r.be<std::uint16_t>();
        std::uint32_t status = kFailure;
        const char* what = "malformed";
        if (r.ok() && version == kHeaderVersion && header_len == kHeaderLen && record_size == kRecordSize &&
            pad == 0 && (reply_flag == kWaitsForReply || reply_flag == kNoReply)) {
            const auto payload = r.rest();
            if (type == kEnable && payload.size() == kEnableLen) {
                what = "enable";
                status = enable(payload);
            } else if ((type == kSmoothStart || type == kSmoothEnd) && payload.size() == kSmoothLen) {
                what = type == kSmoothStart ? "smooth start" : "smooth end";
                status = smooth(type, payload);
            }
        }
        capture_lipc(ctx_, *this, "request", msg, {{"type", type}, {"request", what}, {"status", status}});
        if (reply_flag == kNoReply && r.ok()) return;
        answer_word(ctx_, *this, status);
    }

private:
    std::uint32_t enable(std::span<const std::uint8_t> payload) {
        ipc::wire::Reader p(payload.data(), payload.size());
        const auto action = p.be<std::uint32_t>();
        ProenEntry e;
        e.protocol = p.be<std::uint32_t>();
        (void)p.raw(24);
        const auto match_len = p.be<std::uint16_t>();
        (void)p.raw(2);
        e.form = p.be<std::uint32_t>();
        for (std::size_t i = 0; i < 5; ++i) e.match[i] = p.be<std::uint32_t>();
        e.ifindex = p.be<std::uint32_t>();
        e.match[5] = p.be<std::uint32_t>();
        e.match[6] = p.be<std::uint16_t>();
        (void)p.raw(2);
        e.match[7] = p.be<std::uint32_t>();
        (void)p.raw(12);
        e.ex_word = p.be<std::uint32_t>();
        const auto local = p.be<std::uint16_t>();
        if (!p.ok() || match_len != kMatchLen || (e.form != kFormSingle && e.form != kFormEx) || local > 1) {
            return kFailure;
        }
        if (e.ifindex != 0 && ctx_.device.interface(e.ifindex) == nullptr) return kFailure;
        e.local = local == 1;
        e.node = where().node;
        e.port = where().port;
        e.owner = peer_pid();
        if (action == 0) {
            ctx_.proen.disable(ProenTable::key_of(e));
            return 0;
        }
        return ctx_.proen.enable(e) ? 0 : kFailure;
    }

    std::uint32_t smooth(std::uint32_t type, std::span<const std::uint8_t> payload) {
        ipc::wire::Reader p(payload.data(), payload.size());
        const auto ifindex = p.be<std::uint32_t>();
        const auto protocol = p.be<std::uint32_t>();
        if (!p.ok()) return kFailure;
        const std::size_t n = type == kSmoothStart ? ctx_.proen.smooth_start(where().node, peer_pid(), ifindex, protocol)
                                                   : ctx_.proen.smooth_end(where().node, peer_pid(), ifindex, protocol);
        SIM_LOG(kDebug, "protocol-to-CPU: %s of pid %d: %zu entries", type == kSmoothStart ? "smooth start" : "smooth end",
                static_cast<int>(peer_pid()), n);
        return 0;
    }

    Context& ctx_;
};

}  // namespace

std::size_t ProenTable::smooth_start(std::uint16_t node, pid_t owner, std::uint32_t ifindex, std::uint32_t protocol) {
    std::size_t n = 0;
    for (auto& [k, e] : entries_) {
        if (!in_scope(e, node, owner, ifindex, protocol)) continue;
        e.marked = true;
        ++n;
    }
    return n;
}

std::size_t ProenTable::smooth_end(std::uint16_t node, pid_t owner, std::uint32_t ifindex, std::uint32_t protocol) {
    std::size_t n = 0;
    for (auto it = entries_.begin(); it != entries_.end();) {
        if (it->second.marked && in_scope(it->second, node, owner, ifindex, protocol)) {
            it = entries_.erase(it);
            ++n;
        } else {
            ++it;
        }
    }
    return n;
}

std::unique_ptr<Conn> make_proen_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<ProenConn>(ctx, loop, fd, where, pid);
}

// "proen.list" takes "node" 1-32767, a node of the device (default: every node).
void register_proen(Context& ctx) {
    ctx.control.on("proen.list", [&ctx](const nlohmann::json& req) {
        const std::optional<std::uint16_t> node = arg::node_if(ctx, req);
        nlohmann::json entries = nlohmann::json::array();
        ctx.proen.each([&](const ProenEntry& e) {
            if (node && e.node != *node) return;
            entries.push_back({{"node", e.node},
                               {"ifindex", e.ifindex},
                               {"protocol", e.protocol},
                               {"match", e.match},
                               {"form", e.form},
                               {"ex_word", e.ex_word},
                               {"local", e.local},
                               {"port", e.port},
                               {"owner", e.owner},
                               {"marked", e.marked}});
        });
        return nlohmann::json{{"entries", entries}};
    });
}

}  // namespace sim
