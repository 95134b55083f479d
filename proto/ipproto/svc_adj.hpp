// The adjacency services on family 37, whose messages carry a type and a payload: the ARP
// table service (IPv4, port ipc::proto::port::kArpTable), the ND table service (IPv6, port
// kNdTable), the ARP daemon (kArpDaemon) and the ND overlay suppression service
// (kNdOverlay), and the WLAN adjacency events (kWlan). The table services' subscribers receive event datagrams of records
// [BE32 record length, header included][BE32 event type][entry].
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipclient/adj.h"
#include "ipclient/arp.h"
#include "ipclient/nd.h"

namespace ipc::proto::adj {

// A message to any of these services: [type][reserved][BE16 payload length][BE16 count]
// [payload].
inline constexpr std::size_t kMsgTypeAt = 0;
inline constexpr std::size_t kMsgLenAt = 2;
inline constexpr std::size_t kMsgCountAt = 4;
inline constexpr std::size_t kMsgHeadLen = ADJ_MSG_HEAD_LEN;
static_assert(kMsgCountAt + 2 == kMsgHeadLen);

// Event types of the records both services publish.
enum EventType : std::uint32_t { kAdded = 0, kChanged = 1, kDeleted = 2, kPresent = 3, kBatchEnd = 4 };

// An entry learnt outside any VSI, and outside any attachment-circuit link of one.
inline constexpr std::uint32_t kNoVsi = ND_VSI_INDEX_NONE;
inline constexpr std::uint16_t kNoLink = 0xFFFFu;

inline constexpr std::size_t kRecordHead = 8;
// The largest event datagram a subscriber reads at once.
inline constexpr std::size_t kDatagramMax = ARP_EVENT_DATAGRAM_MAX;

static_assert(kRecordHead == ND_EVENT_RECORD_HEAD);

}  // namespace ipc::proto::adj

// The ARP table service (IPv4).
namespace ipc::proto::adj4 {

enum MsgType : std::uint8_t {
    kSwitch = 0,  // a switch query: its code is the payload's first byte
    kRuleRefresh = 30,
    kRuleDelete = 31,
    kRuleSmoothStart = 32,
    kRuleSmoothEnd = 33,
    kSubscribe = 34,
    kOpenFlowRefresh = 42,
    kOpenFlowDelete = 43,
    kAddConcerned = 44,
    kDelConcerned = 45,
    kVsiRefresh = 48,
    kVsiDelete = 49,
    kVsiSmoothStart = 50,
    kVsiSmoothEnd = 51,
    kBatchReplay = 52,
    kOpenFlowVerify = 53,
    kOpenFlowVerifyEnd = 54,  // from the service: the head alone ends a verification
    kBatchByVsi = 56,
    kOpenFlowSmoothStart = 63,
    kOpenFlowSmoothEnd = 64,
    kBatchByAc = 75,
    kVlanRefresh = 94,
    kVlanDelete = 95,
    kVlanSmoothStart = 96,
    kVlanSmoothEnd = 97,
    kBatchByVlan = 98,
    kRoaming = 100,
};

// The switch query this service answers (the first byte of a kSwitch payload of the ARP
// daemon's switch length): a VLAN's suppression.
enum SwitchCode : std::uint8_t {
    kGetVlan = 152,
};

// An event record: the header and the entry.
inline constexpr std::size_t kEventRecordLen = adj::kRecordHead + ARP_EVENT_ENTRY_LEN;  // 60

// The entry of an event record (ARP_EVENT_ENTRY_LEN bytes), as the library hands it to a
// callback: the words in host order.
namespace event {
inline constexpr std::size_t kIfIndex = 0;
inline constexpr std::size_t kAddr = 4;      // network order
inline constexpr std::size_t kVlan = 16;     // 16 bits
inline constexpr std::size_t kMac = 20;
inline constexpr std::size_t kState = 28;
inline constexpr std::size_t kKind = 32;
inline constexpr std::size_t kLen = 52;
}  // namespace event

static_assert(event::kLen == ARP_EVENT_ENTRY_LEN);

}  // namespace ipc::proto::adj4

// The ND table service (IPv6).
namespace ipc::proto::adj6 {

enum MsgType : std::uint8_t {
    kOpenFlowSmooth = 11,  // the payload's first byte is kSmoothStartMark or kSmoothEndMark
    kRuleRefresh = 15,
    kRuleDelete = 16,
    kRuleSmoothStart = 17,
    kRuleSmoothEnd = 18,
    kSubscribe = 19,
    kOpenFlowRefresh = 27,
    kOpenFlowDelete = 28,
    kBatchReplay = 36,
    kBatchByVsi = 40,
    kVsiRefresh = 60,
    kVsiDelete = 61,
    kVsiSmoothStart = 62,
    kVsiSmoothEnd = 63,
    kBatchByIf = 65,
    kAddConcerned = 67,
    kDelConcerned = 68,
    kRoaming = 80,
};

inline constexpr std::uint8_t kSmoothStartMark = 2;
inline constexpr std::uint8_t kSmoothEndMark = 3;

inline constexpr std::size_t kEventRecordLen = adj::kRecordHead + ND_EVENT_RECORD_LEN;  // 72

}  // namespace ipc::proto::adj6

// The ARP daemon: entries set by applications, and the suppression switches.
namespace ipc::proto::arp_daemon {

enum MsgType : std::uint8_t {
    kSwitch = 0,  // payload kSwitchLen bytes; its first byte is the switch's code
    kEntry = 1,   // payload ARP_SET_ENTRY_LEN bytes
};

enum SwitchCode : std::uint8_t {
    kSetEvi = 61,
    kGetEvi = 71,
    kSetOverlay = 74,
    kGetOverlay = 83,
};

inline constexpr std::size_t kSwitchLen = 24;
inline constexpr std::size_t kEntryLen = ARP_SET_ENTRY_LEN;

// The ARP table service takes its switch query in the same form.
static_assert(static_cast<int>(kSwitch) == static_cast<int>(adj4::kSwitch));

}  // namespace ipc::proto::arp_daemon

// The ND overlay suppression service.
namespace ipc::proto::nd_overlay {

enum MsgType : std::uint8_t {
    kSwitch = 0,  // payload ND_OVERLAY_SUP_REQ_LEN bytes; its first byte is the code
};

enum SwitchCode : std::uint8_t {
    kSetOverlay = 26,
    kGetOverlay = 100,
};

inline constexpr std::size_t kRequestLen = ND_OVERLAY_SUP_REQ_LEN;

}  // namespace ipc::proto::nd_overlay

// The WLAN adjacency events: a subscription, then records [BE32 record length][BE32 event]
// [BE32 first word] and the event's words.
namespace ipc::proto::wlan_events {

inline constexpr std::uint8_t kSubscribe = 5;  // payload [BE32 selector][4 zero bytes]
inline constexpr std::size_t kSubscribeLen = 8;

enum Event : std::uint32_t {
    kRefresh = 0,  // an entry new or replaced
    kDelete = 1,
    kClear = 2,    // the node's table was emptied
};

inline constexpr std::size_t kRecordHead = 12;

}  // namespace ipc::proto::wlan_events
