/*
 * route_to: on a device, finds the route to a prefix, resolves the route's next hop through
 * the device's ARP module, and prints both:
 *
 *   $ IPCLIENT_INSTANCE=r1 route_to 10.0.23.0/24
 *   route 10.0.23.0/24 via 10.0.12.2 dev 2 (active)
 *   neighbour 10.0.12.2 dev 2 lladdr 5e:1a:..:..:..:.. reachable
 *
 * The route comes from an exact search of the FIB (FIB4_SearchInfo) in every VRF; the
 * neighbour from ARP_Request, then ARP_GetEntryByIP every 50 ms for up to 3 s until the
 * entry leaves the incomplete state. Exits 0 when both were found, 1 otherwise.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "ipclient/arp.h"
#include "ipclient/fib.h"

static const char *const k_states[] = {"incomplete", "reachable", "stale", "delay", "probe"};

static uint32_t word_at(const uint8_t *p) {
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

static void pause_50ms(void) {
    const struct timespec ts = {0, 50 * 1000 * 1000};
    nanosleep(&ts, NULL);
}

int main(int argc, char **argv) {
    char text[32], hop_text[INET_ADDRSTRLEN];
    char *slash;
    unsigned long len;
    struct in_addr dest;
    FIB4_SEARCH_KEY_S key;
    static uint8_t entries[FIB_SEARCH_MAX_ENTRIES * FIB_SEARCH_ENTRY_SIZE];
    uint64_t count = FIB_SEARCH_MAX_ENTRIES;
    uint32_t rc, ifindex, hop;
    ARP_ENTRY_S neighbour;
    int polls;
    unsigned long i;
    uint8_t mask[4];

    if (argc != 2 || strlen(argv[1]) >= sizeof text) {
        fprintf(stderr, "usage: IPCLIENT_INSTANCE=DEVICE %s A.B.C.D/LEN\n", argv[0]);
        return 2;
    }
    strcpy(text, argv[1]);
    slash = strchr(text, '/');
    len = 32;
    if (slash != NULL) {
        char *end = NULL;
        len = strtoul(slash + 1, &end, 10);
        if (end == slash + 1 || *end != '\0') len = 33; /* not a length */
        *slash = '\0';
    }
    if (inet_pton(AF_INET, text, &dest) != 1 || len > 32) {
        fprintf(stderr, "route_to: \"%s\" is not an IPv4 prefix\n", argv[1]);
        return 2;
    }

    /* The route: an exact search of the prefix in every VRF. */
    memset(&key, 0, sizeof key);
    key.uiInstance = 0xFFFFFFFFu;
    key.usFamily = 2;
    memset(mask, 0, sizeof mask);
    for (i = 0; i < len; ++i) mask[i / 8] |= (uint8_t)(0x80u >> (i % 8));
    memcpy(&key.uiMask, mask, sizeof mask); /* network order: the bytes as they read */
    key.uiDest = dest.s_addr & key.uiMask;
    rc = FIB4_SearchInfo(&key, &count, entries);
    if (rc != 0 || count == 0) {
        printf("no route to %s (status 0x%08x)\n", argv[1], (unsigned)rc);
        return 1;
    }
    ifindex = word_at(entries + FIB_ENTRY_IFINDEX_OFFSET);
    hop = word_at(entries + FIB_ENTRY_NEXTHOP_OFFSET); /* network order, as it goes on the wire */
    inet_ntop(AF_INET, &hop, hop_text, sizeof hop_text);
    printf("route %s via %s dev %u (%s)\n", argv[1], hop != 0 ? hop_text : "-", (unsigned)ifindex,
           (word_at(entries + FIB_ENTRY_FLAGS_OFFSET) & 1u) != 0 ? "active" : "inactive");
    fflush(stdout);
    if (hop == 0) return 0; /* a connected route: no next hop to resolve */

    /* The next hop: an ARP request on the route's interface, then its entry. */
    rc = ARP_Request(ifindex, 0, hop, NULL);
    if (rc != 0) {
        printf("neighbour %s: the ARP request failed (status 0x%08x)\n", hop_text, (unsigned)rc);
        return 1;
    }
    for (polls = 0; polls < 60; ++polls) {
        uint16_t state;
        memset(&neighbour, 0, sizeof neighbour);
        if (ARP_GetEntryByIP(hop, &neighbour) == 0) {
            memcpy(&state, neighbour.aucData + ARP_BYIP_STATE_OFFSET, sizeof state);
            if (state != 0) {
                const uint8_t *m = neighbour.aucData + ARP_BYIP_MAC_OFFSET;
                printf("neighbour %s dev %u lladdr %02x:%02x:%02x:%02x:%02x:%02x %s\n", hop_text,
                       (unsigned)word_at(neighbour.aucData + ARP_BYIP_IFINDEX_OFFSET), m[0], m[1], m[2], m[3], m[4], m[5],
                       state < sizeof k_states / sizeof k_states[0] ? k_states[state] : "unknown");
                return 0;
            }
        }
        pause_50ms();
    }
    printf("neighbour %s: no answer\n", hop_text);
    return 1;
}
