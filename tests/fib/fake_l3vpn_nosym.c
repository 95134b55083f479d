/* A layer-3 VPN library of the wrong kind: it loads, but has no VRF name lookup. */
#include <stdint.h>

uint32_t L3VPN_GetVrfCount(void);

uint32_t L3VPN_GetVrfCount(void) { return 2u; }
