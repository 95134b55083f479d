// The request parser of the ND overlay suppression service (port 1667, master endpoint).
#include "sim_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const std::uint16_t node = 1;
    const std::uint16_t port = 1667;
    ipfuzz::simfuzz::exchange({node, port}, ipfuzz::simfuzz::messages(in, 8, 400));
    return 0;
}
