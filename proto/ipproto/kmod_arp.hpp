// The kernel's ARP module: its command codes, the sub-operations of its query command with
// the shape of each request, and the layouts of the records it answers. Every record is
// big-endian on the wire; the library converts some of them to host order (ipclient/arp.h
// says which).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "ipclient/arp.h"

namespace ipc::proto::arp {

// Command codes: entry queries, configuration, counters and packet sending; the
// per-interface packet counters; the count of entries installed by OpenFlow.
inline constexpr std::uint32_t kCmdInfo = 0x140001;
inline constexpr std::uint32_t kCmdIfDisplay = 0x140002;
inline constexpr std::uint32_t kCmdOpenFlowCount = 0x140004;

// Sub-operations of kCmdInfo: byte 0 of every request.
enum SubOp : std::uint8_t {
    kDeleteDynamic = 0,
    kGetEntry = 1,
    kSendRequest = 2,
    kSendReply = 3,
    kGetNext = 7,
    kDeleteAuthorized = 9,
    kGetExtended = 10,
    kGetConf = 12,
    kSendVlanRequest = 21,
    kSendSpecified = 22,
    kGetByAddress = 28,
    kGetBatch = 29,
    kFirstAddress = 31,
    kSendProbe = 33,
    kAlarmStat = 37,
    kAttackStat = 38,
};

// A request is [sub-op][header byte][0][0] and what follows; each sub-operation has one
// length and one header byte.
struct Shape {
    std::size_t length;
    std::uint8_t header;
};

constexpr std::optional<Shape> shape_of(std::uint8_t sub_op) noexcept {
    switch (sub_op) {
        case kDeleteDynamic:
        case kGetEntry:
        case kDeleteAuthorized:
        case kGetExtended:
        case kGetByAddress: return Shape{12, 8};
        case kGetNext:
        case kGetBatch: return Shape{12, 0};
        case kFirstAddress: return Shape{12, 12};
        case kGetConf:
        case kAlarmStat:
        case kAttackStat: return Shape{4, 0};
        case kSendRequest:
        case kSendReply:
        case kSendProbe: return Shape{24, 20};
        case kSendVlanRequest: return Shape{36, 32};
        case kSendSpecified: return Shape{64, 60};
        default: return std::nullopt;
    }
}

// The entry of sub-ops 1, 7 and 10 (ARP_ENTRY_LEN bytes).
namespace entry {
inline constexpr std::size_t kAddr = 0;      // network order
inline constexpr std::size_t kIfIndex = 4;
inline constexpr std::size_t kMember = 8;    // member of an aggregate that holds it, 0 none
inline constexpr std::size_t kAge = 12;
inline constexpr std::size_t kMac = 16;
inline constexpr std::size_t kVlan = 22;     // 16 bits
inline constexpr std::size_t kVrf = 24;      // 16 bits
inline constexpr std::size_t kState = 26;    // byte
inline constexpr std::size_t kKind = 27;     // byte
inline constexpr std::size_t kRefresh = 28;
inline constexpr std::size_t kNode = 32;     // 16 bits, then two zero bytes
inline constexpr std::size_t kLen = 36;
}  // namespace entry

// The entry of sub-op 28, a layout of its own (ARP_ENTRY_LEN bytes).
namespace by_address {
inline constexpr std::size_t kAddr = 0;
inline constexpr std::size_t kIfIndex = ARP_BYIP_IFINDEX_OFFSET;
inline constexpr std::size_t kMember = 8;
inline constexpr std::size_t kVlan = 12;     // 16 bits
inline constexpr std::size_t kVrf = 14;      // 16 bits
inline constexpr std::size_t kNode = 16;     // 16 bits
inline constexpr std::size_t kMac = ARP_BYIP_MAC_OFFSET;
inline constexpr std::size_t kState = ARP_BYIP_STATE_OFFSET;  // 16 bits
inline constexpr std::size_t kKind = 26;     // byte, then a zero byte
inline constexpr std::size_t kAge = 28;
inline constexpr std::size_t kRefresh = 32;
inline constexpr std::size_t kLen = 36;
}  // namespace by_address

// One record of the batch of sub-op 29.
namespace batch {
inline constexpr std::size_t kAddr = 0;
inline constexpr std::size_t kIfIndex = 4;
inline constexpr std::size_t kMac = 8;
inline constexpr std::size_t kVlan = 14;     // 16 bits
inline constexpr std::size_t kVrf = 16;      // 16 bits
inline constexpr std::size_t kState = 18;    // byte
inline constexpr std::size_t kKind = 19;     // byte
inline constexpr std::size_t kAge = 20;
inline constexpr std::size_t kLen = 24;
}  // namespace batch

// The configuration block of sub-op 12; the number of entries in the table at kConfEntries.
inline constexpr std::size_t kConfLen = 112;
inline constexpr std::size_t kConfEntries = 8;
inline constexpr std::size_t kAttackCounters = 4;
// Interface type of an aggregate, whose entries a member holds.
inline constexpr std::uint32_t kTypeAggregate = 41;

static_assert(entry::kLen == ARP_ENTRY_LEN && by_address::kLen == ARP_ENTRY_LEN);
static_assert(entry::kLen == sizeof(ARP_ENTRY_S::aucData));
static_assert(kConfLen == ARP_CONF_LEN);
static_assert(kAttackCounters == ARP_ATTACK_COUNTERS);
static_assert(kTypeAggregate == ARP_IFTYPE_AGGREGATE);

}  // namespace ipc::proto::arp
