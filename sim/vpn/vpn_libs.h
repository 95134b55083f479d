/*
 * The simulated device's layer-2 and layer-3 VPN libraries: libl2vpn.so and libl3vpn.so.
 *
 * A device keeps these at /lib/libl2vpn.so and /lib/libl3vpn.so and the IP client library
 * loads them at run time (the ARP and ND VSI predicates, the FIB dump's VRF names). When a
 * process runs on a simulated device, the platform loads these files instead: ipsimd names
 * them on the device channel (see sim/device/libraries.hpp). They run inside the client
 * process and take every answer from the running simulator of the process's instance, over
 * its control channel "ipclient/<instance>/control" (ops "vpn.vsi", "vpn.circuit" and
 * "vpn.vrf", see sim/modules/vpn.hpp). The instance is IPCLIENT_INSTANCE, else "p<pid>",
 * as the platform names it. Each call is one exchange on a connection of its own, with a
 * 2-second limit; nothing is cached, so an answer always reflects the running simulator.
 * When no simulator answers, every call fails as for an unknown VSI or VRF.
 *
 * Records are in host byte order (they never leave the process). Status 0 is success;
 * every failure is L2VPN_SIM_FAILED (the library-wide general failure).
 *
 * Only the symbols declared here are exported.
 */
#ifndef IPSIM_VPN_LIBS_H
#define IPSIM_VPN_LIBS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define L2VPN_SIM_FAILED 0x40010001u
#define L2VPN_SIM_NONE 0xFFFFFFFFu         /* VSI index, interface number or VXLAN id: none */
#define L2VPN_SIM_LINK_NONE 65535u          /* link id: none */
#define L2VPN_SIM_NAME_SIZE 32u             /* VSI name field, NUL-terminated */

/*
 * EVC key: what names an attachment circuit (the pEvcKey the IP client library passes
 * through untouched to L2VPN_GetL2vifKeyByEvcKey). 8 bytes. A scenario circuit
 * {interface, service} is the key {interface index, service}.
 */
typedef struct L2VPN_SIM_EVC_KEY_S {
    uint32_t uiIfIndex;    /* 0: the interface of the circuit (a port of the device) */
    uint32_t uiServiceId;  /* 4: the service instance on that interface, 1..4096 */
} L2VPN_SIM_EVC_KEY_S;

/*
 * VSI information, 168 bytes, as L2VPN_GetVsiInfoByName and L2VPN_GetVsiIndexByName fill
 * it (bytes not listed are written as 0):
 *   0   VSI index (32-bit)
 *   4   VSI name, at most 31 characters and a NUL, zero-padded (32 bytes)
 *   36  VXLAN id (32-bit), L2VPN_SIM_NONE when the VSI has none
 *   40  number of attachment circuits (32-bit)
 *   68  N of the VSI's interface Vsi-interfaceN (32-bit), L2VPN_SIM_NONE when it has none
 */
#define L2VPN_SIM_INFO_SIZE 168u
#define L2VPN_SIM_INFO_INDEX 0u
#define L2VPN_SIM_INFO_NAME 4u
#define L2VPN_SIM_INFO_VXLAN 36u
#define L2VPN_SIM_INFO_CIRCUITS 40u
#define L2VPN_SIM_INFO_IF_NUMBER 68u

/*
 * Layer-2 virtual interface key, 8 bytes, as L2VPN_GetL2vifKeyByEvcKey fills it:
 *   0   VSI index of the circuit (32-bit), L2VPN_SIM_NONE when it is in no VSI
 *   4   link id of the circuit in the VSI (32-bit), L2VPN_SIM_LINK_NONE when none
 */
#define L2VPN_SIM_KEY_SIZE 8u

/* ---- Entry points with an answer (slots 13, 16, 22, 24 of the client's table) ----------
 * Their records are named by the types the IP client library reads them as (its
 * ipclient/arp.h), so that each entry point has exactly the type the client calls it by. */
struct L2VPN_VSI_INFO_S;
struct L2VPN_L2VIF_KEY_S;

/* Slot 16: fills the 168-byte record for the VSI named pcName; 0, or L2VPN_SIM_FAILED for a
 * null argument or an unknown VSI (the record is then not written). */
