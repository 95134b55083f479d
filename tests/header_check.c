/* The public headers compile as C99 with every warning, and their records keep their sizes.
 * The ARP header declares a reader/writer lock, which needs POSIX.1-2001. */
#define _POSIX_C_SOURCE 200809L

#include "ipclient/adj.h"
#include "ipclient/arp.h"
#include "ipclient/fib.h"
#include "ipclient/ipaddr.h"
#include "ipclient/ipcfg.h"
#include "ipclient/ipstat.h"
#include "ipclient/kernel.h"
#include "ipclient/lipc.h"
#include "ipclient/nd.h"
#include "ipclient/status.h"

typedef uint32_t (*lookup_fn)(uint16_t, const IPAddrEntry *, IPAddrInfo *);

int main(void) {
    lookup_fn fn = IPAddr_Drvk_LookupAddr;
    IPAddrInfo info = {{{0, 0, 0, 0, 0, 0}, 0, 0}, 0, 0, 0, {0}};
    (void)fn;
    (void)info;
    return (sizeof(IPAddrKey) == 20 && sizeof(IPAddrEntry) == 28 && sizeof(IPAddrInfo) == 52 &&
            sizeof(LIPC_SOCKADDR_S) == 16 && sizeof(ProenEnableItemEx) == 48 && sizeof(ARP_SEND_SPECIFY_S) == 60 &&
            IPSTATUS_FAILED == 0x40010001u)
               ? 0
               : 1;
}
