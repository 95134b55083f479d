/* A layer-2 VPN library of an older kind: every entry point but the last,
 * L2VPN_GetVlanVxlanMappingByVlan (slot 30). */
#define FAKE_L2VPN_OMIT_30 1
#include "fake_l2vpn_body.inc"
