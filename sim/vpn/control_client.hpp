// One request to the running simulator's control channel, from inside a client process.
#pragma once

#include <optional>

#include <nlohmann/json.hpp>

namespace ipsim_vpn {

// Sends `request` to the control channel of this process's instance and gives the answer
// when it is an object with "ok": true; nothing when the simulator cannot be reached, does
// not answer within the limit or refuses the request. Never throws.
std::optional<nlohmann::json> ask(const nlohmann::json& request) noexcept;

// An unsigned 32-bit field of an answer; nothing when it is missing, null or out of range.
std::optional<std::uint32_t> u32(const nlohmann::json& answer, const char* key) noexcept;

}  // namespace ipsim_vpn
