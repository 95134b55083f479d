/*
 * Reports what a process sees of the device, one line per check:
 *   local <node>               LIP_GetLocalLip
 *   lookup <status hex>        IPAddr_Drvk_LookupAddr of the address given as argument 1
 *                              (dotted) on any interface
 *   cfg <status hex>           IPCfg_AddManualAddr of argument 1 /24 on interface argument 2
 */
#include <arpa/inet.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "ipclient/ipcfg.h"
#include "ipclient/kernel.h"
#include "ipplat/platform.h"

int main(int argc, char **argv) {
    uint32_t addr = 0;
    if (argc > 1) inet_pton(AF_INET, argv[1], &addr);
    const uint32_t ifindex = argc > 2 ? (uint32_t)strtoul(argv[2], NULL, 10) : 0;
    printf("local %u\n", LIP_GetLocalLip());
    IPAddrEntry key;
    memset(&key, 0, sizeof key);
    key.stKey.usVrfIndex = 0xFFFF;
    key.stKey.uiIfIndex = 0xFFFFFFFFu;
    key.stKey.uiAddr = addr;
    IPAddrInfo info;
    memset(&info, 0, sizeof info);
    const uint32_t status = IPAddr_Drvk_LookupAddr(0x8000, &key, &info);
    printf("lookup %#x %u\n", status, info.stEntry.stKey.uiIfIndex);
    if (ifindex != 0) {
        uint32_t mask = 0;
        inet_pton(AF_INET, "255.255.255.0", &mask);
        printf("cfg %#x\n", IPCfg_AddManualAddr(ifindex, addr, mask, 0));
    }
    return 0;
}
