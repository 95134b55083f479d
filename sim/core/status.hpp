// The status every module and service of the simulated device answers a request it cannot
// serve with (the library's general failure).
#pragma once

#include <cstdint>

#include "ipclient/status.h"

namespace sim {

inline constexpr std::uint32_t kFailure = IPSTATUS_FAILED;

}  // namespace sim
