// The ARP daemon on port 1639 of every node that is up: entries that applications set in
// the ARP table, and the EVI and overlay suppression switches. Its state is the device's
// (the ARP table, Context::arp for the switches), kept until the simulator ends.
//
// A request is one adjacency message [type][reserved][BE16 payload length][BE16 count]
// [payload]; every answer is a bare BE32 word: 0 done (or the state asked for), 0x40010001
// refused. A message whose length disagrees with its header, of another type, or whose
// payload is not of its type's size is refused.
//
// Type 1, the 300-byte entry (offsets in the payload):
//   0 the address (network order, non-zero), 4 BE32 interface index (an interface of the
//   device), 8 the MAC, 14 BE16 VLAN (0-4094), 16 BE32 member interface of an aggregate
//   that holds the entry (0 none, else an interface of the device), 20 BE32 ageing time in
//   seconds (0: never ages), 24 the operation byte: 0 sets the entry, 1 removes an entry
//   set this way; bytes 25-299 are not read.
//   A set entry is reachable and of kind "set" (10); it replaces what the table held for
//   the address on the interface. Removing an entry of another kind, or none, is refused.
// Type 0, the 24-byte suppression request: byte 0 the request code, byte 1 the on flag
// (1 on, anything else off; read by the sets), bytes 4-7 BE32 the EVI instance (codes
// 61/71), bytes 16-19 BE32 the interface index (codes 74/83). Codes:
//   61  switches EVI suppression of the instance (instance 0 refused); answers 0;
//   71  answers 1 when the instance's EVI suppression is on, else 0;
//   74  switches overlay suppression of the interface (an interface the device does not
//       have is refused); answers 0;
//   83  answers 1 when the interface's overlay suppression is on, else 0.
// Instances and interfaces never set are off.
#include <cstring>

#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/svc_adj.hpp"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

// Most EVI instances whose suppression is on.
constexpr std::size_t kMaxEviSwitches = 65536;
using namespace ipc::proto::arp_daemon;  // message types, lengths and switch codes
constexpr std::uint8_t kEviSwitchType = kSwitch;
constexpr std::uint8_t kEntryType = kEntry;
constexpr std::uint8_t kOpSet = 0, kOpRemove = 1;
constexpr std::uint16_t kVlanMax = 4094;

class ArpDaemonConn : public Conn {
public:
    ArpDaemonConn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid)
        : Conn(loop, fd, where, pid), ctx_(ctx) {}

protected:
    void message(std::span<const std::uint8_t> msg) override {
        const auto m = read_adj_message(msg);
        const bool sized = m && ((m->type == kEviSwitchType && m->payload.size() == kSwitchLen) ||
                                 (m->type == kEntryType && m->payload.size() == kEntryLen));
        if (!sized) {
            capture_lipc(ctx_, *this, "request", msg, {{"error", "not an ARP daemon request"}});
            return answer(kFailure);
        }
        const auto type = m->type;
        const auto payload = m->payload;
        if (type == kEntryType) return answer(entry(msg, payload));
        answer(suppression(msg, payload));
    }

private:
    std::uint32_t entry(std::span<const std::uint8_t> msg, std::span<const std::uint8_t> p) {
        Neighbour n;
        n.family = 2;
        std::memcpy(n.addr.data(), p.data(), 4);
        n.ifindex = ipc::wire::load_be<std::uint32_t>(p.data() + 4);
        std::memcpy(n.mac.data(), p.data() + 8, 6);
        n.vlan = ipc::wire::load_be<std::uint16_t>(p.data() + 14);
        n.port = ipc::wire::load_be<std::uint32_t>(p.data() + 16);
        n.aging = ipc::wire::load_be<std::uint32_t>(p.data() + 20);
        const std::uint8_t op = p[24];
        capture_lipc(ctx_, *this, "request", msg,
                     {{"type", kEntryType}, {"interface", n.ifindex}, {"operation", op}});
        const auto* itf = ctx_.device.interface(n.ifindex);
        if (n.addr == NeighAddr{} || itf == nullptr) return kFailure;
        if (op == kOpRemove) {
            const Neighbour* had = ctx_.neighs.find(2, n.ifindex, n.addr);
            if (had == nullptr || had->kind != NeighKind::kSet) return kFailure;
            ctx_.neighs.remove(2, n.ifindex, n.addr);
            return 0;
        }
        if (op != kOpSet || n.vlan > kVlanMax || (n.port != 0 && ctx_.device.interface(n.port) == nullptr)) {
            return kFailure;
        }
        n.state = NeighState::kReachable;
        n.kind = NeighKind::kSet;
        n.vrf = itf->vrf;
        n.node = itf->node;
        n.updated = ctx_.uptime();
        return ctx_.neighs.put(n) ? 0 : kNoResources;
    }

    std::uint32_t suppression(std::span<const std::uint8_t> msg, std::span<const std::uint8_t> p) {
        const std::uint8_t code = p[0];
        const bool on = p[1] == 1;
        const auto instance = ipc::wire::load_be<std::uint32_t>(p.data() + 4);
        const auto ifindex = ipc::wire::load_be<std::uint32_t>(p.data() + 16);
        capture_lipc(ctx_, *this, "request", msg, {{"type", kEviSwitchType}, {"code", code}});
        auto& evi = ctx_.arp.evi_suppression;
        auto& overlay = ctx_.arp.overlay_suppression;
        switch (code) {
            case kSetEvi:
                if (instance == 0) return kFailure;
                // A switch that is off is no entry; at most kMaxEviSwitches are on.
                if (!on) {
                    evi.erase(instance);
                } else if (evi.size() < kMaxEviSwitches || evi.count(instance) != 0) {
                    evi[instance] = true;
                } else {
                    return kFailure;
                }
                return 0;
            case kGetEvi: {
                const auto it = evi.find(instance);
                return it != evi.end() && it->second ? 1u : 0u;
            }
            case kSetOverlay:
                if (ctx_.device.interface(ifindex) == nullptr) return kFailure;
                if (on) {
                    overlay[ifindex] = true;
                } else {
                    overlay.erase(ifindex);
                }
                return 0;
            case kGetOverlay: {
                const auto it = overlay.find(ifindex);
                return it != overlay.end() && it->second ? 1u : 0u;
            }
            default: return kFailure;
        }
    }

    void answer(std::uint32_t word) { answer_word(ctx_, *this, word); }

    Context& ctx_;
};

}  // namespace

std::unique_ptr<Conn> make_arp_daemon_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid) {
    return std::make_unique<ArpDaemonConn>(ctx, loop, fd, where, pid);
}

}  // namespace sim
