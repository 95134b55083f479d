// Walk cursors of client processes: one position per path. When an element of a table is
// removed, every cursor of that table's key standing on it moves to the successor the
// table names, so that a walk neither skips nor repeats. A path ends with ANCHOR_EndPath
// or when the process that began it is gone.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>

namespace sim {

class Anchors {
public:
    std::uint64_t begin(pid_t pid, std::uint64_t anchor, std::uint32_t key, std::uint64_t position);
    std::optional<std::uint64_t> inquire(pid_t pid, std::uint64_t anchor, std::uint64_t path) const;
    bool set(pid_t pid, std::uint64_t anchor, std::uint64_t path, std::uint64_t position);
    bool end(pid_t pid, std::uint64_t anchor, std::uint64_t path);
    // The element at position of the table `key` is removed.
    void remove(std::uint32_t key, std::uint64_t position, std::uint64_t successor);
    void drop_process(pid_t pid);
    std::size_t paths() const noexcept { return paths_.size(); }

private:
    struct Path {
        pid_t pid;
        std::uint64_t anchor;
        std::uint32_t key;
        std::uint64_t position;
    };
    Path* find(pid_t pid, std::uint64_t anchor, std::uint64_t path);

    std::map<std::uint64_t, Path> paths_;
    std::uint64_t next_ = 1;
};

}  // namespace sim
