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
/* @@ARP-QUERIES@@ */

/* ---- Packet sending ----------------------------------------------------------------------- */
/* @@ARP-SEND@@ */

/* ---- OpenFlow, rule and suppression tables ------------------------------------------------ */
/* @@ARP-TABLES@@ */

/* ---- Layer-2 VPN bridge ------------------------------------------------------------------- */
/* @@ARP-L2VPN@@ */

/* ---- Interface and MAD display ------------------------------------------------------------ */
/* @@ARP-DISPLAY@@ */

IPCLIENT_END_DECLS

#endif /* IPCLIENT_ARP_H */
