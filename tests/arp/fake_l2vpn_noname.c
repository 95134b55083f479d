/* A layer-2 VPN library without L2VPN_GetNameByVsiIndex (slot 15): the entry points after
 * the gap are still there. */
#define FAKE_L2VPN_OMIT_15 1
#include "fake_l2vpn_body.inc"
