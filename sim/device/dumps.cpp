#include "device/dumps.hpp"

namespace sim {

std::int32_t Dumps::open(const void* owner, std::unique_ptr<DumpCursor> cursor) {
    if (next_ == INT32_MAX) next_ = 1;
    const std::int32_t h = next_++;
    open_[h] = Open{owner, std::move(cursor)};
    return h;
}

DumpCursor* Dumps::find(const void* owner, std::int32_t handle) {
    const auto it = open_.find(handle);
    return it == open_.end() || it->second.owner != owner ? nullptr : it->second.cursor.get();
}

bool Dumps::close(const void* owner, std::int32_t handle) {
    const auto it = open_.find(handle);
    if (it == open_.end() || it->second.owner != owner) return false;
    open_.erase(it);
    return true;
}

void Dumps::close_all(const void* owner) {
    for (auto it = open_.begin(); it != open_.end();) {
        it = it->second.owner == owner ? open_.erase(it) : std::next(it);
    }
}

}  // namespace sim
