// The daemons on family 37 that the library asks through the platform's daemon calls: the
// IPStack daemon (port ipc::proto::port::kIpStack) and the protocol-to-CPU service (kProen).
#pragma once

#include <cstdint>

namespace ipc::proto::ipstack {

// The BPA configuration of an interface: a message of this type whose body is the IP
// module's request [BE16 ipstat::Op::kBpaCfg][BE16 4][BE32 interface].
inline constexpr std::uint16_t kBpaCfgType = 13;

}  // namespace ipc::proto::ipstack

namespace ipc::proto::proen {

// Whether the sender waits for the service's answer.
inline constexpr std::uint32_t kWaitReply = 0;
inline constexpr std::uint32_t kNoReply = 1;
// Forms of a request's records.
inline constexpr std::uint32_t kFormSingle = 0;
inline constexpr std::uint32_t kFormEx = 3;

}  // namespace ipc::proto::proen
