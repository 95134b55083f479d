// WLAN adjacency events: WADJ4_ProcEvent on each datagram.
#include "fuzz_support.hpp"
#include "ipclient/adj.h"

namespace {
std::uint32_t on_event(std::uint32_t, void* entry) {
    if (entry == nullptr) return 0;  // type 2: the event without an entry
    ipfuzz::touch(entry, WADJ4_ENTRY_LEN);
    return 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const int rc = ipfuzz::datagram_input(data, size, WADJ4_EVENT_MAX + 16, [](int fd) {
        g_pfWADJ4EventProc = &on_event;
        (void)WADJ4_ProcEvent(fd);
    });
    g_pfWADJ4EventProc = nullptr;
    return rc;
}
