// Local-IPC messages as a peer sends them: IP_LIPC_RecvMsg into a buffer of the fuzzer's
// size, or IP_LIPC_RecvMsg2 into one the library allocates.
#include "fuzz_support.hpp"
#include "ipclient/lipc.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ipfuzz::reset_platform();
    FuzzedDataProvider in(data, size);
    ipfuzz::Pair pair;
    if (!pair.ok()) return 0;
    const bool allocating = in.ConsumeBool();
    const std::size_t cap = in.ConsumeIntegralInRange<std::size_t>(0, 8192);
    const auto grams = ipfuzz::datagrams(in, 4, 70000);
    pair.feed(grams);
    pair.hang_up();  // the receives block on an open, empty socket: after the datagrams, the end
    for (std::size_t i = 0; i <= grams.size(); ++i) {
        void* buf = IP_LIPC_AllocMsg(cap);
        if (buf == nullptr) return 0;
        std::uint64_t len = 0;
        std::uint32_t type = 0;
        if (allocating) {
            void* grown = buf;
            std::uint16_t replaced = 0;
            (void)IP_LIPC_RecvMsg2(pair.theirs, cap, &grown, &len, &type, &replaced);
            if (replaced != 0) IP_LIPC_FreeMsg(grown);
        } else {
            (void)IP_LIPC_RecvMsg(pair.theirs, cap, buf, &len, &type);
        }
        IP_LIPC_FreeMsg(buf);
    }
    return 0;
}
