// The kernel modules behind the control channel, by command, and the dumps of their
// tables, by request. A module that the device does not have answers 0x40010001, as a
// device without it would, and a dump it cannot serve is refused.
#include "context.hpp"

namespace sim {

namespace {

std::uint32_t dispatch(Context& ctx, std::uint16_t node, std::uint32_t command, std::span<const std::uint8_t> request,
                       std::span<std::uint8_t> reply, std::uint32_t* returned) {
    switch (command) {
        case AddrModule::kCommand: return ctx.addr_module.handle(node, request, reply, returned);
        case IpStatModule::kCommand: return ctx.ipstat.handle(ctx, node, request, reply, returned);
        case WlanModule::kCommand: return ctx.wlan.handle(ctx.device, node, request, reply, returned);
        case ArpModule::kQueryCommand:
        case ArpModule::kIfCountersCommand:
        case ArpModule::kOpenFlowCountCommand: return ctx.arp.handle(ctx, node, command, request, reply, returned);
        default: break;
    }
    if (command >= FibModule::kFirstCommand && command <= FibModule::kLastCommand) {
        return ctx.fib_module.handle(node, command, request, reply, returned);
    }
    if (NdModule::serves_command(command)) return ctx.nd.handle(ctx, node, command, request, reply, returned);
    return 0x40010001u;
}

}  // namespace

// Each request is one unit of work of the store: a setting it changes is stored before the
// reply leaves, or the request fails with kStoreFailed and its change is undone; a request
// that fails leaves nothing behind.
std::uint32_t kernel_dispatch(Context& ctx, std::uint16_t node, std::uint32_t command,
                              std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                              std::uint32_t* returned) {
    *returned = 0;
    Store::Work work(ctx.store);
    const std::uint32_t status = dispatch(ctx, node, command, request, reply, returned);
    if (status != 0) return status;
    if (!work.commit()) {
        *returned = 0;
        return kStoreFailed;
    }
    return status;
}

std::unique_ptr<DumpCursor> open_dump(Context& ctx, std::uint16_t node, std::uint32_t request_id,
                                      std::span<const std::uint8_t> request) {
    switch (request_id) {
        case FibModule::kDumpRequest: return ctx.fib_module.dump(node, request);
        case IpStatModule::kBpaDumpRequest: return ctx.ipstat.dump(ctx, node, request);
        default: return nullptr;
    }
}

}  // namespace sim
