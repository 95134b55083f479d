/**
 * @file
 * ARP client: event subscription and dispatch, entry queries and counters, packet sending,
 * the IPv4 adjacency service's OpenFlow, rule and suppression tables, the layer-2 VPN
 * bridge, and the ARP interface and MAD displays.
 *
 * Kernel requests use command 0x140001 (queries and sending), 0x140002 (interface display)
 * and 0x140004 (OpenFlow counters). Service messages travel on the adjacency message
 * channel (ipclient/adj.h) to port 11537 (IPv4 adjacency service) or 1639 (ARP daemon).
 * Every status is a code of ipclient/status.h; 0x40010001 is the general failure.
 * The event list's lock is a pthread_rwlock_t: compile with POSIX.1-2001 or later.
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
/** Highest event type delivered to the callback; records of higher types are skipped. */
#define ARP_EVENT_TYPE_MAX 20u
/** Largest event datagram read at once, in bytes. */
#define ARP_EVENT_DATAGRAM_MAX 4096u
/** Most datagrams one ARP_ProcEvent call reads. */
#define ARP_EVENT_PASSES 256u
/** Bytes of an event entry; a record is an 8-byte header (BE32 length, BE32 type) and the entry. */
#define ARP_EVENT_ENTRY_LEN 52u

/** Event callback: type (0 to 20), the 52-byte entry in host order (valid during the call
 * only) and the entry's 16-bit field at offset 48. Its result is ignored. */
typedef uint32_t (*ARP_EVENT_PF)(uint32_t uiType, void *pEntry, uint16_t usField48);

/** One open subscription; the list is keyed by descriptor. */
typedef struct ARP_EVENT_PROC_NODE_S {
    struct ARP_EVENT_PROC_NODE_S *pstNext;   /**< the next (older) subscription, null at the end */
    struct ARP_EVENT_PROC_NODE_S **ppstPrev; /**< the link that points at this record */
    ARP_EVENT_PF pfCallback;                 /**< the application's callback, as given */
    int32_t iSocket;                         /**< the subscription's descriptor, the key of the list */
} ARP_EVENT_PROC_NODE_S;

/** The subscriptions, newest first, and the lock that guards the list (taken for writing
 * by registration and deregistration, for reading by event processing to find the
 * callback; callbacks run without it). */
IPCLIENT_API extern ARP_EVENT_PROC_NODE_S *g_stARPEventProcList;
/** The lock that guards g_stARPEventProcList, statically initialised. */
IPCLIENT_API extern pthread_rwlock_t g_stARPEventProcList_rwLock;

/** Batch request of the replay by attachment circuit. */
typedef struct ARP_BATCH_REQ_S {
    uint32_t uiWordA;   /**< sent big-endian at offset 0 */
    uint32_t uiWordB;   /**< sent big-endian at offset 4 */
    uint8_t ucSelector; /**< sent at offset 8, followed by three zero bytes */
    uint32_t uiWordD;   /**< sent big-endian at offset 12 */
} ARP_BATCH_REQ_S;

/** Batch request of the replay by VSI: no word D (0x0000FFFF is sent in its place). */
typedef struct ARP_BATCH_VSI_REQ_S {
    uint32_t uiWordA;   /**< sent big-endian at offset 0 */
    uint32_t uiWordB;   /**< sent big-endian at offset 4 */
    uint8_t ucSelector; /**< sent at offset 8, followed by three zero bytes */
} ARP_BATCH_VSI_REQ_S;

/** Subscribes on the system master's IPv4 adjacency service (time-outs 5 s and 2 s); the
 * descriptor, or -1 with nothing left open. A null callback is allowed: the subscription
 * is kept and ARP_ProcEvent reads nothing for it. */
IPCLIENT_API int32_t ARP_RegEvent(uint32_t uiFirst, uint32_t uiSecond, ARP_EVENT_PF pfCallback);
/** Forgets the subscription (if registered) and closes the descriptor in any case. */
IPCLIENT_API void ARP_DeregEvent(int32_t iFd);
/**
 * Reads up to 256 datagrams without blocking and calls the callback for each record of
 * type 0 to 20. 0x40010001 for an unregistered descriptor. A record shorter than its 8-byte
 * header or longer than what remains of the datagram ends the datagram.
 */
IPCLIENT_API uint32_t ARP_ProcEvent(int32_t iFd);
/** Reads and delivers one datagram: 0, or 0x40010001 when nothing could be read. */
IPCLIENT_API uint32_t arp_EventProc(int32_t iFd, ARP_EVENT_PF pfCallback);
/** Adds a concerned address (message 44, sent without blocking): the send status, 0x40010001 for a
 * negative descriptor. The address is in host order; the scope word is sent as given. */
IPCLIENT_API uint32_t ARP_AddConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope);
/** Withdraws a concerned address (message 45); arguments and statuses as ARP_AddConcernedIP. */
IPCLIENT_API uint32_t ARP_DelConcernedIP(int32_t iFd, uint32_t uiAddr, uint32_t uiScope);
/** Asks for a replay of the whole table (message 52, sent without blocking); a negative descriptor and a
 * failed send are ignored. The replayed entries arrive as events. */
IPCLIENT_API void ARP_RequestBatchEvent(int32_t iFd);
/** Asks for a replay by attachment circuit (message 75, blocking send): the send status, 0x40010001 for a
 * negative descriptor or a null request. */
IPCLIENT_API uint32_t ARP_RequestBatchByAc(int32_t iFd, const ARP_BATCH_REQ_S *pstReq);
/** Asks for a replay by VSI (message 56, blocking send); statuses as ARP_RequestBatchByAc. */
IPCLIENT_API uint32_t ARP_RequestBatchByVsi(int32_t iFd, const ARP_BATCH_VSI_REQ_S *pstReq);
/** Asks for a replay by VLAN (message 98, blocking send): the selector at offset 8 and the VLAN id as a
 * BE32 word at 12. The send status, 0x40010001 for a negative descriptor. */
IPCLIENT_API uint32_t ARP_RequestBatchByVlan(int32_t iFd, uint8_t ucSelector, uint16_t usVlan);

