// The kernel modules behind the device channel's CIOCTL call: the fuzzer's request bytes
// sent to a module of the device (address, FIB, ARP, ND, WLAN, others) on a node, sync or async.
#include "ipproto/device.hpp"
#include "ipproto/wire.hpp"
#include "sim_support.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr std::uint32_t kCommands[] = {0x260001, 0x380001, 0x380002, 0x380003, 0x380004, 0x380005,
                                                  0x380006, 0x380007, 0x380008, 0x380009, 0x38000A, 0x38000B,
                                                  0x38000C, 0x140001, 0x140002, 0x140004, 0x110001, 0x110002,
                                                  0x110004, 0x110005, 0x110013, 0x5b0001, 0x150001};
    FuzzedDataProvider in(data, size);
    std::vector<ipfuzz::simfuzz::Bytes> calls;
    while (calls.size() < 6 && in.remaining_bytes() > 0) {
        ipc::wire::Frame<20> head;
        head.be<0>(static_cast<std::uint32_t>(ipc::device::Call::kCioctl));
        head.be<4>(in.ConsumeBool() ? 0xFFFF8000u : in.ConsumeIntegralInRange<std::uint32_t>(0, 3));
        head.be<8>(in.PickValueInArray(kCommands));
        head.be<12>(in.ConsumeIntegralInRange<std::uint32_t>(0, 70000));
        head.be<16>(in.ConsumeBool() ? 1u : 0u);
        ipfuzz::simfuzz::Bytes call(head.data(), head.data() + head.size());
        const auto body = in.ConsumeBytes<std::uint8_t>(in.ConsumeIntegralInRange<std::size_t>(0, 512));
        call.insert(call.end(), body.begin(), body.end());
        calls.push_back(std::move(call));
    }
    ipfuzz::simfuzz::exchange({0, 0}, calls, ipfuzz::simfuzz::hello());
    return 0;
}
