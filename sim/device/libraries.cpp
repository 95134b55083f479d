// Where the simulator's stand-ins for the device's run-time libraries are (libraries.hpp).
#include "device/libraries.hpp"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <utility>

#ifndef IPSIMD_LIBRARY_DIRS
#define IPSIMD_LIBRARY_DIRS "vpn"
#endif

namespace sim {
namespace {

// Device paths and the file names of the simulator's libraries.
constexpr std::array<std::pair<std::string_view, std::string_view>, 2> kLibraries{{
    {"/lib/libl2vpn.so", "libl2vpn.so"},
    {"/lib/libl3vpn.so", "libl3vpn.so"},
}};

// The directory of the running executable, or nothing.
std::optional<std::string> executable_dir() {
    std::array<char, PATH_MAX> buf{};
    const ssize_t n = ::readlink("/proc/self/exe", buf.data(), buf.size() - 1);
    if (n <= 0) return std::nullopt;
    std::string path(buf.data(), static_cast<std::size_t>(n));
    const auto slash = path.rfind('/');
    if (slash == std::string::npos) return std::nullopt;
    path.resize(slash == 0 ? 1 : slash);
    return path;
}

}  // namespace

std::optional<std::string> runtime_library(std::string_view path) {
    std::string_view file;
    for (const auto& [device_path, name] : kLibraries) {
        if (device_path == path) file = name;
    }
    if (file.empty()) return std::nullopt;
    const auto exe_dir = executable_dir();
    const std::string_view dirs = IPSIMD_LIBRARY_DIRS;
    std::size_t at = 0;
    while (at <= dirs.size()) {
        const std::size_t end = std::min(dirs.find(':', at), dirs.size());
        const std::string_view dir = dirs.substr(at, end - at);
        at = end + 1;
        if (dir.empty()) continue;
        std::string candidate;
        if (dir.front() != '/') {
            if (!exe_dir) continue;
            candidate.append(*exe_dir).append(1, '/');
        }
        candidate.append(dir).append(1, '/').append(file);
        std::array<char, PATH_MAX> resolved{};
        if (::realpath(candidate.c_str(), resolved.data()) != nullptr && ::access(resolved.data(), R_OK) == 0) {
            return std::string(resolved.data());
        }
    }
    return std::nullopt;
}

}  // namespace sim
