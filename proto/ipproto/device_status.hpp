// Statuses that the simulated device gives where the device leaves the code to it, read by
// the simulator that answers them and by the tools that name them.
#pragma once

#include <cstdint>

namespace ipc::device_status {

// A change that the device could not keep (its store failed: a full file system, an I/O
// error, a damaged database); nothing of it was made. In the family of the general failure.
inline constexpr std::uint32_t kStoreFailed = 0x4001000Au;

// A table or a service of the device is full (its limit: ipsimd's limit.set): the entry was
// not made, nothing of the request was. Answered by the address module and the address
// configuration service (an address past an interface's limit) and by the ARP daemon (an
// entry past the ARP table's capacity). In the family of the general failure.
inline constexpr std::uint32_t kNoResources = 0x40010006u;

}  // namespace ipc::device_status
