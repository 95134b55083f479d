/**
 * @file
 * Address library: the address control socket and its change requests, address lookups
 * and walks, and the address and interface-configuration event subscriptions.
 *
 * Change requests travel on a control socket to the address service (node 0x8000, port
 * 1653): an 8-byte header (operation, payload length; big-endian) and the payload. Lookups
 * and walks go to the kernel's address module through the IPAddr_Drvk_* operations
 * (ipclient/kernel.h); the library keeps no position between calls.
 *
 * Interface-configuration messages that arrive on the control socket while a request waits
 * for its answer are queued whole in g_stCfgList for IPAddr_HandleIfCfgMsg. The list and
 * both event handlers are process-wide and unlocked: registration, handling and change
 * requests belong on one thread.
 */
#ifndef IPCLIENT_IPADDR_H
#define IPCLIENT_IPADDR_H

#include <stdint.h>

#include "ipclient/api.h"
#include "ipclient/kernel.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/* ---- Control socket and change requests -------------------------------------------------- */

/** Port of the address service's control socket, on node 0x8000. */
#define IPADDR_PORT_CONTROL 1653u
/** Port of the address events, on the local node (LIP_GetLocalLip). */
#define IPADDR_PORT_EVENTS 11547u
/** Request flag of the address change: do not wait for the service's answer. */
#define IPADDR_REQ_NO_WAIT 0x40u
/** Largest message read from the control and event sockets. */
#define IPADDR_MSG_MAX 1024u

/** One queued message, a copy of the bytes received, exactly as received. */
typedef struct IPAddrCfgRec {
    struct IPAddrCfgRec *pstNext; /**< next record, null at the end */
    uint32_t uiLen;               /**< byte length of the copy */
    void *pData;                  /**< the copy, allocated with malloc */
} IPAddrCfgRec;

/** A queue of messages: appended at the tail, taken from the head. */
typedef struct IPAddrCfgList {
    IPAddrCfgRec *pstHead; /**< first record, null when empty */
    IPAddrCfgRec *pstTail; /**< last record, null when empty */
} IPAddrCfgList;

/** Interface-configuration messages received on the control socket while a request waited for
 * its answer; taken by IPAddr_HandleIfCfgMsg, freed by IPAddr_Close. */
IPCLIENT_API extern IPAddrCfgList g_stCfgList;

/** A socket connected to the address service, or -1 (or the failed socket call's result). */
IPCLIENT_API int32_t IPAddr_Open(void);
/** Closes a non-negative socket, then frees every queued message. */
IPCLIENT_API void IPAddr_Close(int32_t iSock);

/**
 * Address changes: the service's result; 0x40010001 for a negative socket or a null entry;
 * 0x63160064 when the request was sent short or no final answer came. With
 * IPADDR_REQ_NO_WAIT in uiFlags the add or delete returns 0 once sent. A final answer too
 * short to hold its result also gives 0x63160064.
 */
IPCLIENT_API uint32_t IPAddr_AddAddrEx(int32_t iSock, const IPAddrEntry *pstEntry, uint64_t ulContext,
                                       uint32_t uiValue, uint32_t uiFlags);
/** IPAddr_AddAddrEx with context 0. */
IPCLIENT_API uint32_t IPAddr_AddAddr(int32_t iSock, const IPAddrEntry *pstEntry, uint32_t uiValue, uint32_t uiFlags);
/** Only an entry whose uiMethod is exactly IPADDR_METHOD_MAD is accepted. */
IPCLIENT_API uint32_t IPAddr_AddMADAddr(int32_t iSock, const IPAddrEntry *pstEntry, uint16_t usMadWord,
                                        uint32_t uiFlags);
/** Sends a delete; only the entry's key and uiFlag are carried. */
IPCLIENT_API uint32_t IPAddr_DelAddr(int32_t iSock, const IPAddrEntry *pstEntry, uint32_t uiFlags);

/** Address flag message (method bit 4 DHCP, 8 BOOTP); the socket is not checked. */
IPCLIENT_API uint32_t ipaddr_SetAddrFlag(int32_t iSock, uint32_t uiWord, uint32_t uiMethodBit, uint32_t uiValue);
/** Address flag message with method bit 4 (DHCP). */
IPCLIENT_API uint32_t IPAddr_SetDhcpFlag(int32_t iSock, uint32_t uiWord, uint32_t uiValue);
/** Address flag message with method bit 8 (BOOTP). */
IPCLIENT_API uint32_t IPAddr_SetBootpFlag(int32_t iSock, uint32_t uiWord, uint32_t uiValue);

