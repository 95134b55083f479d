// The kernel control channel: every call goes to the installed backend (a test's fake
// kernel modules), else to a simulated device when one runs for the instance. Without
// either, the modules are absent.
#include <atomic>

#include "device.hpp"
#include "internal.hpp"
#include "ipclient/status.h"

namespace ipp {
namespace {

constexpr std::uint32_t kNoModule = IPSTATUS_FAILED;

std::atomic<ipp_kernel_handler> g_handler{nullptr};
std::atomic<void*> g_ctx{nullptr};

std::uint32_t dispatch(const ipp_kcall& call, void* reply, std::uint32_t* returned_len) noexcept {
    const ipp_kernel_handler handler = g_handler.load(std::memory_order_acquire);
    std::uint32_t returned = 0;
    std::uint32_t status = kNoModule;
    if (handler != nullptr) {
        status = handler(g_ctx.load(std::memory_order_acquire), &call, static_cast<std::uint8_t*>(reply), &returned);
    }
    if (returned_len != nullptr) *returned_len = returned;
    return status;
}

}  // namespace

void reset_kernel() noexcept {
    g_handler.store(nullptr, std::memory_order_release);
    g_ctx.store(nullptr, std::memory_order_release);
}

}  // namespace ipp

extern "C" {

void ipp_kernel_set_handler(ipp_kernel_handler handler, void* ctx) {
    ipp::g_ctx.store(ctx, std::memory_order_release);
    ipp::g_handler.store(handler, std::memory_order_release);
}

uint32_t CIOCTL(uint32_t node, uint32_t command, uint32_t request_len, const void* request, uint32_t reply_cap,
                void* reply, uint32_t* returned_len) {
    ipp::count(IPP_CALL_CIOCTL);
    if (ipp::g_handler.load(std::memory_order_acquire) == nullptr && ipp::dev::active()) {
        return ipp::dev::cioctl(node, command, request_len, request, reply_cap, reply, returned_len, false);
    }
    const ipp_kcall call{node, command, static_cast<const uint8_t*>(request), request_len, reply_cap, 0,
                         reply == nullptr, returned_len == nullptr};
    return ipp::dispatch(call, reply, returned_len);
}

uint32_t CIOCTL_Async(uint32_t node, uint32_t command, uint32_t request_len, const void* request) {
    ipp::count(IPP_CALL_CIOCTL_ASYNC);
    if (ipp::g_handler.load(std::memory_order_acquire) == nullptr && ipp::dev::active()) {
        return ipp::dev::cioctl(node, command, request_len, request, 0, nullptr, nullptr, true);
    }
    const ipp_kcall call{node, command, static_cast<const uint8_t*>(request), request_len, 0, 1, 1, 1};
    return ipp::dispatch(call, nullptr, nullptr);
}

}  // extern "C"
