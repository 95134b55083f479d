// The family-37 services of the simulated device, one file each:
//   1653  address configuration service and address control socket (addrcfg.cpp)
//   11547 address events (addr_events.cpp)
//   1648  IPStack daemon (ipstack.cpp)
//   4418  port-attack daemon (portatk.cpp)
#pragma once

#include <memory>
#include <sys/types.h>

#include "context.hpp"

namespace sim {

inline constexpr std::uint16_t kPortAddrCfg = 1653;
inline constexpr std::uint16_t kPortAddrEvents = 11547;
inline constexpr std::uint16_t kPortIPStack = 1648;
inline constexpr std::uint16_t kPortPortAttack = 4418;

std::unique_ptr<Conn> make_addrcfg_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_addr_event_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_ipstack_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);
std::unique_ptr<Conn> make_portatk_conn(Context& ctx, Loop& loop, int fd, const Endpoint& where, pid_t pid);

// Records a message of a family-37 channel in the capture.
void capture_lipc(Context& ctx, const Conn& conn, const char* dir, std::span<const std::uint8_t> bytes,
                  nlohmann::json fields);

}  // namespace sim
