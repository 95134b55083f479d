// The node and interface directory: nodes, their state and location, multi-tenant contexts,
// interfaces with their data items, and interface selections and iterators.
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "device.hpp"
#include "internal.hpp"
#include "ipclient/status.h"
#include "leaf_mutex.hpp"

namespace ipp {
namespace {

struct Location {
    std::uint16_t chassis = 0, slot = 0, cpu = 0;
};

struct Interface {
    ipp_interface data{};
    std::map<std::uint32_t, std::uint32_t> failing_items;  // item -> status
};

struct Directory {
    LeafMutex mu;
    std::uint16_t local = 1, self = 1, master = 1, master_ep = 1;
    std::optional<std::vector<std::uint16_t>> nodes;
    std::optional<std::vector<std::uint16_t>> standby;
    std::map<std::uint16_t, std::uint32_t> up;
    std::map<std::uint16_t, Location> locations;
    std::uint16_t mdc = 1;
    std::uint32_t mdc_child = 0;
    std::map<std::uint32_t, Interface> interfaces;
};

Directory& dir() {
    static Directory d;
    return d;
}

std::uint16_t* copy_nodes(const std::optional<std::vector<std::uint16_t>>& list, std::uint32_t* count) {
    if (count != nullptr) *count = 0;
    if (!list) return nullptr;
    // Never a zero-byte block, so that an empty list is still a list.
    auto* out = static_cast<std::uint16_t*>(std::malloc((list->size() + 1) * sizeof(std::uint16_t)));
    if (out == nullptr) return nullptr;
    if (!list->empty()) std::memcpy(out, list->data(), list->size() * sizeof(std::uint16_t));
    if (count != nullptr) *count = static_cast<std::uint32_t>(list->size());
    return out;
}

template <class F>
std::uint32_t with_interface(std::uint32_t ifindex, F&& f) {
    Directory& d = dir();
    const std::lock_guard lock(d.mu);
    const auto it = d.interfaces.find(ifindex);
    return it == d.interfaces.end() ? 0u : f(it->second.data);
}

struct Iterator {
    std::uint32_t last = 0;
};

bool selected(const IF_SELECT_S* sel, std::uint32_t type) {
    if (sel == nullptr) return true;
    bool any = false;
    for (const std::uint32_t w : sel->auiTypeBits) any = any || w != 0;
    if (!any) return true;
    return type < 256 && (sel->auiTypeBits[type / 32] & (1u << (type % 32))) != 0;
}

std::uint32_t next_selected(Iterator* it, const IF_SELECT_S* sel, std::uint32_t after) {
    if (dev::active()) {
        static constexpr std::uint32_t kAll[8] = {};
        const std::uint32_t found = dev::if_next(after, sel != nullptr ? sel->auiTypeBits : kAll);
        it->last = found != 0 ? found : UINT32_MAX;
        return found;
    }
    Directory& d = dir();
    const std::lock_guard lock(d.mu);
    for (auto i = d.interfaces.upper_bound(after); i != d.interfaces.end(); ++i) {
        if (selected(sel, i->second.data.type)) {
            it->last = i->first;
            return i->first;
        }
    }
    it->last = UINT32_MAX;
    return 0;
}

}  // namespace

std::uint16_t local_node() noexcept {
    if (dev::active()) return dev::local_node();
    Directory& d = dir();
    const std::lock_guard lock(d.mu);
    return d.local;
}

void reset_directory() noexcept {
    Directory& d = dir();
    const std::lock_guard lock(d.mu);
    d.local = d.self = d.master = d.master_ep = 1;
    d.nodes.reset();
    d.standby.reset();
    d.up.clear();
    d.locations.clear();
    d.mdc = 1;
    d.mdc_child = 0;
    d.interfaces.clear();
}

}  // namespace ipp

using ipp::dir;

