// ND overlay suppression on port 1667 of the master's endpoint: whether ND packets of a VSI
// are answered locally instead of being flooded over the overlay.
//
// A request is one adjacency message [type][reserved][BE16 payload length][BE16 count]
// [payload] of type 0 with a 180-byte payload: byte 0 the request code, byte 1 the on flag
// (1 on, anything else off; read by code 26 only), bytes 8-11 the VSI index (BE32); the
// other bytes are not read. Codes:
//   26   switches the VSI's suppression on or off; answered with [BE32 0];
//   100  answered with [BE32 1] when the VSI's suppression is on, else [BE32 0] (a VSI never
//        set is off).
// Every answer is the bare 4-byte word. A message whose length disagrees with its header, of
// another type or size, an unknown code or the VSI index 0xFFFFFFFF is answered with
// [BE32 0x40010001]. The state is the device's (Context::nd), kept until the simulator ends.
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

// Most VSIs whose overlay suppression is on.
constexpr std::size_t kMaxVsiSwitches = 65536;
constexpr std::size_t kPayloadLen = ipc::proto::nd_overlay::kRequestLen;
constexpr std::uint8_t kVsiSwitchType = ipc::proto::nd_overlay::kSwitch;
constexpr std::uint8_t kCodeSet = ipc::proto::nd_overlay::kSetOverlay;
constexpr std::uint8_t kCodeGet = ipc::proto::nd_overlay::kGetOverlay;
constexpr std::uint32_t kNoVsi = ipc::proto::adj::kNoVsi;

class NdOverlayConn : public Conn {
public:
    NdOverlayConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx) {}

protected:
    void message(std::span<const std::uint8_t> msg) override {
        const auto m = read_adj_message(msg);
        if (!m || m->type != kVsiSwitchType || m->payload.size() != kPayloadLen) {
            capture_lipc(ctx_, *this, "request", msg, {{"error", "not an overlay suppression request"}});
            return answer(kFailure);
        }
        const auto payload = m->payload;
        const std::uint8_t code = payload[0];
        const bool on = payload[1] == 1;
        const auto vsi = ipc::wire::load_be<std::uint32_t>(payload.data() + 8);
        capture_lipc(ctx_, *this, "request", msg, {{"code", code}, {"vsi", vsi}});
        if (vsi == kNoVsi) return answer(kFailure);
        auto& table = ctx_.nd.overlay_suppression;
        switch (code) {
            case kCodeSet:
                // A switch that is off is no entry; at most kMaxVsiSwitches are on.
                if (!on) {
                    table.erase(vsi);
                } else if (table.size() < kMaxVsiSwitches || table.count(vsi) != 0) {
                    table[vsi] = true;
                } else {
                    return answer(kFailure);
                }
                return answer(0);
            case kCodeGet: {
                const auto it = table.find(vsi);
                return answer(it != table.end() && it->second ? 1u : 0u);
            }
            default: return answer(kFailure);
        }
    }

private:
    void answer(std::uint32_t word) { answer_word(ctx_, *this, word); }

    Context& ctx_;
};

}  // namespace

std::unique_ptr<Conn> make_nd_overlay_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<NdOverlayConn>(ctx, loop, fd, where, pid);
}

}  // namespace sim