/* ---- Entry queries and counters ----------------------------------------------------------- */
/** Bytes of an ARP entry (ARP_ENTRY_S). */
#define ARP_ENTRY_LEN 36u
/** Bytes of the ARP module's configuration block that ARP_GetConf reads. */
#define ARP_CONF_LEN 112u
/** Bytes of the entry that ARP_SetEntry sends. */
#define ARP_SET_ENTRY_LEN 300u
/** Number of the unsigned 64-bit counters that ARP_GetArpAttackStat adds into. */
#define ARP_ATTACK_COUNTERS 4u
/** The interface type whose entries the master node resolves to a member interface. */
#define ARP_IFTYPE_AGGREGATE 41u

/** The 36-byte entry as the raw readers return it (network order) and as the converted
 * readers fill it; which fields are converted depends on the reader (see each). */
typedef struct ARP_ENTRY_S {
    uint8_t aucData[ARP_ENTRY_LEN]; /**< the entry, in the byte order its reader describes */
} ARP_ENTRY_S;

/** Raw reply of sub-operation 1 (network order): 0, or 0x40010001 for null pointers, a
 * failed request or an empty reply. The address is in network order. */
IPCLIENT_API uint32_t ARP_GetEntry(uint32_t uiKeyB, uint32_t uiAddr, ARP_ENTRY_S *pstEntry);
/** Walk of the table in raw entries: clear the first 8 bytes to start; the next entry is
 * written over the buffer. 0x40010005 at the end or on any failure. */
IPCLIENT_API uint32_t ARP_GetFirstEntry(ARP_ENTRY_S *pstEntry);
/** The entry after the one named by the buffer's first 8 bytes (sub-operation 7), written over the
 * buffer: 0, 0x40010005 at the end of the table or on failure, 0x40010001 for a null buffer. */
IPCLIENT_API uint32_t ARP_GetNextEntry(ARP_ENTRY_S *pstEntry);
/** The entry of an address learnt on an interface, asked at the node that holds it,
 * converted: words at 4, 8, 12, 28 and halves at 22, 24. */
IPCLIENT_API uint32_t arp_GetEntryExtend(uint32_t uiIfIndex, uint32_t uiAddr, ARP_ENTRY_S *pstEntry);
/** The refresh time (the extended entry's word at 28) in *puiTime; the status of the
 * extended read (0 or 0x40010001). */
IPCLIENT_API uint32_t ARP_GetRefreshTime(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t *puiTime);
/** Offset of the outgoing interface (u32, host order) in ARP_GetEntryByIP's entry; the
 * address is at 0, in network order. */
#define ARP_BYIP_IFINDEX_OFFSET 4u
/** Offset of the neighbour's MAC (6 bytes) in ARP_GetEntryByIP's entry. */
#define ARP_BYIP_MAC_OFFSET 18u
/** Offset of the state (u16, host order) in ARP_GetEntryByIP's entry: 0 incomplete,
 * 1 reachable, 2 stale, 3 delay, 4 probe. */
#define ARP_BYIP_STATE_OFFSET 24u
/** The entry of an address, converted: words at 4, 8, 28, 32 and halves at 12, 14, 16, 24. */
IPCLIENT_API uint32_t ARP_GetEntryByIP(uint32_t uiAddr, ARP_ENTRY_S *pstEntry);
/** Batch dump: the control request's status; the records are the module's. */
IPCLIENT_API uint32_t ARP_GetNextInfoBatch(uint32_t uiKeyA, uint32_t uiKeyB, uint32_t uiCapacity, void *pBuffer,
                                           uint32_t *puiReturnedLen);
/** The 112-byte configuration block as the module sends it. */
IPCLIENT_API uint32_t ARP_GetConf(uint32_t uiLength, void *pBuffer);
/** The first IPv4 address (network order) bound to a hardware address in a VLAN. */
IPCLIENT_API uint32_t ARP_GetFirstIPAddr(uint16_t usVlan, const uint8_t *pucMac, uint32_t *puiAddr);
/** Sends the caller's 300-byte entry to the ARP daemon (node 0x8000, port 1639) and reads a
 * reply of at most 4 bytes. */
IPCLIENT_API uint32_t ARP_SetEntry(const void *pEntry, void *pReply);
/** Deletes a dynamic entry (sub-operation 0, sent without waiting; both keys as given): the status
 * of the asynchronous request. */
IPCLIENT_API uint32_t ARP_DeleteDynamicEntry(uint32_t uiKeyA, uint32_t uiKeyB);
/** Deletes an authorized entry (sub-operation 9), as ARP_DeleteDynamicEntry. */
IPCLIENT_API uint32_t ARP_DeleteAuthorizedEntry(uint32_t uiKeyA, uint32_t uiKeyB);
/** Add every node's counters into the caller's (zeroed by the caller). */
IPCLIENT_API void ARP_GetArpAttackStat(uint8_t ucSelector, uint64_t *pulCounters);
/** Adds the alarm-threshold counter (sub-operation 37) of every node that is up into *pulCounter; only
 * 8-byte replies count. */
IPCLIENT_API void ARP_GetAlarmThresholdStat(uint8_t ucSelector, uint64_t *pulCounter);
/** min(length, 4) bytes of data in a zeroed word, stored as read. */
IPCLIENT_API uint32_t ARP_GetTimeStampFromPData(uint32_t uiLength, const void *pData, uint32_t *puiTime);
/** The value of the element with the given tag in a tag-length-value sequence, at most 8
 * bytes, as a big-endian number (a shorter value fills the high-order bytes). */
IPCLIENT_API uint32_t ARP_GetPDataFromIPCIM(uint32_t uiLength, const void *pData, uint16_t usTag, uint64_t *pulValue);

/* ---- Packet sending ----------------------------------------------------------------------- */
/** The caller's description of a packet to send (60 bytes, host order; addresses in network
 * order). */
