// The simulator's log on standard error: one line per event, with a level.
#pragma once

#include <cstdarg>
#include <string_view>

namespace sim::log {

enum class Level { kError = 0, kWarn = 1, kInfo = 2, kDebug = 3 };

// Parses "error", "warn", "info" or "debug"; false for anything else.
bool parse_level(std::string_view text, Level* out) noexcept;
void set_level(Level level) noexcept;
bool enabled(Level level) noexcept;
void write(Level level, const char* fmt, ...) noexcept __attribute__((format(printf, 2, 3)));

}  // namespace sim::log

#define SIM_LOG(level, ...)                                                         \
    do {                                                                            \
        if (::sim::log::enabled(::sim::log::Level::level)) ::sim::log::write(::sim::log::Level::level, __VA_ARGS__); \
    } while (0)
