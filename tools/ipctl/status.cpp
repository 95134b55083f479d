// ipctl status: whether a device answers for the instance.
//
//   ipctl status [--wait SECONDS]
//
// The address module answers on every device, so its epoch request is the probe. With
// --wait the probe is repeated every 100 ms until it succeeds or the time is over. Exit
// status 0 when the device answers, 1 when it does not.
#include <time.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "ipclient/kernel.h"
#include "ipctl.hpp"
#include "ipplat/host.h"
#include "ipplat/platform.h"

namespace ipctl {

namespace {

bool device_answers() {
    std::uint8_t epoch = 0;
    return IPAddr_Drvk_GetAddrGlobalEpoch(0, 0, &epoch) == 0;
}

void status_show(Context& ctx, Words words, double wait_seconds) {
    words.expect_end();
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(wait_seconds);
    bool up = device_answers();
    while (!up && std::chrono::steady_clock::now() < deadline) {
        const timespec pause{0, 100'000'000};
        ::nanosleep(&pause, nullptr);
        up = device_answers();
    }
    const std::string instance = instance_name();
    Record r;
    r.add("instance", instance, instance, "instance");
    r.add("answering", up, up ? "answering" : "not answering");
    if (up) {
        std::uint32_t count = 0;
        std::free(DEV_GetAllNodes(&count));
        const std::uint32_t master = DEV_GetSystemMaster() & 0xFFFFu;
        r.add("nodes", count, std::to_string(count), "nodes");
        r.add("master", master, std::to_string(master), "master");
    }
    // Nobody should debug a fault they forgot they set: a simulator that plays faults says
    // so, in the record and in a warning line.
    std::uint32_t faults = 0;
    if (up && ipp_device_faults(&faults) == 0 && faults != 0) {
        r.add("faults", faults, std::to_string(faults), "faults");
    }
    ctx.out->row(std::move(r));
    ctx.out->flush();
    if (faults != 0) {
        std::fprintf(stderr, "ipctl: warning: the device plays %u fault%s (ipsimd --control '{\"op\": \"fault.list\"}' lists them)\n",
                     static_cast<unsigned>(faults), faults == 1 ? "" : "s");
    }
    if (!up) throw Exit{kExitFailed};
}

}  // namespace

void add_status(CLI::App& app, Context& ctx) {
    auto wait = std::make_shared<double>(0.0);
    CLI::App* verb = add_verb(&app, "status", "whether a device answers for the instance (exit 0 when it does)",
                              "status [--wait SECONDS]", ctx,
                              [&ctx, wait](const CLI::App&, Words w) { status_show(ctx, std::move(w), *wait); });
    verb->add_option("--wait", *wait, "wait up to this many seconds for the device")->check(CLI::Range(0.0, 3600.0));
}

}  // namespace ipctl
