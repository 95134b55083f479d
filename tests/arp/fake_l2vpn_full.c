/* A stand-in for the layer-2 VPN library with all 31 entry points. */
#include "fake_l2vpn_body.inc"
