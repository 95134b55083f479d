// The kernel modules behind the control channel, offered each request in turn from their
// operations tables, and the dumps of their tables, by request. A command that no module
// answers gets 0x40010001, as on a device without the module, and a dump no module serves is
// refused.
#include "context.hpp"
#include "core/status.hpp"
#include "modules/module.hpp"

namespace sim {

namespace {

constexpr const KernelModuleOps* kModules[] = {
    &kAddrModuleOps, &kIpStatModuleOps, &kWlanModuleOps, &kArpModuleOps,
    &kFibModuleOps,  &kNdModuleOps,     &kNeighTableOps,
};

std::uint32_t dispatch(Context& ctx, const KernelCall& call) {
    for (const KernelModuleOps* m : kModules) {
        if (m->serves != nullptr && m->serves(call.command)) return m->handle(ctx, call);
    }
    return kFailure;
}

}  // namespace

std::span<const KernelModuleOps* const> kernel_modules() { return kModules; }

const char* kernel_module_of(std::uint32_t command) {
    for (const KernelModuleOps* m : kModules) {
        if (m->serves != nullptr && m->serves(command)) return m->name;
    }
    return nullptr;
}

const char* dump_module_of(std::uint32_t request_id) {
    for (const KernelModuleOps* m : kModules) {
        for (const KernelDump& d : m->dumps) {
            if (d.request_id == request_id) return m->name;
        }
    }
    return nullptr;
}

// Each request is one unit of work of the store: a setting it changes is stored before the
// reply leaves, or the request fails with kStoreFailed and its change is undone; a request
// that fails leaves nothing behind.
std::uint32_t kernel_dispatch(Context& ctx, std::uint16_t node, std::uint32_t command,
                              std::span<const std::uint8_t> request, std::span<std::uint8_t> reply,
                              std::uint32_t* returned) {
    *returned = 0;
    Store::Work work(ctx.store);
    const std::uint32_t status = dispatch(ctx, KernelCall{node, command, request, reply, returned});
    if (status != 0) return status;
    if (!work.commit()) {
        *returned = 0;
        return kStoreFailed;
    }
    return status;
}

std::unique_ptr<DumpCursor> open_dump(Context& ctx, std::uint16_t node, std::uint32_t request_id,
                                      std::span<const std::uint8_t> request) {
    for (const KernelModuleOps* m : kModules) {
        for (const KernelDump& d : m->dumps) {
            if (d.request_id == request_id) return d.open(ctx, node, request);
        }
    }
    return nullptr;
}

}  // namespace sim
