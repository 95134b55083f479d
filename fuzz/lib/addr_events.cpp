// Address events as the event service sends them: IPAddr_HandleEvent on every datagram.
#include "fuzz_support.hpp"
#include "ipclient/ipaddr.h"

namespace {
std::uint32_t on_event(std::uint32_t, IPAddrEntry* entry, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {
    ipfuzz::touch(entry, sizeof(*entry));
    return 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int rc = ipfuzz::datagram_input(data, size, 4096, [](int fd) {
        g_pfIPAddr_EvProc = &on_event;
        (void)IPAddr_HandleEvent(fd);
    });
    g_pfIPAddr_EvProc = nullptr;
    return rc;
}
