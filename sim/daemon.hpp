// ipsimd: the simulated device as one daemon. Owns the device's state, its kernel modules
// and services, the persistence and the capture, and the listening sockets of every
// channel in the instance's namespace.
#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "context.hpp"
#include "scenario/scenario.hpp"
#include "services/service.hpp"

namespace sim {

struct Options {
    std::string instance;
    std::string state_dir;   // empty: nothing persists
    std::string capture;     // empty: no capture
};

class Daemon {
public:
    Daemon(const scenario::Scenario& s, Options opts);
    ~Daemon();
    // Restores stored state and listens on every channel; an error text when it cannot.
    std::optional<std::string> start();
    // Runs until stop().
    void run();
    void stop() noexcept { loop_.stop(); }
    // A hang-up signal came (safe from a signal handler).
    void hangup() noexcept { loop_.hangup(); }
    // One round of the loop (see Loop::step), for a caller that drives the daemon itself.
    int step(int timeout_ms) { return loop_.step(timeout_ms); }
    std::size_t node_count() const noexcept { return device_.nodes().size(); }
    // What the modules and services reach, for a source that fills the device from outside.
    Context& context() noexcept { return ctx_; }

private:
    std::optional<std::string> restore();
    bool listen_service(std::uint16_t node, const ServiceOps& svc);
    // Whether the service should listen on the node now and does not yet; listens on every
    // such service of a node.
    bool should_listen(std::uint16_t node, const ServiceOps& svc) const;
    void listen_node(std::uint16_t node);
    // The scenario's limits and faults, set as limit.set and fault.set would.
    std::optional<std::string> apply_knobs();
    static std::string cannot_listen(const ServiceOps& svc, std::uint16_t node);
    void load_routes(const scenario::Scenario& s);
    void load_neighbours(const scenario::Scenario& s);

    Options opts_;
    Loop loop_;
    Device device_;
    AddrTable addrs_;
    AddrModule addr_module_;
    ServiceManager services_;
    Store store_;
    Capture capture_;
    Database database_;
    Anchors anchors_;
    FibTable fib_;
    FibModule fib_module_;
    Dumps dumps_;
    Context ctx_;
    bool listening_ = false;
    std::string source_;
    std::vector<scenario::ControlItem> faults_, limits_;
};

}  // namespace sim
