// ipctl device: the nodes of the device, where each sits and what it does.
//
//   ipctl device show
#include <cstdlib>
#include <memory>

#include "ipctl.hpp"
#include "ipplat/platform.h"

namespace ipctl {

namespace {

struct FreeArray {
    void operator()(std::uint16_t* p) const noexcept { std::free(p); }
};
using NodeArray = std::unique_ptr<std::uint16_t[], FreeArray>;

void device_show(Context& ctx, Words words) {
    words.expect_end();
    std::uint32_t count = 0, standby_count = 0;
    const NodeArray nodes(DEV_GetAllNodes(&count));
    const NodeArray standby(DEV_GetAllStandbyNodes(&standby_count));
    if (!nodes || count == 0) failure("the device lists no node (is a simulator running for the instance?)");
    const std::uint32_t master = DEV_GetSystemMaster() & 0xFFFFu;
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::uint16_t n = nodes[i];
        bool is_standby = false;
        for (std::uint32_t k = 0; standby && k < standby_count; ++k) is_standby = is_standby || standby[k] == n;
        const char* role = n == master ? "master" : is_standby ? "standby" : "member";
        const char* state = (IF_IsNodeUp(n) & 0xFFFFu) != 0 ? "up" : "down";
        const unsigned chassis = LIP_GetChassID(n), slot = LIP_GetSlotID(n), cpu = LIP_GetCpuID(n);
        Record r;
        r.add("node", n, std::to_string(n), "node")
            .add("chassis", chassis, std::to_string(chassis), "chassis")
            .add("slot", slot, std::to_string(slot), "slot")
            .add("cpu", cpu, std::to_string(cpu), "cpu")
            .add("role", role, role)
            .add("state", state, state);
        ctx.out->row(std::move(r));
    }
    ctx.out->flush();
}

}  // namespace

void add_device(CLI::App& app, Context& ctx) {
    CLI::App* object = add_object(app, "device", "the device's nodes", "device show");
    add_verb(object, "show", "nodes, their location, role and state", "device show", ctx,
             [&ctx](const CLI::App&, Words w) { device_show(ctx, std::move(w)); });
}

}  // namespace ipctl
