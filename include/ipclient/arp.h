/*
 * ARP client: event subscription and dispatch, entry queries and counters, packet sending,
 * the IPv4 adjacency service's OpenFlow, rule and suppression tables, the layer-2 VPN
 * bridge, and the ARP interface and MAD displays.
 *
 * Kernel requests use command 0x140001 (queries and sending), 0x140002 (interface display)
 * and 0x140004 (OpenFlow counters). Service messages travel on the adjacency message
 * channel (ipclient/adj.h) to port 11537 (IPv4 adjacency service) or 1639 (ARP daemon).
 * Every status is a code of ipclient/status.h; 0x40010001 is the general failure.
 */
#ifndef IPCLIENT_ARP_H
#define IPCLIENT_ARP_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "ipclient/adj.h"
#include "ipclient/api.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/* ---- Event subscription and dispatch ------------------------------------------------------ */
#define ARP_EVENT_TYPE_MAX 20u
#define ARP_EVENT_DATAGRAM_MAX 4096u
#define ARP_EVENT_PASSES 256u
#define ARP_EVENT_ENTRY_LEN 52u

/* Event callback: type (0 to 20), the 52-byte entry in host order (valid during the call
 * only) and the entry's 16-bit field at offset 48. Its result is ignored. */
typedef uint32_t (*ARP_EVENT_PF)(uint32_t uiType, void *pEntry, uint16_t usField48);

/* One open subscription; the list is keyed by descriptor. */
typedef struct ARP_EVENT_PROC_NODE_S {
    struct ARP_EVENT_PROC_NODE_S *pstNext;
    struct ARP_EVENT_PROC_NODE_S **ppstPrev; /* the link that points at this record */
    ARP_EVENT_PF pfCallback;
    int32_t iSocket;
} ARP_EVENT_PROC_NODE_S;

/* The subscriptions, newest first, and the lock that guards the list (taken for writing
 * by registration and deregistration, for reading by event processing to find the
 * callback; callbacks run without it). */
IPCLIENT_API extern ARP_EVENT_PROC_NODE_S *g_stARPEventProcList;
IPCLIENT_API extern pthread_rwlock_t g_stARPEventProcList_rwLock;

/* Batch request of the replay operations. */
typedef struct ARP_BATCH_REQ_S {
    uint32_t uiWordA;
    uint32_t uiWordB;
    uint8_t ucSelector;
    uint32_t uiWordD; /* not sent by ARP_RequestBatchByVsi, which sends 0x0000FFFF */
} ARP_BATCH_REQ_S;

/* Subscribes on the system master's IPv4 adjacency service (time-outs 5 s and 2 s); the
 * descriptor, or -1 with nothing left open. */
IPCLIENT_API int32_t ARP_RegEvent(uint32_t uiFirst, uint32_t uiSecond, ARP_EVENT_PF pfCallback);
/* Forgets the subscription (if registered) and closes the descriptor in any case. */
IPCLIENT_API void ARP_DeregEvent(int32_t iFd);
/*
 * Reads up to 256 datagrams without blocking and calls the callback for each record of
 * type 0 to 20. 0x40010001 for an unregistered descriptor. A record shorter than its 8-byte
 * header or longer than what remains of the datagram ends the datagram.
 */
IPCLIENT_API uint32_t ARP_ProcEvent(int32_t iFd);
/* Reads and delivers one datagram: 0, or 0x40010001 when nothing could be read. */
IPCLIENT_API uint32_t arp_EventProc(int32_t iFd, ARP_EVENT_PF pfCallback);
/* The address is in host order; the scope word is sent as given. */
IPCLIENT_API uint32_t ARP_AddConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope);
IPCLIENT_API uint32_t ARP_DelConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope);
IPCLIENT_API void ARP_RequestBatchEvent(int32_t iFd);
IPCLIENT_API uint32_t ARP_RequestBatchByAc(int32_t iFd, const ARP_BATCH_REQ_S *pstReq);
IPCLIENT_API uint32_t ARP_RequestBatchByVsi(int32_t iFd, const ARP_BATCH_REQ_S *pstReq);
IPCLIENT_API uint32_t ARP_RequestBatchByVlan(int32_t iFd, uint8_t ucSelector, uint16_t usVlan);

/* ---- Entry queries and counters ----------------------------------------------------------- */
#define ARP_ENTRY_LEN 36u
#define ARP_CONF_LEN 112u
#define ARP_SET_ENTRY_LEN 300u
#define ARP_ATTACK_COUNTERS 4u
/* The interface type whose entries the master node resolves to a member interface. */
#define ARP_IFTYPE_AGGREGATE 41u

/* The 36-byte entry as the raw readers return it (network order) and as the converted
 * readers fill it; which fields are converted depends on the reader (see each). */
typedef struct ARP_ENTRY_S {
    uint8_t aucData[ARP_ENTRY_LEN];
} ARP_ENTRY_S;

/* Raw reply of sub-operation 1 (network order): 0, or 0x40010001 for null pointers, a
 * failed request or an empty reply. The address is in network order. */
IPCLIENT_API uint32_t ARP_GetEntry(uint32_t uiKeyB, uint32_t uiAddr, ARP_ENTRY_S *pstEntry);
/* Walk of the table in raw entries: clear the first 8 bytes to start; the next entry is
 * written over the buffer. 0x40010005 at the end or on any failure. */
