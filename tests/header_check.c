/* The public headers compile as C99 with every warning, and their records keep their sizes. */
#include "ipclient/kernel.h"
#include "ipclient/status.h"

typedef uint32_t (*lookup_fn)(uint16_t, const IPAddrEntry *, IPAddrInfo *);

int main(void) {
    lookup_fn fn = IPAddr_Drvk_LookupAddr;
    (void)fn;
    IPAddrInfo info = {{{0, 0, 0, 0, 0, 0}, 0, 0}, 0, 0, 0, {0}};
    (void)info;
    return (sizeof(IPAddrKey) == 20 && sizeof(IPAddrEntry) == 28 && sizeof(IPAddrInfo) == 52 &&
            IPSTATUS_FAILED == 0x40010001u)
               ? 0
               : 1;
}
