// ND error notifications: kernel events of class 0x210002, raised from the control channel.
//
// A notification is one tag-length-value element, as the platform's reader takes it:
// [BE16 type][BE16 value length][value]. The ND client hands the value of a type-0
// element to its error handler and passes any other type over; the value's bytes are the
// reporter's (the simulator sends what it is given).
//
// Control operation "nd.error" {"type": T (default 0, 0..65535), "value": "hex digits"
// (default empty, at most 508 bytes, so that the notification fits the 512 bytes the
// client reads)} -> {"reached": number of subscriptions the notification was queued for,
// "bytes": the notification in hex}.
#include <stdexcept>
#include <string>
#include <vector>

#include "control/args.hpp"
#include "ipclient/nd.h"
#include "ipproto/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

constexpr std::uint32_t kNdErrorClass = ND_ERROR_EVENT_CLASS;
constexpr std::size_t kNotificationMax = 512;
constexpr std::size_t kElementHead = 4;

}  // namespace

void register_nd_errors(Context& ctx) {
    ctx.control.on("nd.error", [&ctx](const nlohmann::json& req) {
        const auto type = arg::whole<std::uint16_t, 0, 0xFFFF>(req, "type", 0);
        const auto value = arg::hex_bytes(req, "value", kNotificationMax - kElementHead);
        std::vector<std::uint8_t> note(kElementHead + value.size());
        ipc::wire::Writer w(note);
        w.be(type).be(static_cast<std::uint16_t>(value.size())).raw(value.data(), value.size());
        const std::size_t reached = post_kernel_event(ctx, kNdErrorClass, note);
        if (ctx.capture.on()) {
            ctx.capture.record({"event", 0, "kernel", 0, kNdErrorClass, 0}, note, {{"reached", reached}});
        }
        return nlohmann::json{{"reached", reached}, {"bytes", hex(note)}};
    });
}

}  // namespace sim