/** Net protocol message (action 1 enable, 2 disable). */
IPCLIENT_API uint32_t ipaddr_SetNetProtocolInfo(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2,
                                                uint32_t uiAction);
/** Net protocol message with action 1 (enable). */
IPCLIENT_API uint32_t IPAddr_EnableNetProtocol(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2);
/** Net protocol message with action 2 (disable). */
IPCLIENT_API uint32_t IPAddr_DisableNetProtocol(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2);

/** Smooth phase messages; no answer is awaited. 0x40010001 for a negative socket, a word1
 * of 0 or a failed send (a short send is not checked). This one sends phase 1, the start. */
IPCLIENT_API uint32_t IPAddr_SmoothStart(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2);
/** Smooth phase 2, the end; as IPAddr_SmoothStart. */
IPCLIENT_API uint32_t IPAddr_SmoothEnd(int32_t iSock, uint32_t uiWord1, uint32_t uiWord2);

/** The interface's method bits as the node DEV_GetSelf() keeps them; 0 when unreadable. */
IPCLIENT_API uint32_t IPAddr_GetAddrTypeFlag(uint32_t uiIfIndex);

/* ---- Lookups ---------------------------------------------------------------------------- */

/**
 * Every lookup returns 0x40010001 for a null required pointer, else the address module's
 * status. The match mode is carried in the match key's uiFlag word; the convenience forms
 * pass mode 1. This one gives up to *puiCount matching entries, asked on the local node, and
 * their number in *puiCount; with null entries only the number (asked on node 0x8000).
 */
IPCLIENT_API uint32_t IPAddr_GetAddrByKey(const IPAddrKey *pstKey, uint32_t uiMode, uint32_t *puiCount,
                                          IPAddrEntry *pstEntries);
/** The one best matching entry for an address (network order) and method in a VPN instance,
 * on any interface. */
IPCLIENT_API uint32_t IPAddr_GetAddrInVrf(uint16_t usVrf, uint32_t uiAddr, uint32_t uiMethod, IPAddrEntry *pstEntry);
/** The one best matching entry for an address and method on an interface, in any VPN instance. */
IPCLIENT_API uint32_t IPAddr_GetAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMethod, IPAddrEntry *pstEntry);
/** The best matching network for the key (IPAddr_Drvk_GetMatchBestNet). The module's 28-byte
 * answer is copied to a given entry also when the lookup failed. */
IPCLIENT_API uint32_t IPAddr_MatchBestNetByKey(const IPAddrKey *pstKey, uint32_t uiMode, IPAddrEntry *pstEntry);
/** The best matching network for an address in a VPN instance, on any interface. */
IPCLIENT_API uint32_t IPAddr_MatchBestNetInVrf(uint16_t usVrf, uint32_t uiAddr, uint32_t uiMethod,
                                               IPAddrEntry *pstEntry);
/** The best matching network for an address on an interface, in any VPN instance. */
IPCLIENT_API uint32_t IPAddr_MatchBestNet(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMethod,
                                          IPAddrEntry *pstEntry);
/** The source address the module selects for a destination (IPAddr_Drvk_SelectSrcAddr);
 * addresses in network order. */
IPCLIENT_API uint32_t IPAddr_SelectSrcAddr(uint32_t uiDestination, uint16_t usVrf, uint32_t uiIfIndex,
                                           uint32_t uiAddr, uint32_t *puiSource);
/** The entry the module finds for a gateway address, network order (IPAddr_Drvk_SearchGWAddr). */
IPCLIENT_API uint32_t IPAddr_SearchGatewayAddr(uint32_t uiIfIndex, uint32_t uiGateway, uint16_t usVrf,
                                               IPAddrEntry *pstEntry);
/** The interface's prior address among the methods of the mask (IPAddr_Drvk_GetPriorAddrOnIf). */
IPCLIENT_API uint32_t IPAddr_GetPriorAddr(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry *pstEntry);
/** The entry IPAddr_Drvk_GetFwdAddrInVrf reports for a VPN instance. */
IPCLIENT_API uint32_t IPAddr_GetFwdAddrInVrf(uint16_t usVrf, IPAddrEntry *pstEntry);
/** The entry IPAddr_Drvk_GetMaxAddrInVrf reports for a VPN instance and the two words. */
IPCLIENT_API uint32_t IPAddr_GetMaxAddrInVrf(uint16_t usVrf, uint32_t uiWord1, uint32_t uiWord2,
                                             IPAddrEntry *pstEntry);
