// The address services on family 37: the address control socket and configuration service
// (port ipc::proto::port::kAddrCfg) and the address events (port kAddrEvents). Every message
// is [BE32 operation or type][BE32 length of what follows][body].
#pragma once

#include <cstddef>
#include <cstdint>

namespace ipc::proto::addr_svc {

inline constexpr std::size_t kHeadLen = 8;
// The largest message either end reads at once.
inline constexpr std::size_t kMsgMax = 1024;

// Operations of the control socket.
enum class Op : std::uint32_t {
    kConfig = 0,       // a configuration request of the address configuration client
    kIfCfg = 1,        // interface configuration: a sub-operation follows
    kAddrChange = 2,
    kAddrFlag = 3,
    kAck = 4,
    kSmooth = 5,
    kNetProtocol = 8,
};

// Sub-operations of kIfCfg, and its records: words A, B, C, half D, two bytes of padding.
inline constexpr std::uint32_t kIfCfgRegister = 1;
inline constexpr std::uint32_t kIfCfgDeregister = 2;
inline constexpr std::uint32_t kIfCfgBatch = 3;
inline constexpr std::uint32_t kIfCfgKeepAliveAnswer = 4;
inline constexpr std::size_t kIfCfgRecordLen = 16;
// What a record tells (word C); word A is the interface, word B the value, half D its VRF.
inline constexpr std::uint32_t kIfCfgMethods = 1;     // B: the methods switched on
inline constexpr std::uint32_t kIfCfgUnnumbered = 2;  // B: the interface lent from
inline constexpr std::uint32_t kIfCfgNego = 3;
inline constexpr std::uint32_t kIfCfgCellular = 4;
inline constexpr std::uint32_t kIfCfgAddrCount = 5;   // B: the addresses the interface holds
inline constexpr std::uint32_t kIfCfgLinkState = 6;   // B: 1 the link is up, 0 down
inline constexpr std::uint32_t kIfCfgMtu = 7;         // B: the MTU
inline constexpr std::uint32_t kIfCfgLink = 8;        // B: 1 the interface appeared, 0 it left

// Address events: what the service sends ...
inline constexpr std::uint32_t kEvents = 1;
inline constexpr std::uint32_t kKeepAlive = 2;
inline constexpr std::uint32_t kEndSignal = 3;
// ... and what a subscriber sends.
inline constexpr std::uint32_t kSubscribe = 1;
inline constexpr std::uint32_t kBatchRequest = 2;
inline constexpr std::uint32_t kKeepAliveAnswer = 3;
// An event record: [BE32 event: 1 add, 2 delete, 3 modify][BE32 epoch][BE32 node][the
// address entry].
inline constexpr std::size_t kEventRecordLen = 40;
inline constexpr std::size_t kEventEntryOffset = 12;

}  // namespace ipc::proto::addr_svc
