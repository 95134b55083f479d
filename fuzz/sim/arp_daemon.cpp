// The request parser of the ARP daemon (port 1639) on node 1 or 2.
#include "sim_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::uint16_t node = in.ConsumeBool() ? 1 : 2;
    const std::uint16_t port = 1639;
    ipfuzz::simfuzz::exchange({node, port}, ipfuzz::simfuzz::messages(in, 8, 400));
    return 0;
}
