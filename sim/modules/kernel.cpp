// The kernel modules behind the control channel, by command. A module that the device
// does not have answers 0x40010001, as a device without it would.
#include "context.hpp"

namespace sim {

std::uint32_t kernel_dispatch(Context& ctx, std::uint16_t node, std::uint32_t command,
                              std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                              std::uint32_t* returned) {
    *returned = 0;
    switch (command) {
        case AddrModule::kCommand: return ctx.addr_module.handle(node, request, reply, returned);
        default: return 0x40010001u;
    }
}

}  // namespace sim
