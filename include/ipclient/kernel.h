/**
 * @file
 * Kernel control channel and address driver messages.
 *
 * The IPAddr_Drvk_* operations are the library's only way to the kernel's address module.
 * Each builds one request (an 8-byte header: operation code and payload length, both
 * big-endian, then the payload), sends it with CIOCTL and command 0x260001, and converts the
 * reply to host byte order. They are stateless and safe from any thread.
 *
 * Unless an operation takes a node, the request goes to node 0x8000, passed to the channel
 * sign-extended as 0xFFFF8000. A node argument is sign-extended the same way, so a caller's
 * 0x8000 also reaches the channel as 0xFFFF8000 (device node numbers lie below 0x8000 and
 * reach it unchanged).
 *
 * Every operation returns the channel status unchanged (0 on success) unless noted. No
 * operation checks its pointer arguments: the address library checks them. On failure the
 * reply buffer is left as the platform left it and is not converted.
 */
#ifndef IPCLIENT_KERNEL_H
#define IPCLIENT_KERNEL_H

#include <stddef.h>
#include <stdint.h>

#include "ipclient/api.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/** Configuration method bits of uiMethod; as a filter, the OR of the wanted methods. */
#define IPADDR_METHOD_MANUAL 0x1u   /**< manually configured address */
#define IPADDR_METHOD_DHCP 0x4u     /**< address obtained by DHCP */
#define IPADDR_METHOD_BOOTP 0x8u    /**< address obtained by BOOTP */
#define IPADDR_METHOD_MAD 0x40000u  /**< MAD address */

/** Wildcards of IPAddrKey. */
#define IPADDR_ANY_VRF 0xFFFFu         /**< usVrfIndex that matches any VPN instance */
#define IPADDR_ANY_IFINDEX 0xFFFFFFFFu /**< uiIfIndex that matches any interface */

/*
 * Address records. In memory they are in host order, except uiAddr and uiMask, which are
 * IPv4 network order everywhere. On the wire usVrfIndex, uiIfIndex, uiMethod, uiFlag and
 * uiInfo1..3 are big-endian; the reserved fields, uiAddr, uiMask and aucInfoData travel
 * byte for byte.
 */

/** Selects an address (20 bytes). */
typedef struct IPAddrKey {
    uint16_t usVrfIndex; /**< VPN instance index; IPADDR_ANY_VRF means any */
    uint16_t usReserved; /**< carried unconverted */
    uint32_t uiIfIndex;  /**< interface index; IPADDR_ANY_IFINDEX means any */
    uint32_t uiAddr;     /**< IPv4 address, network order */
    uint32_t uiMask;     /**< subnet mask, network order */
    uint32_t uiMethod;   /**< IPADDR_METHOD_* bits */
} IPAddrKey;

/** A key with its flags (28 bytes). As a match key, uiFlag holds the match mode. */
typedef struct IPAddrEntry {
    IPAddrKey stKey;     /**< the address (offsets 0 to 19) */
    uint32_t uiFlag;     /**< address flags word */
    uint32_t uiReserved; /**< carried unconverted */
} IPAddrEntry;

/** An entry with the module's extra information (52 bytes). */
typedef struct IPAddrInfo {
    IPAddrEntry stEntry; /**< the address and its flags (offsets 0 to 27) */
    uint32_t uiInfo1;    /**< the module's word at 28, big-endian on the wire */
    uint32_t uiInfo2;    /**< the module's word at 32, big-endian on the wire */
    uint32_t uiInfo3;    /**< the module's word at 36, big-endian on the wire */
    uint8_t aucInfoData[12]; /**< carried unconverted */
} IPAddrInfo;

/**
 * Conflict record filled by the conflict lookups (12 bytes). Only uiIfIndex (offset 4) and
 * usConflict (offset 8) are written by the library; the other fields are the caller's.
 */
typedef struct IPAddrConflict {
    uint32_t uiReserved; /**< the caller's; not written */
    uint32_t uiIfIndex;  /**< interface of the conflicting address (IPAddr_Drvk_GetConflictAddr) */
    uint16_t usConflict; /**< set to 1 when the module reports a conflict */
    uint16_t usReserved; /**< the caller's; not written */
} IPAddrConflict;

IPCLIENT_STATIC_ASSERT(sizeof(IPAddrKey) == 20, key_size);
IPCLIENT_STATIC_ASSERT(sizeof(IPAddrEntry) == 28, entry_size);
IPCLIENT_STATIC_ASSERT(sizeof(IPAddrInfo) == 52, info_size);
IPCLIENT_STATIC_ASSERT(sizeof(IPAddrConflict) == 12, conflict_size);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrKey, uiIfIndex) == 4, key_ifindex);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrKey, uiAddr) == 8, key_addr);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrKey, uiMask) == 12, key_mask);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrKey, uiMethod) == 16, key_method);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrEntry, uiFlag) == 20, entry_flag);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrEntry, uiReserved) == 24, entry_reserved);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrInfo, uiInfo1) == 28, info_info1);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrInfo, uiInfo2) == 32, info_info2);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrInfo, uiInfo3) == 36, info_info3);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrInfo, aucInfoData) == 40, info_data);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrConflict, uiIfIndex) == 4, conflict_ifindex);
IPCLIENT_STATIC_ASSERT(offsetof(IPAddrConflict, usConflict) == 8, conflict_flag);

