// ARP events as the IPv4 adjacency service sends them: ARP_ProcEvent on up to 64 datagrams.
#include "ipclient/arp.h"
#include "ipproto/lipc.hpp"
#include "subscription.hpp"

namespace {
std::uint32_t on_event(std::uint32_t, void* entry, std::uint16_t) {
    ipfuzz::touch(entry, ARP_EVENT_ENTRY_LEN);
    return 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ipfuzz::Subscription sub =
        ipfuzz::subscribe_once(1, ipc::proto::port::kArpTable, [] { return ARP_RegEvent(1, 2, &on_event); });
    return ipfuzz::subscribed_input(sub, data, size, ARP_EVENT_DATAGRAM_MAX + 16,
                                    [](int fd) { (void)ARP_ProcEvent(fd); });
}
