// The kernel's WLAN adjacency module: its command code, sub-operations and request layout.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipclient/adj.h"

namespace ipc::proto::wlan {

inline constexpr std::uint32_t kCmdAdjacency = 0x150001;

// Requests are [sub-op][header byte][0 0][body]; the words of the body are the caller's host-
// order values, copied unchanged.
enum SubOp : std::uint8_t { kRefresh = 0, kDelete = 1, kDeleteByIf = 2 };

// Refresh and delete-by-interface: first word at 4, second (or interface) at 8, the entry at
// 12, the selector of a delete-by-interface at 34; header byte 208.
inline constexpr std::size_t kEntryRequestLen = 212;
inline constexpr std::uint8_t kEntryRequestHeader = 208;
// Delete: first word at 4, interface at 8; header byte 8.
inline constexpr std::size_t kDeleteRequestLen = 12;
inline constexpr std::uint8_t kDeleteRequestHeader = 8;
inline constexpr std::size_t kFirstAt = 4;
inline constexpr std::size_t kSecondAt = 8;
inline constexpr std::size_t kEntryAt = 12;
inline constexpr std::size_t kSelectorAt = 34;

static_assert(kEntryAt + WADJ4_ENTRY_LEN == kEntryRequestLen);
static_assert(kEntryRequestLen == kEntryRequestHeader + 4u && kDeleteRequestLen == kDeleteRequestHeader + 4u);

}  // namespace ipc::proto::wlan
