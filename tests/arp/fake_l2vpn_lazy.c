/* A layer-2 VPN library whose L2VPN_Init calls into a back end that is not there: it loads
 * only with lazy binding, and works as long as nobody calls L2VPN_Init. */
#define FAKE_L2VPN_OMIT_0 1
#include "fake_l2vpn_body.inc"

uint32_t l2vpn_backend_start(void); /* defined by no object: bound on the first call only */

uint32_t L2VPN_Init(void);
uint32_t L2VPN_Init(void) { return l2vpn_backend_start(); }
