// Names the instances of a typed suite after the family type's kName ("Arp", "Nd"), so that
// a test reads Suite/Arp.Name rather than Suite/0.Name.
#pragma once

#include <string>

namespace ipt {

struct FamilyName {
    template <class F>
    static std::string GetName(int) {
        return F::kName;
    }
};

}  // namespace ipt
