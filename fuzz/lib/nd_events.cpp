// ND events as the IPv6 adjacency service sends them: ND_ProcEvent on up to 64 datagrams.
#include "ipclient/nd.h"
#include "ipproto/lipc.hpp"
#include "subscription.hpp"

namespace {
std::uint32_t on_event(std::uint32_t, NdEventRecord* record) {
    ipfuzz::touch(record, sizeof(*record));
    return 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ipfuzz::Subscription sub =
        ipfuzz::subscribe_once(1, ipc::proto::port::kNdTable, [] { return ND_RegEvent(1, 2, &on_event); });
    return ipfuzz::subscribed_input(sub, data, size, ND_EVENT_DATAGRAM_MAX + 16,
                                    [](int fd) { (void)ND_ProcEvent(static_cast<std::uint32_t>(fd)); });
}
