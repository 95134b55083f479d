// Walk cursors: one position and context per path; removing an element moves every cursor
// that stands on it to the successor the remover names.
#include <map>
#include <mutex>

#include "device.hpp"
#include "internal.hpp"
#include "ipclient/status.h"
#include "leaf_mutex.hpp"

namespace ipp {
namespace {

struct Path {
    void* anchor;
    std::uint32_t key;
    std::uint64_t position;
    void* context;
};

struct Anchors {
    LeafMutex mu;
    std::map<std::uint64_t, Path> paths;
    std::uint64_t next = 1;
    bool fail_next_begin = false;
};

Anchors& anchors() {
    static Anchors a;
    return a;
}

}  // namespace

void reset_anchor() noexcept {
    const std::lock_guard lock(anchors().mu);
    anchors().paths.clear();
    anchors().next = 1;
    anchors().fail_next_begin = false;
}

}  // namespace ipp

using ipp::anchors;

extern "C" {

uint64_t ANCHOR_BeginPath(void* anchor, uint32_t key, uint64_t position, void* context) {
    if (ipp::dev::active()) return ipp::dev::anchor_begin(anchor, key, position, context);
    const std::lock_guard lock(anchors().mu);
    if (anchors().fail_next_begin) {
        anchors().fail_next_begin = false;
        return 0;
    }
    const std::uint64_t id = anchors().next++;
    anchors().paths[id] = {anchor, key, position, context};
    return id;
}

uint32_t ANCHOR_Inquire(void* anchor, uint64_t path, uint64_t* position, void** context) {
    if (ipp::dev::active()) return ipp::dev::anchor_inquire(anchor, path, position, context);
    const std::lock_guard lock(anchors().mu);
    const auto it = anchors().paths.find(path);
    if (it == anchors().paths.end() || it->second.anchor != anchor) return IPSTATUS_FAILED;
    if (position != nullptr) *position = it->second.position;
    if (context != nullptr) *context = it->second.context;
    return 0;
}

uint32_t ANCHOR_Set(void* anchor, uint64_t path, uint64_t position) {
    if (ipp::dev::active()) return ipp::dev::anchor_set(anchor, path, position);
    const std::lock_guard lock(anchors().mu);
    const auto it = anchors().paths.find(path);
    if (it == anchors().paths.end() || it->second.anchor != anchor) return IPSTATUS_FAILED;
    it->second.position = position;
    return 0;
}

void ANCHOR_EndPath(void* anchor, uint64_t path, ANCHOR_RELEASE_PF release) {
    if (ipp::dev::active()) return ipp::dev::anchor_end(anchor, path, release);
    void* context = nullptr;
    {
        const std::lock_guard lock(anchors().mu);
        const auto it = anchors().paths.find(path);
        if (it == anchors().paths.end() || it->second.anchor != anchor) return;
        context = it->second.context;
        anchors().paths.erase(it);
    }
    if (release != nullptr) release(context);
}

void ipp_anchor_remove(void* anchor, uint32_t key, uint64_t position, uint64_t successor) {
    const std::lock_guard lock(anchors().mu);
    for (auto& [id, p] : anchors().paths) {
        if (p.anchor == anchor && p.key == key && p.position == position) p.position = successor;
    }
}

void ipp_anchor_fail_next_begin(void) {
    const std::lock_guard lock(anchors().mu);
    anchors().fail_next_begin = true;
}

uint32_t ipp_anchor_open_paths(void) {
    const std::lock_guard lock(anchors().mu);
    return static_cast<uint32_t>(anchors().paths.size());
}

}  // extern "C"
