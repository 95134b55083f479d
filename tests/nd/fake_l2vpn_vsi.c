/* A stand-in for the layer-2 VPN library with all 31 entry points, three of them scripted
 * for the ND client's VSI predicates: the VSI lookup by name on behalf of an interface, the
 * layer-2 virtual interface key of a circuit and the VXLAN id of a VSI. The test finds
 * ndvsi_set and ndvsi_seen with dlsym on the handle the bridge returns. */
#include <stddef.h>
#include <stdint.h>
#include <string.h>

/* Bytes written over a whole record before the scripted fields, on success and failure. */
#define NDVSI_FILL 0xA5u

struct ndvsi_script {
    uint32_t index_status;    /* L2VPN_GetVsiIndexByName: result */
    uint32_t index_if_number; /* written at offset 68 of the 168-byte record */
    uint32_t key_status;      /* L2VPN_GetL2vifKeyByEvcKey: result */
    uint32_t key_vsi_index;   /* written at offset 0 of the 8-byte key */
    uint32_t key_link_id;     /* written at offset 4 */
    uint32_t vxlan;           /* L2VPN_GetVxlanByVsiIndex: result */
};

struct ndvsi_seen {
    uint32_t index_calls;
    char index_name[64];
    uint32_t index_ifindex;
    int index_cleared; /* the record was all zero on entry */
    uint32_t key_calls;
    const void *key_evc;
    uint32_t key_vsi_arg;
    int key_cleared;
    uint32_t vxlan_calls;
    uint32_t vxlan_arg;
};

void ndvsi_set(const struct ndvsi_script *script);
void ndvsi_seen(struct ndvsi_seen *out);

static struct ndvsi_script g_script;
static struct ndvsi_seen g_seen;

void ndvsi_set(const struct ndvsi_script *script) {
    g_script = *script;
    memset(&g_seen, 0, sizeof g_seen);
}

void ndvsi_seen(struct ndvsi_seen *out) { *out = g_seen; }

static int all_zero(const unsigned char *p, size_t n) {
    size_t i;
    for (i = 0; i < n; ++i) {
        if (p[i] != 0) return 0;
    }
    return 1;
}

#define NDVSI_PLAIN(name, slot)       \
    uint32_t name(void);              \
    uint32_t name(void) { return 0x5A000000u + (slot); }

NDVSI_PLAIN(L2VPN_Init, 0u)
NDVSI_PLAIN(L2VPN_Fini, 1u)
NDVSI_PLAIN(L2VPN_Register, 2u)
NDVSI_PLAIN(L2VPN_Deregister, 3u)
NDVSI_PLAIN(L2VPN_HandleMsg, 4u)
NDVSI_PLAIN(L2VPN_FinalStatusNotify, 5u)
NDVSI_PLAIN(L2VPN_RequestBatch, 6u)
NDVSI_PLAIN(L2VPN_GetVsiIndexByXcgName, 7u)
NDVSI_PLAIN(L2VPN_GetXcgNameByVsiIndex, 8u)
NDVSI_PLAIN(L2VPN_XConnOpen, 9u)
NDVSI_PLAIN(L2VPN_XConnClose, 10u)
NDVSI_PLAIN(L2VPN_GetFirstXConnByXcgName, 11u)
NDVSI_PLAIN(L2VPN_GetNextXConnByXcgName, 12u)

/* 13: the VSI record (168 bytes: interface number at 68). */
uint32_t L2VPN_GetVsiIndexByName(const char *name, void *info, uint32_t ifindex);
uint32_t L2VPN_GetVsiIndexByName(const char *name, void *info, uint32_t ifindex) {
    unsigned char *rec = (unsigned char *)info;
    ++g_seen.index_calls;
    memset(g_seen.index_name, 0, sizeof g_seen.index_name);
    if (name != NULL) strncpy(g_seen.index_name, name, sizeof g_seen.index_name - 1u);
    g_seen.index_ifindex = ifindex;
    if (rec == NULL) return 1u;
    g_seen.index_cleared = all_zero(rec, 168u);
    memset(rec, NDVSI_FILL, 168u);
    memcpy(rec + 68, &g_script.index_if_number, 4u);
    return g_script.index_status;
}

NDVSI_PLAIN(L2VPN_GetNextVsiByName, 14u)
NDVSI_PLAIN(L2VPN_GetNameByVsiIndex, 15u)
NDVSI_PLAIN(L2VPN_GetVsiInfoByName, 16u)
NDVSI_PLAIN(L2VPN_RegEvcEvent, 17u)
NDVSI_PLAIN(L2VPN_DeregEvcEvent, 18u)
NDVSI_PLAIN(L2VPN_RegL2vifEvent, 19u)
NDVSI_PLAIN(L2VPN_DeregL2vifEvent, 20u)
NDVSI_PLAIN(L2VPN_SelectType_Set, 21u)

/* 22: the layer-2 virtual interface key (VSI index at 0, link id at 4). */
uint32_t L2VPN_GetL2vifKeyByEvcKey(const void *evc, void *key, uint32_t vsi);
uint32_t L2VPN_GetL2vifKeyByEvcKey(const void *evc, void *key, uint32_t vsi) {
    unsigned char *rec = (unsigned char *)key;
    ++g_seen.key_calls;
    g_seen.key_evc = evc;
    g_seen.key_vsi_arg = vsi;
    if (rec == NULL) return 1u;
    g_seen.key_cleared = all_zero(rec, 8u);
    memcpy(rec, &g_script.key_vsi_index, 4u);
    memcpy(rec + 4, &g_script.key_link_id, 4u);
    return g_script.key_status;
}

NDVSI_PLAIN(L2VPN_GetEvcEncap, 23u)

/* 24: a VXLAN id, not a status. */
uint32_t L2VPN_GetVxlanByVsiIndex(uint32_t vsi);
uint32_t L2VPN_GetVxlanByVsiIndex(uint32_t vsi) {
    ++g_seen.vxlan_calls;
    g_seen.vxlan_arg = vsi;
    return g_script.vxlan;
}

NDVSI_PLAIN(L2VPN_GetVsiIndexByNameExt, 25u)
NDVSI_PLAIN(L2VPN_GetVsiIFByVsiIndex, 26u)
NDVSI_PLAIN(L2VPN_GetL2vifInfo, 27u)
NDVSI_PLAIN(L2VPN_IsTunnelInVsi, 28u)
NDVSI_PLAIN(L2VPN_GetAcByPortVlanAndEncapTypeExt, 29u)
NDVSI_PLAIN(L2VPN_GetVlanVxlanMappingByVlan, 30u)
