// Command codes of the kernel control channel. The upper 16 bits name the kernel module,
// the lower 16 bits its entry point; call sites use these fixed values, never parts.
#pragma once

#include <cstdint>

namespace ipc::kernel::cmd {

inline constexpr std::uint32_t kNdInfo = 0x110001;
inline constexpr std::uint32_t kNdIfConfig = 0x110002;
inline constexpr std::uint32_t kNdEntryInfo = 0x110004;
inline constexpr std::uint32_t kNdNextEntryInfo = 0x110005;
inline constexpr std::uint32_t kNdInfoBatch = 0x110013;
inline constexpr std::uint32_t kArpInfo = 0x140001;
inline constexpr std::uint32_t kArpIfDisplay = 0x140002;
inline constexpr std::uint32_t kArpOpenFlowCount = 0x140004;
inline constexpr std::uint32_t kWlanAdjacency = 0x150001;
inline constexpr std::uint32_t kAddress = 0x260001;
inline constexpr std::uint32_t kFib4SpecData = 0x380001;
inline constexpr std::uint32_t kFib6SpecData = 0x380002;
inline constexpr std::uint32_t kFib4Search = 0x380003;
inline constexpr std::uint32_t kFib6Search = 0x380004;
inline constexpr std::uint32_t kFib4RouteChangeSeq = 0x380005;
inline constexpr std::uint32_t kFib6RouteChangeSeq = 0x380006;
inline constexpr std::uint32_t kFibConCheckStat = 0x38000b;
inline constexpr std::uint32_t kFibAlarmThresholdStat = 0x38000c;
inline constexpr std::uint32_t kIp = 0x5b0001;

}  // namespace ipc::kernel::cmd