typedef struct ARP_SEND_SPECIFY_S {
    uint8_t aucHead[8];  /**< 0: sent as given */
    uint32_t uiIfIndex;  /**< also selects the node that sends */
    uint32_t uiWord12;   /**< 12: converted */
    uint32_t uiWord16;   /**< 16: converted */
    uint16_t usHalf20;   /**< 20: converted */
    uint16_t usHalf22;   /**< 22: converted */
    uint32_t uiWord24;   /**< 24: converted */
    uint32_t uiWord28;   /**< 28: converted */
    uint32_t uiWord32;   /**< 32: converted */
    uint8_t aucTail[24]; /**< 36: sent as given */
} ARP_SEND_SPECIFY_S;
IPCLIENT_STATIC_ASSERT(sizeof(ARP_SEND_SPECIFY_S) == 60, arp_send_specify_size);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_SEND_SPECIFY_S, uiWord32) == 32, arp_send_specify_word32);

/** Requests sent without waiting to the node that owns the interface; the platform's status
 * is returned when the node cannot be found. Addresses in network order; hardware
 * addresses are 6 bytes or null. */
IPCLIENT_API uint32_t ARP_Request(uint32_t uiIfIndex, uint32_t uiSender, uint32_t uiTarget, const uint8_t *pucMac);
/** An ARP reply (sub-operation 3), with the arguments of ARP_Request (sub-operation 2). */
IPCLIENT_API uint32_t ARP_Reply(uint32_t uiIfIndex, uint32_t uiSender, uint32_t uiTarget, const uint8_t *pucMac);
/** An ARP probe (sub-operation 33): a request whose sender address is 0. */
IPCLIENT_API uint32_t ARP_Probe(uint32_t uiIfIndex, uint32_t uiTarget, const uint8_t *pucMac);
/** A request with two VLAN ids (sub-operation 21): the VLAN ids are sent big-endian, the two address
 * words as given, and each hardware address (or zeros) with a flag telling it was given. */
IPCLIENT_API uint32_t ARP_RequestWithVlan(uint32_t uiIfIndex, uint16_t usVlan1, uint16_t usVlan2, uint32_t uiWord1,
                                          uint32_t uiWord2, const uint8_t *pucMac1, const uint8_t *pucMac2);
/** Sends the caller's description (sub-operation 22), its fields converted to network order as it is
 * copied; 0x40010001 for a null description. */
IPCLIENT_API uint32_t ARP_SendSpecify(const ARP_SEND_SPECIFY_S *pstDesc);

/* ---- OpenFlow, rule and suppression tables ------------------------------------------------ */
/*
 * The IPv4 adjacency service keeps tables that applications own: OpenFlow entries, rules,
 * VSI and VLAN suppression entries. An owner drives each table in one order:
 *   connect, smooth start, refresh every entry it holds, smooth end, then single refreshes
 *   and deletes as its state changes, and finally disconnect.
 * The smooth pair brackets a full resend so that the service can tell a complete table
 * from a partial one; entries of the bracketed scope that were not resent are the
 * service's to drop. Rule smooth messages are scoped by class and owner value, VSI smooth
 * messages by class; the OpenFlow and VLAN smooth messages carry no payload.
 *
 * All messages travel on a connection from ARP_OpenFlowConnect or ARP_RuleConnect (port
 * 11537). Refresh, delete and smooth messages go with send flags 256, count 1, and get no
 * reply; the OpenFlow entry messages are the exception: they go without blocking, carry
 * their entry count and are answered with a 4-byte status. A negative descriptor, a null
 * required pointer or an out-of-range argument gives 0x40010001 before anything is sent;
 * otherwise the send status of ADJ4_Send is returned.
 */
/** Port of the IPv4 adjacency service that keeps the OpenFlow, rule and suppression tables. */
#define ARP_TABLE_PORT 11537u
/** The version that ARP_OpenFlowConnect reports. */
#define ARP_OPENFLOW_VERSION 6u
/** Bytes of the message header in front of the OpenFlow entries (type, reserved, BE16 length, BE16 n). */
#define ARP_OPENFLOW_HEAD_LEN 6u
/** Bytes of one OpenFlow entry (ARP_OPENFLOW_ENTRY_S). */
#define ARP_OPENFLOW_ENTRY_LEN 40u
/** Most entries one OpenFlow message carries: n x 40 must fit the 16-bit payload length. */
#define ARP_OPENFLOW_ENTRY_MAX 1638u
/** Bytes of the caller's buffer for n OpenFlow entries: the header's room, then the entries. */
#define ARP_OPENFLOW_BUF_LEN(n) (ARP_OPENFLOW_HEAD_LEN + (n) * ARP_OPENFLOW_ENTRY_LEN)
/** Highest rule class: ARP_RULE_S ucClass and the rule smooth messages. */
#define ARP_RULE_CLASS_MAX 8u
/** Highest value of ARP_RULE_S ucKind. */
#define ARP_RULE_KIND_MAX 6u
/** Largest roaming detection payload, header and records, in bytes. */
#define ARP_ROAMING_MSG_MAX 4096u
/** Bytes of the roaming detection header. */
#define ARP_ROAMING_HEAD_LEN 12u
/** Bytes of one roaming detection record. */
#define ARP_ROAMING_RECORD_LEN 8u

/**
 * One OpenFlow entry in host order, as the caller lays it into its buffer at byte
 * 6 + i x 40 (copy it in: the buffer offers no alignment). Fields are named by offset;
 * their meaning is the service's. The address at offset 4 and the bytes at 12 and 34 are
 * sent as they stand, every other field is converted to big-endian in place.
 */
