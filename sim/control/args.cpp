#include "control/args.hpp"

#include <cstdio>
#include <stdexcept>

#include "context.hpp"

namespace sim {

std::array<std::uint8_t, 6> mac_arg(const nlohmann::json& v) {
    const std::string& text = v.get_ref<const std::string&>();
    std::array<unsigned, 6> p{};
    char tail = 0;
    if (std::sscanf(text.c_str(), "%x:%x:%x:%x:%x:%x%c", &p[0], &p[1], &p[2], &p[3], &p[4], &p[5], &tail) != 6) {
        throw std::invalid_argument("bad MAC address " + text + " (expected aa:bb:cc:dd:ee:ff)");
    }
    std::array<std::uint8_t, 6> mac{};
    for (std::size_t i = 0; i < mac.size(); ++i) {
        if (p[i] > 0xFF) throw std::invalid_argument("bad MAC address " + text + " (expected aa:bb:cc:dd:ee:ff)");
        mac[i] = static_cast<std::uint8_t>(p[i]);
    }
    return mac;
}

std::uint32_t interface_value(const Context& ctx, const nlohmann::json& v) {
    const std::uint32_t ifindex =
        v.is_string() ? ctx.device.find_interface(v.get_ref<const std::string&>()) : v.get<std::uint32_t>();
    if (ctx.device.interface(ifindex) == nullptr) throw std::invalid_argument("no such interface");
    return ifindex;
}

}  // namespace sim