/** Operation 0: add the address described by info. */
IPCLIENT_API uint32_t IPAddr_Drvk_AddIP(const IPAddrInfo *pstInfo);
/** Operation 1: delete the address selected by key. */
IPCLIENT_API uint32_t IPAddr_Drvk_DelIP(const IPAddrKey *pstKey);
/** Operation 2: look up an entry on the given node; fills the 52-byte info. */
IPCLIENT_API uint32_t IPAddr_Drvk_LookupAddr(uint16_t usNode, const IPAddrEntry *pstEntry,
                                             IPAddrInfo *pstInfo);
/**
 * Operation 3: conflict check. On 0x43160041 the reply (the conflicting entry) is converted,
 * the conflict record (if given) gets usConflict = 1 and the conflicting uiIfIndex, and
 * 0x43160041 is returned. Other non-zero statuses are returned unconverted.
 */
IPCLIENT_API uint32_t IPAddr_Drvk_GetConflictAddr(const IPAddrEntry *pstEntry, IPAddrEntry *pstOut,
                                                  IPAddrConflict *pstConflict);
/**
 * Operation 4: up to *puiCount entries matching the key, on the given node. *puiCount
 * receives the number returned. A reply that is not a multiple of 28 bytes, or longer than
 * the *puiCount entries asked for, fails with 0x40010001 and leaves *puiCount unchanged; so
 * does a count whose reply would not fit a 32-bit capacity (more than 153391689 entries).
 */
IPCLIENT_API uint32_t IPAddr_Drvk_GetMatchAddr(uint16_t usNode, const IPAddrEntry *pstMatchKey,
                                               uint32_t *puiCount, IPAddrEntry *pstEntries);
/** Operation 5: number of addresses matching the key. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetMatchAddrNum(const IPAddrEntry *pstMatchKey, uint32_t *puiCount);
/** Operation 6: longest-match lookup of the key's address. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetMatchBestNet(const IPAddrEntry *pstMatchKey, IPAddrEntry *pstOut);
/** Operation 7: the address after key on the interface; an all-zero key with usVrfIndex
 * 0xFFFF starts the walk. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetNextAddrOnIf(uint32_t uiIfIndex, uint32_t uiMethodMask,
                                                  uint16_t usNextMode, const IPAddrKey *pstKey,
                                                  IPAddrInfo *pstInfo);
/** Operation 8: BE32 ifindex and method mask; fills one IPAddrEntry in host order. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetPriorAddrOnIf(uint32_t uiIfIndex, uint32_t uiMethodMask,
                                                   IPAddrEntry *pstOut);
/** Operation 9: BE16 VRF; fills one IPAddrEntry in host order. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetFwdAddrInVrf(uint16_t usVrf, IPAddrEntry *pstOut);
/** Operation 11: the entry is both the position and the result. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetNextAddrInVrf(uint16_t usVrf, uint32_t uiWord,
                                                   IPAddrEntry *pstEntry);
/** Operations 12 and 13. */
IPCLIENT_API uint32_t IPAddr_Drvk_SetCfgMethod(uint32_t uiWord1, uint32_t uiWord2);
/** Operation 13: the two words big-endian; no reply. */
IPCLIENT_API uint32_t IPAddr_Drvk_ClearCfgMethod(uint32_t uiWord1, uint32_t uiWord2);
/** Operation 14: method bits of an interface, read on the given node. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetIFMethod(uint16_t usNode, uint32_t uiIfIndex, uint32_t *puiMethod);
/** Operation 15: 52-byte IPAddrInfo records in network order (the caller converts).
 * uiCapacity is a multiple of 52. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetBatchAddrOnIF(uint32_t uiWord1, uint32_t uiWord2,
                                                   const IPAddrKey *pstKey, uint32_t uiCapacity,
                                                   void *pBuffer, uint32_t *puiReturnedLen);
/** Operation 16: *puiNextIfIndex receives the interface after uiIfIndex, in host order. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetNextIf(uint32_t uiIfIndex, uint32_t *puiNextIfIndex);
/** Operation 17: event records in network order (the caller converts). */
IPCLIENT_API uint32_t IPAddr_Drvk_GetBatchEvNotify(uint32_t uiWord1, uint32_t uiWord2,
                                                   const IPAddrKey *pstKey, uint32_t uiCapacity,
                                                   void *pBuffer, uint32_t *puiReturnedLen);
