/* A stand-in for the layer-2 VPN library, loaded through a redirected dlopen. */
unsigned L2VPN_GetVxlanByVsiIndex(unsigned vsi);
unsigned L2VPN_GetVxlanByVsiIndex(unsigned vsi) { return 7000u + vsi; }
