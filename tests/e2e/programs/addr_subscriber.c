/*
 * Subscribes to address events and prints one line per event record:
 *   event <word> <ifindex> <address hex> <mask hex> <flag> <method> <second> <third>
 * after printing "ready". Ends after `count` events (first argument) or 10 seconds.
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include "ipclient/ipaddr.h"
#include "ipclient/status.h"

static unsigned g_seen;

static uint32_t on_event(uint32_t word, IPAddrEntry *e, uint32_t second, uint32_t third, uint32_t flag,
                         uint32_t method) {
    const unsigned char *a = (const unsigned char *)&e->stKey.uiAddr;
    const unsigned char *m = (const unsigned char *)&e->stKey.uiMask;
    printf("event %u %u %u.%u.%u.%u %u.%u.%u.%u %u %u %u %u vrf=%u\n", word, e->stKey.uiIfIndex, a[0], a[1], a[2], a[3],
           m[0], m[1], m[2], m[3], flag, method, second, third, e->stKey.usVrfIndex);
    fflush(stdout);
    ++g_seen;
    return 0;
}

int main(int argc, char **argv) {
    const unsigned want = argc > 1 ? (unsigned)strtoul(argv[1], NULL, 10) : 1;
    const int32_t fd = IPAddr_RegisterEvent(0, 0, 0, 0, on_event);
    if (fd < 0) {
        printf("register failed\n");
        return 1;
    }
    printf("ready\n");
    fflush(stdout);
    const time_t until = time(NULL) + 10;
    while (g_seen < want && time(NULL) < until) {
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) continue;
        const uint32_t rc = IPAddr_HandleEvent(fd);
        if (rc != 0) {
            printf("handle %#x\n", rc);
            fflush(stdout);
        }
    }
    IPAddr_DeregisterEvent(fd);
    printf("done %u\n", g_seen);
    return g_seen >= want ? 0 : 1;
}
