// Capture of every request and answer on every channel, one JSON line each:
//   {"time": <seconds since the epoch, microseconds>, "dir": "request"|"answer"|"event",
//    "node": N, "channel": "device"|"kernel"|"lipc", "port": P | "command": "0x260001",
//    "pid": client pid, "bytes": "<hex>", "fields": {decoded fields}}
// Applications cannot see these bytes on a device; here they can.
//
// The file holds all traffic, so it is private: a new one is created 0600 (never through a
// symbolic link, never one that appears meanwhile); an existing one must be this user's
// regular file (or a FIFO, for a reader that follows along) and is made 0600. Each line is
// written whole or not at all: when the file cannot take one (a full file system), the
// capture stops with one log line and the file ends with the last whole line.
#pragma once

#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>
#include <string>

#include <nlohmann/json.hpp>

namespace sim {

class Capture {
public:
    Capture() = default;
    ~Capture();
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;

    // Opens (appends to) the capture file; an error text when it cannot be opened.
    std::optional<std::string> open(const std::string& path);
    bool on() const noexcept { return fd_ >= 0; }

    struct Where {
        const char* dir;       // "request", "answer" or "event"
        std::uint16_t node;
        const char* channel;   // "device", "kernel" or "lipc"
        std::uint32_t port;    // family-37 port, or 0
        std::uint32_t command; // control-channel command, or 0
        int pid;
    };
    void record(const Where& where, std::span<const std::uint8_t> bytes, nlohmann::json fields);

private:
    void stop(int err) noexcept;

    int fd_ = -1;
    bool regular_ = false;
    std::string path_;
};

// Lowercase hex of bytes.
std::string hex(std::span<const std::uint8_t> bytes);

}  // namespace sim
