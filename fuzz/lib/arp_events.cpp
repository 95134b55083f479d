// ARP events as the IPv4 adjacency service sends them: ARP_ProcEvent on up to 64 datagrams.
#include "ipclient/arp.h"
#include "subscription.hpp"

namespace {
std::uint32_t on_event(std::uint32_t, void* entry, std::uint16_t) {
    ipfuzz::touch(entry, ARP_EVENT_ENTRY_LEN);
    return 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ipfuzz::Subscription sub =
        ipfuzz::subscribe_once(1, 11537, [] { return ARP_RegEvent(1, 2, &on_event); });
    FuzzedDataProvider in(data, size);
    ipfuzz::send_all(sub.service, ipfuzz::datagrams(in, 64, ARP_EVENT_DATAGRAM_MAX + 16));
    (void)ARP_ProcEvent(sub.library);
    ipfuzz::drain(sub.library);
    ipfuzz::drain(sub.service);
    return 0;
}
