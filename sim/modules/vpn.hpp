// The device's VPN instances as the run-time VPN libraries see them: the VSIs of the
// layer-2 VPN (from the scenario's `vsis`) and the names of the VRFs. The libraries run in
// the client processes (sim/vpn/, documented in sim/vpn/vpn_libs.h) and ask here over the
// control channel; each request is one JSON object, each answer one JSON object.
//
// Control operations (errors answer {"ok": false, "error": TEXT}):
//   {"op": "vpn.vsi", "name": TEXT} or {"op": "vpn.vsi", "index": N}
//       -> {"ok": true, "name": TEXT, "index": N,
//           "vsi_interface": N of its Vsi-interfaceN, or null when it has none,
//           "vxlan": VXLAN id, or null when it has none,
//           "circuits": [{"interface": IFINDEX, "service": ID, "link": LINK or null}, ...]}
//       "no VSI named X" / "no VSI X" when the device has no such VSI.
//   {"op": "vpn.circuit", "interface": IFINDEX, "service": ID}
//       -> {"ok": true, "vsi": VSI index, "link": link id or null}: the VSI the attachment
//          circuit (service instance ID on interface IFINDEX) belongs to.
//       "no circuit ..." when no VSI holds it (a circuit belongs to one VSI at most: the
//       scenario refuses a (interface, service) pair given twice).
//   {"op": "vpn.vrf", "index": N}
//       -> {"ok": true, "index": N, "name": TEXT}; index 0 is the public VRF, "public"
//          unless the scenario names it otherwise. "no VRF N" for an unknown index.
#pragma once

#include "context.hpp"
#include "scenario/scenario.hpp"

namespace sim {

// Registers the VPN operations on the control channel; they answer from the scenario's
// VSIs and the device's VRFs.
void register_vpn(Context& ctx, const scenario::Scenario& s);

}  // namespace sim