typedef struct ARP_OPENFLOW_ENTRY_S {
    uint32_t uiField0;        /**< converted */
    uint32_t uiAddr;          /**< network order, sent as given */
    uint32_t uiField8;        /**< converted */
    uint8_t aucField12[6];    /**< sent as given */
    uint16_t usField18;       /**< converted */
    uint32_t uiField20;       /**< converted */
    uint32_t uiField24;       /**< converted */
    uint16_t usField28;       /**< converted */
    uint16_t usField30;       /**< converted */
    uint16_t usField32;       /**< converted */
    uint8_t aucField34[2];    /**< sent as given */
    uint32_t uiField36;       /**< converted */
} ARP_OPENFLOW_ENTRY_S;
IPCLIENT_STATIC_ASSERT(sizeof(ARP_OPENFLOW_ENTRY_S) == 40, arp_openflow_entry_size);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_OPENFLOW_ENTRY_S, aucField12) == 12, arp_openflow_entry_off12);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_OPENFLOW_ENTRY_S, usField18) == 18, arp_openflow_entry_off18);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_OPENFLOW_ENTRY_S, uiField20) == 20, arp_openflow_entry_off20);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_OPENFLOW_ENTRY_S, usField28) == 28, arp_openflow_entry_off28);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_OPENFLOW_ENTRY_S, aucField34) == 34, arp_openflow_entry_off34);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_OPENFLOW_ENTRY_S, uiField36) == 36, arp_openflow_entry_off36);

/** A rule in host order; the 52-byte message payload is this structure converted. */
typedef struct ARP_RULE_S {
    uint32_t uiAddr;          /**< network order, sent as given; must not be 0 */
    uint32_t uiIfIndex;       /**< must be a valid interface */
    uint32_t uiField8;        /**< converted */
    uint32_t uiField12;       /**< converted */
    uint16_t usField16;       /**< converted */
    uint16_t usField18;       /**< converted */
    uint16_t usField20;       /**< converted */
    uint8_t aucField22[6];    /**< sent as given */
    uint8_t ucKind;           /**< at most 6 */
    uint8_t ucClass;          /**< at most 8; the class of the smooth messages */
    uint8_t aucField30[2];    /**< sent as given */
    uint32_t uiField32;       /**< converted */
    uint32_t uiField36;       /**< converted */
    uint32_t uiField40;       /**< converted */
    uint32_t uiField44;       /**< converted */
    uint16_t usField48;       /**< converted */
    uint8_t aucField50[2];    /**< sent as given */
} ARP_RULE_S;
IPCLIENT_STATIC_ASSERT(sizeof(ARP_RULE_S) == 52, arp_rule_size);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_RULE_S, aucField22) == 22, arp_rule_off22);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_RULE_S, ucKind) == 28, arp_rule_off28);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_RULE_S, ucClass) == 29, arp_rule_off29);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_RULE_S, uiField32) == 32, arp_rule_off32);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_RULE_S, usField48) == 48, arp_rule_off48);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_RULE_S, aucField50) == 50, arp_rule_off50);

/** A VSI suppression entry (32 bytes, the size of four 64-bit words) in host order. The
 * words at 0, 4, 20 and 24 are converted; bytes 8 to 19 and 28 to 31 are sent as given. */
typedef struct ARP_VSI_SUP_ENTRY_S {
    uint32_t uiFirst;         /**< what ARP_DeleteVsiSupEntry names as its first argument */
    uint32_t uiField4;        /**< converted */
    uint32_t uiSecond;        /**< sent as given; the delete's second argument */
    uint8_t aucField12[8];    /**< sent as given */
    uint32_t uiField20;       /**< converted */
    uint32_t uiField24;       /**< converted */
    uint8_t ucClass;          /**< the class of the smooth messages */
    uint8_t aucField29[3];    /**< sent as given */
} ARP_VSI_SUP_ENTRY_S;
IPCLIENT_STATIC_ASSERT(sizeof(ARP_VSI_SUP_ENTRY_S) == 32, arp_vsi_sup_entry_size);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_VSI_SUP_ENTRY_S, uiSecond) == 8, arp_vsi_sup_entry_off8);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_VSI_SUP_ENTRY_S, uiField20) == 20, arp_vsi_sup_entry_off20);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_VSI_SUP_ENTRY_S, ucClass) == 28, arp_vsi_sup_entry_off28);

/** A VLAN suppression entry (16 bytes) in host order. */
typedef struct ARP_VLAN_SUP_ENTRY_S {
    uint32_t uiFirst;         /**< sent as given; the delete's first argument */
    uint32_t uiField4;        /**< converted */
    uint16_t usVlan;          /**< the VLAN id, converted; the delete's second argument */
    uint8_t aucField10[6];    /**< sent as given */
} ARP_VLAN_SUP_ENTRY_S;
IPCLIENT_STATIC_ASSERT(sizeof(ARP_VLAN_SUP_ENTRY_S) == 16, arp_vlan_sup_entry_size);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_VLAN_SUP_ENTRY_S, usVlan) == 8, arp_vlan_sup_entry_off8);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_VLAN_SUP_ENTRY_S, aucField10) == 10, arp_vlan_sup_entry_off10);

/** OpenFlow table: a connection to the local node's service (send time-out 5 s, no receive
 * time-out), or -1. *puiVersion is set to 6 whenever the pointer is given, also when no
 * connection could be opened; a null pointer gives -1 without opening. */
IPCLIENT_API int32_t ARP_OpenFlowConnect(uint32_t *puiVersion);
/** Closes the descriptor; a negative one is ignored. */
IPCLIENT_API void ARP_OpenFlowDisconnect(int32_t iFd);
/**
 * Write the 6-byte header into pBuf (type; byte 1 left as it is; n x 40; n), convert the
 * n host-order entries that follow in place, send 6 + n x 40 bytes in one non-blocking
 * send and, if all of it went, wait for the service's 4-byte status (bytes not received
 * read as zero) and return it. A failed or short send returns 0: a lost batch shows only
 * through ARP_OpenFlowVerify. 0x40010001 without touching the buffer for a negative
 * descriptor, a null buffer or more than 1638 entries. n = 0 sends the header alone.
 */
