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
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    ipfuzz::Pair pair;
    if (!pair.ok()) return 0;
    const auto grams = ipfuzz::datagrams(in, 16, WADJ4_EVENT_MAX + 16);
    pair.feed(grams);
    g_pfWADJ4EventProc = &on_event;
    for (std::size_t i = 0; i <= grams.size(); ++i) (void)WADJ4_ProcEvent(pair.theirs);
    g_pfWADJ4EventProc = nullptr;
    return 0;
}
