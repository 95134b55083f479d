// ND error notifications as kernel events of class 0x210002: ND_ErrorAsyncNotifyProc.
#include "fuzz_support.hpp"
#include "ipclient/nd.h"

namespace {
std::uint64_t on_error(const void*) { return 0; }
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const int fd = [] {
        ipfuzz::reset_platform();
        return ND_RegErrorAsyncNotify(&on_error);
    }();
    if (fd < 0) __builtin_trap();
    FuzzedDataProvider in(data, size);
    for (const auto& g : ipfuzz::datagrams(in, 16, 4096)) {
        (void)ipp_kevent_post(0x210002u, g.data(), static_cast<std::uint32_t>(g.size()));
    }
    (void)ND_ErrorAsyncNotifyProc(fd);
    return 0;
}
