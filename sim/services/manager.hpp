// The service manager of the simulated device: which platform services run on which node.
//
// A service's status follows the manager's numbers: 0 stopped, 1 starting, 2 running,
// 4 absent. SERVICE_Start on an up node moves a service that is not running to starting,
// and to running kStartDelay later; the IPStack daemon then listens on that node.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>

namespace sim {

inline constexpr std::uint32_t kSvcStopped = 0, kSvcStarting = 1, kSvcRunning = 2, kSvcAbsent = 4;

class ServiceManager {
public:
    static constexpr std::chrono::milliseconds kStartDelay{300};

    void set(std::uint16_t node, const std::string& name, std::uint32_t status);
    std::uint32_t status(std::uint16_t node, const std::string& name) const;
    // Called when a service reaches running on a node.
    std::function<void(std::uint16_t node, const std::string& name)> on_running;
    // Schedules the delayed move to running.
    std::function<void(std::chrono::milliseconds, std::function<void()>)> schedule;
    // Starts a service on an up node: 0, or 0x40010001 for a node that is down or unknown.
    std::uint32_t start(std::uint16_t node, bool node_up, const std::string& name);

private:
    std::map<std::pair<std::uint16_t, std::string>, std::uint32_t> status_;
};

}  // namespace sim
