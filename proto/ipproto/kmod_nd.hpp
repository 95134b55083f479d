// The kernel's ND module: its command codes, the operations of its module message, its
// record sizes and the interface type lists that the library applies.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "ipclient/nd.h"

namespace ipc::proto::nd {

// Command codes: the module message (operation, length word, payload), an interface's
// configuration, the exact and the next entry of a key, and a batch of entries.
inline constexpr std::uint32_t kCmdInfo = 0x110001;
inline constexpr std::uint32_t kCmdIfConfig = 0x110002;
inline constexpr std::uint32_t kCmdEntryInfo = 0x110004;
inline constexpr std::uint32_t kCmdNextEntryInfo = 0x110005;
inline constexpr std::uint32_t kCmdInfoBatch = 0x110013;

// Operations of the module message (command kCmdInfo).
enum Op : std::uint32_t {
    kOpInfo = 0,
    kOpHopLimit = 1,
    kOpSendRA = 2,
    kOpSendNA = 3,
    kOpDeleteDynamic = 4,
    kOpResolve = 6,
    kOpSendNS = 8,
    kOpStaleAging = 10,
    kOpLinkLocalMinimize = 11,
    kOpSendSpecify = 12,
    kOpStaleAgingUnit = 13,
    kOpOnOffLogMove = 28,
    kOpIPConflict = 29,
    kOpSnpDadRetTime = 31,
    kOpSnpInvalidTime = 32,
    kOpSnpValidTime = 33,
    kOpRate = 36,
    kOpInfoByIP = 38,
    kOpExt3Bitmap = 39,
    kOpAlarmThreshold = 45,
    kOpAttackStat = 46,
};

// The module message's header: BE32 operation, BE32 length of the whole message (header
// included), then the operation's payload.
inline constexpr std::size_t kHeadLen = 8;
// Operations 4 and 6 are 28 bytes long (the header, an address and an interface), but
// their length word says 20.
inline constexpr std::size_t kAddrIfLen = 28;
inline constexpr std::uint32_t kAddrIfClaimed = 20;

// Interface type lists; they differ on purpose and are applied in this order.
inline constexpr std::array<std::uint32_t, ND_L3_IF_TYPE_COUNT> kL3Types{
    {22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31, 26, 28, 29, 89, 42, 97, 86, 105, 110, 111, 27, 10, 122, 124,
     144, 168, 176}};
inline constexpr std::array<std::uint32_t, 25> kRaTypes{
    {22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31, 86, 89, 97, 105, 42, 110, 27, 122, 124, 111, 144, 168, 176}};
inline constexpr std::array<std::uint32_t, 24> kRaTypesVT{
    {22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31, 86, 89, 97, 105, 42, 27, 122, 124, 111, 144, 168, 176}};
inline constexpr std::array<std::uint32_t, 24> kRaTypesRETH{
    {22, 23, 25, 70, 71, 41, 55, 47, 67, 35, 39, 31, 86, 89, 97, 105, 110, 27, 122, 124, 111, 144, 168, 176}};
inline constexpr std::array<std::uint32_t, 19> kAdvertiseTypes{
    {22, 23, 25, 70, 71, 41, 55, 47, 67, 89, 97, 105, 110, 111, 122, 124, 144, 168, 176}};

// The configuration record's interface name, as the public record holds it.
inline constexpr std::size_t kIfNameLen = ND_IF_CONFIG_NAME_LEN;
static_assert(kIfNameLen == sizeof(NdIfConfigInfo::szName));

// The batch (kCmdInfoBatch): the request is the key {address (16 bytes), BE32 interface
// index}; the reply as many whole records as its capacity holds, words big-endian.
namespace batch {
inline constexpr std::size_t kKeyLen = 20;
inline constexpr std::size_t kAddr = 0;      // 16 bytes
inline constexpr std::size_t kIfIndex = 16;
inline constexpr std::size_t kIfIndex2 = 20;  // the member of an aggregate that holds it, 0 none
inline constexpr std::size_t kMac = 24;
inline constexpr std::size_t kState = 30;    // byte
inline constexpr std::size_t kKind = 31;     // byte
inline constexpr std::size_t kUpdate = 32;
inline constexpr std::size_t kRefresh = 36;
inline constexpr std::size_t kVlan = 40;     // 16 bits
inline constexpr std::size_t kVrf = 42;      // 16 bits
inline constexpr std::size_t kVsi = 44;
inline constexpr std::size_t kLen = 48;
}  // namespace batch

}  // namespace ipc::proto::nd