extern "C" {

uint32_t LIP_GetLocalLip(void) {
    if (ipp::dev::active()) return ipp::dev::local_node();
    const std::lock_guard lock(dir().mu);
    return dir().local;
}

uint16_t LIP_GetChassID(uint16_t node) {
    if (ipp::dev::active()) {
        std::uint16_t c = 0, s = 0, u = 0;
        ipp::dev::node_location(node, &c, &s, &u);
        return c;
    }
    const std::lock_guard lock(dir().mu);
    const auto it = dir().locations.find(node);
    return it == dir().locations.end() ? 0 : it->second.chassis;
}

uint16_t LIP_GetSlotID(uint16_t node) {
    if (ipp::dev::active()) {
        std::uint16_t c = 0, s = 0, u = 0;
        ipp::dev::node_location(node, &c, &s, &u);
        return s;
    }
    const std::lock_guard lock(dir().mu);
    const auto it = dir().locations.find(node);
    return it == dir().locations.end() ? 0 : it->second.slot;
}

uint16_t LIP_GetCpuID(uint16_t node) {
    if (ipp::dev::active()) {
        std::uint16_t c = 0, s = 0, u = 0;
        ipp::dev::node_location(node, &c, &s, &u);
        return u;
    }
    const std::lock_guard lock(dir().mu);
    const auto it = dir().locations.find(node);
    return it == dir().locations.end() ? 0 : it->second.cpu;
}

uint32_t DEV_GetSelf(void) {
    if (ipp::dev::active()) return ipp::dev::local_node();
    const std::lock_guard lock(dir().mu);
    return dir().self;
}

uint32_t DEV_GetSystemMaster(void) {
    if (ipp::dev::active()) return ipp::dev::device_info().master;
    const std::lock_guard lock(dir().mu);
    return dir().master;
}

uint32_t DEV_GetSystemMasterEP(void) {
    if (ipp::dev::active()) return ipp::dev::device_info().master_ep;
    const std::lock_guard lock(dir().mu);
    return dir().master_ep;
}

uint16_t* DEV_GetAllNodes(uint32_t* count) {
    if (ipp::dev::active()) return ipp::dev::nodes(false, count);
    const std::lock_guard lock(dir().mu);
    return ipp::copy_nodes(dir().nodes, count);
}

uint16_t* DEV_GetAllStandbyNodes(uint32_t* count) {
    if (ipp::dev::active()) return ipp::dev::nodes(true, count);
    const std::lock_guard lock(dir().mu);
    return ipp::copy_nodes(dir().standby, count);
}

uint16_t MDC_GetCurrentMDC(void) {
    if (ipp::dev::active()) return ipp::dev::device_info().mdc;
    const std::lock_guard lock(dir().mu);
    return dir().mdc;
}

uint32_t MDC_IsChildMDC(uint16_t mdc) {
    if (ipp::dev::active()) return ipp::dev::mdc_is_child(mdc);
    const std::lock_guard lock(dir().mu);
    return mdc == dir().mdc ? dir().mdc_child : 0;
}

uint32_t IF_GetDataByIfIndex(uint32_t ifindex, uint32_t item, void* out) {
    if (out == nullptr) return IPSTATUS_FAILED;
    if (ipp::dev::active()) return ipp::dev::if_data(ifindex, item, out);
    const std::lock_guard lock(dir().mu);
    const auto it = dir().interfaces.find(ifindex);
    if (it == dir().interfaces.end()) return IPSTATUS_FAILED;
    const auto fail = it->second.failing_items.find(item);
    if (fail != it->second.failing_items.end()) return fail->second;
    const ipp_interface& d = it->second.data;
    switch (item) {
        case IF_DATA_NODE: std::memcpy(out, &d.node, sizeof d.node); return 0;
        case IF_DATA_NAME: std::memcpy(out, d.name, sizeof d.name); return 0;
        case IF_DATA_TYPE: std::memcpy(out, &d.type, sizeof d.type); return 0;
        case IF_DATA_FLAGS: std::memcpy(out, &d.flags, sizeof d.flags); return 0;
        case IF_DATA_KIND: std::memcpy(out, &d.kind, sizeof d.kind); return 0;
        default: return IPSTATUS_FAILED;
    }
}

uint32_t IF_IsNodeUp(uint32_t node) {
    if (ipp::dev::active()) return ipp::dev::node_up(node);
    const std::lock_guard lock(dir().mu);
    const auto it = dir().up.find(ipp::node_of(node));
    return it == dir().up.end() ? 0 : it->second;
}

uint32_t IF_IsValidIfIndex(uint32_t ifindex) {
    if (ipp::dev::active()) return ipp::dev::if_predicate(ifindex, ipc::device::IfPredicate::kValid);
    return ipp::with_interface(ifindex, [](const ipp_interface& d) { return d.valid ? 1u : 0u; });
}
uint32_t IF_IsL2If(uint32_t ifindex) {
    if (ipp::dev::active()) return ipp::dev::if_predicate(ifindex, ipc::device::IfPredicate::kL2);
    return ipp::with_interface(ifindex, [](const ipp_interface& d) { return d.l2 ? 1u : 0u; });
}
uint32_t IF_IsTempIf(uint32_t ifindex) {
    if (ipp::dev::active()) return ipp::dev::if_predicate(ifindex, ipc::device::IfPredicate::kTemp);
    return ipp::with_interface(ifindex, [](const ipp_interface& d) { return d.temp ? 1u : 0u; });
}
uint32_t IF_IsVisible(uint32_t ifindex) {
    if (ipp::dev::active()) return ipp::dev::if_predicate(ifindex, ipc::device::IfPredicate::kVisible);
    return ipp::with_interface(ifindex, [](const ipp_interface& d) { return d.visible ? 1u : 0u; });
}
uint32_t IF_IsConfigure(uint32_t ifindex) {
    if (ipp::dev::active()) return ipp::dev::if_predicate(ifindex, ipc::device::IfPredicate::kConfigured);
    return ipp::with_interface(ifindex, [](const ipp_interface& d) { return d.configured ? 1u : 0u; });
}

uint32_t IF_GetIfIndexByFullName(const char* name) {
    if (name == nullptr) return 0;
    if (ipp::dev::active()) return ipp::dev::if_by_name(name);
    const std::lock_guard lock(dir().mu);
    for (const auto& [index, itf] : dir().interfaces) {
        if (std::strncmp(itf.data.name, name, IF_NAME_SIZE) == 0) return index;
    }
    return 0;
}

uint32_t IF_Select_Init(uint32_t mode, IF_SELECT_S* sel) {
    if (sel == nullptr) return IPSTATUS_FAILED;
    *sel = IF_SELECT_S{};
    sel->uiMode = mode;
    return 0;
}

uint32_t IF_SelectType_Set(uint32_t type, IF_SELECT_S* sel) {
    if (sel == nullptr || type >= 256) return IPSTATUS_FAILED;
    sel->auiTypeBits[type / 32] |= 1u << (type % 32);
    return 0;
}

uint32_t IF_SelectType_Check(uint32_t type, const IF_SELECT_S* sel) {
    if (sel == nullptr || type >= 256) return 0;
    return (sel->auiTypeBits[type / 32] >> (type % 32)) & 1u;
}

uint32_t IF_SelectCondition_Set(uint32_t condition, IF_SELECT_S* sel) {
    if (sel == nullptr) return IPSTATUS_FAILED;
    sel->uiCondition |= condition;
    return 0;
}

void* IF_IteratorInitialize(void) { return new (std::nothrow) ipp::Iterator{}; }

uint32_t IF_GetFirstIfIndexByIfSelect(void* iterator, const IF_SELECT_S* sel) {
    if (iterator == nullptr) return 0;
    return ipp::next_selected(static_cast<ipp::Iterator*>(iterator), sel, 0);
}

uint32_t IF_GetNextIfIndexByIfSelect(void* iterator, const IF_SELECT_S* sel) {
    if (iterator == nullptr) return 0;
    auto* it = static_cast<ipp::Iterator*>(iterator);
    if (it->last == UINT32_MAX) return 0;
    return ipp::next_selected(it, sel, it->last);
}

void IF_IteratorFinalize(void* iterator) { delete static_cast<ipp::Iterator*>(iterator); }

// ---- test control ----

void ipp_dir_set_local_node(uint16_t node) {
    const std::lock_guard lock(dir().mu);
    dir().local = node;
}
void ipp_dir_set_self(uint16_t node) {
    const std::lock_guard lock(dir().mu);
    dir().self = node;
}
void ipp_dir_set_master(uint16_t node) {
    const std::lock_guard lock(dir().mu);
    dir().master = node;
}
void ipp_dir_set_master_ep(uint16_t node) {
    const std::lock_guard lock(dir().mu);
    dir().master_ep = node;
}
void ipp_dir_set_nodes(const uint16_t* nodes, uint32_t count) {
    const std::lock_guard lock(dir().mu);
    dir().nodes.emplace(nodes, nodes + (nodes != nullptr ? count : 0));
}
void ipp_dir_clear_nodes(void) {
    const std::lock_guard lock(dir().mu);
    dir().nodes.reset();
}
void ipp_dir_set_standby_nodes(const uint16_t* nodes, uint32_t count) {
    const std::lock_guard lock(dir().mu);
    dir().standby.emplace(nodes, nodes + (nodes != nullptr ? count : 0));
}
void ipp_dir_clear_standby_nodes(void) {
    const std::lock_guard lock(dir().mu);
    dir().standby.reset();
}
void ipp_dir_set_node_up(uint16_t node, uint32_t value) {
    const std::lock_guard lock(dir().mu);
    dir().up[node] = value;
}
void ipp_dir_set_node_location(uint16_t node, uint16_t chassis, uint16_t slot, uint16_t cpu) {
    const std::lock_guard lock(dir().mu);
    dir().locations[node] = {chassis, slot, cpu};
}
void ipp_dir_set_mdc(uint16_t current, uint32_t is_child_value) {
    const std::lock_guard lock(dir().mu);
    dir().mdc = current;
    dir().mdc_child = is_child_value;
}
void ipp_dir_add_interface(const ipp_interface* itf) {
    if (itf == nullptr) return;
    const std::lock_guard lock(dir().mu);
    auto& slot = dir().interfaces[itf->ifindex];
    slot.data = *itf;
    slot.data.name[IF_NAME_SIZE - 1] = '\0';
}
void ipp_dir_fail_item(uint32_t ifindex, uint32_t item, uint32_t status) {
    const std::lock_guard lock(dir().mu);
    auto& items = dir().interfaces[ifindex].failing_items;
    dir().interfaces[ifindex].data.ifindex = ifindex;
    if (status == 0) {
        items.erase(item);
    } else {
        items[item] = status;
    }
}

}  // extern "C"
