// The VPN operations of the control channel (see vpn.hpp).
#include "modules/vpn.hpp"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace sim {
namespace {

using nlohmann::json;

// An unsigned field of a request, at most `max`.
std::uint32_t field(const json& req, const char* key, std::uint32_t max) {
    const json& v = req.at(key);
    if (!v.is_number_integer() || v.get<std::int64_t>() < 0 || v.get<std::int64_t>() > max) {
        throw std::invalid_argument(std::string("\"") + key + "\" must be an integer 0.." + std::to_string(max));
    }
    return static_cast<std::uint32_t>(v.get<std::int64_t>());
}

json number_or_null(const std::optional<std::uint32_t>& v) {
    return v ? json(*v) : json(nullptr);
}

json link_of(const scenario::Circuit& c) {
    return c.link == 0xFFFFu ? json(nullptr) : json(c.link);
}

json describe(const scenario::Vsi& vsi) {
    json circuits = json::array();
    for (const auto& c : vsi.circuits) {
        circuits.push_back({{"interface", c.ifindex}, {"service", c.service}, {"link", link_of(c)}});
    }
    return {{"name", vsi.name},
            {"index", vsi.index},
            {"vsi_interface", number_or_null(vsi.interface_number)},
            {"vxlan", number_or_null(vsi.vxlan)},
            {"circuits", std::move(circuits)}};
}

}  // namespace

void register_vpn(Context& ctx, const scenario::Scenario& s) {
    const auto vsis = std::make_shared<const std::vector<scenario::Vsi>>(s.vsis);

    ctx.control.on("vpn.vsi", [vsis](const json& req) -> json {
        if (req.contains("name")) {
            const auto name = req.at("name").get<std::string>();
            for (const auto& vsi : *vsis) {
                if (vsi.name == name) return describe(vsi);
            }
            throw std::invalid_argument("no VSI named " + name);
        }
        if (!req.contains("index")) throw std::invalid_argument("vpn.vsi takes a \"name\" or an \"index\"");
        const auto index = field(req, "index", 0xFFFFFFFFu);
        for (const auto& vsi : *vsis) {
            if (vsi.index == index) return describe(vsi);
        }
        throw std::invalid_argument("no VSI " + std::to_string(index));
    });

    ctx.control.on("vpn.circuit", [vsis](const json& req) -> json {
        const auto ifindex = field(req, "interface", 0xFFFFFFFFu);
        const auto service = field(req, "service", 0xFFFFFFFFu);
        for (const auto& vsi : *vsis) {
            for (const auto& c : vsi.circuits) {
                if (c.ifindex == ifindex && c.service == service) return {{"vsi", vsi.index}, {"link", link_of(c)}};
            }
        }
        throw std::invalid_argument("no circuit of service " + std::to_string(service) + " on interface " +
                                    std::to_string(ifindex));
    });

    const Device& device = ctx.device;
    ctx.control.on("vpn.vrf", [&device](const json& req) -> json {
        const auto index = static_cast<std::uint16_t>(field(req, "index", 0xFFFFu));
        const auto it = device.vrfs().find(index);
        if (it == device.vrfs().end()) throw std::invalid_argument("no VRF " + std::to_string(index));
        return {{"index", index}, {"name", it->second}};
    });
}

}  // namespace sim
