// Faults the device plays on purpose (ipsimd --control fault.set): a module that answers an
// error, answers late, answers part of its reply or not at all, a service that hangs up.
//
// A fault is scoped to one place where a request is answered and, optionally, to one node:
//   - a kernel command code (CIOCTL), or the request id of a table dump, which then covers
//     the dump's opening and each of its pulls;
//   - a kernel module by name: every command it answers and every dump of its tables;
//   - a family-37 service port: every request a client sends on it;
//   - a device-channel call by the name the capture gives it ("dbm-open", "if-next").
// Each time a request reaches a fault's place, the fault fires: always, for its first N
// requests (`times`), or with a probability drawn from a generator seeded by the fault
// (`seed`), so that a run replays exactly. A fault that does not fire lets the request through.
// The first fault of the list that fires answers the request:
//   - error: the request is answered with a status and not carried out;
//   - drop: the request is read and never answered (the client's own time-out applies);
//   - delay: the request waits, then is carried out and answered (later requests of the
//     same connection wait behind it, as they would behind a slow module);
//   - truncate: the request is carried out and its answer cut to its first K bytes as it
//     crosses the channel (on the device channel the result word and, for a kernel request,
//     the returned length come first);
//   - close: the connection is closed instead of answering; the request is not carried out.
// Nothing in the device's state is changed by a request that an error, a drop or a close
// answered.
#pragma once

#include <cstdint>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace sim {

// Where a request is answered: what a fault's scope is matched against.
struct FaultPoint {
    std::uint16_t node = 0;
    // A family-37 request: its port; 0 on the device channel.
    std::uint16_t port = 0;
    // A device-channel request: its call number (ipproto/device.hpp).
    std::uint32_t call = 0;
    // A kernel request or a dump: its command code or request id, and the module that answers it.
    std::optional<std::uint32_t> command;
    const char* module = nullptr;
};

struct FaultScope {
    enum class Kind : std::uint8_t { kKernel, kModule, kPort, kCall };
    Kind kind = Kind::kKernel;
    std::uint32_t code = 0;   // command code or dump id, port, call number
    std::string module;       // kModule
    std::optional<std::uint16_t> node;

    bool matches(const FaultPoint& p) const;
};

struct FaultAction {
    enum class Kind : std::uint8_t { kNone, kError, kDrop, kDelay, kTruncate, kClose };
    Kind kind = Kind::kNone;
    // kError: the status; kDelay: milliseconds; kTruncate: bytes kept.
    std::uint32_t value = 0;

    explicit operator bool() const noexcept { return kind != Kind::kNone; }
};

struct Fault {
    std::uint32_t id = 0;
    FaultScope scope;
    FaultAction action;
    // Firings left; none: for ever.
    std::optional<std::uint64_t> times;
    // Chance of firing at each request (1: always), and the generator's seed.
    double probability = 1.0;
    std::uint64_t seed = 0;
    std::mt19937_64 draw{};
    // Requests that reached the fault's place while it could fire, and how many it answered.
    std::uint64_t reached = 0;
    std::uint64_t fired = 0;
};

class Faults {
public:
    // Adds a fault at the end of the list; its id (counting up from 1).
    std::uint32_t add(Fault f);
    // Removes a fault by id; false when there is none.
    bool clear(std::uint32_t id);
    // Removes every fault; how many there were.
    std::size_t clear_all();
    // The action of the first fault that fires for the request, or none.
    FaultAction hit(const FaultPoint& p);
    const std::vector<Fault>& list() const noexcept { return faults_; }
    bool empty() const noexcept { return faults_.empty(); }

private:
    std::vector<Fault> faults_;
    std::uint32_t next_id_ = 1;
};

}  // namespace sim
