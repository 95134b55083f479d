// The FIB dump: chunks of the dump service for both nodes, as FIB_SaveForwardingTable reads
// them, written to a file of the run's own (a failed save deletes its file: never a path
// that others use, such as /dev/null).
#include <stdlib.h>

#include <string>

#include "fuzz_support.hpp"
#include "ipclient/fib.h"

namespace {

const std::string& table_file() {
    static const std::string path = [] {
        char dir[] = "/tmp/ipclient-fuzz-fib-XXXXXX";
        const char* made = ::mkdtemp(dir);
        return std::string(made != nullptr ? made : "/tmp") + "/fib.txt";
    }();
    return path;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    for (std::uint16_t node = 1; node <= 2; ++node) {
        for (const auto& chunk : ipfuzz::datagrams(in, 6, 9000)) {
            ipp_dump_add_chunk(node, 0x640001u, chunk.data(), static_cast<std::uint32_t>(chunk.size()));
        }
        ipp_dump_set_final(node, 0x640001u, in.ConsumeBool() ? 0u : in.ConsumeIntegral<std::uint32_t>());
    }
    (void)FIB_SaveForwardingTable(table_file().c_str());
    return 0;
}
