// The control-channel exchange of the VPN libraries (control_client.hpp).
#include "control_client.hpp"

#include <errno.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "common/endpoint_names.hpp"
#include "common/raii.hpp"

namespace ipsim_vpn {
namespace {

using nlohmann::json;

// How long one exchange may take before the simulator is taken as absent.
constexpr time_t kLimitSeconds = 2;

// The instance this process belongs to, named as the platform names it.
std::string instance() {
    const char* env = std::getenv("IPCLIENT_INSTANCE");
    if (env != nullptr && *env != '\0') return env;
    std::string name(1, 'p');
    name.append(std::to_string(::getpid()));
    return name;
}

ipc::Fd connect_control() {
    ipc::Fd fd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!fd.valid()) return fd;
    const timeval limit{kLimitSeconds, 0};
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_un sun{};
    const socklen_t n = ipc::names::control(instance(), &sun);
    int rc;
    do {
        rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&sun), n);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) fd.reset();
    return fd;
}

// The next message's length without taking it; -1 on failure or time-out.
ssize_t peek_length(int fd) {
    char byte = 0;
    ssize_t n;
    do {
        n = ::recv(fd, &byte, 1, MSG_PEEK | MSG_TRUNC);
    } while (n < 0 && errno == EINTR);
    return n;
}

std::optional<json> exchange(const json& request) {
    const ipc::Fd fd = connect_control();
    if (!fd.valid()) return std::nullopt;
    const std::string text = request.dump(-1, ' ', false, json::error_handler_t::replace);
    ssize_t n;
    do {
        n = ::send(fd.get(), text.data(), text.size(), MSG_NOSIGNAL);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(text.size())) return std::nullopt;
    const ssize_t len = peek_length(fd.get());
    if (len <= 0) return std::nullopt;
    std::vector<char> reply(static_cast<std::size_t>(len));
    do {
        n = ::recv(fd.get(), reply.data(), reply.size(), 0);
    } while (n < 0 && errno == EINTR);
    if (n != len) return std::nullopt;
    json answer = json::parse(reply.begin(), reply.end(), nullptr, false);
    if (answer.is_discarded() || !answer.is_object()) return std::nullopt;
    const auto ok = answer.find("ok");
    if (ok == answer.end() || !ok->is_boolean() || !ok->get<bool>()) return std::nullopt;
    return answer;
}

}  // namespace

std::optional<json> ask(const json& request) noexcept {
    try {
        return exchange(request);
    } catch (...) {
        // No memory for the request or the answer: the simulator's answer is not had.
        return std::nullopt;
    }
}

std::optional<std::uint32_t> u32(const json& answer, const char* key) noexcept {
    const auto it = answer.find(key);
    if (it == answer.end() || !it->is_number_unsigned()) return std::nullopt;
    const auto v = it->get<std::uint64_t>();
    if (v > 0xFFFFFFFFu) return std::nullopt;
    return static_cast<std::uint32_t>(v);
}

}  // namespace ipsim_vpn