IPCLIENT_API uint32_t ARP_RefreshOpenFlowEntry(int32_t iFd, void *pBuf, uint32_t uiCount);
/** Deletes the entries: as ARP_RefreshOpenFlowEntry, with message type 43 instead of 42. */
IPCLIENT_API uint32_t ARP_DeleteOpenFlowEntry(int32_t iFd, void *pBuf, uint32_t uiCount);
/**
 * A barrier: sends the verify message (type 53, 48 zero bytes; a blocking send repeated on
 * EINTR) and returns once the service's verify end (type 54) has been read, when the send
 * failed or went short, or when the first read finds the connection closed or fails with
 * anything but EINTR. Messages of other types are consumed while waiting; a read that
 * times out later in the wait is repeated. A connection that closes, or a read that fails
 * otherwise, after the wait has begun also ends it: nothing can arrive any more.
 */
IPCLIENT_API void ARP_OpenFlowVerify(int32_t iFd);
/** Smooth start of the OpenFlow table (type 63, no payload): the send status, 0x40010001 for a negative
 * descriptor. */
IPCLIENT_API uint32_t ARP_OpenFlowSmoothStart(int32_t iFd);
/** Smooth end of the OpenFlow table (type 64, no payload), as ARP_OpenFlowSmoothStart. */
IPCLIENT_API uint32_t ARP_OpenFlowSmoothEnd(int32_t iFd);
/** Number of ARP entries installed by OpenFlow, from the kernel ARP module of the system
 * master endpoint's node (command 0x140004). The module's status passes through; a reply
 * too short to hold the count (8 bytes) is 0x40010005 and leaves *puiCount as it was. */
IPCLIENT_API uint32_t ARP_DisOpenFlowArpCount(uint32_t *puiCount);

/** Rule, VSI and VLAN tables: a connection to the system master endpoint's service, no
 * time-outs, or -1. */
IPCLIENT_API int32_t ARP_RuleConnect(void);
/** Closes the descriptor; a negative one is ignored. */
IPCLIENT_API void ARP_RuleDisconnect(int32_t iFd);
/** 0x40010001 without sending for a class above 8, a kind above 6, an interface that is not
 * valid or address 0. */
IPCLIENT_API uint32_t ARP_RefreshRule(int32_t iFd, const ARP_RULE_S *pstRule);
/** The address as given (network order), the interface index and the class; neither is
 * checked here, a rule the service does not hold is its to ignore. */
IPCLIENT_API uint32_t ARP_DeleteRule(int32_t iFd, uint32_t uiIfIndex, uint32_t uiAddr, uint8_t ucClass);
/** Smooth start of the rules of a class and owner (type 32; payload BE16 owner, class, zero byte).
 * 0x40010001 without sending for a class above 8. */
IPCLIENT_API uint32_t ARP_RuleSmoothStart(int32_t iFd, uint8_t ucClass, uint16_t usOwner);
/** Smooth end of the rules of a class and owner (type 33), as ARP_RuleSmoothStart. */
IPCLIENT_API uint32_t ARP_RuleSmoothEnd(int32_t iFd, uint8_t ucClass, uint16_t usOwner);

/** Adds or updates a VSI suppression entry (type 48); 0x40010001 without sending for a null entry. */
IPCLIENT_API uint32_t ARP_RefreshVsiSupEntry(int32_t iFd, const ARP_VSI_SUP_ENTRY_S *pstEntry);
/** uiSecond is sent as given (network order); the class is not range-checked. */
IPCLIENT_API uint32_t ARP_DeleteVsiSupEntry(int32_t iFd, uint32_t uiFirst, uint32_t uiSecond, uint8_t ucClass);
/** Smooth start of the VSI suppression entries of a class (type 50; the class is not range-checked). */
IPCLIENT_API uint32_t ARP_VsiSupEntrySmoothStart(int32_t iFd, uint8_t ucClass);
/** Smooth end of the VSI suppression entries of a class (type 51). */
IPCLIENT_API uint32_t ARP_VsiSupEntrySmoothEnd(int32_t iFd, uint8_t ucClass);

/** Adds or updates a VLAN suppression entry (type 94); 0x40010001 without sending for a null entry. */
IPCLIENT_API uint32_t ARP_VlanSupRefreshEntry(int32_t iFd, const ARP_VLAN_SUP_ENTRY_S *pstEntry);
/** uiFirst is sent as given. */
IPCLIENT_API uint32_t ARP_VlanSupDeleteEntry(int32_t iFd, uint32_t uiFirst, uint16_t usVlan);
/** Smooth start of the VLAN suppression entries (type 96, no payload). */
IPCLIENT_API uint32_t ARP_VlanSupEntrySmoothStart(int32_t iFd);
/** Smooth end of the VLAN suppression entries (type 97, no payload). */
IPCLIENT_API uint32_t ARP_VlanSupEntrySmoothEnd(int32_t iFd);

/**
 * Roaming detection records (n records of 8 bytes, usDataLen bytes in all) under a 12-byte
 * header: BE16 12, zero, BE16 total, BE16 usDataLen / n, BE16 n, BE16 usDataLen. The count
 * is taken modulo 8192 in the length check, so n = 8193 with 8 bytes passes and is sent as
 * given. 0x40010001 for a zero length, a negative descriptor, null records, a message above
 * 4096 bytes or (n mod 8192) x 8 != usDataLen.
 */
IPCLIENT_API uint32_t ARP_RoamingDetection(int32_t iFd, const void *pRecords, uint16_t usDataLen, uint16_t usCount);

/**
 * Suppression switches: one exchange (message type 0, 24-byte request, time-outs 5 s and
 * 5 s, send flags 64) with the ARP daemon (node 0x8000, port 1639) or, for the VLAN query,
 * the IPv4 adjacency service (node 0x8000, port 11537). A failed exchange returns its
 * status; a reply shorter than the word it must hold (4 bytes; 16 for the VLAN query) is
 * 0x40010001 and leaves the output as it was. The sets return the service's reply word;
 * the gets store it and return 0. Only enable = 1 switches on; any other value switches off.
 */
IPCLIENT_API uint32_t ARP_SetEviSuppression(uint32_t uiEnable, uint32_t uiInstance); /**< instance 0 refused */
/** The EVI suppression state of an instance (request code 71) into *puiState; a null output refused. */
IPCLIENT_API uint32_t ARP_GetEviSuppression(uint32_t uiInstance, uint32_t *puiState);
/** Switches overlay suppression on an interface (request code 74); interface 0xFFFFFFFF refused. */
IPCLIENT_API uint32_t ARP_SetOverlaySuppression(uint32_t uiIfIndex, uint32_t uiEnable);
/** The overlay suppression state of an interface (request code 83) into *puiState; interface
 * 0xFFFFFFFF and a null output refused. */
