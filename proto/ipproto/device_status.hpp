// Statuses that the simulated device gives where the device leaves the code to it, read by
// the simulator that answers them and by the tools that name them.
#pragma once

#include <cstdint>

namespace ipc::device_status {

// A change that the device could not keep (its store failed: a full file system, an I/O
// error, a damaged database); nothing of it was made. In the family of the general failure.
inline constexpr std::uint32_t kStoreFailed = 0x4001000Au;

}  // namespace ipc::device_status
