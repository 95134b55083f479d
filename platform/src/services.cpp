// The service manager: scripted status sequences and start results per (node, service).
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "device.hpp"
#include "internal.hpp"
#include "ipclient/status.h"
#include "leaf_mutex.hpp"

namespace ipp {
namespace {

struct Service {
    std::vector<std::uint32_t> statuses;
    std::size_t next = 0;
    std::uint32_t status_result = 0;
    std::uint32_t start_result = 0;
    std::uint32_t status_calls = 0;
    std::uint32_t start_calls = 0;
};

struct Services {
    LeafMutex mu;
    std::map<std::pair<std::uint16_t, std::string>, Service> by_key;
    std::map<std::string, std::vector<std::uint16_t>> last_batch;
};

Services& services() {
    static Services s;
    return s;
}

Service& service(std::uint16_t node, const char* name) {
    return services().by_key[{node, name != nullptr ? name : ""}];
}

}  // namespace

void reset_services() noexcept {
    const std::lock_guard lock(services().mu);
    services().by_key.clear();
    services().last_batch.clear();
}

}  // namespace ipp

using ipp::services;

extern "C" {

uint32_t SERVICE_GetStatus(uint16_t node, const char* name, uint32_t zero, uint32_t* status) {
    (void)zero;
    if (ipp::dev::active()) return ipp::dev::service_status(node, name, status);
    const std::lock_guard lock(services().mu);
    ipp::Service& s = ipp::service(node, name);
    ++s.status_calls;
    if (s.status_result != 0) return s.status_result;
    if (status == nullptr) return IPSTATUS_FAILED;
    if (s.statuses.empty()) {
        *status = SERVICE_STATUS_STOPPED;
    } else {
        *status = s.statuses[std::min(s.next, s.statuses.size() - 1)];
        if (s.next < s.statuses.size()) ++s.next;
    }
    return 0;
}

uint32_t SERVICE_Start(uint16_t node, const char* name, uint32_t zero1, uint32_t zero2) {
    (void)zero1;
    (void)zero2;
    if (ipp::dev::active()) return ipp::dev::service_start(node, name);
    const std::lock_guard lock(services().mu);
    ipp::Service& s = ipp::service(node, name);
    ++s.start_calls;
    return s.start_result;
}

uint32_t SERVICE_BatchStart(const uint16_t* nodes, uint32_t count, const char* name, uint32_t zero1,
                            uint32_t zero2) {
    (void)zero1;
    (void)zero2;
    if (nodes == nullptr && count != 0) return IPSTATUS_FAILED;
    if (ipp::dev::active()) return ipp::dev::service_batch_start(nodes, count, name);
    const std::lock_guard lock(services().mu);
    services().last_batch[name != nullptr ? name : ""].assign(nodes, nodes + count);
    for (uint32_t i = 0; i < count; ++i) ++ipp::service(nodes[i], name).start_calls;
    return 0;
}

void ipp_service_script(uint16_t node, const char* name, const uint32_t* statuses, uint32_t count) {
    const std::lock_guard lock(services().mu);
    ipp::Service& s = ipp::service(node, name);
    s.statuses.assign(statuses, statuses + (statuses != nullptr ? count : 0));
    s.next = 0;
}

void ipp_service_set_status_result(uint16_t node, const char* name, uint32_t result) {
    const std::lock_guard lock(services().mu);
    ipp::service(node, name).status_result = result;
}

void ipp_service_set_start_result(uint16_t node, const char* name, uint32_t result) {
    const std::lock_guard lock(services().mu);
    ipp::service(node, name).start_result = result;
}

uint32_t ipp_service_status_calls(uint16_t node, const char* name) {
    const std::lock_guard lock(services().mu);
    return ipp::service(node, name).status_calls;
}

uint32_t ipp_service_start_calls(uint16_t node, const char* name) {
    const std::lock_guard lock(services().mu);
    return ipp::service(node, name).start_calls;
}

uint32_t ipp_service_last_batch(const char* name, uint16_t* nodes, uint32_t cap) {
    const std::lock_guard lock(services().mu);
    const auto it = services().last_batch.find(name != nullptr ? name : "");
    if (it == services().last_batch.end()) return 0;
    const auto& list = it->second;
    if (nodes != nullptr) std::memcpy(nodes, list.data(), std::min<std::size_t>(cap, list.size()) * sizeof(uint16_t));
    return static_cast<uint32_t>(list.size());
}

}  // extern "C"
