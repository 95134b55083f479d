// The exported surface, argument by argument: for every exported function, each required
// pointer given null, each descriptor given -1 and each family, index or count given a value
// out of its range must be refused before anything leaves the process. Each subsystem's file
// registers its rows; surface_test.cpp runs them all and checks that every exported function
// of the headers has a row or a stated reason why it has none.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace ipt::surface {

// One refused call. `call` makes the call and gives its result as a 32-bit word (a
// descriptor of -1 is 0xFFFFFFFF, a null pointer result 0); `expected` is that word, unless
// `any_result` is set (a void function, or one whose result is not a status).
struct Case {
    std::string function;  // the exported name
    std::string argument;  // which argument is bad, and how ("pstEntry null", "iFd -1")
    std::function<std::uint32_t()> call;
    std::uint32_t expected = 0x40010001u;
    bool any_result = false;
};

// A function with no argument that can be refused this way, and why.
struct Exempt {
    std::string function;
    std::string reason;
};

// Registration at static initialisation: `const bool registered = add({...});`.
bool add(std::vector<Case> cases);
bool exempt(std::vector<Exempt> exempts);

const std::vector<Case>& cases();
const std::vector<Exempt>& exempts();

}  // namespace ipt::surface
