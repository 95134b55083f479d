// The dump service: requests open a handle on a scripted sequence of chunks.
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "device.hpp"
#include "internal.hpp"
#include "ipclient/status.h"
#include "leaf_mutex.hpp"

// The simulator answers a pull that leaves more with the device status IPSTATUS_MORE_DATA;
// the platform hands it on under its own name.
static_assert(DUMP_MORE_DATA == IPSTATUS_MORE_DATA);

namespace ipp {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Key = std::pair<std::uint16_t, std::uint32_t>;

struct Script {
    std::deque<Bytes> chunks;
    std::uint32_t final_status = 0;
    std::int32_t request_result = 0;
    ipp_dump_producer producer = nullptr;
    void* ctx = nullptr;
    std::uint32_t next_index = 0;
};

struct Request {
    std::uint32_t node;
    std::uint32_t id;
    Bytes bytes;
};

struct Dumps {
    LeafMutex mu;
    std::map<Key, Script> scripts;
    std::map<std::int32_t, Script> open;
    std::vector<Request> requests;
    std::int32_t next_handle = 1;
};

Dumps& dumps() {
    static Dumps d;
    return d;
}

}  // namespace

void reset_dump() noexcept {
    const std::lock_guard lock(dumps().mu);
    dumps().scripts.clear();
    dumps().open.clear();
    dumps().requests.clear();
    dumps().next_handle = 1;
}

}  // namespace ipp

using ipp::dumps;

extern "C" {

int32_t DUMP_Request(uint32_t node, uint32_t request_id, const void* request, uint32_t request_len) {
    if (ipp::dev::active()) return ipp::dev::dump_request(node, request_id, request, request_len);
    const std::lock_guard lock(dumps().mu);
    const auto* b = static_cast<const std::uint8_t*>(request);
    dumps().requests.push_back({node, request_id, ipp::Bytes(b, b + (b != nullptr ? request_len : 0))});
    ipp::Script& script = dumps().scripts[{ipp::node_of(node), request_id}];
    if (script.request_result < 0) return script.request_result;
    const std::int32_t handle = dumps().next_handle++;
    dumps().open[handle] = script;  // each dump reads its own copy of the chunks
    return handle;
}

uint32_t DUMP_Pull(int32_t handle, uint32_t cap, void* buf, uint32_t* len) {
    if (ipp::dev::active()) return ipp::dev::dump_pull(handle, cap, buf, len);
    std::unique_lock lock(dumps().mu);
    const auto it = dumps().open.find(handle);
    if (len != nullptr) *len = 0;
    if (it == dumps().open.end()) return IPSTATUS_FAILED;
    ipp::Script& s = it->second;
    if (s.producer != nullptr) {
        // The test's producer runs without the table's lock: it may call the platform.
        const auto producer = s.producer;
        void* const ctx = s.ctx;
        const std::uint32_t index = s.next_index++;
        const std::uint32_t final_status = s.final_status;
        lock.unlock();
        std::uint32_t n = 0;
        if (buf == nullptr || producer(ctx, index, static_cast<std::uint8_t*>(buf), cap, &n) == 0) return final_status;
        if (len != nullptr) *len = std::min(n, cap);
        return DUMP_MORE_DATA;
    }
    if (s.chunks.empty()) return s.final_status;
    const ipp::Bytes chunk = std::move(s.chunks.front());
    s.chunks.pop_front();
    const std::uint32_t n = std::min<std::uint32_t>(cap, static_cast<std::uint32_t>(chunk.size()));
    if (buf != nullptr && n != 0) std::memcpy(buf, chunk.data(), n);
    if (len != nullptr) *len = buf != nullptr ? n : 0;
    return DUMP_MORE_DATA;
}

void DUMP_Terminate(int32_t handle) {
    if (ipp::dev::active()) return ipp::dev::dump_terminate(handle);
    const std::lock_guard lock(dumps().mu);
    dumps().open.erase(handle);
}

void ipp_dump_add_chunk(uint16_t node, uint32_t request_id, const void* bytes, uint32_t len) {
    const std::lock_guard lock(dumps().mu);
    const auto* b = static_cast<const std::uint8_t*>(bytes);
    dumps().scripts[{node, request_id}].chunks.emplace_back(b, b + (b != nullptr ? len : 0));
}

void ipp_dump_set_producer(uint16_t node, uint32_t request_id, ipp_dump_producer producer, void* ctx) {
    const std::lock_guard lock(dumps().mu);
    auto& script = dumps().scripts[{node, request_id}];
    script.chunks.clear();
    script.producer = producer;
    script.ctx = ctx;
}

void ipp_dump_set_final(uint16_t node, uint32_t request_id, uint32_t status) {
    const std::lock_guard lock(dumps().mu);
    dumps().scripts[{node, request_id}].final_status = status;
}

void ipp_dump_fail_request(uint16_t node, uint32_t request_id, int32_t result) {
    const std::lock_guard lock(dumps().mu);
    dumps().scripts[{node, request_id}].request_result = result;
}

uint32_t ipp_dump_request_count(void) {
    const std::lock_guard lock(dumps().mu);
    return static_cast<uint32_t>(dumps().requests.size());
}

uint32_t ipp_dump_request(uint32_t i, uint32_t* node, uint32_t* request_id, uint8_t* bytes, uint32_t cap) {
    const std::lock_guard lock(dumps().mu);
    if (i >= dumps().requests.size()) return 0;
    const ipp::Request& r = dumps().requests[i];
    if (node != nullptr) *node = r.node;
    if (request_id != nullptr) *request_id = r.id;
    if (bytes != nullptr) std::memcpy(bytes, r.bytes.data(), std::min<std::size_t>(cap, r.bytes.size()));
    return static_cast<uint32_t>(r.bytes.size());
}

uint32_t ipp_dump_open_handles(void) {
    const std::lock_guard lock(dumps().mu);
    return static_cast<uint32_t>(dumps().open.size());
}

}  // extern "C"
