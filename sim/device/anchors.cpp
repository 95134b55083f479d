#include "device/anchors.hpp"

namespace sim {

Anchors::Path* Anchors::find(pid_t pid, std::uint64_t anchor, std::uint64_t path) {
    const auto it = paths_.find(path);
    if (it == paths_.end() || it->second.pid != pid || it->second.anchor != anchor) return nullptr;
    return &it->second;
}

std::uint64_t Anchors::begin(pid_t pid, std::uint64_t anchor, std::uint32_t key, std::uint64_t position) {
    const std::uint64_t id = next_++;
    paths_[id] = Path{pid, anchor, key, position};
    return id;
}

std::optional<std::uint64_t> Anchors::inquire(pid_t pid, std::uint64_t anchor, std::uint64_t path) const {
    const auto it = paths_.find(path);
    if (it == paths_.end() || it->second.pid != pid || it->second.anchor != anchor) return std::nullopt;
    return it->second.position;
}

bool Anchors::set(pid_t pid, std::uint64_t anchor, std::uint64_t path, std::uint64_t position) {
    Path* p = find(pid, anchor, path);
    if (p == nullptr) return false;
    p->position = position;
    return true;
}

bool Anchors::end(pid_t pid, std::uint64_t anchor, std::uint64_t path) {
    if (find(pid, anchor, path) == nullptr) return false;
    paths_.erase(path);
    return true;
}

void Anchors::remove(std::uint32_t key, std::uint64_t position, std::uint64_t successor) {
    for (auto& [id, p] : paths_) {
        if (p.key == key && p.position == position) p.position = successor;
    }
}

void Anchors::drop_process(pid_t pid) {
    for (auto it = paths_.begin(); it != paths_.end();) {
        it = it->second.pid == pid ? paths_.erase(it) : std::next(it);
    }
}

}  // namespace sim
