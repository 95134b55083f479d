// The request parser of the address configuration service and control socket (port 1653) on node 1 or 2.
#include "sim_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::uint16_t node = in.ConsumeBool() ? 1 : 2;
    ipfuzz::simfuzz::exchange({node, 1653}, ipfuzz::simfuzz::messages(in, 8, 2048));
    return 0;
}
