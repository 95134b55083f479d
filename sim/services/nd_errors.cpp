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

#include "common/wire.hpp"
#include "services/services.hpp"

namespace sim {
namespace {

constexpr std::uint32_t kNdErrorClass = 0x210002;
constexpr std::size_t kNotificationMax = 512;
constexpr std::size_t kElementHead = 4;

int nibble(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

std::vector<std::uint8_t> from_hex(const std::string& text) {
    if (text.size() % 2 != 0) throw std::invalid_argument("\"value\" needs an even number of hex digits");
    std::vector<std::uint8_t> out;
    out.reserve(text.size() / 2);
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int hi = nibble(text[i]);
        const int lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0) throw std::invalid_argument("\"value\" holds a character that is not a hex digit");
        out.push_back(static_cast<std::uint8_t>(hi * 16 + lo));
    }
    return out;
}

}  // namespace

void register_nd_errors(Context& ctx) {
    ctx.control.on("nd.error", [&ctx](const nlohmann::json& req) {
        const auto type_word = req.value("type", std::int64_t{0});
        if (type_word < 0 || type_word > 0xFFFF) throw std::invalid_argument("\"type\" is a 16-bit number");
        const auto type = static_cast<std::uint16_t>(type_word);
        const auto value = from_hex(req.value("value", std::string{}));
        if (value.size() > kNotificationMax - kElementHead) {
            throw std::invalid_argument("\"value\" is longer than a notification holds (508 bytes)");
        }
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
