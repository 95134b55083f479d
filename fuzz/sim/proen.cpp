// The request parser of the protocol-to-CPU service (port 1680, or its local variant 11557) on
// node 1 or 2.
#include "sim_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::uint16_t node = in.ConsumeBool() ? 1 : 2;
    const std::uint16_t port = (in.ConsumeBool() ? 1680 : 11557);
    ipfuzz::simfuzz::exchange({node, port}, ipfuzz::simfuzz::messages(in, 8, 400));
    return 0;
}
