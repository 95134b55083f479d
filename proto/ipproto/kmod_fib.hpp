// The kernel's FIB module: its command codes, its table dump and the dump's entry.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipclient/fib.h"

namespace ipc::proto::fib {

inline constexpr std::uint32_t kCmd4SpecData = 0x380001;
inline constexpr std::uint32_t kCmd6SpecData = 0x380002;
inline constexpr std::uint32_t kCmd4Search = 0x380003;
inline constexpr std::uint32_t kCmd6Search = 0x380004;
inline constexpr std::uint32_t kCmd4RouteChangeSeq = 0x380005;
inline constexpr std::uint32_t kCmd6RouteChangeSeq = 0x380006;
inline constexpr std::uint32_t kCmdConCheckStat = 0x38000b;
inline constexpr std::uint32_t kCmdAlarmThresholdStat = 0x38000c;
// The module answers every code from the first to the last.
inline constexpr std::uint32_t kCmdFirst = kCmd4SpecData;
inline constexpr std::uint32_t kCmdLast = kCmdAlarmThresholdStat;

// The node's IPv4 table as a dump, and its entry (big-endian).
inline constexpr std::uint32_t kDumpRequest = 0x640001;
inline constexpr std::size_t kDumpEntryLen = 48;

namespace dump_entry {
inline constexpr std::size_t kVrf = 0;          // 16 bits, then two zero bytes
inline constexpr std::size_t kDestination = 4;  // network order
inline constexpr std::size_t kMask = 8;
inline constexpr std::size_t kNextHop = 12;     // network order
inline constexpr std::size_t kLabel = 16;       // printed as a number, or "Null" when none
inline constexpr std::size_t kViaIf = 20;       // interface printed when there is no tunnel
inline constexpr std::size_t kTunnel = 24;      // printed instead of the interface at kViaIf
inline constexpr std::size_t kMac = 28;         // the next hop's
inline constexpr std::size_t kOwnMac = 34;      // the outgoing interface's
inline constexpr std::size_t kVlan = 40;        // 16 bits
inline constexpr std::size_t kPort = 42;        // 16 bits
inline constexpr std::size_t kIfIndex = 44;     // outgoing interface
static_assert(kIfIndex + 4 == kDumpEntryLen);
// A label or tunnel the route does not have.
inline constexpr std::uint32_t kNone = 0xFFFFFFFFu;
// A VLAN or port the route does not have (printed as 0).
inline constexpr std::uint16_t kNoneHalf = 0xFFFF;
}  // namespace dump_entry

// A search: request and reply start with a count of entries (8 bytes, host order); the
// reply's entries follow it.
inline constexpr std::size_t kSearchReplyHead = sizeof(std::uint64_t);
inline constexpr std::size_t kSearchEntryLen = FIB_SEARCH_ENTRY_SIZE;
inline constexpr std::size_t kSearchMaxEntries = FIB_SEARCH_MAX_ENTRIES;
// A search's instance that stands for every instance.
inline constexpr std::uint32_t kEveryInstance = 0xFFFFFFFFu;

}  // namespace ipc::proto::fib
