#include "core/log.hpp"

#include <time.h>

#include <atomic>
#include <cstdio>

namespace sim::log {
namespace {

std::atomic<int> g_level{static_cast<int>(Level::kInfo)};
constexpr const char* kNames[] = {"error", "warn", "info", "debug"};

}  // namespace

bool parse_level(std::string_view text, Level* out) noexcept {
    for (int i = 0; i < 4; ++i) {
        if (text == kNames[i]) {
            *out = static_cast<Level>(i);
            return true;
        }
    }
    return false;
}

void set_level(Level level) noexcept { g_level.store(static_cast<int>(level)); }

bool enabled(Level level) noexcept { return static_cast<int>(level) <= g_level.load(std::memory_order_relaxed); }

void write(Level level, const char* fmt, ...) noexcept {
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    tm parts{};
    ::gmtime_r(&ts.tv_sec, &parts);
    char line[1024];
    int n = std::snprintf(line, sizeof line, "ipsimd %02d:%02d:%02d.%03ld %s: ", parts.tm_hour, parts.tm_min,
                          parts.tm_sec, ts.tv_nsec / 1'000'000, kNames[static_cast<int>(level)]);
    if (n < 0) return;
    va_list ap;
    va_start(ap, fmt);
    const int m = std::vsnprintf(line + n, sizeof line - static_cast<std::size_t>(n), fmt, ap);
    va_end(ap);
    if (m > 0) n = std::min<int>(n + m, static_cast<int>(sizeof line) - 2);
    line[n++] = '\n';
    std::fwrite(line, 1, static_cast<std::size_t>(n), stderr);
}

}  // namespace sim::log
