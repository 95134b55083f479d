/*
 * A program built outside the tree against an installed IP client library: it includes the
 * installed headers, links the installed libraries and makes two calls that need no device.
 *
 * The ARP header declares a pthread_rwlock_t, a POSIX.1-2001 type: a program compiled as
 * strict C99 asks for POSIX before its first include.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>

#include "ipclient/arp.h"
#include "ipclient/ipstat.h"
#include "ipclient/status.h"

int main(void) {
    /* Without a device (no simulator for this instance) the IP module does not answer and
     * the default TTL reads as its failure value, 255. */
    uint32_t ttl = IP_GetDefTTL();
    /* A null entry pointer is refused before anything is sent. */
    uint32_t refused = ARP_GetEntry(0, 0, NULL);
    printf("default TTL %u, null entry refused with 0x%08x\n", (unsigned)ttl, (unsigned)refused);
    return (ttl == 255u && refused == IPSTATUS_FAILED) ? 0 : 1;
}
