#include "core/capture.hpp"

#include <time.h>

namespace sim {

Capture::~Capture() {
    if (file_ != nullptr) std::fclose(file_);
}

bool Capture::open(const std::string& path) {
    file_ = std::fopen(path.c_str(), "ae");
    return file_ != nullptr;
}

std::string hex(std::span<const std::uint8_t> bytes) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string out(bytes.size() * 2, '0');
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        out[2 * i] = kDigits[bytes[i] >> 4];
        out[2 * i + 1] = kDigits[bytes[i] & 0xF];
    }
    return out;
}

void Capture::record(const Where& where, std::span<const std::uint8_t> bytes, nlohmann::json fields) {
    if (file_ == nullptr) return;
    timespec ts{};
    ::clock_gettime(CLOCK_REALTIME, &ts);
    nlohmann::json line;
    line["time"] = static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec / 1000) / 1e6;
    line["dir"] = where.dir;
    line["node"] = where.node;
    line["channel"] = where.channel;
    if (where.port != 0) line["port"] = where.port;
    if (where.command != 0) {
        char cmd[16];
        std::snprintf(cmd, sizeof cmd, "0x%x", where.command);
        line["command"] = cmd;
    }
    line["pid"] = where.pid;
    line["bytes"] = hex(bytes);
    if (!fields.is_null()) line["fields"] = std::move(fields);
    const std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::fwrite(text.data(), 1, text.size(), file_);
    std::fputc('\n', file_);
    std::fflush(file_);
}

}  // namespace sim
