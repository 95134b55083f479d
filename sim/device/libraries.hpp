// The libraries a device loads at run time, as the simulated device provides them.
//
// A device has its layer-2 and layer-3 VPN libraries at /lib/libl2vpn.so and
// /lib/libl3vpn.so. The simulator builds its own (sim/vpn/), which answer from the running
// simulator, and names them to a client process that asks on the device channel (kLibrary):
// the platform then loads that file instead of the device's path. The files are found next
// to ipsimd's own executable, in the directories IPSIMD_LIBRARY_DIRS lists (':'-separated,
// relative to the executable's directory unless absolute; set by sim/vpn/CMakeLists.txt:
// "vpn" in the build tree, the installed library directory otherwise).
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace sim {

// The absolute path of the file that stands for the device library at `path`; nothing
// when the simulator has no such library or cannot find its file.
std::optional<std::string> runtime_library(std::string_view path);

}  // namespace sim
