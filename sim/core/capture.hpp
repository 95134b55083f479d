// Capture of every request and answer on every channel, one JSON line each:
//   {"time": <seconds since the epoch, microseconds>, "dir": "request"|"answer"|"event",
//    "node": N, "channel": "device"|"kernel"|"lipc", "port": P | "command": "0x260001",
//    "pid": client pid, "bytes": "<hex>", "fields": {decoded fields}}
// Applications cannot see these bytes on a device; here they can.
#pragma once

#include <cstdint>
#include <cstdio>
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

    // Opens (appends to) the capture file; false when it cannot be opened.
    bool open(const std::string& path);
    bool on() const noexcept { return file_ != nullptr; }

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
    std::FILE* file_ = nullptr;
};

// Lowercase hex of bytes.
std::string hex(std::span<const std::uint8_t> bytes);

}  // namespace sim
