/*
 * Subscribes to ARP (first argument 4) or ND (6) events, prints "ready", then processes
 * events until it has seen `count` (second argument) events of type 0 (added) or 10 seconds
 * passed, and prints "seen <n> distinct <m>": the events and their distinct addresses
 * (told apart by the address's last two bytes).
 */
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "ipclient/arp.h"
#include "ipclient/nd.h"

static unsigned g_seen;
static unsigned g_distinct;
static unsigned char g_mark[65536];

static void count(const unsigned char *last_two) {
    uint16_t k; /* the two bytes as they lie: a key, not a number */
    memcpy(&k, last_two, sizeof k);
    ++g_seen;
    if (!g_mark[k]) {
        g_mark[k] = 1;
        ++g_distinct;
    }
}

static uint32_t on_arp(uint32_t type, void *entry, uint16_t third) {
    (void)third;
    if (type == 0) count((const unsigned char *)entry + 6);
    return 0;
}

static uint32_t on_nd(uint32_t type, NdEventRecord *rec) {
    if (type == 0) count(rec->aucAddr + 14);
    return 0;
}

int main(int argc, char **argv) {
    const int nd = argc > 1 && strcmp(argv[1], "6") == 0;
    const unsigned want = argc > 2 ? (unsigned)strtoul(argv[2], NULL, 10) : 1;
    const int32_t fd = nd ? ND_RegEvent(0, 0, on_nd) : ARP_RegEvent(0, 0, on_arp);
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
        if (nd) {
            ND_ProcEvent((uint32_t)fd);
        } else {
            ARP_ProcEvent(fd);
        }
    }
    if (nd) {
        ND_DeregEvent(fd);
    } else {
        ARP_DeregEvent(fd);
    }
    printf("seen %u distinct %u\n", g_seen, g_distinct);
    return g_seen >= want ? 0 : 1;
}