uint32_t L2VPN_GetVsiInfoByName(const char *pcName, struct L2VPN_VSI_INFO_S *pInfo);
/* Slot 13: as L2VPN_GetVsiInfoByName; uiIfIndex (the interface asked for) is not used. */
uint32_t L2VPN_GetVsiIndexByName(const char *pcName, struct L2VPN_VSI_INFO_S *pInfo, uint32_t uiIfIndex);
/* Slot 22: the key of the circuit of the EVC key pEvcKey (an L2VPN_SIM_EVC_KEY_S). 0 with
 * the circuit's VSI and link id; a circuit that no VSI holds gives L2VPN_SIM_FAILED with
 * the key {L2VPN_SIM_NONE, L2VPN_SIM_LINK_NONE}; a null argument gives L2VPN_SIM_FAILED and
 * writes nothing. uiVsiIndex (the VSI the caller asks about) is not used: a circuit
 * belongs to one VSI at most, and the caller compares. */
uint32_t L2VPN_GetL2vifKeyByEvcKey(const void *pEvcKey, struct L2VPN_L2VIF_KEY_S *pKey, uint32_t uiVsiIndex);
/* Slot 24: the VXLAN id of the VSI uiVsiIndex; L2VPN_SIM_NONE for a VSI without one or an
 * unknown VSI. */
uint32_t L2VPN_GetVxlanByVsiIndex(uint32_t uiVsiIndex);

/* ---- Entry points the simulated device does not serve ----------------------------------
 * Present so that the table is complete; each reads no argument and returns
 * L2VPN_SIM_FAILED. */
uint32_t L2VPN_Init(void);                            /* slot 0 */
uint32_t L2VPN_Fini(void);                            /* slot 1 */
uint32_t L2VPN_Register(void);                        /* slot 2 */
uint32_t L2VPN_Deregister(void);                      /* slot 3 */
uint32_t L2VPN_HandleMsg(void);                       /* slot 4 */
uint32_t L2VPN_FinalStatusNotify(void);               /* slot 5 */
uint32_t L2VPN_RequestBatch(void);                    /* slot 6 */
uint32_t L2VPN_GetVsiIndexByXcgName(void);            /* slot 7 */
uint32_t L2VPN_GetXcgNameByVsiIndex(void);            /* slot 8 */
uint32_t L2VPN_XConnOpen(void);                       /* slot 9 */
uint32_t L2VPN_XConnClose(void);                      /* slot 10 */
uint32_t L2VPN_GetFirstXConnByXcgName(void);          /* slot 11 */
uint32_t L2VPN_GetNextXConnByXcgName(void);           /* slot 12 */
uint32_t L2VPN_GetNextVsiByName(void);                /* slot 14 */
uint32_t L2VPN_GetNameByVsiIndex(void);               /* slot 15 */
uint32_t L2VPN_RegEvcEvent(void);                     /* slot 17 */
uint32_t L2VPN_DeregEvcEvent(void);                   /* slot 18 */
uint32_t L2VPN_RegL2vifEvent(void);                   /* slot 19 */
uint32_t L2VPN_DeregL2vifEvent(void);                 /* slot 20 */
uint32_t L2VPN_SelectType_Set(void);                  /* slot 21 */
uint32_t L2VPN_GetEvcEncap(void);                     /* slot 23 */
uint32_t L2VPN_GetVsiIndexByNameExt(void);            /* slot 25 */
uint32_t L2VPN_GetVsiIFByVsiIndex(void);              /* slot 26 */
uint32_t L2VPN_GetL2vifInfo(void);                    /* slot 27 */
uint32_t L2VPN_IsTunnelInVsi(void);                   /* slot 28 */
uint32_t L2VPN_GetAcByPortVlanAndEncapTypeExt(void);  /* slot 29 */
uint32_t L2VPN_GetVlanVxlanMappingByVlan(void);       /* slot 30 */

/* ---- libl3vpn.so ----------------------------------------------------------------------- */

/* The name of VRF usVrf into pcName (uiSize bytes, NUL-terminated): 0; L2VPN_SIM_FAILED for
 * a null buffer, an unknown VRF or a name that does not fit (pcName is then not written).
 * VRF 0 is the public network. */
uint32_t L3VPN_GetNameByVrfIndex(uint16_t usVrf, uint32_t uiSize, char *pcName);

#ifdef __cplusplus
}
#endif

#endif /* IPSIM_VPN_LIBS_H */
