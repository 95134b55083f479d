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

// False when this build cannot observe allocations.
bool allocations_observable();

}  // namespace ipt
