#include "device/device.hpp"

namespace sim {

Device::Device(const scenario::Scenario& s)
    : master_(s.master), master_ep_(s.master_ep != 0 ? s.master_ep : s.master), mdc_(s.mdc), mdc_child_(s.mdc_child) {
    for (const auto& n : s.nodes) nodes_[n.number] = NodeState{n};
    for (const auto& i : s.interfaces) {
        interfaces_[i.index] = i;
        by_name_[i.name] = i.index;
    }
    vrfs_[0] = "public";
    for (const auto& v : s.vrfs) vrfs_[v.index] = v.name;
}

const NodeState* Device::node(std::uint16_t number) const {
    const auto it = nodes_.find(number);
    return it == nodes_.end() ? nullptr : &it->second;
}

bool Device::node_up(std::uint16_t number) const {
    const NodeState* n = node(number);
    return n != nullptr && n->info.up;
}

void Device::set_node_up(std::uint16_t number, bool up) {
    const auto it = nodes_.find(number);
    if (it != nodes_.end()) it->second.info.up = up;
}

void Device::pull(std::uint16_t number) {
    set_node_up(number, false);
    pulled_.insert(number);
}

void Device::put_back(std::uint16_t number) {
    pulled_.erase(number);
    set_node_up(number, true);
}

void Device::set_master(std::uint16_t number) {
    if (master_ep_ == master_) master_ep_ = number;
    master_ = number;
    for (auto& [n, state] : nodes_) {
        if (n == number) {
            state.info.role = scenario::Role::kMaster;
        } else if (state.info.role == scenario::Role::kMaster) {
            state.info.role = scenario::Role::kStandby;
        }
    }
}

std::vector<std::uint32_t> Device::interfaces_of(std::uint16_t node) const {
    std::vector<std::uint32_t> out;
    for (const auto& [index, i] : interfaces_) {
        if (i.node == node && (i.flags & kIfFlagSpansNodes) == 0) out.push_back(index);
    }
    return out;
}

std::vector<std::uint16_t> Device::standby_nodes() const {
    std::vector<std::uint16_t> out;
    for (const auto& [number, n] : nodes_) {
        if (n.info.role == scenario::Role::kStandby) out.push_back(number);
    }
    return out;
}

const scenario::Interface* Device::interface(std::uint32_t ifindex) const {
    const auto it = interfaces_.find(ifindex);
    return it == interfaces_.end() || !present(it->second) ? nullptr : &it->second;
}

std::uint32_t Device::find_interface(const std::string& name) const {
    const auto it = by_name_.find(name);
    return it == by_name_.end() || interface(it->second) == nullptr ? 0 : it->second;
}

std::uint32_t Device::next_interface(std::uint32_t after, const std::uint32_t (&type_bits)[8]) const {
    bool any = false;
    for (const std::uint32_t w : type_bits) any = any || w != 0;
    for (auto it = interfaces_.upper_bound(after); it != interfaces_.end(); ++it) {
        const std::uint32_t t = it->second.type;
        if (!present(it->second)) continue;
        if (!any || (t < 256 && (type_bits[t / 32] >> (t % 32) & 1u) != 0)) return it->first;
    }
    return 0;
}

void Device::put_interface(const scenario::Interface& i) {
    const auto it = interfaces_.find(i.index);
    if (it != interfaces_.end() && it->second.name != i.name) by_name_.erase(it->second.name);
    interfaces_[i.index] = i;
    by_name_[i.name] = i.index;
}

bool Device::remove_interface(std::uint32_t ifindex) {
    const auto it = interfaces_.find(ifindex);
    if (it == interfaces_.end()) return false;
    const auto named = by_name_.find(it->second.name);
    if (named != by_name_.end() && named->second == ifindex) by_name_.erase(named);
    interfaces_.erase(it);
    return true;
}

bool Device::serves(std::uint16_t node, std::uint32_t ifindex) const {
    const scenario::Interface* i = interface(ifindex);
    if (i == nullptr) return false;
    return i->node == node || (i->flags & kIfFlagSpansNodes) != 0;
}

}  // namespace sim
