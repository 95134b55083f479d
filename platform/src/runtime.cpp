// sleep and dlopen as the library sees them: sleep can be made virtual (counted, instant),
// and the libraries loaded at run time can be redirected to other files. A process that
// runs on a simulated device loads the device's libraries as the simulator provides them,
// unless a test redirected the path.
#include <dlfcn.h>
#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <span>
#include <string>

#include "leaf_mutex.hpp"
#include "device.hpp"
#include "internal.hpp"

namespace ipp {
namespace {

std::atomic<bool> g_virtual_sleep{false};
std::atomic<std::uint64_t> g_slept{0};

struct Redirects {
    LeafMutex mu;
    std::map<std::string, std::optional<std::string>> map;
};

Redirects& redirects() {
    static Redirects r;
    return r;
}

// The file a simulated device names for a library path, or an empty string when no
// simulator answers for the process or it has no file of its own for the path.
std::string device_library(const char* path) noexcept {
    if (!dev::active()) return {};
    const std::span<const std::uint8_t> name(reinterpret_cast<const std::uint8_t*>(path), std::strlen(path));
    char file[4096];
    const auto a = dev::call(ipc::device::Call::kLibrary, name, {},
                             std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(file), sizeof file - 1));
    if (!a || a->result != 0 || a->len == 0 || a->len >= sizeof file) return {};
    return std::string(file, a->len);
}

}  // namespace

void reset_runtime() noexcept {
    g_virtual_sleep = false;
    g_slept = 0;
    const std::lock_guard lock(redirects().mu);
    redirects().map.clear();
}

}  // namespace ipp

extern "C" {

IPPLAT_API unsigned int __wrap_sleep(unsigned int seconds) {
    ipp::count(IPP_CALL_SLEEP);
    ipp::g_slept += seconds;
    if (ipp::g_virtual_sleep) return 0;
    return ::sleep(seconds);
}

IPPLAT_API void* __wrap_dlopen(const char* path, int flags) {
    ipp::count(IPP_CALL_DLOPEN);
    if (const auto err = ipp::take_fault(IPP_CALL_DLOPEN)) {
        errno = *err;
        return nullptr;
    }
    std::string target;
    bool redirected = false;
    if (path != nullptr) {
        const std::lock_guard lock(ipp::redirects().mu);
        const auto it = ipp::redirects().map.find(path);
        if (it != ipp::redirects().map.end()) {
            if (!it->second) return nullptr;
            target = *it->second;
            redirected = true;
        }
    }
    if (path != nullptr && !redirected) target = ipp::device_library(path);
    return ::dlopen(target.empty() ? path : target.c_str(), flags);
}

void ipp_sleep_set_virtual(int on) { ipp::g_virtual_sleep = on != 0; }

uint64_t ipp_sleep_total_seconds(void) { return ipp::g_slept; }

void ipp_dlopen_redirect(const char* path, const char* target) {
    if (path == nullptr) return;
    const std::lock_guard lock(ipp::redirects().mu);
    if (target == nullptr) {
        ipp::redirects().map[path] = std::nullopt;
    } else {
        ipp::redirects().map[path] = std::string(target);
    }
}

}  // extern "C"
