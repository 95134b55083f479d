/* Control of the stand-in layer-2 VPN libraries, shared by the libraries and the tests that
 * load them. The tests find fake_l2vpn_set and fake_l2vpn_seen with dlsym on the handle
 * the bridge returns. */
#ifndef IPCLIENT_TESTS_FAKE_L2VPN_H
#define IPCLIENT_TESTS_FAKE_L2VPN_H

#include <stdint.h>

/* Every entry point without a scripted behaviour takes nothing and returns this plus its
 * slot number, so that a test can tell the slots apart by calling them. */
#define FAKE_L2VPN_SLOT_MARK 0x5A000000u
/* Bytes written over the whole of a record before the scripted fields, on success and on
 * failure alike. */
#define FAKE_L2VPN_FILL 0xA5u

/* What the two scripted entry points answer and write. */
struct fake_l2vpn_script {
    uint32_t info_status;    /* L2VPN_GetVsiInfoByName: result */
    uint32_t info_vsi_index; /* written at 0 */
    uint32_t info_if_number; /* written at 68 */
    uint32_t key_status;     /* L2VPN_GetL2vifKeyByEvcKey: result */
    uint32_t key_vsi_index;  /* written at 0 */
    uint32_t key_link_id;    /* written at 4 */
};

/* What the scripted entry points were given (the last call of each). */
struct fake_l2vpn_seen {
    uint32_t info_calls;
    char info_name[64];
    int info_cleared;        /* the 168-byte record was all zero on entry */
    uint32_t key_calls;
    const void *key_evc;     /* the EVC key pointer as passed */
    uint32_t key_vsi_arg;    /* the third argument */
    int key_cleared;         /* the 8-byte key was all zero on entry */
    uint32_t vxlan_calls;
};

typedef void (*fake_l2vpn_set_fn)(const struct fake_l2vpn_script *script);
typedef void (*fake_l2vpn_seen_fn)(struct fake_l2vpn_seen *out);

#endif /* IPCLIENT_TESTS_FAKE_L2VPN_H */
