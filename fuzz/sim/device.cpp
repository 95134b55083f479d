// The device channel's request parser: platform calls of every kind, after a greeting or
// without one.
#include "sim_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    FuzzedDataProvider in(data, size);
    const bool greet = in.ConsumeBool();
    const auto msgs = ipfuzz::simfuzz::messages(in, 8, 4096);
    ipfuzz::simfuzz::exchange({0, 0}, msgs, greet ? ipfuzz::simfuzz::hello() : ipfuzz::simfuzz::Bytes{});
    return 0;
}
