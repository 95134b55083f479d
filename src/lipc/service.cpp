// Starting and checking the IP daemon's service on the nodes of the device.
#include <cstdint>
#include <unistd.h>

#include "ipclient/lipc.h"
#include "ipplat/platform.h"
#include "ipproto/lipc.hpp"
#include "ipproto/raii.hpp"

namespace {

constexpr std::uint16_t kOwnNode = ipc::proto::lipc::kOwnNode;

char g_default_service_name[] = "IPStack";

bool running_status(std::uint32_t status) noexcept {
    return status != SERVICE_STATUS_STOPPED && status != SERVICE_STATUS_ABSENT;
}

// The status probe: waits, one second a poll and without bound, while the service is
// starting. A failing status call counts as not running.
std::uint32_t ip_IsServiceRunning(std::uint16_t node) noexcept {
    std::uint32_t status = 0;
    if (SERVICE_GetStatus(node, g_pcIPStakcName, 0, &status) != 0) return 0;
    while (status == SERVICE_STATUS_STARTING) {
        ::sleep(1);
        if (SERVICE_GetStatus(node, g_pcIPStakcName, 0, &status) != 0) return 0;
    }
    return running_status(status) ? 1 : 0;
}

// Starts the service on the local node, then on every other node that lacks it.
std::uint32_t ip_StartServiceOnAllNodes() noexcept {
    const auto local = static_cast<std::uint16_t>(LIP_GetLocalLip());
    if (local == kOwnNode) return 0;
    if (ip_IsServiceRunning(local) != 0) return 0;
    const std::uint32_t rc = SERVICE_Start(local, g_pcIPStakcName, 0, 0);
    (void)ip_IsServiceRunning(local);  // waits while the local start is under way
    if (rc != 0) return rc;

    std::uint32_t count = 0;
    const ipc::CBlock<std::uint16_t> nodes(DEV_GetAllNodes(&count));
    if (!nodes) return 0;
    std::uint16_t* list = nodes.get();
    std::uint32_t n = 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (list[i] != local && ip_IsServiceRunning(list[i]) == 0) list[n++] = list[i];
    }
    if (n != 0) {
        (void)SERVICE_BatchStart(list, n, g_pcIPStakcName, 0, 0);
        for (std::uint32_t i = 0; i < n; ++i) {
            if (list[i] != local) (void)ip_IsServiceRunning(list[i]);
        }
    }
    return 0;
}

}  // namespace

extern "C" {

char* g_pcIPStakcName = g_default_service_name;

char* IP_GetServiceName(void) { return g_pcIPStakcName; }

uint32_t IP_StartDaemon(uint16_t usNode) {
    if (usNode == kOwnNode) return 0;
    std::uint32_t status = 0;
    (void)SERVICE_GetStatus(usNode, g_pcIPStakcName, 0, &status);
    if (status != 0) return 0;
    return SERVICE_Start(usNode, g_pcIPStakcName, 0, 0);
}

uint32_t IP_IsDaemonExist(uint16_t usNode) {
    if (usNode == kOwnNode) return 0;
    return ip_IsServiceRunning(usNode);
}

uint32_t IP_ServiceStart(void) { return ip_StartServiceOnAllNodes() != 0 ? IPSTATUS_FAILED : IPSTATUS_OK; }

uint32_t IP_DaemonCheck(uint32_t uiMode) {
    const auto local = static_cast<std::uint16_t>(LIP_GetLocalLip());
    if (uiMode != 0) {
        return static_cast<std::uint16_t>(IP_IsDaemonExist(local)) == 1 ? IPSTATUS_OK : IPSTATUS_FAILED;
    }
    return ip_StartServiceOnAllNodes() == 0 ? IPSTATUS_OK : IPSTATUS_FAILED;
}

}  // extern "C"
