#include "progress.hpp"

#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

namespace ipctl {

Progress::Progress(std::string unit, std::optional<std::uint64_t> total)
    : unit_(std::move(unit)), total_(total), tty_(::isatty(STDERR_FILENO) == 1),
      start_(std::chrono::steady_clock::now()), last_draw_(start_) {
    if (tty_) draw(0);
}

Progress::~Progress() { finish(); }

void Progress::update(std::uint64_t done) {
    done_ = done;
    if (!tty_) return;
    const auto now = std::chrono::steady_clock::now();
    if (now - last_draw_ < std::chrono::milliseconds(100)) return;
    last_draw_ = now;
    draw(done);
}

void Progress::finish() {
    if (finished_) return;
    finished_ = true;
    if (!tty_) return;
    draw(done_);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void Progress::draw(std::uint64_t done) {
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
    const double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0.0;
    char line[160];
    if (total_ && *total_ > 0) {
        const std::uint64_t total = std::max(*total_, done);
        constexpr int kWidth = 24;
        const int filled = static_cast<int>(static_cast<double>(done) * kWidth / static_cast<double>(total));
        char bar[kWidth + 1];
        for (int i = 0; i < kWidth; ++i) bar[i] = i < filled ? '#' : '.';
        bar[kWidth] = '\0';
        const double left = rate > 0 ? static_cast<double>(total - done) / rate : 0.0;
        std::snprintf(line, sizeof line, "\r[%s] %" PRIu64 "/%" PRIu64 " %s  %.0f/s  %.1f s left ", bar, done, total,
                      unit_.c_str(), rate, left);
    } else {
        std::snprintf(line, sizeof line, "\r%" PRIu64 " %s  %.0f/s  %.1f s ", done, unit_.c_str(), rate, seconds);
    }
    std::fputs(line, stderr);
    std::fflush(stderr);
}

}  // namespace ipctl
