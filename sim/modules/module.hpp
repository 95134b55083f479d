// What a kernel module of the simulated device gives the daemon, in one table per module, in
// the manner of a driver's operations: the commands it answers on the kernel control channel
// and its handler, the dumps of its tables, its control operations, and how it reads back
// what the store kept. The daemon dispatches from these tables alone; kernel_modules() lists
// them, so a module is added by its files and one line there.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "device/dumps.hpp"

namespace sim {

struct Context;

// One request of the kernel control channel, addressed to a node.
struct KernelCall {
    std::uint16_t node = 0;
    std::uint32_t command = 0;
    std::span<const std::uint8_t> request;
    // Room for the reply; the handler sets *returned to the bytes it wrote (0 on failure).
    std::span<std::uint8_t> reply;
    std::uint32_t* returned = nullptr;
};

// A dump of a module's table, by the request id that opens it.
struct KernelDump {
    std::uint32_t request_id = 0;
    // The cursor, or null for a request the module refuses.
    std::unique_ptr<DumpCursor> (*open)(Context& ctx, std::uint16_t node, std::span<const std::uint8_t> request) = nullptr;
};

struct KernelModuleOps {
    const char* name = "";
    // The commands it answers; null for a table that other modules serve (the neighbours).
    bool (*serves)(std::uint32_t command) = nullptr;
    // Its status; the reply's bytes in call.reply.
    std::uint32_t (*handle)(Context& ctx, const KernelCall& call) = nullptr;
    std::span<const KernelDump> dumps{};
    // Registers its control operations (docs/ipsimd.md); null when it has none.
    void (*controls)(Context& ctx) = nullptr;
    // Reads back what the store kept for it, before any request: an error names what does not
    // fit the device. Null when it keeps nothing.
    std::optional<std::string> (*restore)(Context& ctx) = nullptr;
};

extern const KernelModuleOps kAddrModuleOps;
extern const KernelModuleOps kIpStatModuleOps;
extern const KernelModuleOps kWlanModuleOps;
extern const KernelModuleOps kArpModuleOps;
extern const KernelModuleOps kFibModuleOps;
extern const KernelModuleOps kNdModuleOps;
extern const KernelModuleOps kNeighTableOps;

// Every kernel module of the device, in the order requests are offered to them.
std::span<const KernelModuleOps* const> kernel_modules();
// The name of the module that answers a command, or of the module whose table a dump
// request opens; null when none does.
const char* kernel_module_of(std::uint32_t command);
const char* dump_module_of(std::uint32_t request_id);

}  // namespace sim
