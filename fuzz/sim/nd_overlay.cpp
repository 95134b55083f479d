// The request parser of the ND overlay suppression service (master endpoint).
#include "ipproto/lipc.hpp"
#include "sim_support.hpp"

namespace port = ipc::proto::port;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return ipfuzz::simfuzz::service_input(data, size, {.port = port::kNdOverlay, .master_only = true, .longest = 400});
}
