// The device channel: how a process reaches a simulated device's operating system.
//
// On a device, CIOCTL, the node and interface directory, the service manager, the dump
// service, the configuration database and kernel events are answered by the device's own
// OS. On a host where ipsimd runs for the process's instance, the platform substitute
// carries each such call to the simulator over one AF_UNIX SOCK_SEQPACKET connection per
// thread (ipc::names::device). One request is one message; one reply is one message.
//
//   request: [BE32 call][call's fields]
//   reply:   [BE32 result][call's answer]
//
// A connection starts with kHello; its answer fixes the node the process runs on. A
// kernel-event subscription is a connection of its own: after kKEventSubscribe is answered,
// the simulator sends each notification of the class as one message with no header.
// Walk cursors live in the simulator, where the tables whose elements they stand on are;
// a path's context stays in the process that began it. A path ends with its process.
// Every field is placed and read with the wire codec; all words are big-endian.
#pragma once

#include <cstddef>
#include <cstdint>

namespace ipc::device {

enum class Call : std::uint32_t {
    kHello = 1,             // [BE16 wanted node, 0 = the device's master][BE16 0][BE32 pid]
                            //   -> [BE16 local node]
    kCioctl = 2,            // [BE32 node][BE32 command][BE32 reply cap][BE32 async 0|1][request]
                            //   -> result is the module's status; [BE32 returned length][reply bytes]
    kDevice = 3,            //   -> [BE16 self][BE16 master][BE16 master EP][BE16 MDC][BE32 MDC child]
    kNodeLocation = 4,      // [BE16 node] -> [BE16 chassis][BE16 slot][BE16 cpu]
    kNodes = 5,             // [BE32 0 all, 1 standby] -> [BE32 present][BE32 count][BE16 x count]
    kNodeUp = 6,            // [BE32 node word] -> [BE32 value]
    kIfData = 7,            // [BE32 ifindex][BE32 item] -> result 0 and the item's bytes, or a status
    kIfPredicate = 8,       // [BE32 ifindex][BE32 IfPredicate] -> [BE32 0|1]
    kIfByName = 9,          // [name bytes] -> [BE32 ifindex or 0]
    kIfNext = 10,           // [BE32 after][BE32 type bits x 8] -> [BE32 ifindex or 0]
    kMdcIsChild = 11,       // [BE16 mdc] -> [BE32 value]
    kServiceStatus = 12,    // [BE16 node][name] -> result of the call; [BE32 status]
    kServiceStart = 13,     // [BE16 node][name] -> result of the start
    kServiceBatchStart = 14,  // [BE32 count][BE16 x count][name]
    kDumpRequest = 15,      // [BE32 node][BE32 request id][request] -> [BE32 handle] (result non-zero: refused)
    kDumpPull = 16,         // [BE32 handle][BE32 cap] -> result as DUMP_Pull; [chunk]
    kDumpTerminate = 17,    // [BE32 handle]
    kDbmOpen = 18,          // [BE32 mode][db name][0][group name] -> result; [BE32 handle]
    kDbmNext = 19,          // [BE32 handle][BE32 position][BE32 data cap][key] -> [BE32 answer][record]
    kDbmClose = 20,         // [BE32 handle] -> result
    kDbmLen = 21,           // [BE32 handle][key] -> [BE32 answer]
    kKEventSubscribe = 22,  // [BE32 class] (on a connection of its own)
    kPing = 23,             // [bytes] -> the same bytes
    kAnchorBegin = 24,      // [BE64 anchor][BE32 key][BE64 position] -> [BE64 path, 0 refused]
    kAnchorInquire = 25,    // [BE64 anchor][BE64 path] -> result 0 and [BE64 position]
    kAnchorSet = 26,        // [BE64 anchor][BE64 path][BE64 position] -> result
    kAnchorEnd = 27,        // [BE64 anchor][BE64 path] -> result
    kLibrary = 28,          // [path of a run-time library] -> result 0 and [path of the file that
                            //   stands for it], or a status when the device has none of its own
    kFaults = 29,           //   -> [BE32 faults set that may still fire]
};

enum class IfPredicate : std::uint32_t { kValid = 0, kL2 = 1, kTemp = 2, kVisible = 3, kConfigured = 4 };

// Items of kIfData and their bytes: the directory's (IF_DATA_* of ipplat/platform.h) and
// those this host's device adds.
namespace if_item {
inline constexpr std::uint32_t kNode = 9;        // [BE16]
inline constexpr std::uint32_t kName = 11;       // name bytes, at most 31
inline constexpr std::uint32_t kType = 18;       // [BE32]
inline constexpr std::uint32_t kFlags = 23;      // [BE32]
inline constexpr std::uint32_t kKind = 32;       // [BE32]
inline constexpr std::uint32_t kMac = 100;       // 6 bytes
inline constexpr std::uint32_t kVrf = 101;       // [BE16]
inline constexpr std::uint32_t kLinkState = 102; // [BE32 1 up, 0 down]
}  // namespace if_item

inline constexpr std::size_t kRequestHeader = 4;
inline constexpr std::size_t kReplyHeader = 4;
inline constexpr std::size_t kCioctlReplyHeader = 8;   // result, returned length
inline constexpr std::size_t kCioctlRequestHeader = 20;
// Largest reply a call can carry; a larger reply capacity is served up to this size.
inline constexpr std::size_t kMaxPayload = 1u << 20;
// Socket buffer both ends set so that a whole message of kMaxPayload fits.
inline constexpr int kSocketBuffer = 4 << 20;

// The answer of a call that the simulator could not parse.
inline constexpr std::uint32_t kBadRequest = 0x40010001u;

}  // namespace ipc::device
