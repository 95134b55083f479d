// The device backend: platform calls answered by a simulated device (ipsimd) that runs for
// the process's instance. See ipproto/device.hpp for the channel.
//
// The backend is used while no test has taken control of the platform (ipp_reset) and a
// simulator answers on the instance's device socket. Each thread holds its own connection;
// a connection that the simulator closed is opened again on the next call, so that a
// restarted simulator is found again. When no simulator answers, the platform behaves as
// a device without the IP modules, and the next attempt to reach one is made after a short
// pause (kProbeInterval in device.cpp) rather than on every call.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "ipproto/device.hpp"

namespace ipp::dev {

// True when calls go to a simulator now (connecting on first use).
bool active() noexcept;
// Stops using a simulator for good in this process (a test takes control).
void disable() noexcept;
// Drops every thread's connection; the next call connects again (another instance).
void reconnect() noexcept;
// How many connections the calling thread opened so far: answers kept from an earlier
// connection (another simulator, or the same one restarted) are not this one's.
std::uint64_t connection_serial() noexcept;
// connection_serial() while the calling thread's connection is open, of the current
// instance, and its peer is still there (looked at no more than once a millisecond); else 0,
// and a dead connection is dropped.
std::uint64_t current_serial() noexcept;
// Tries to reach the simulator now (whatever the pause between attempts); an
// ipp_device_state_code, and the socket owner's uid for IPP_DEVICE_FOREIGN.
int probe(std::uint32_t* owner_uid) noexcept;
// The node this process runs on, as the simulator assigned it.
std::uint16_t local_node() noexcept;

struct Answer {
    std::uint32_t result = 0;
    std::size_t len = 0;  // answer bytes received after the result word
};

// One call: the request is the call word, `fields` and `tail`; the answer after the result
// word lands in `head` and then in `body`. Nothing when the simulator could not be reached
// or answered with fewer than 4 bytes.
std::optional<Answer> call(ipc::device::Call call, std::span<const std::uint8_t> fields,
                           std::span<const std::uint8_t> tail, std::span<std::uint8_t> head,
                           std::span<std::uint8_t> body = {}) noexcept;

// A connection of its own for kernel events of a class; the descriptor or -1.
int subscribe_events(std::uint32_t event_class) noexcept;

// The platform calls as the simulator answers them (device_calls.cpp). Each is used only
// while active() holds, and answers as a device without the module would when the
// simulator cannot be reached in the middle of a call.
std::uint32_t cioctl(std::uint32_t node, std::uint32_t command, std::uint32_t request_len, const void* request,
                     std::uint32_t reply_cap, void* reply, std::uint32_t* returned_len, bool async) noexcept;
struct DeviceInfo {
    std::uint16_t self = 0, master = 0, master_ep = 0, mdc = 0;
    std::uint32_t mdc_child = 0;
};
DeviceInfo device_info() noexcept;
void node_location(std::uint16_t node, std::uint16_t* chassis, std::uint16_t* slot, std::uint16_t* cpu) noexcept;
std::uint16_t* nodes(bool standby, std::uint32_t* count) noexcept;
std::uint32_t node_up(std::uint32_t node) noexcept;
// The faults the simulator has set that may still fire; none when it does not answer.
std::optional<std::uint32_t> faults() noexcept;
std::uint32_t mdc_is_child(std::uint16_t mdc) noexcept;
std::uint32_t if_data(std::uint32_t ifindex, std::uint32_t item, void* out) noexcept;
std::uint32_t if_predicate(std::uint32_t ifindex, ipc::device::IfPredicate which) noexcept;
std::uint32_t if_by_name(const char* name) noexcept;
std::uint32_t if_next(std::uint32_t after, const std::uint32_t (&type_bits)[8]) noexcept;
std::uint32_t service_status(std::uint16_t node, const char* name, std::uint32_t* status) noexcept;
std::uint32_t service_start(std::uint16_t node, const char* name) noexcept;
std::uint32_t service_batch_start(const std::uint16_t* nodes, std::uint32_t count, const char* name) noexcept;
std::int32_t dump_request(std::uint32_t node, std::uint32_t id, const void* request, std::uint32_t len) noexcept;
std::uint32_t dump_pull(std::int32_t handle, std::uint32_t cap, void* buf, std::uint32_t* len) noexcept;
void dump_terminate(std::int32_t handle) noexcept;
std::uint32_t dbm_open(const char* db, const char* group, std::uint32_t mode, void** handle) noexcept;
std::int32_t dbm_next(void* handle, const void* key, std::uint32_t key_len, void** iterator, std::uint32_t data_len,
                      void* data) noexcept;
void dbm_free_iterator(void* iterator) noexcept;
std::uint32_t dbm_close(void* handle) noexcept;
std::int32_t dbm_len(void* handle, const void* key, std::uint32_t key_len) noexcept;

std::uint64_t anchor_begin(void* anchor, std::uint32_t key, std::uint64_t position, void* context) noexcept;
std::uint32_t anchor_inquire(void* anchor, std::uint64_t path, std::uint64_t* position, void** context) noexcept;
std::uint32_t anchor_set(void* anchor, std::uint64_t path, std::uint64_t position) noexcept;
// Ends the path; the context is handed to release (when given) in any case of a known path.
void anchor_end(void* anchor, std::uint64_t path, void (*release)(void*)) noexcept;

}  // namespace ipp::dev
