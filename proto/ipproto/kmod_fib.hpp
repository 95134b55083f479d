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

// A search: request and reply start with a count of entries (8 bytes, host order); the
// reply's entries follow it.
inline constexpr std::size_t kSearchReplyHead = sizeof(std::uint64_t);
inline constexpr std::size_t kSearchEntryLen = FIB_SEARCH_ENTRY_SIZE;
inline constexpr std::size_t kSearchMaxEntries = FIB_SEARCH_MAX_ENTRIES;

}  // namespace ipc::proto::fib
