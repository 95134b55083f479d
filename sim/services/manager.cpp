#include "services/manager.hpp"

namespace sim {

void ServiceManager::set(std::uint16_t node, const std::string& name, std::uint32_t s) {
    status_[{node, name}] = s;
    if (s == kSvcRunning && on_running) on_running(node, name);
}

std::uint32_t ServiceManager::status(std::uint16_t node, const std::string& name) const {
    const auto it = status_.find({node, name});
    return it == status_.end() ? kSvcStopped : it->second;
}

std::uint32_t ServiceManager::start(std::uint16_t node, bool node_up, const std::string& name) {
    if (!node_up) return 0x40010001u;
    const std::uint32_t now = status(node, name);
    if (now == kSvcRunning || now == kSvcStarting) return 0;
    status_[{node, name}] = kSvcStarting;
    if (schedule) {
        schedule(kStartDelay, [this, node, name] {
            if (status(node, name) == kSvcStarting) set(node, name, kSvcRunning);
        });
    } else {
        set(node, name, kSvcRunning);
    }
    return 0;
}

}  // namespace sim