/** Operation 18: header only; the reply is left unconverted. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetRTEvNotifyInfo(uint32_t uiCapacity, void *pBuffer,
                                                    uint32_t *puiReturnedLen);
/** Operations 20 to 22, to the given node. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetAddrCountOnIF(uint16_t usNode, uint32_t uiWord1, uint32_t uiWord2,
                                                   uint32_t uiWord3, uint32_t *puiCount);
/** Operation 21, to the given node: BE16 usHalf1, BE16 usHalf2, BE32 uiWord; no reply. */
IPCLIENT_API uint32_t IPAddr_Drvk_SetDbgInfo(uint16_t usNode, uint16_t usHalf1, uint16_t usHalf2,
                                             uint32_t uiWord);
/** Operation 22, to the given node: BE16 usHalf; *puiWord receives the 4-byte big-endian reply
 * in host order. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetDbgInfo(uint16_t usNode, uint16_t usHalf, uint32_t *puiWord);
/** Operations 23 and 24; the epoch is one byte, read and stored as it stands. */
IPCLIENT_API uint32_t IPAddr_Drvk_IncAddrGlobalEpoch(uint32_t uiWord1, uint32_t uiWord2);
/** Operation 24: the two words big-endian; *pucEpoch receives the one reply byte. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetAddrGlobalEpoch(uint32_t uiWord1, uint32_t uiWord2,
                                                     uint8_t *pucEpoch);
/** Operation 25: addresses in network order. */
IPCLIENT_API uint32_t IPAddr_Drvk_SelectSrcAddr(uint32_t uiDestination, uint16_t usVrf,
                                                uint32_t uiIfIndex, uint32_t uiAddr,
                                                uint32_t *puiSource);
/** Operation 26, to the interface's node; when the node cannot be obtained the request still
 * goes, to node 0x8000 (0xFFFF8000 on the channel). */
IPCLIENT_API uint32_t IPAddr_Drvk_SetDrvMethod(uint32_t uiIfIndex, uint32_t uiMethod);
/** Operation 27, to the interface's node; 0x40010001 when the node cannot be obtained. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetLoopBackInfo(uint32_t uiIfIndex, uint16_t *pusInfo);
/** Operation 28: replace the main address selected by key with info. */
IPCLIENT_API uint32_t IPAddr_Drvk_ModMainIP(const IPAddrKey *pstKey, const IPAddrInfo *pstInfo);
/** Operation 29: the gateway address is in network order. */
IPCLIENT_API uint32_t IPAddr_Drvk_SearchGWAddr(uint32_t uiIfIndex, uint32_t uiGateway, uint16_t usVrf,
                                               IPAddrEntry *pstOut);
/** Operations 30 and 31. */
IPCLIENT_API uint32_t IPAddr_Drvk_SetNetProtocol(uint32_t uiWord1, uint32_t uiWord2, uint32_t uiWord3);
/** Operation 31: BE32 uiWord; *puiBits receives the protocol bits in host order. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetNetProtoBit(uint32_t uiWord, uint32_t *puiBits);
/** Operation 32: BE16 VRF and the two words big-endian; fills one IPAddrEntry in host order. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetMaxAddrInVrf(uint16_t usVrf, uint32_t uiWord1, uint32_t uiWord2,
                                                  IPAddrEntry *pstOut);
/** Operations 33 and 34; the two trailing payload bytes are sent as zero. */
IPCLIENT_API uint32_t IPAddr_Drvk_AddVFWIP(uint32_t uiWord, uint16_t usHalf, uint32_t uiAddr);
/** Operation 34: 12-byte payload, BE32 uiWord then zero bytes; no reply. */
IPCLIENT_API uint32_t IPAddr_Drvk_DelVFWIP(uint32_t uiWord);
/**
 * Operation 35: pucAddr, when not null, points to 12 address bytes sent as they stand.
 * pucMac receives 6 bytes, puiWord the host-order word that follows them in the reply.
 */
IPCLIENT_API uint32_t IPAddr_Drvk_GetMac(uint32_t uiWord, uint16_t usHalf, uint32_t uiValue,
                                         const uint8_t *pucAddr, uint8_t *pucMac, uint32_t *puiWord);
/** Operation 36: BE32 uiWord and BE16 type; no reply. */
IPCLIENT_API uint32_t IPAddr_Drvk_SetMacType(uint32_t uiWord, uint16_t usType);
/** Operations 37 and 38; the address is in network order. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetMatchAddrByIP(uint32_t uiAddr, uint32_t uiWord, IPAddrEntry *pstOut);
/** Operation 38: BE32 uiWord and the entry; the next matching entry, in host order, is written
 * over *pstEntry. */
IPCLIENT_API uint32_t IPAddr_Drvk_GetNextMatchAddrByIP(uint32_t uiWord, IPAddrEntry *pstEntry);
/**
 * Operation 39: as IPAddr_Drvk_GetConflictAddr, but a conflict only sets usConflict and
 * the operation returns 0.
 */
IPCLIENT_API uint32_t IPAddr_Drvk_GetConflictAddr2CfgRecover(const IPAddrEntry *pstEntry,
                                                             IPAddrEntry *pstOut,
                                                             IPAddrConflict *pstConflict);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_KERNEL_H */
