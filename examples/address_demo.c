/*
 * A small tour of the address driver on a host: a toy address module answers the kernel
 * control channel, and the program prints what a few calls return.
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <string.h>

#include "ipclient/kernel.h"
#include "ipplat/testctl.h"

/* One configured address, 192.0.2.1/24 on interface 5, kept in wire form. */
static uint8_t g_entry[28];

static void put32(uint8_t *p, uint32_t v) {
    p[0] = (uint8_t)(v >> 24);
    p[1] = (uint8_t)(v >> 16);
    p[2] = (uint8_t)(v >> 8);
    p[3] = (uint8_t)v;
}

static uint32_t toy_module(void *ctx, const ipp_kcall *call, uint8_t *reply, uint32_t *returned) {
    uint32_t op;
    (void)ctx;
    if (call->command != 0x260001u || call->request_len < 8) return 0x40010001u;
    op = ((uint32_t)call->request[0] << 24) | ((uint32_t)call->request[1] << 16) |
         ((uint32_t)call->request[2] << 8) | call->request[3];
    switch (op) {
    case 5: /* number of matching addresses */
        if (call->reply_cap < 4) return 0x40010001u;
        put32(reply, 1);
        *returned = 4;
        return 0;
    case 6: /* best network match */
        if (call->reply_cap < 28) return 0x40010001u;
        memcpy(reply, g_entry, 28);
        *returned = 28;
        return 0;
    case 16: /* next interface */
        if (call->reply_cap < 4) return 0x40010001u;
        put32(reply, 5);
        *returned = 4;
        return 0;
    default:
        return 0x40010001u;
    }
}

int main(void) {
    IPAddrEntry key, best;
    uint32_t count = 0, next = 0, status;
    char text[INET_ADDRSTRLEN];

    memset(g_entry, 0, sizeof g_entry);
    put32(g_entry + 4, 5);
    g_entry[8] = 192, g_entry[9] = 0, g_entry[10] = 2, g_entry[11] = 1;
    g_entry[12] = 255, g_entry[13] = 255, g_entry[14] = 255, g_entry[15] = 0;
    put32(g_entry + 16, IPADDR_METHOD_MANUAL);

    printf("without the address module: IPAddr_Drvk_GetNextIf -> 0x%08x\n", IPAddr_Drvk_GetNextIf(0, &next));

    ipp_kernel_set_handler(toy_module, NULL);
    memset(&key, 0, sizeof key);
    key.stKey.usVrfIndex = IPADDR_ANY_VRF;
    key.stKey.uiIfIndex = IPADDR_ANY_IFINDEX;
    inet_pton(AF_INET, "192.0.2.77", &key.stKey.uiAddr);
    key.uiFlag = 1;

    status = IPAddr_Drvk_GetMatchAddrNum(&key, &count);
    printf("IPAddr_Drvk_GetMatchAddrNum -> 0x%08x, count %u\n", status, count);
    status = IPAddr_Drvk_GetMatchBestNet(&key, &best);
    inet_ntop(AF_INET, &best.stKey.uiAddr, text, sizeof text);
    printf("IPAddr_Drvk_GetMatchBestNet -> 0x%08x, %s on interface %u, method %u\n", status, text,
           best.stKey.uiIfIndex, best.stKey.uiMethod);
    status = IPAddr_Drvk_GetNextIf(0, &next);
    printf("IPAddr_Drvk_GetNextIf -> 0x%08x, next interface %u\n", status, next);
    printf("kernel calls made: %llu\n", (unsigned long long)ipp_call_count(IPP_CALL_CIOCTL));
    return 0;
}