IPCLIENT_API uint32_t ARP_GetOverlaySuppression(uint32_t uiIfIndex, uint32_t *puiState);
/** VLAN 0xFFFF and a null output refused; the state is reply bytes 12 to 15. */
IPCLIENT_API uint32_t ARP_GetVlanSuppression(uint16_t usVlan, uint32_t *puiState);

/* ---- Layer-2 VPN bridge ------------------------------------------------------------------- */
/*
 * The layer-2 VPN library is not linked: ARP_L2VPNAddRef loads it at run time from
 * L2VPN_LIBRARY_PATH (lazy binding) and fills a caller-owned table with its 31 entry
 * points; ARP_L2VPNRelease unloads it. The VSI predicates below answer through that table.
 *
 * The table and the two records the library produces are declared here once; the ND
 * client's VSI predicates take the same table (filled by ARP_L2VPNAddRef) and records, and
 * the ND header includes this one for them (IPCLIENT_L2VPN_TYPES tells they are declared).
 */
/** Defined once the layer-2 VPN table and records are declared (the ND header tests it). */
#define IPCLIENT_L2VPN_TYPES 1
/** Where ARP_L2VPNAddRef loads the layer-2 VPN library from. */
#define L2VPN_LIBRARY_PATH "/lib/libl2vpn.so"
/** Entry points of the layer-2 VPN library, one slot each in ARP_L2VPN_FUNC_S. */
#define L2VPN_FUNC_COUNT 31u
#define L2VPN_VSI_INDEX_NONE 0xFFFFFFFFu /**< VSI index of no VSI */
#define L2VPN_VSI_IF_NONE 0xFFFFFFFFu    /**< number of a VSI's interface: it has none */
#define L2VPN_LINK_ID_NONE 65535u        /**< link id of no link */
/** Bytes of the VSI information record (L2VPN_VSI_INFO_S). */
#define L2VPN_VSI_INFO_SIZE 168u
#define L2VPN_VSI_IF_NAME_SIZE 48u       /**< bytes of the buffer for a VSI's interface name, Vsi-interfaceN */

/** VSI information (168 bytes). Only the two words named are read here; the other bytes
 * are the library's own. The record is cleared before every call. */
typedef struct L2VPN_VSI_INFO_S {
    uint32_t uiVsiIndex;          /**< 0 */
    uint8_t aucLibrary4[64];      /**< 4 to 67 */
    uint32_t uiVsiIfNumber;       /**< 68: the number N of the VSI's Vsi-interfaceN, or
                                     L2VPN_VSI_IF_NONE */
    uint8_t aucLibrary72[96];     /**< 72 to 167 */
} L2VPN_VSI_INFO_S;
IPCLIENT_STATIC_ASSERT(sizeof(L2VPN_VSI_INFO_S) == L2VPN_VSI_INFO_SIZE, l2vpn_vsi_info_size);
IPCLIENT_STATIC_ASSERT(offsetof(L2VPN_VSI_INFO_S, uiVsiIndex) == 0, l2vpn_vsi_info_index);
IPCLIENT_STATIC_ASSERT(offsetof(L2VPN_VSI_INFO_S, uiVsiIfNumber) == 68, l2vpn_vsi_info_if);

/** Key of a layer-2 virtual interface (8 bytes; read as one 64-bit word, the VSI index is
 * its low half on this little-endian host). Cleared before every call. */
typedef struct L2VPN_L2VIF_KEY_S {
    uint32_t uiVsiIndex; /**< 0: L2VPN_VSI_INDEX_NONE when the circuit is in no VSI */
    uint32_t uiLinkId;   /**< 4: L2VPN_LINK_ID_NONE when it has no link */
} L2VPN_L2VIF_KEY_S;
IPCLIENT_STATIC_ASSERT(sizeof(L2VPN_L2VIF_KEY_S) == 8, l2vpn_l2vif_key_size);
IPCLIENT_STATIC_ASSERT(offsetof(L2VPN_L2VIF_KEY_S, uiLinkId) == 4, l2vpn_l2vif_key_link);

/**
 * Entry points. The argument lists belong to the layer-2 VPN library; the slots this
 * library and the ND client call are typed as they call them, every other slot holds the
 * generic L2VPN_FUNC_PF, to be cast to the library's own type before a call. All return
 * 0 for success unless stated.
 *  - GetVsiInfoByName: the VSI named pcVsiName; fills *pstInfo.
 *  - GetVsiIndexByName: the VSI named pcVsiName, asked on behalf of interface uiIfIndex;
 *    fills *pstInfo.
 *  - GetL2vifKeyByEvcKey: the attachment circuit whose EVC key (the library's record,
 *    passed through untouched) is pEvcKey; fills *pstKey. uiVsiIndex is the VSI the caller
 *    asks about, L2VPN_VSI_INDEX_NONE when it has none in hand.
 *  - GetVxlanByVsiIndex: the VXLAN id of a VSI, 0xFFFFFFFF for none (not a status).
 */
typedef void (*L2VPN_FUNC_PF)(void);
/** Slot 16, GetVsiInfoByName: fills *pstInfo for the VSI named pcVsiName; 0 for success. */
typedef uint32_t (*L2VPN_GET_VSI_INFO_PF)(const char *pcVsiName, L2VPN_VSI_INFO_S *pstInfo);
/** Slot 13, GetVsiIndexByName: fills *pstInfo for the VSI named pcVsiName, asked for uiIfIndex. */
typedef uint32_t (*L2VPN_GET_VSI_INDEX_PF)(const char *pcVsiName, L2VPN_VSI_INFO_S *pstInfo, uint32_t uiIfIndex);
/** Slot 22, GetL2vifKeyByEvcKey: fills *pstKey for the circuit of pEvcKey; 0 for success. */
typedef uint32_t (*L2VPN_GET_L2VIF_KEY_PF)(const void *pEvcKey, L2VPN_L2VIF_KEY_S *pstKey, uint32_t uiVsiIndex);
/** Slot 24, GetVxlanByVsiIndex: the VXLAN id of the VSI, 0xFFFFFFFF for none. */
typedef uint32_t (*L2VPN_GET_VXLAN_PF)(uint32_t uiVsiIndex);

