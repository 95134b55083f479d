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
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    ipfuzz::Pair pair;
    if (!pair.ok()) return 0;
    const auto grams = ipfuzz::datagrams(in, 16, 4096);
    pair.feed(grams);
    g_pfIPAddr_EvProc = &on_event;
    for (std::size_t i = 0; i <= grams.size(); ++i) (void)IPAddr_HandleEvent(pair.theirs);
    g_pfIPAddr_EvProc = nullptr;
    pair.drain();
    return 0;
}
