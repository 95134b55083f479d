// ND events as the IPv6 adjacency service sends them: ND_ProcEvent on up to 64 datagrams.
#include "ipclient/nd.h"
#include "subscription.hpp"

namespace {
std::uint32_t on_event(std::uint32_t, NdEventRecord* record) {
    ipfuzz::touch(record, sizeof(*record));
    return 0;
}
}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const ipfuzz::Subscription sub =
        ipfuzz::subscribe_once(1, 11554, [] { return ND_RegEvent(1, 2, &on_event); });
    FuzzedDataProvider in(data, size);
    ipfuzz::send_all(sub.service, ipfuzz::datagrams(in, 64, ND_EVENT_DATAGRAM_MAX + 16));
    (void)ND_ProcEvent(static_cast<std::uint32_t>(sub.library));
    ipfuzz::drain(sub.library);
    ipfuzz::drain(sub.service);
    return 0;
}
