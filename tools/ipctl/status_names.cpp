#include "status_names.hpp"

#include <array>
#include <utility>

#include "ipclient/ipaddr.h"
#include "ipclient/nd.h"
#include "ipclient/status.h"
#include "ipproto/device_status.hpp"

namespace ipctl {

namespace {

#define IPCTL_STATUS(name) std::pair<std::uint32_t, std::string_view>{name, #name}
constexpr std::array kNames{
    IPCTL_STATUS(IPSTATUS_OK),
    IPCTL_STATUS(IPSTATUS_FAILED),
    IPCTL_STATUS(IPSTATUS_BAD_REPLY),
    IPCTL_STATUS(IPSTATUS_NOT_SUPPORTED),
    IPCTL_STATUS(IPSTATUS_MORE_DATA),
    IPCTL_STATUS(IPSTATUS_DUMP_FAILED),
    IPCTL_STATUS(IPSTATUS_PROEN_NO_SOCKET),
    IPCTL_STATUS(IPSTATUS_ADDR_CONFLICT),
    IPCTL_STATUS(IPSTATUS_EVENT_RESYNC),
    IPCTL_STATUS(IPSTATUS_IPSTACK_EXCHANGE),
    IPCTL_STATUS(IPSTATUS_IPCFG_FAILED),
    IPCTL_STATUS(IPSTATUS_DAEMON_EXCHANGE),
    IPCTL_STATUS(IPADDR_LAST_BATCH),
    IPCTL_STATUS(ND_OPENFLOW_SMOOTH_NO_REPLY),
    // Given by a simulated device whose store failed.
    std::pair<std::uint32_t, std::string_view>{ipc::device_status::kStoreFailed, "STORE_FAILED"},
    // Given by a simulated device whose table is full (a limit).
    std::pair<std::uint32_t, std::string_view>{ipc::device_status::kNoResources, "NO_RESOURCES"},
};
#undef IPCTL_STATUS

}  // namespace

std::string_view status_name(std::uint32_t status) noexcept {
    for (const auto& [code, name] : kNames)
        if (code == status) return name;
    return "unknown status";
}

}  // namespace ipctl
