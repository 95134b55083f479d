// Observes the interface selection calls the library makes. The test executable defines
// IF_Select_Init, IF_SelectType_Set, IF_SelectCondition_Set and IF_SelectType_Check itself,
// so that the library's calls reach these definitions first; each records the call and,
// unless told to fail, passes it on to the platform's own function.
#pragma once

#include <cstdint>
#include <vector>

#include "ipplat/platform.h"

namespace ipt::select_hooks {

enum class Kind { kInit, kSetType, kCondition, kCheck };

struct Call {
    Kind kind;
    std::uint32_t value;  // mode, type or condition
    const IF_SELECT_S* sel;
};

// Forgets the recorded calls and every scripted failure.
void reset();
// IF_SelectType_Set of this type answers status without adding the type.
void fail_type(std::uint32_t type, std::uint32_t status);
// IF_SelectCondition_Set answers status without setting the condition.
void fail_condition(std::uint32_t status);
std::vector<Call> calls();
// The values of the recorded calls of one kind, in order.
std::vector<std::uint32_t> values(Kind kind);

}  // namespace ipt::select_hooks
