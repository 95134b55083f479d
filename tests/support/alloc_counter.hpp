// Counts heap allocations made by this process while a scope is open.
#pragma once

#include <cstdint>

namespace ipt {

class AllocationScope {
public:
    AllocationScope();
    ~AllocationScope();
    AllocationScope(const AllocationScope&) = delete;
    AllocationScope& operator=(const AllocationScope&) = delete;
    std::uint64_t count() const;

private:
    std::uint64_t start_;
};

// Watches one heap block while it is open: whether free, or a realloc that gives the block
// up, is handed that block. At most eight watches are open at once.
class FreeWatch {
public:
    explicit FreeWatch(const void* block);
    ~FreeWatch();
    FreeWatch(const FreeWatch&) = delete;
    FreeWatch& operator=(const FreeWatch&) = delete;
    bool freed() const;

private:
    int slot_;
};

// False when this build cannot observe allocations (nor frees).
bool allocations_observable();

}  // namespace ipt
