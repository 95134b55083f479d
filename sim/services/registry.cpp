// The services of the simulated device, as the daemon starts them (services/service.hpp).
#include "services/service.hpp"

#include "modules/kmod_arp.hpp"
#include "services/adjacency.hpp"
#include "services/services.hpp"

namespace sim {

namespace {

using Where = ServiceOps::Where;

constexpr ServiceOps kServices[] = {
    {"address configuration service", kPortAddrCfg, Where::kEveryNode, make_addrcfg_conn, nullptr, refuse_addrcfg},
    {"address events service", kPortAddrEvents, Where::kEveryNode, make_addr_event_conn, nullptr},
    {"port-attack daemon", kPortPortAttack, Where::kEveryNode, make_portatk_conn, nullptr},
    {"IPv4 adjacency service", kPortAdj4, Where::kEveryNode, make_adj4_conn, register_adj_control, nullptr,
     adj4_restarted},
    {"IPv6 adjacency service", kPortAdj6, Where::kEveryNode, make_adj6_conn, nullptr, nullptr, adj6_restarted},
    {"WLAN adjacency service", kPortWlan, Where::kEveryNode, make_wlan_conn, register_wlan},
    {"protocol-to-CPU service", kPortProen, Where::kEveryNode, make_proen_conn, register_proen},
    {"local protocol-to-CPU service", kPortProenLocal, Where::kEveryNode, make_proen_conn, nullptr},
    {"ARP daemon", kPortArpDaemon, Where::kEveryNode, make_arp_daemon_conn, nullptr},
    {"IPStack daemon", kPortIPStack, Where::kWhileIpStackRuns, make_ipstack_conn, nullptr},
    {"ND overlay suppression service", kPortNdOverlay, Where::kMasterEndpoint, make_nd_overlay_conn, nullptr},
    {"ND error notifications", 0, Where::kNowhere, nullptr, register_nd_errors},
};

}  // namespace

std::span<const ServiceOps> services() { return kServices; }

const ServiceOps* service_on(std::uint16_t port) {
    for (const ServiceOps& s : kServices) {
        if (s.port != 0 && s.port == port) return &s;
    }
    return nullptr;
}

}  // namespace sim
