// Statuses the tests expect, written as the numbers the device and the library answer rather
// than taken from the library's headers, so that a wrong constant there fails a test.
#pragma once

#include <cstdint>

// The general failure: no such entry, a bad request, a bad argument.
inline constexpr std::uint32_t kFailed = 0x40010001u;
