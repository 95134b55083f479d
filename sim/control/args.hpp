// Readers of the fields that several control operations share; each throws
// std::invalid_argument for a value it refuses, which the channel answers as
// {"ok": false, "error": TEXT}.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

namespace sim {

struct Context;

// "aa:bb:cc:dd:ee:ff": six hexadecimal numbers up to ff, nothing after them.
std::array<std::uint8_t, 6> mac_arg(const nlohmann::json& v);

// An interface given by index or by name; it must exist.
std::uint32_t interface_value(const Context& ctx, const nlohmann::json& v);

}  // namespace sim