IPCLIENT_API uint32_t ARP_GetFirstEntry(ARP_ENTRY_S *pstEntry);
IPCLIENT_API uint32_t ARP_GetNextEntry(ARP_ENTRY_S *pstEntry);
/* The entry of an address learnt on an interface, asked at the node that holds it,
 * converted: words at 4, 8, 12, 28 and halves at 22, 24. */
IPCLIENT_API uint32_t arp_GetEntryExtend(uint32_t uiIfIndex, uint32_t uiAddr, ARP_ENTRY_S *pstEntry);
/* The refresh time (the extended entry's word at 28) in *puiTime; the status of the
 * extended read (0 or 0x40010001). */
IPCLIENT_API uint32_t ARP_GetRefreshTime(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t *puiTime);
/* The entry of an address, converted: words at 4, 8, 28, 32 and halves at 12, 14, 16, 24. */
IPCLIENT_API uint32_t ARP_GetEntryByIP(uint32_t uiAddr, ARP_ENTRY_S *pstEntry);
/* Batch dump: the control request's status; the records are the module's. */
IPCLIENT_API uint32_t ARP_GetNextInfoBatch(uint32_t uiKeyA, uint32_t uiKeyB, uint32_t uiCapacity, void *pBuffer,
                                           uint32_t *puiReturnedLen);
/* The 112-byte configuration block as the module sends it. */
IPCLIENT_API uint32_t ARP_GetConf(uint32_t uiLength, void *pBuffer);
/* The first IPv4 address (network order) bound to a hardware address in a VLAN. */
IPCLIENT_API uint32_t ARP_GetFirstIPAddr(uint16_t usVlan, const uint8_t *pucMac, uint32_t *puiAddr);
/* Sends the caller's 300-byte entry to the ARP daemon (node 0x8000, port 1639) and reads a
 * reply of at most 4 bytes. */
IPCLIENT_API uint32_t ARP_SetEntry(const void *pEntry, void *pReply);
IPCLIENT_API uint32_t ARP_DeleteDynamicEntry(uint32_t uiKeyA, uint32_t uiKeyB);
IPCLIENT_API uint32_t ARP_DeleteAuthorizedEntry(uint32_t uiKeyA, uint32_t uiKeyB);
/* Add every node's counters into the caller's (zeroed by the caller). */
IPCLIENT_API void ARP_GetArpAttackStat(uint8_t ucSelector, uint64_t *pulCounters);
IPCLIENT_API void ARP_GetAlarmThresholdStat(uint8_t ucSelector, uint64_t *pulCounter);
/* min(length, 4) bytes of data in a zeroed word, stored as read. */
IPCLIENT_API uint32_t ARP_GetTimeStampFromPData(uint32_t uiLength, const void *pData, uint32_t *puiTime);
/* The value of the element with the given tag in a tag-length-value sequence, at most 8
 * bytes, as a big-endian number (a shorter value fills the high-order bytes). */
IPCLIENT_API uint32_t ARP_GetPDataFromIPCIM(uint32_t uiLength, const void *pData, uint16_t usTag, uint64_t *pulValue);

/* ---- Packet sending ----------------------------------------------------------------------- */
/* The caller's description of a packet to send (60 bytes, host order; addresses in network
 * order). */
typedef struct ARP_SEND_SPECIFY_S {
    uint8_t aucHead[8];
    uint32_t uiIfIndex;  /* also selects the node that sends */
    uint32_t uiWord12;
    uint32_t uiWord16;
    uint16_t usHalf20;
    uint16_t usHalf22;
    uint32_t uiWord24;
    uint32_t uiWord28;
    uint32_t uiWord32;
    uint8_t aucTail[24];
} ARP_SEND_SPECIFY_S;
IPCLIENT_STATIC_ASSERT(sizeof(ARP_SEND_SPECIFY_S) == 60, arp_send_specify_size);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_SEND_SPECIFY_S, uiWord32) == 32, arp_send_specify_word32);

/* Requests sent without waiting to the node that owns the interface; the platform's status
 * is returned when the node cannot be found. Addresses in network order; hardware
 * addresses are 6 bytes or null. */
IPCLIENT_API uint32_t ARP_Request(uint32_t uiIfIndex, uint32_t uiSender, uint32_t uiTarget, const uint8_t *pucMac);
IPCLIENT_API uint32_t ARP_Reply(uint32_t uiIfIndex, uint32_t uiSender, uint32_t uiTarget, const uint8_t *pucMac);
IPCLIENT_API uint32_t ARP_Probe(uint32_t uiIfIndex, uint32_t uiTarget, const uint8_t *pucMac);
IPCLIENT_API uint32_t ARP_RequestWithVlan(uint32_t uiIfIndex, uint16_t usVlan1, uint16_t usVlan2, uint32_t uiWord1,
                                          uint32_t uiWord2, const uint8_t *pucMac1, const uint8_t *pucMac2);
IPCLIENT_API uint32_t ARP_SendSpecify(const ARP_SEND_SPECIFY_S *pstDesc);

/* ---- OpenFlow, rule and suppression tables ------------------------------------------------ */
/* @@ARP-TABLES@@ */

/* ---- Layer-2 VPN bridge ------------------------------------------------------------------- */
/* @@ARP-L2VPN@@ */

/* ---- Interface and MAD display ------------------------------------------------------------ */
/* @@ARP-DISPLAY@@ */

IPCLIENT_END_DECLS

#endif /* IPCLIENT_ARP_H */