/** The table: one pointer-sized slot per entry point, filled in this fixed order (slot n
 * at offset n x the size of a pointer); applications that hold it depend on the order. */
typedef struct ARP_L2VPN_FUNC_S {
    L2VPN_FUNC_PF pfInit;                          /**<  0 L2VPN_Init */
    L2VPN_FUNC_PF pfFini;                          /**<  1 L2VPN_Fini */
    L2VPN_FUNC_PF pfRegister;                      /**<  2 L2VPN_Register */
    L2VPN_FUNC_PF pfDeregister;                    /**<  3 L2VPN_Deregister */
    L2VPN_FUNC_PF pfHandleMsg;                     /**<  4 L2VPN_HandleMsg */
    L2VPN_FUNC_PF pfFinalStatusNotify;             /**<  5 L2VPN_FinalStatusNotify */
    L2VPN_FUNC_PF pfRequestBatch;                  /**<  6 L2VPN_RequestBatch */
    L2VPN_FUNC_PF pfGetVsiIndexByXcgName;          /**<  7 L2VPN_GetVsiIndexByXcgName */
    L2VPN_FUNC_PF pfGetXcgNameByVsiIndex;          /**<  8 L2VPN_GetXcgNameByVsiIndex */
    L2VPN_FUNC_PF pfXConnOpen;                     /**<  9 L2VPN_XConnOpen */
    L2VPN_FUNC_PF pfXConnClose;                    /**< 10 L2VPN_XConnClose */
    L2VPN_FUNC_PF pfGetFirstXConnByXcgName;        /**< 11 L2VPN_GetFirstXConnByXcgName */
    L2VPN_FUNC_PF pfGetNextXConnByXcgName;         /**< 12 L2VPN_GetNextXConnByXcgName */
    L2VPN_GET_VSI_INDEX_PF pfGetVsiIndexByName;    /**< 13 L2VPN_GetVsiIndexByName */
    L2VPN_FUNC_PF pfGetNextVsiByName;              /**< 14 L2VPN_GetNextVsiByName */
    L2VPN_FUNC_PF pfGetNameByVsiIndex;             /**< 15 L2VPN_GetNameByVsiIndex */
    L2VPN_GET_VSI_INFO_PF pfGetVsiInfoByName;      /**< 16 L2VPN_GetVsiInfoByName */
    L2VPN_FUNC_PF pfRegEvcEvent;                   /**< 17 L2VPN_RegEvcEvent */
    L2VPN_FUNC_PF pfDeregEvcEvent;                 /**< 18 L2VPN_DeregEvcEvent */
    L2VPN_FUNC_PF pfRegL2vifEvent;                 /**< 19 L2VPN_RegL2vifEvent */
    L2VPN_FUNC_PF pfDeregL2vifEvent;               /**< 20 L2VPN_DeregL2vifEvent */
    L2VPN_FUNC_PF pfSelectTypeSet;                 /**< 21 L2VPN_SelectType_Set */
    L2VPN_GET_L2VIF_KEY_PF pfGetL2vifKeyByEvcKey;  /**< 22 L2VPN_GetL2vifKeyByEvcKey */
    L2VPN_FUNC_PF pfGetEvcEncap;                   /**< 23 L2VPN_GetEvcEncap */
    L2VPN_GET_VXLAN_PF pfGetVxlanByVsiIndex;       /**< 24 L2VPN_GetVxlanByVsiIndex */
    L2VPN_FUNC_PF pfGetVsiIndexByNameExt;          /**< 25 L2VPN_GetVsiIndexByNameExt */
    L2VPN_FUNC_PF pfGetVsiIFByVsiIndex;            /**< 26 L2VPN_GetVsiIFByVsiIndex */
    L2VPN_FUNC_PF pfGetL2vifInfo;                  /**< 27 L2VPN_GetL2vifInfo */
    L2VPN_FUNC_PF pfIsTunnelInVsi;                 /**< 28 L2VPN_IsTunnelInVsi */
    L2VPN_FUNC_PF pfGetAcByPortVlanAndEncapTypeExt; /**< 29 L2VPN_GetAcByPortVlanAndEncapTypeExt */
    L2VPN_FUNC_PF pfGetVlanVxlanMappingByVlan;     /**< 30 L2VPN_GetVlanVxlanMappingByVlan */
} ARP_L2VPN_FUNC_S;
/** Byte offset of slot n in ARP_L2VPN_FUNC_S. */
#define ARP_L2VPN_SLOT_OFFSET(n) ((n) * sizeof(L2VPN_FUNC_PF))
IPCLIENT_STATIC_ASSERT(sizeof(ARP_L2VPN_FUNC_S) == ARP_L2VPN_SLOT_OFFSET(L2VPN_FUNC_COUNT), arp_l2vpn_size);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfInit) == ARP_L2VPN_SLOT_OFFSET(0), arp_l2vpn_slot0);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfRequestBatch) == ARP_L2VPN_SLOT_OFFSET(6), arp_l2vpn_slot6);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfGetNextXConnByXcgName) == ARP_L2VPN_SLOT_OFFSET(12),
                       arp_l2vpn_slot12);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfGetVsiIndexByName) == ARP_L2VPN_SLOT_OFFSET(13),
                       arp_l2vpn_slot13);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfGetNameByVsiIndex) == ARP_L2VPN_SLOT_OFFSET(15),
                       arp_l2vpn_slot15);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfGetVsiInfoByName) == ARP_L2VPN_SLOT_OFFSET(16),
                       arp_l2vpn_slot16);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfSelectTypeSet) == ARP_L2VPN_SLOT_OFFSET(21),
                       arp_l2vpn_slot21);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfGetL2vifKeyByEvcKey) == ARP_L2VPN_SLOT_OFFSET(22),
                       arp_l2vpn_slot22);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfGetVxlanByVsiIndex) == ARP_L2VPN_SLOT_OFFSET(24),
                       arp_l2vpn_slot24);
