// sleep and dlopen as the library sees them: sleep can be made virtual (counted, instant),
// and the libraries loaded at run time can be redirected to other files.
#include <dlfcn.h>
#include <errno.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <mutex>
#include <optional>
#include <string>

#include "internal.hpp"

namespace ipp {
namespace {

std::atomic<bool> g_virtual_sleep{false};
std::atomic<std::uint64_t> g_slept{0};

struct Redirects {
    std::mutex mu;
    std::map<std::string, std::optional<std::string>> map;
};

Redirects& redirects() {
    static Redirects r;
    return r;
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
    if (path != nullptr) {
        const std::lock_guard lock(ipp::redirects().mu);
        const auto it = ipp::redirects().map.find(path);
        if (it != ipp::redirects().map.end()) {
            if (!it->second) return nullptr;
            target = *it->second;
        }
    }
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
