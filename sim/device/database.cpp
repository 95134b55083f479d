#include "device/database.hpp"

#include <cstring>

namespace sim {

std::uint32_t Database::open(const std::string& db, const std::string& group) {
    const std::uint32_t h = next_++;
    handles_[h] = {db, group};
    return h;
}

bool Database::close(std::uint32_t handle) { return handles_.erase(handle) != 0; }

std::optional<std::vector<std::vector<std::uint8_t>>> Database::list(std::uint32_t handle,
                                                                     std::span<const std::uint8_t> key) const {
    const auto it = handles_.find(handle);
    if (it == handles_.end()) return std::nullopt;
    std::vector<std::vector<std::uint8_t>> out;
    if (it->second.first != "ip" || it->second.second != "address" || key.size() != 52) return out;
    std::uint32_t ifindex = 0;
    std::memcpy(&ifindex, key.data(), sizeof ifindex);
    char name[49] = {};
    std::memcpy(name, key.data() + 4, 48);
    if (ifindex == 0) ifindex = device_.find_interface(name);
    const auto* itf = device_.interface(ifindex);
    if (itf == nullptr || (name[0] != '\0' && itf->name != name)) return out;
    addrs_.each([&](const IPAddrInfo& rec) {
        if (rec.stEntry.stKey.uiIfIndex != ifindex) return;
        std::vector<std::uint8_t> r(20, 0);
        const std::uint16_t vrf = rec.stEntry.stKey.usVrfIndex;
        std::memcpy(r.data(), &vrf, 2);
        std::memcpy(r.data() + 4, &rec.stEntry.stKey.uiAddr, 4);
        std::memcpy(r.data() + 8, &rec.stEntry.stKey.uiMask, 4);
        std::memcpy(r.data() + 12, &rec.stEntry.stKey.uiMethod, 4);
        std::memcpy(r.data() + 16, &rec.stEntry.uiFlag, 4);
        out.push_back(std::move(r));
    });
    return out;
}

}  // namespace sim
