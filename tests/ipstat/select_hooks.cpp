#include "ipstat/select_hooks.hpp"

#include <dlfcn.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <optional>

namespace ipt::select_hooks {
namespace {

struct State {
    std::mutex mu;
    std::vector<Call> calls;
    std::map<std::uint32_t, std::uint32_t> failing_types;
    std::optional<std::uint32_t> failing_condition;
};

State& state() {
    static State s;
    return s;
}

void record(Kind kind, std::uint32_t value, const IF_SELECT_S* sel) {
    const std::lock_guard lock(state().mu);
    state().calls.push_back(Call{kind, value, sel});
}

// The platform's definition of a symbol: the next one after this executable.
template <class F>
F next(const char* name) {
    void* p = dlsym(RTLD_NEXT, name);
    if (p == nullptr) std::abort();
    return reinterpret_cast<F>(p);
}

}  // namespace

void reset() {
    const std::lock_guard lock(state().mu);
    state().calls.clear();
    state().failing_types.clear();
    state().failing_condition.reset();
}

void fail_type(std::uint32_t type, std::uint32_t status) {
    const std::lock_guard lock(state().mu);
    state().failing_types[type] = status;
}

void fail_condition(std::uint32_t status) {
    const std::lock_guard lock(state().mu);
    state().failing_condition = status;
}

std::vector<Call> calls() {
    const std::lock_guard lock(state().mu);
    return state().calls;
}

std::vector<std::uint32_t> values(Kind kind) {
    std::vector<std::uint32_t> out;
    for (const Call& c : calls()) {
        if (c.kind == kind) out.push_back(c.value);
    }
    return out;
}

}  // namespace ipt::select_hooks

using ipt::select_hooks::Kind;
using ipt::select_hooks::state;

extern "C" {

uint32_t IF_Select_Init(uint32_t mode, IF_SELECT_S* sel) {
    using Fn = uint32_t (*)(uint32_t, IF_SELECT_S*);
    static const Fn real = ipt::select_hooks::next<Fn>("IF_Select_Init");
    ipt::select_hooks::record(Kind::kInit, mode, sel);
    return real(mode, sel);
}

uint32_t IF_SelectType_Set(uint32_t type, IF_SELECT_S* sel) {
    using Fn = uint32_t (*)(uint32_t, IF_SELECT_S*);
    static const Fn real = ipt::select_hooks::next<Fn>("IF_SelectType_Set");
    ipt::select_hooks::record(Kind::kSetType, type, sel);
    {
        const std::lock_guard lock(state().mu);
        const auto it = state().failing_types.find(type);
        if (it != state().failing_types.end()) return it->second;
    }
    return real(type, sel);
}

uint32_t IF_SelectCondition_Set(uint32_t condition, IF_SELECT_S* sel) {
    using Fn = uint32_t (*)(uint32_t, IF_SELECT_S*);
    static const Fn real = ipt::select_hooks::next<Fn>("IF_SelectCondition_Set");
    ipt::select_hooks::record(Kind::kCondition, condition, sel);
    {
        const std::lock_guard lock(state().mu);
        if (state().failing_condition) return *state().failing_condition;
    }
    return real(condition, sel);
}

uint32_t IF_SelectType_Check(uint32_t type, const IF_SELECT_S* sel) {
    using Fn = uint32_t (*)(uint32_t, const IF_SELECT_S*);
    static const Fn real = ipt::select_hooks::next<Fn>("IF_SelectType_Check");
    ipt::select_hooks::record(Kind::kCheck, type, sel);
    return real(type, sel);
}

}  // extern "C"