IPCLIENT_STATIC_ASSERT(offsetof(ARP_L2VPN_FUNC_S, pfGetVlanVxlanMappingByVlan) == ARP_L2VPN_SLOT_OFFSET(30),
                       arp_l2vpn_slot30);

/**
 * Sets *ppHandle to null, loads the library and resolves the 31 symbols in slot order:
 * 0 when all resolve; 0x40010005 when the library cannot be loaded (*ppHandle stays null,
 * the table is untouched);
 * 0x40010009 when a symbol is missing: its slot is null, the others are filled, and the
 * library stays loaded in *ppHandle for the caller to release. A null table or handle
 * pointer gives 0x40010001 before anything is loaded.
 */
IPCLIENT_API uint32_t ARP_L2VPNAddRef(ARP_L2VPN_FUNC_S *pstFunc, void **ppHandle);
/** Unloads a handle of ARP_L2VPNAddRef; a null handle is ignored. */
IPCLIENT_API void ARP_L2VPNRelease(void *pHandle);
/**
 * VSI predicates: 1 or 0, never an error. A null table, name, key or output, an empty slot
 * and a failed library call all read as 0.
 *  - ARP_IsVsiIfInVsi: the named VSI has an interface Vsi-interfaceN and that name resolves
 *    to uiIfIndex (an unknown name resolves to 0, so it matches an interface index of 0).
 *  - ARP_IsAcIfAndSrvIDInVsiByName: the circuit of the EVC key is in a VSI, and it is the
 *    named one (the circuit's key is asked with VSI index L2VPN_VSI_INDEX_NONE).
 *  - ARP_IsAcIfAndSrvIDInVsi: the circuit is in VSI uiVsiIndex (never L2VPN_VSI_INDEX_NONE).
 *  - ARP_CheckVsiIndexAndLinkId: as ARP_IsAcIfAndSrvIDInVsi, and the circuit has a link id,
 *    stored in *puiLinkId (untouched when the answer is 0).
 */
IPCLIENT_API uint32_t ARP_IsVsiIfInVsi(const ARP_L2VPN_FUNC_S *pstFunc, const char *pcVsiName, uint32_t uiIfIndex);
/** 1 when the circuit of the EVC key is in the VSI named pcVsiName, else 0. */
IPCLIENT_API uint32_t ARP_IsAcIfAndSrvIDInVsiByName(const ARP_L2VPN_FUNC_S *pstFunc, const void *pEvcKey,
                                                    const char *pcVsiName);
/** 1 when the circuit of the EVC key is in VSI uiVsiIndex, else 0. */
IPCLIENT_API uint32_t ARP_IsAcIfAndSrvIDInVsi(const ARP_L2VPN_FUNC_S *pstFunc, const void *pEvcKey,
                                              uint32_t uiVsiIndex);
/** 1 with the link id in *puiLinkId when the circuit of the EVC key is in VSI uiVsiIndex and has a
 * link, else 0. */
IPCLIENT_API uint32_t ARP_CheckVsiIndexAndLinkId(const ARP_L2VPN_FUNC_S *pstFunc, const void *pEvcKey,
                                                 uint32_t uiVsiIndex, uint32_t *puiLinkId);

/* ---- Interface and MAD display ------------------------------------------------------------ */
/*
 * Interface display: the interface's ARP packet counters as four lines of
 * "%-25s%11u\r\n" (38 characters each), appended with scnprintf within uiSize bytes:
 * "ARP packet input number:", "  Request packet:", "  Reply packet:", "  Unknown packet:".
 * Returns the sum of the characters scnprintf reported (text cut at the capacity, always
 * terminated). Only interfaces of kind ARP_IF_DISPLAY_KIND (data item 32) that are not
 * layer-2 have counters; any other, an unreadable kind, a null buffer or a size of 0 give
 * 0 with nothing written and nothing sent. The counters come from command 0x140002 (request:
 * the big-endian interface index; reply: four big-endian 32-bit counters, in, requests,
 * replies, unknown), from the interface's node (data item 9, default 0x8000) or, for an
 * aggregate of type ARP_IF_TYPE_SPANNING (data item 18), summed over every node of the
 * device (modulo 2^32). A request that fails or does not return all 16 bytes counts as
 * zeros.
 */
/** Interface kind (data item 32) whose interfaces have ARP packet counters. */
#define ARP_IF_DISPLAY_KIND 4u
/** Interface type (data item 18) of an aggregate whose counters are summed over every node. */
#define ARP_IF_TYPE_SPANNING 41u
/** Characters of one display line: a 25-character label, an 11-character count, CR and LF. */
#define ARP_IF_DISPLAY_LINE_LEN 38u
/** Writes the interface's four ARP counter lines (see ARP_IF_DISPLAY_KIND) into pcBuf, uiSize bytes in
 * all; the characters written, 0 when the interface has no ARP display. */
IPCLIENT_API uint32_t ARP_GetIfDisplayInfo(uint32_t uiIfIndex, uint32_t uiSize, char *pcBuf);
/**
 * Prints the ARP MAD configuration of database ("eL2MAD", "L2MAD"), list "ARP_MAD_CFG"
 * (its 12-byte key, terminator included; the first 48 bytes of each record are the
 * interface name), to standard output: "MAD ARP disabled.\r\n" without records or when the
 * database cannot be opened; with records, "MAD ARP enabled.\r\n" when usShowIf is 0, else
 * "MAD ARP enabled interface:\r\n" and "  <name>\r\n" per record. Returns the status of
 * DBM_Close, or 0 when the database could not be opened (nothing to close).
 */
IPCLIENT_API uint32_t ARP_MADDispalyCfg(uint16_t usShowIf);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_ARP_H */
