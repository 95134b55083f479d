// The VPN operations of the control channel (see vpn.hpp).
#include "modules/vpn.hpp"

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "control/args.hpp"

namespace sim {
namespace {

using nlohmann::json;

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

    // Ranges: a VSI "index" 0-4294967295 (the scenario's VSIs use 0-4294967294), a circuit's
    // "interface" an index (1-4294967295) or name of the device's and its "service" 1-4096, a
    // VRF "index" 0-65535.
    ctx.control.on("vpn.vsi", [vsis](const json& req) -> json {
        if (const auto name = arg::text_if(req, "name")) {
            for (const auto& vsi : *vsis) {
                if (vsi.name == *name) return describe(vsi);
            }
            throw std::invalid_argument("no VSI named " + arg::excerpt(*name));
        }
        if (!req.contains("index")) throw std::invalid_argument("vpn.vsi takes a \"name\" or an \"index\"");
        const auto index = arg::whole<std::uint32_t, 0, 0xFFFFFFFF>(req, "index");
        for (const auto& vsi : *vsis) {
            if (vsi.index == index) return describe(vsi);
        }
        throw std::invalid_argument("no VSI " + std::to_string(index));
    });

    const Context& c = ctx;
    ctx.control.on("vpn.circuit", [vsis, &c](const json& req) -> json {
        const std::uint32_t ifindex = arg::interface(c, req);
        const auto service = arg::whole<std::uint32_t, 1, 4096>(req, "service");
        for (const auto& vsi : *vsis) {
            for (const auto& circuit : vsi.circuits) {
                if (circuit.ifindex == ifindex && circuit.service == service) {
                    return {{"vsi", vsi.index}, {"link", link_of(circuit)}};
                }
            }
        }
        throw std::invalid_argument("no circuit of service " + std::to_string(service) + " on interface " +
                                    std::to_string(ifindex));
    });

    const Device& device = ctx.device;
    ctx.control.on("vpn.vrf", [&device](const json& req) -> json {
        const auto index = arg::whole<std::uint16_t, 0, 0xFFFF>(req, "index");
        const auto it = device.vrfs().find(index);
        if (it == device.vrfs().end()) throw std::invalid_argument("no VRF " + std::to_string(index));
        return {{"index", index}, {"name", it->second}};
    });
}

}  // namespace sim
