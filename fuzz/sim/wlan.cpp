// The request parser of the WLAN adjacency service on node 1 or 2.
#include "ipproto/lipc.hpp"
#include "sim_support.hpp"

namespace port = ipc::proto::port;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return ipfuzz::simfuzz::service_input(data, size, {.port = port::kWlan, .longest = 200});
}
