// A progress line on standard error for long operations (route save, neighbour walks),
// drawn only when standard error is a terminal: what is done, the total where it is known,
// the rate and, with a total, the time left. On a pipe or a file nothing is written.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace ipctl {

class Progress {
public:
    // unit names what is counted ("routes", "entries").
    Progress(std::string unit, std::optional<std::uint64_t> total);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // The count done so far; redraws at most every 100 ms.
    void update(std::uint64_t done);
    // Draws the final count and ends the line.
    void finish();
    bool shown() const noexcept { return tty_; }

private:
    void draw(std::uint64_t done);

    std::string unit_;
    std::optional<std::uint64_t> total_;
    bool tty_;
    bool finished_ = false;
    std::uint64_t done_ = 0;
    std::chrono::steady_clock::time_point start_;
    std::chrono::steady_clock::time_point last_draw_;
};

}  // namespace ipctl
