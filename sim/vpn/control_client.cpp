// The control-channel exchange of the VPN libraries (control_client.hpp).
#include "control_client.hpp"

#include <unistd.h>

#include <cstdlib>
#include <string>

#include "ipproto/control_channel.hpp"

namespace ipsim_vpn {
namespace {

using nlohmann::json;

// How long each wait of an exchange may take before the simulator is taken as absent.
constexpr int kLimitMs = 2000;

// The instance this process belongs to, named as the platform names it.
std::string instance() {
    const char* env = std::getenv("IPCLIENT_INSTANCE");
    if (env != nullptr && *env != '\0') return env;
    std::string name(1, 'p');
    name.append(std::to_string(::getpid()));
    return name;
}

std::optional<json> exchange(const json& request) {
    const std::string text = request.dump(-1, ' ', false, json::error_handler_t::replace);
    const auto x = ipc::control::ask(instance(), text, kLimitMs);
    if (x.outcome != ipc::control::Exchange::kAnswered) return std::nullopt;
    json answer = json::parse(x.answer, nullptr, false);
    if (answer.is_discarded() || !answer.is_object()) return std::nullopt;
    const auto ok = answer.find("ok");
    if (ok == answer.end() || !ok->is_boolean() || !ok->get<bool>()) return std::nullopt;
    return answer;
}

}  // namespace

std::optional<json> ask(const json& request) noexcept {
    try {
        return exchange(request);
    } catch (...) {
        // No memory for the request or the answer: the simulator's answer is not had.
        return std::nullopt;
    }
}

std::optional<std::uint32_t> u32(const json& answer, const char* key) noexcept {
    const auto it = answer.find(key);
    if (it == answer.end() || !it->is_number_unsigned()) return std::nullopt;
    const auto v = it->get<std::uint64_t>();
    if (v > 0xFFFFFFFFu) return std::nullopt;
    return static_cast<std::uint32_t>(v);
}

}  // namespace ipsim_vpn
