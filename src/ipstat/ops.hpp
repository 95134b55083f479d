// Operation numbers of the kernel's IP module (command 0x5b0001), shared by the library's
// requests and the simulator's module.
#pragma once

#include <cstdint>

namespace ipc::ipstat {

enum class Op : std::uint16_t {
    kShowIpStat = 0,
    kIpStat = 1,
    kFwIfStat = 2,
    kIcmpIfStat = 9,
    kIfMtu = 11,
    kSetDefTtl = 14,
    kGetDefTtl = 15,
    kEcmp = 23,         // reached through a caller's request word
    kBpaCfg = 24,
    kBpaStat = 25,
    kEcmpMode = 32,     // reached through a caller's request word
    kConf = 35,
    kMibIfStat = 37,
    kClearFwIfStat = 62,
    kLoadSharing = 66,  // reached through a caller's request word
    kFwConf = 108,
};

}  // namespace ipc::ipstat
