#include "modules/kmod_wlan.hpp"

#include <cstring>

#include "context.hpp"
#include "core/status.hpp"
#include "ipclient/status.h"
#include "ipproto/wire.hpp"
#include "modules/module.hpp"

namespace sim {
namespace {

using namespace ipc::proto::wlan;  // sub-operations and request layout

// The words of a request are the caller's host-order values, copied unchanged.
template <class U>
U host_word(std::span<const std::uint8_t> request, std::size_t at) {
    U v{};
    std::memcpy(&v, request.data() + at, sizeof v);
    return v;
}

}  // namespace

std::uint16_t WlanEntry::vlan() const {
    std::uint16_t v = 0;
    std::memcpy(&v, data.data() + kVlanOffset, sizeof v);
    return v;
}

std::uint32_t WlanModule::handle(const Device& device, std::uint16_t node, std::span<const std::uint8_t> request,
                                 std::span<std::uint8_t> reply, std::uint32_t* returned) {
    *returned = 0;
    if (request.size() < 4 || request[2] != 0 || request[3] != 0 || request[1] + 4u != request.size()) {
        return kFailure;
    }
    std::uint32_t count = 0;
    std::uint32_t status = kFailure;
    switch (request[0]) {
        case kRefresh:
            if (request.size() == kEntryRequestLen) status = refresh(device, node, request, &count);
            break;
        case kDelete:
            if (request.size() == kDeleteRequestLen) status = remove(node, request, &count);
            break;
        case kDeleteByIf:
            if (request.size() == kEntryRequestLen) status = remove_by_if(node, request, &count);
            break;
        default: break;
    }
    if (status == 0 && reply.size() >= 4) {
        ipc::wire::store_be(reply.data(), count);
        *returned = 4;
    }
    return status;
}

std::uint32_t WlanModule::refresh(const Device& device, std::uint16_t node, std::span<const std::uint8_t> request,
                                  std::uint32_t* count) {
    WlanEntry e;
    e.node = node;
    e.first = host_word<std::uint32_t>(request, 4);
    e.ifindex = host_word<std::uint32_t>(request, 8);
    if (e.ifindex == 0 || device.interface(e.ifindex) == nullptr) return kFailure;
    std::memcpy(e.data.data(), request.data() + kEntryAt, WlanEntry::kLen);
    const Key key{node, e.ifindex, e.first};
    // A new client beyond kMaxEntries is refused; a known one is always refreshed.
    if (table_.size() >= kMaxEntries && table_.count(key) == 0) return kFailure;
    table_[key] = e;
    *count = 1;
    report({WlanChange::kRefresh, node, {e}});
    return 0;
}

std::uint32_t WlanModule::remove(std::uint16_t node, std::span<const std::uint8_t> request, std::uint32_t* count) {
    const auto first = host_word<std::uint32_t>(request, 4);
    const auto ifindex = host_word<std::uint32_t>(request, 8);
    const auto it = table_.find(Key{node, ifindex, first});
    if (it == table_.end()) return kFailure;
    WlanChange c{WlanChange::kDelete, node, {it->second}};
    table_.erase(it);
    *count = 1;
    report(c);
    return 0;
}

std::uint32_t WlanModule::remove_by_if(std::uint16_t node, std::span<const std::uint8_t> request,
                                       std::uint32_t* count) {
    const auto ifindex = host_word<std::uint32_t>(request, 8);
    const auto selector = host_word<std::uint16_t>(request, kSelectorAt);
    WlanChange c{WlanChange::kDelete, node, {}};
    auto it = table_.lower_bound(Key{node, ifindex, 0});
    while (it != table_.end() && std::get<0>(it->first) == node && std::get<1>(it->first) == ifindex) {
        if (selector == 0 || it->second.vlan() == selector) {
            c.entries.push_back(it->second);
            it = table_.erase(it);
        } else {
            ++it;
        }
    }
    *count = static_cast<std::uint32_t>(c.entries.size());
    if (!c.entries.empty()) report(c);
    return 0;
}

std::size_t WlanModule::clear(std::optional<std::uint16_t> node) {
    std::map<std::uint16_t, std::size_t> emptied;
    for (auto it = table_.begin(); it != table_.end();) {
        const std::uint16_t n = std::get<0>(it->first);
        if (node && n != *node) {
            ++it;
            continue;
        }
        ++emptied[n];
        it = table_.erase(it);
    }
    std::size_t removed = 0;
    for (const auto& [n, count] : emptied) {
        removed += count;
        report({WlanChange::kCleared, n, {}});
    }
    return removed;
}

void WlanModule::report(const WlanChange& c) const {
    for (const auto& o : observers_) o(c);
}

// The module's table: its command (its events and control operations are the WLAN
// service's).
const KernelModuleOps kWlanModuleOps{
    .name = "wlan",
    .serves = [](std::uint32_t command) { return command == WlanModule::kCommand; },
    .handle = [](Context& ctx, const KernelCall& call) {
        return ctx.wlan.handle(ctx.device, call.node, call.request, call.reply, call.returned);
    },
};

}  // namespace sim