/** The entry matching an address, network order, and word (IPAddr_Drvk_GetMatchAddrByIP). */
IPCLIENT_API uint32_t IPAddr_GetAddrByIP(uint32_t uiAddr, uint32_t uiWord, IPAddrEntry *pstEntry);
/** The next matching entry, written over the caller's (IPAddr_Drvk_GetNextMatchAddrByIP). */
IPCLIENT_API uint32_t IPAddr_GetNextAddrByIP(uint32_t uiWord, IPAddrEntry *pstEntry);
/** VPN walk: the caller zeroes the entry to start; the entry is the position. The first
 * form checks nothing and calls the second. */
IPCLIENT_API uint32_t IPAddr_GetFirstAddrInVrf(uint16_t usVrf, uint32_t uiWord, IPAddrEntry *pstEntry);
/** The entry after the caller's in the VPN instance, written over it (IPAddr_Drvk_GetNextAddrInVrf). */
IPCLIENT_API uint32_t IPAddr_GetNextAddrInVrf(uint16_t usVrf, uint32_t uiWord, IPAddrEntry *pstEntry);
/** MAC lookup (IPAddr_Drvk_GetMac): pucMac receives 6 bytes, *puiWord the word after them.
 * pucAddr, 12 bytes sent as they stand, may be null. */
IPCLIENT_API uint32_t IPAddr_GetMac(uint32_t uiWord, uint16_t usHalf, uint32_t uiValue, const uint8_t *pucAddr,
                                    uint8_t *pucMac, uint32_t *puiWord);

/* ---- Walks and batches -------------------------------------------------------------------- */

/** An interface's addresses in interface order (plain forms) or IP order: the first forms
 * start the walk, the next forms continue after the caller's entry, which each successful
 * call replaces. The walk ends at the first non-zero status; the entry is then unchanged. */
IPCLIENT_API uint32_t IPAddr_GetFirstAddr(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry *pstEntry);
/** The address after the caller's entry, in interface order. */
IPCLIENT_API uint32_t IPAddr_GetNextAddr(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry *pstEntry);
/** The interface's first address in IP order. */
IPCLIENT_API uint32_t IPAddr_GetFirstAddrIPOrder(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry *pstEntry);
/** The address after the caller's entry, in IP order. */
IPCLIENT_API uint32_t IPAddr_GetNextAddrIPOrder(uint32_t uiIfIndex, uint32_t uiMethodMask, IPAddrEntry *pstEntry);

/** The module's mark of the last batch; the entries are filled all the same. */
#define IPADDR_LAST_BATCH 0x60010023u
/**
 * Up to uiCount entries after pstKey (the first form starts at the beginning). On status 0
 * or IPADDR_LAST_BATCH the entries and *puiCountOut are filled; the status is returned. A
 * count whose buffer would not fit in 32 bits gives 0x40010001; records the module claims
 * beyond the buffer are not read.
 */
IPCLIENT_API uint32_t IPAddr_GetFirstBatchAddr(uint32_t uiIfIndex, uint32_t uiWord, uint32_t uiCount,
                                               IPAddrEntry *pstEntries, uint32_t *puiCountOut);
/** The batch after pstKey (usually the key of the last entry received); the library does not
 * advance the key. */
IPCLIENT_API uint32_t IPAddr_GetNextBatchAddr(uint32_t uiIfIndex, uint32_t uiWord, const IPAddrKey *pstKey,
                                              uint32_t uiCount, IPAddrEntry *pstEntries, uint32_t *puiCountOut);

/**
 * 1 when the address (network order) is a directed broadcast of one of the interface's
 * networks, or is 0 or 255.255.255.255; else 0. /32 and /31 networks have no broadcast
 * address. A module that answers the same entry twice ends the walk.
 */
IPCLIENT_API uint32_t IPAddr_IsBroadcast(uint32_t uiIfIndex, uint32_t uiMethodMask, uint32_t uiAddr);

/* ---- Summary ---------------------------------------------------------------------------- */

