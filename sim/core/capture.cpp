#include "core/capture.hpp"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cstring>

#include "core/log.hpp"

namespace sim {

Capture::~Capture() {
    if (fd_ >= 0) ::close(fd_);
}

std::optional<std::string> Capture::open(const std::string& path) {
    path_ = path;
    int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (fd < 0 && errno == EEXIST) fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        const int err = errno;
        return path + ": " + (err == ELOOP ? std::string("is a symbolic link; give the file itself") : std::strerror(err));
    }
    struct stat st {};
    std::optional<std::string> refused;
    if (::fstat(fd, &st) != 0) {
        refused = path + ": " + std::strerror(errno);
    } else if (!S_ISREG(st.st_mode) && !S_ISFIFO(st.st_mode)) {
        refused = path + ": not a regular file or a FIFO";
    } else if (S_ISREG(st.st_mode) && st.st_uid != ::geteuid()) {
        refused = path + ": belongs to uid " + std::to_string(st.st_uid) + ", not to this user";
    } else if (S_ISREG(st.st_mode) && (st.st_mode & 077) != 0 && ::fchmod(fd, 0600) != 0) {
        refused = path + ": " + std::strerror(errno);
    }
    if (refused) {
        ::close(fd);
        return refused;
    }
    // A FIFO's reader may be slow: the simulator waits for it rather than lose lines.
    if (S_ISFIFO(st.st_mode)) ::fcntl(fd, F_SETFL, O_WRONLY | O_APPEND);
    regular_ = S_ISREG(st.st_mode);
    fd_ = fd;
    return std::nullopt;
}

void Capture::stop(int err) noexcept {
    SIM_LOG(kError, "capture: %s: %s; the capture stops here (the file ends with the last whole line)", path_.c_str(),
            std::strerror(err));
    ::close(fd_);
    fd_ = -1;
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
    if (fd_ < 0) return;
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
    std::string text = line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    text.push_back('\n');
    // The line goes whole or not at all: a part written before the file system filled up
    // is cut off again.
    const off_t before = regular_ ? ::lseek(fd_, 0, SEEK_END) : 0;
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd_, text.data() + done, text.size() - done);
        if (n > 0) {
            done += static_cast<std::size_t>(n);
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        const int err = n < 0 ? errno : ENOSPC;
        if (regular_ && before >= 0 && done > 0) {
            [[maybe_unused]] const int rc = ::ftruncate(fd_, before);
        }
        return stop(err);
    }
}

}  // namespace sim
