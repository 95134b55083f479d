// The simulated device: its nodes with their location, role and state, its VRFs, and its
// interfaces with the data items the platform's directory reports. Filled from the
// scenario; the kernel modules and services read it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "ipproto/if_types.hpp"
#include "ipproto/lipc.hpp"
#include "scenario/scenario.hpp"

namespace sim {

inline constexpr std::uint16_t kOwnNode = ipc::proto::lipc::kOwnNode;
// Interface type code of loopback interfaces.
inline constexpr std::uint32_t kTypeLoopback = ipc::if_types::kLoopback;
// Flags word bit: the interface spans nodes.
inline constexpr std::uint32_t kIfFlagSpansNodes = 0x10;

struct NodeState {
    scenario::Node info;
};

class Device {
public:
    explicit Device(const scenario::Scenario& s);

    std::uint16_t master() const noexcept { return master_; }
    std::uint16_t master_ep() const noexcept { return master_ep_; }
    std::uint16_t mdc() const noexcept { return mdc_; }
    bool mdc_child() const noexcept { return mdc_child_; }

    const std::map<std::uint16_t, NodeState>& nodes() const noexcept { return nodes_; }
    const NodeState* node(std::uint16_t number) const;
    bool node_up(std::uint16_t number) const;
    void set_node_up(std::uint16_t number, bool up);
    std::vector<std::uint16_t> standby_nodes() const;
    // A board pulled out (node.set down) and put back: while pulled, the node is down and the
    // interfaces it owns (not those that span nodes) leave the directory.
    void pull(std::uint16_t number);
    void put_back(std::uint16_t number);
    bool pulled(std::uint16_t number) const { return pulled_.count(number) != 0; }
    // A switchover: the node becomes master (and master endpoint where the old master was).
    void set_master(std::uint16_t number);
    // The interfaces a node owns alone.
    std::vector<std::uint32_t> interfaces_of(std::uint16_t node) const;

    const std::map<std::uint32_t, scenario::Interface>& interfaces() const noexcept { return interfaces_; }
    const scenario::Interface* interface(std::uint32_t ifindex) const;
    std::uint32_t find_interface(const std::string& name) const;
    // The first interface after `after` whose type is in the 256-bit set (all when empty).
    std::uint32_t next_interface(std::uint32_t after, const std::uint32_t (&type_bits)[8]) const;
    // True when the node serves the interface: it owns it, or the interface spans nodes.
    bool serves(std::uint16_t node, std::uint32_t ifindex) const;

    const std::map<std::uint16_t, std::string>& vrfs() const noexcept { return vrfs_; }

    // A device that follows a live system: interfaces and VRFs come, change and go while it
    // runs. Pointers from interface() are not kept across these calls.
    void put_interface(const scenario::Interface& i);
    bool remove_interface(std::uint32_t ifindex);
    void put_vrf(std::uint16_t index, const std::string& name) { vrfs_[index] = name; }

private:
    std::uint16_t master_, master_ep_, mdc_;
    bool mdc_child_;
    std::map<std::uint16_t, NodeState> nodes_;
    std::map<std::uint32_t, scenario::Interface> interfaces_;
    std::map<std::string, std::uint32_t> by_name_;
    std::map<std::uint16_t, std::string> vrfs_;
    std::set<std::uint16_t> pulled_;

    // False for an interface of a pulled board.
    bool present(const scenario::Interface& i) const {
        return pulled_.empty() || pulled_.count(i.node) == 0 || (i.flags & kIfFlagSpansNodes) != 0;
    }
};

}  // namespace sim
