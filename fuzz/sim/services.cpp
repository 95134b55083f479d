// The family-37 services' request parsers: address configuration and control (1653),
// address events (11547), the IPStack daemon (1648) and the port-attack daemon (4418), on
// node 1 or 2.
#include "sim_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr std::uint16_t kPorts[] = {1653, 11547, 1648, 4418};
    FuzzedDataProvider in(data, size);
    const std::uint16_t port = in.PickValueInArray(kPorts);
    const std::uint16_t node = in.ConsumeBool() ? 1 : 2;
    ipfuzz::simfuzz::exchange({node, port}, ipfuzz::simfuzz::messages(in, 8, 2048));
    return 0;
}
