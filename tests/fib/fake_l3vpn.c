/* A stand-in for the layer-3 VPN library, loaded through a redirected dlopen: names two
 * VRFs and refuses every other index, and any buffer size but the 32 bytes the dump gives. */
#include <stdint.h>
#include <string.h>

uint32_t L3VPN_GetNameByVrfIndex(uint16_t vrf, uint32_t size, char *name);

uint32_t L3VPN_GetNameByVrfIndex(uint16_t vrf, uint32_t size, char *name) {
    const char *found = NULL;
    if (name == NULL || size != 32u) return 1u;
    if (vrf == 5u) found = "vpn-red";
    if (vrf == 7u) found = "vpn-blue";
    if (found == NULL) {
        /* Scribbles on the buffer: the caller must not print what a refusal leaves. */
        memcpy(name, "junk", 5);
        return 0x40010001u;
    }
    memcpy(name, found, strlen(found) + 1u);
    return 0u;
}
