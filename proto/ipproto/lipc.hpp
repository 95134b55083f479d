// The platform's local-IPC family (37) as both its clients and the platform see it: the
// socket kind, flags and options, the 16-byte address, and the ports of the IP services.
#pragma once

#include <cstddef>
#include <cstdint>

#include "ipclient/adj.h"
#include "ipclient/arp.h"
#include "ipclient/ipaddr.h"
#include "ipclient/lipc.h"
#include "ipclient/nd.h"

namespace ipc::proto::lipc {

inline constexpr int kFamily = 37;
inline constexpr int kTypeDatagram = 2;
inline constexpr int kProtoPointToPoint = 1;
inline constexpr int kProtoGroup = 2;

// Send and receive flags.
inline constexpr int kWaitAll = 0x100;
inline constexpr int kPeekWaitAll = 0x102;
inline constexpr int kDontWait = 64;

// Socket options: SOL_SOCKET's server switch, and the family's own level.
inline constexpr int kLevelSocket = 1;
inline constexpr int kOptServer = 512;
inline constexpr int kOptSendBuffer = 0x1001;
inline constexpr int kOptSendTimeout = 0x1005;
inline constexpr int kOptRecvTimeout = 0x1006;
inline constexpr int kLevelLipc = 275;
inline constexpr int kOptGroupType = 1;
inline constexpr int kOptJoinGroup = 5;
inline constexpr int kOptAddrService = 15;

// The address: {length, 37, port BE, node BE, zeros}; the node 0x8000 is the caller's own.
inline constexpr std::size_t kAddrLen = 16;
inline constexpr std::uint16_t kOwnNode = 0x8000;

static_assert(kWaitAll == ADJ_SEND_WAITALL && kDontWait == ADJ_SEND_DONTWAIT);

}  // namespace ipc::proto::lipc

// The ports of the IP services on family 37.
namespace ipc::proto::port {

inline constexpr std::uint16_t kAddrCfg = 1653;       // address configuration and address control
inline constexpr std::uint16_t kAddrEvents = 11547;   // address events
inline constexpr std::uint16_t kIpStack = 1648;       // IPStack daemon
inline constexpr std::uint16_t kPortAttack = 4418;    // port-attack daemon
inline constexpr std::uint16_t kWlan = 1641;          // WLAN adjacency events
inline constexpr std::uint16_t kProen = 1680;         // protocol-to-CPU service
inline constexpr std::uint16_t kProenLocal = 11557;   // its local variant
inline constexpr std::uint16_t kNdOverlay = 1667;     // ND overlay suppression (master endpoint)
inline constexpr std::uint16_t kArpDaemon = 1639;     // ARP daemon
inline constexpr std::uint16_t kArpTable = 11537;     // ARP table channel of the adjacency service
inline constexpr std::uint16_t kNdTable = 11554;      // ND table channel of the adjacency service

static_assert(kAddrCfg == IPADDR_PORT_CONTROL && kAddrCfg == IP_LIPC_PORT_IPCFG);
static_assert(kAddrEvents == IPADDR_PORT_EVENTS);
static_assert(kIpStack == IP_LIPC_PORT_IPSTACK && kPortAttack == IP_LIPC_PORT_PORTATK);
static_assert(kWlan == ADJ_PORT_WLAN && kArpDaemon == ADJ_PORT_ARP_DAEMON);
static_assert(kProen == PROEN_PORT && kProenLocal == PROEN_PORT_LOCAL);
static_assert(kNdOverlay == ND_OVERLAY_SUP_PORT);
static_assert(kArpTable == ADJ_PORT_ARP && kArpTable == ARP_TABLE_PORT && kNdTable == ADJ_PORT_ND);

}  // namespace ipc::proto::port