/**
 * Writes the IP summary of "Vlan-interface1" and "M-GigabitEthernet0/0/0" (method, address,
 * mask, default gateway) into the buffer, always terminated; 0, or 0x40010001 for a null
 * buffer or a size of 0. Missing interfaces are skipped. The text never runs past the
 * buffer: a block that does not fit is cut.
 */
IPCLIENT_API uint32_t IPAddr_GetIpSummary(uint32_t uiSize, char *pcBuf);

/* ---- Events ----------------------------------------------------------------------------- */

/** Returned by the handlers when the service sent its end signal. */
#define IPADDR_EVENT_END IPSTATUS_EVENT_RESYNC

/** Address callback: event word, the entry (host order, valid during the call only), second
 * and third words, the entry's uiFlag and uiMethod. Its result is ignored. */
typedef uint32_t (*IPADDR_EVPROC_PF)(uint32_t uiEvent, IPAddrEntry *pstEntry, uint32_t uiWord2, uint32_t uiWord3,
                                     uint32_t uiFlag, uint32_t uiMethod);
/** Interface-configuration callback: words C, A, B and half D of a record. Result ignored. */
typedef uint32_t (*IPADDR_IFCFG_PF)(uint32_t uiWordC, uint32_t uiWordA, uint32_t uiWordB, uint16_t usHalfD);

/** The process's address event handler: set by a successful registration, cleared by
 * IPAddr_DeregisterEvent. */
IPCLIENT_API extern IPADDR_EVPROC_PF g_pfIPAddr_EvProc;
/** The process's interface-configuration handler: set by IPAddr_RegIfCfgEvent, cleared by
 * IPAddr_DeregIfCfgEvent. */
IPCLIENT_API extern IPADDR_IFCFG_PF g_pfIFCfg_EvProc;

/** Subscribes to address events on the local node's event port; the event socket, or -1
 * (also while a handler is registered). Mode 1 waits for the service's 4-byte answer. */
IPCLIENT_API int32_t IPAddr_RegisterEventEx(uint32_t uiWord1, uint32_t uiWord2, uint32_t uiWord3, uint32_t uiWord4,
                                            uint32_t uiMode, IPADDR_EVPROC_PF pfCallback);
/** IPAddr_RegisterEventEx in mode 1. */
IPCLIENT_API int32_t IPAddr_RegisterEvent(uint32_t uiWord1, uint32_t uiWord2, uint32_t uiWord3, uint32_t uiWord4,
                                          IPADDR_EVPROC_PF pfCallback);
/** Closes a non-negative event socket and clears the address handler; a negative one does nothing. */
IPCLIENT_API void IPAddr_DeregisterEvent(int32_t iSock);
/**
 * Reads one message without blocking and acts on it: events are delivered in order,
 * keep-alives answered, the end signal returns IPADDR_EVENT_END. 0x40010001 when fewer than
 * 8 bytes came. Only whole 40-byte records inside both the message's length and the bytes
 * received are delivered.
 */
IPCLIENT_API uint32_t IPAddr_HandleEvent(int32_t iSock);
/** Asks for a batch of events (8 bytes, type 2); 0, or 0x40010001 for a negative socket or when not all
 * 8 bytes went. */
IPCLIENT_API uint32_t IPAddr_RequestBatchEvent(int32_t iSock);

/** Interface configuration on the control socket. Registering drops (does not free) the
 * queued messages; 0, or 0x40010001 for a negative socket, a null callback, a handler already
 * registered or a short send (a refused registration leaves the queue as it was). */
IPCLIENT_API uint32_t IPAddr_RegIfCfgEvent(int32_t iSock, uint32_t uiWord, IPADDR_IFCFG_PF pfCallback);
/** While a handler is registered: sends the deregistration with the word, ignores the result
 * and clears the handler. A negative socket does nothing. */
IPCLIENT_API void IPAddr_DeregIfCfgEvent(int32_t iSock, uint32_t uiWord);
/**
 * Handles one queued message if any, else reads one without blocking. Only whole 16-byte
 * records inside both the inner length and the bytes at hand are delivered. A failed read
 * is handled as an empty message (the read buffer starts zeroed) and gives 0.
 */
IPCLIENT_API uint32_t IPAddr_HandleIfCfgMsg(int32_t iSock);
/** Asks for a batch of interface-configuration messages (16 bytes); 0, or 0x40010001 for a negative
 * socket or on a short send. */
IPCLIENT_API uint32_t IPAddr_RequestBatchIfCfg(int32_t iSock);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_IPADDR_H */
