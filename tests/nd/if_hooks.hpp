// Observes the interface selection and iteration calls of the ND client. The nd_tests
// executable defines IF_Select_Init, IF_SelectType_Set, IF_SelectCondition_Set,
// IF_IteratorInitialize and IF_IteratorFinalize itself (in queries_test.cpp), so that the
// library's calls reach them first; each records the call and passes it on to the
// platform's own function.
#pragma once

#include <cstdint>
#include <vector>

namespace ipt::nd_if_hooks {

enum class Kind { kInit, kSetType, kCondition, kIterOpen, kIterClose };

struct Call {
    Kind kind;
    std::uint32_t value;  // mode, type or condition; 0 for the iterator calls
};

void reset();
std::vector<Call> calls();
// The values of the recorded calls of one kind, in order.
std::vector<std::uint32_t> values(Kind kind);
std::size_t count(Kind kind);

}  // namespace ipt::nd_if_hooks
