#include "core/faults.hpp"

#include <algorithm>
#include <cstring>

namespace sim {

bool FaultScope::matches(const FaultPoint& p) const {
    if (node && *node != p.node) return false;
    switch (kind) {
        case Kind::kKernel: return p.command && *p.command == code;
        case Kind::kModule: return p.command && p.module != nullptr && module == p.module;
        case Kind::kPort: return p.port != 0 && p.port == code;
        case Kind::kCall: return p.port == 0 && p.call == code;
    }
    return false;
}

std::uint32_t Faults::add(Fault f) {
    f.id = next_id_++;
    f.draw.seed(f.seed);
    faults_.push_back(std::move(f));
    return faults_.back().id;
}

bool Faults::clear(std::uint32_t id) {
    const auto it = std::find_if(faults_.begin(), faults_.end(), [id](const Fault& f) { return f.id == id; });
    if (it == faults_.end()) return false;
    faults_.erase(it);
    return true;
}

std::size_t Faults::clear_all() {
    const std::size_t n = faults_.size();
    faults_.clear();
    return n;
}

FaultAction Faults::hit(const FaultPoint& p) {
    for (Fault& f : faults_) {
        if ((f.times && *f.times == 0) || !f.scope.matches(p)) continue;
        ++f.reached;
        if (f.probability < 1.0) {
            // 53 bits of the standard generator, so that a seed gives the same outcomes on
            // every build.
            const double u = static_cast<double>(f.draw() >> 11) * 0x1.0p-53;
            if (!(u < f.probability)) continue;
        }
        if (f.times) --*f.times;
        ++f.fired;
        return f.action;
    }
    return {};
}

}  // namespace sim
