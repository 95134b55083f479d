// Generic-netlink controller replies as ADJ4_GetGenlFamilyId reads them, on a socket pair
// standing in for the netlink socket.
#include "fuzz_support.hpp"
#include "ipclient/adj.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    ipfuzz::Pair pair(SOCK_DGRAM);
    if (!pair.ok()) return 0;
    const std::string name = in.ConsumeRandomLengthString(40);
    pair.feed(ipfuzz::datagrams(in, 2, 8192));
    std::uint16_t id = 0;
    (void)ADJ4_GetGenlFamilyId(pair.theirs, name.c_str(), &id);
    return 0;
}
