/**
 * @file
 * ND client: IPv6 neighbour discovery event subscription and error notifications, entry
 * queries and the network-to-physical table view, packet sending and resolution, the IPv6
 * adjacency service's OpenFlow, rule and suppression tables, and the ND interface
 * configuration and displays.
 *
 * Kernel requests use the ND module's commands 0x110001 (module message: BE32 operation,
 * BE32 total length, payload), 0x110002, 0x110004, 0x110005 and 0x110013. Service messages
 * travel on the adjacency message channel (ipclient/adj.h) to port 11554 (IPv6 adjacency
 * service) or 1667 (overlay suppression). IPv6 addresses are 16 network-order bytes.
 * Every status is a code of ipclient/status.h; 0x40010001 is the general failure.
 * The event list's lock is a pthread_rwlock_t: compile with POSIX.1-2001 or later.
 */
#ifndef IPCLIENT_ND_H
#define IPCLIENT_ND_H

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#include "ipclient/adj.h"
#include "ipclient/api.h"
#include "ipclient/arp.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/* ---- Event subscription, dispatch and error notifications ------------------------------- */
/*
 * A subscription is a datagram connection to the IPv6 adjacency service on the system
 * master (port ADJ_PORT_ND); ND_ProcEvent drains what is queued on it into the handler.
 * The list of subscriptions is guarded by g_stNDEventProcList_rwLock (written by
 * ND_RegEvent and ND_DeregEvent, read by ND_ProcEvent to find the handler); handlers run
 * without it, so a handler may register or deregister subscriptions.
 */
#define ND_EVENT_TYPE_COUNT 16u       /**< event types 0 to 15 are delivered, others skipped */
#define ND_EVENT_DATAGRAM_MAX 4096u   /**< bytes one receive reads */
#define ND_EVENT_RECORD_HEAD 8u       /**< BE32 record length (header included), BE32 type */
#define ND_EVENT_RECORD_LEN 64u       /**< the body bytes delivered as an NdEventRecord */
#define ND_EVENT_EPOLL_LOOP_DEFAULT 256u /**< initial value of g_uiNdEventEpollLoop */
#define ND_ERROR_EVENT_CLASS 0x210002u /**< kernel-event class of the error notifications */
#define ND_ERROR_NOTIFY_MAX 50u       /**< notifications one ND_ErrorAsyncNotifyProc reads */
#define ND_ERROR_NOTIFY_BUF 512u      /**< bytes one notification is read into */
#define ND_ERROR_NOTIFY_TYPE 0u       /**< element type that reaches the handler */

/** An IPv6 address: 16 bytes in network order, passed by value. */
typedef struct NdIPv6Addr {
    uint8_t aucAddr[16]; /**< the address bytes, network order */
} NdIPv6Addr;
IPCLIENT_STATIC_ASSERT(sizeof(NdIPv6Addr) == 16, nd_ipv6_addr_size);

/**
 * One neighbour event in host order (64 bytes). The fields other than the address are the
 * publishing stack's; they are named by offset. The byte strings travel unchanged, every
 * word is converted from big-endian. A record whose body is shorter than 64 bytes reads
 * 0 beyond its bytes, except uiField20 (0xFFFFFFFF) and uiField24 (0x0000FFFF).
 */
typedef struct NdEventRecord {
    uint32_t uiField0;      /**<  0 */
    uint8_t aucAddr[16];    /**<  4: the IPv6 neighbour address, network order */
    uint32_t uiField20;     /**< 20 */
    uint32_t uiField24;     /**< 24 */
    uint16_t usField28;     /**< 28 */
    uint16_t usField30;     /**< 30 */
    uint8_t aucField32[8];  /**< 32: unchanged */
    uint32_t uiField40;     /**< 40 */
    uint32_t uiField44;     /**< 44 */
    uint32_t uiField48;     /**< 48 */
    uint32_t uiField52;     /**< 52 */
    uint8_t aucField56[2];  /**< 56: unchanged */
    uint16_t usField58;     /**< 58 */
    uint16_t usField60;     /**< 60 */
    uint8_t aucField62[2];  /**< 62: unchanged */
} NdEventRecord;
IPCLIENT_STATIC_ASSERT(sizeof(NdEventRecord) == ND_EVENT_RECORD_LEN, nd_event_record_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, aucAddr) == 4, nd_event_record_off4);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, uiField20) == 20, nd_event_record_off20);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, uiField24) == 24, nd_event_record_off24);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, usField28) == 28, nd_event_record_off28);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, usField30) == 30, nd_event_record_off30);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, aucField32) == 32, nd_event_record_off32);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, uiField40) == 40, nd_event_record_off40);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, uiField52) == 52, nd_event_record_off52);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, aucField56) == 56, nd_event_record_off56);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, usField58) == 58, nd_event_record_off58);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, usField60) == 60, nd_event_record_off60);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventRecord, aucField62) == 62, nd_event_record_off62);

/** Event handler: the type (0 to 15) and the record, valid during the call only. Its result
 * is ignored. */
typedef uint32_t (*NdEventProc)(uint32_t uiType, NdEventRecord *pstRecord);

/** One open subscription (32 bytes, zero-filled when made); the list is keyed by socket. */
typedef struct NdEventProcNode {
    struct NdEventProcNode *pstNext;   /**< the next (older) subscription, null at the end */
    struct NdEventProcNode **ppstPrev; /**< the link that points at this node */
    NdEventProc pfProc;                /**< stored as given, may be null */
    int32_t iSocket;                   /**< the channel descriptor; the key of the node */
} NdEventProcNode;
IPCLIENT_STATIC_ASSERT(offsetof(NdEventProcNode, pfProc) == 2 * sizeof(void *), nd_event_node_proc);
IPCLIENT_STATIC_ASSERT(offsetof(NdEventProcNode, iSocket) == 3 * sizeof(void *), nd_event_node_socket);

/** Key of the batch replays by VSI and by interface, in host order (12 bytes). On the wire
 * the words are big-endian and the two bytes at 8 travel unchanged. */
typedef struct NdBatchKey {
    uint32_t uiWord0;       /**<  0 */
    uint32_t uiWord4;       /**<  4 */
    uint8_t aucField8[2];   /**<  8: unchanged */
    uint16_t usWord10;      /**< 10 */
} NdBatchKey;
IPCLIENT_STATIC_ASSERT(sizeof(NdBatchKey) == 12, nd_batch_key_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdBatchKey, aucField8) == 8, nd_batch_key_off8);
IPCLIENT_STATIC_ASSERT(offsetof(NdBatchKey, usWord10) == 10, nd_batch_key_off10);

/** Error-notification handler: given the value of a notification's type-0 element (a pointer
 * into the received notification, valid during the call only; its length is the
 * element's). Its result is handed back by ND_ErrorAsyncNotifyProc. */
typedef uint64_t (*NdErrorNotifyProc)(const void *pValue);

/** The subscriptions, newest first, and their lock. */
IPCLIENT_API extern NdEventProcNode *g_stNDEventProcList;
/** Guards g_stNDEventProcList (not the sockets); statically initialised. */
IPCLIENT_API extern pthread_rwlock_t g_stNDEventProcList_rwLock;
/** Most datagrams one ND_ProcEvent reads (default 256; 0 reads none); read on every pass. */
IPCLIENT_API extern uint32_t g_uiNdEventEpollLoop;
/** The error-notification handler of the process (set by ND_RegErrorAsyncNotify). */
IPCLIENT_API extern NdErrorNotifyProc g_pfNdOpenFlowProc;

/**
 * Subscribes: connects to the system master, port ADJ_PORT_ND (send time-out 5 s, receive
 * time-out 2 s), sends type 19 {BE32 first, 4 zero bytes, BE32 second} without waiting and
 * lists the subscription. Returns the descriptor, or -1 (0xFFFFFFFF) with nothing left open.
 */
IPCLIENT_API int32_t ND_RegEvent(uint32_t uiFirst, uint32_t uiSecond, NdEventProc pfProc);
/** Forgets the subscription of the descriptor, if any, and closes the descriptor; a
 * negative one is ignored. Must not run while another thread drains the same descriptor. */
IPCLIENT_API void ND_DeregEvent(int32_t iFd);
/**
 * Drains: up to g_uiNdEventEpollLoop receive passes, ending at the first that fails (nothing
 * queued). 0, or 0x40010001 when the descriptor has no subscription (nothing is read).
 */
IPCLIENT_API uint32_t ND_ProcEvent(uint32_t uiFd);
/**
 * One receive pass: reads one datagram (at most ND_EVENT_DATAGRAM_MAX bytes, without
 * waiting) and calls the handler for each record of a type below ND_EVENT_TYPE_COUNT.
 * 0x40010001 for a null handler (nothing read) or a failed receive; 0 otherwise. A record
 * shorter than its header or longer than what remains ends the datagram.
 */
IPCLIENT_API uint32_t nd_RecvEvents(int32_t iFd, NdEventProc pfProc);
/** Asks for the whole table as events (type 36, no payload, without waiting); the outcome
 * is dropped. */
IPCLIENT_API void ND_RequestBatchEvent(int32_t iFd);
/** Asks for the neighbours of a VSI (type 40) or of an interface (type 65), blocking send
 * of the 12-byte key. 0; 0x40010001 for a negative descriptor, a null key or a failed send. */
IPCLIENT_API uint32_t ND_RequestBatchByVsi(int32_t iFd, const NdBatchKey *pstKey);
/** Asks for the neighbours of an interface (type 65); results as ND_RequestBatchByVsi. */
IPCLIENT_API uint32_t ND_RequestBatchByIF(int32_t iFd, const NdBatchKey *pstKey);
/** Adds (type 67) or removes (type 68) a concerned address: {the 16 address bytes, BE32
 * word}, sent without waiting. 0; 0x40010001 for a negative descriptor or a failed send. */
IPCLIENT_API uint32_t ND_AddConcernedIPv6(int32_t iFd, uint32_t uiWord, NdIPv6Addr stAddr);
/** Removes a concerned address (type 68); results as ND_AddConcernedIPv6. */
IPCLIENT_API uint32_t ND_DelConcernedIPv6(int32_t iFd, uint32_t uiWord, NdIPv6Addr stAddr);

/**
 * Error notifications. ND_RegErrorAsyncNotify stores the handler (even when the
 * subscription then fails) and subscribes to ND_ERROR_EVENT_CLASS: the kernel-event
 * descriptor, negative on failure. ND_ErrorAsyncNotifyProc reads up to ND_ERROR_NOTIFY_MAX
 * notifications; the handler is called for each whose first element has type 0 (a
 * notification without a whole first element is passed over). It returns the result of the
 * last handler call, 0 when none was made. ND_DeRegErrorAsyncNotify returns a negative
 * descriptor unchanged, otherwise the result of the unsubscription; the stored handler stays.
 */
IPCLIENT_API int32_t ND_RegErrorAsyncNotify(NdErrorNotifyProc pfProc);
/** Unsubscribes the kernel-event descriptor: a negative one is returned unchanged, otherwise
 * the result of the unsubscription. The stored handler stays. */
IPCLIENT_API int32_t ND_DeRegErrorAsyncNotify(int32_t iFd);
/** Reads up to ND_ERROR_NOTIFY_MAX notifications (a receive of 0 or less ends it) and calls the
 * handler for each whose first element has type 0: the last handler result, or 0. */
IPCLIENT_API uint64_t ND_ErrorAsyncNotifyProc(int32_t iFd);

/**
 * VSI predicates over the table filled by ARP_L2VPNAddRef: 1 or 0, never an error. A null
 * table or key, an empty slot and a failed library call all read as 0.
 *  - ND_IsAcIfAndSrvIDInVsi: the circuit of the EVC key is in VSI uiVsiIndex (never
 *    L2VPN_VSI_INDEX_NONE); the key is asked with uiVsiIndex.
 *  - ND_IsVsiIfInVsi: the VSI of pcVsiKey (asked on behalf of uiIfIndex) has an interface
 *    Vsi-interfaceN and that name resolves to uiIfIndex (an unknown name resolves to 0, so
 *    it matches an interface index of 0).
 *  - ND_IsVsiContainVxlanID: the VSI has a VXLAN id.
 */
IPCLIENT_API uint32_t ND_IsAcIfAndSrvIDInVsi(const ARP_L2VPN_FUNC_S *pstFunc, const void *pEvcKey,
                                             uint32_t uiVsiIndex);
/** 1 when the VSI of pcVsiKey has an interface Vsi-interfaceN whose index is uiIfIndex, else 0. */
IPCLIENT_API uint32_t ND_IsVsiIfInVsi(const ARP_L2VPN_FUNC_S *pstFunc, const char *pcVsiKey, uint32_t uiIfIndex);
/** 1 when the VSI has a VXLAN id, else 0. */
IPCLIENT_API uint32_t ND_IsVsiContainVxlanID(const ARP_L2VPN_FUNC_S *pstFunc, uint32_t uiVsiIndex);

/* ---- Entry queries and the network-to-physical table ------------------------------------- */
/*
 * Entries of the ND module's neighbour table. Requests go to the kernel (command 0x110004
 * exact entry, 0x110005 next entry, 0x110013 batch, 0x110001 module message); records are
 * returned in host order with the conversions listed per field. IPv6 addresses are 16
 * network-order bytes, copied as they stand.
 */
#define ND_ENTRY_CMD_EXACT 0x110004u /**< command of the exact entry lookup */
#define ND_ENTRY_CMD_NEXT 0x110005u  /**< command of the next-entry lookup */
#define ND_ENTRY_SELECTOR_MAX 2u     /**< highest entry selector */
#define ND_ENTRY_KEY_LEN 24u         /**< bytes of NdEntryKey */
#define ND_ENTRY_INFO_LEN 56u        /**< bytes of NdEntryInfo */
#define ND_INFO_LEN 32u              /**< bytes of NdInfo */
#define ND_ATTACK_COUNTERS 4u        /**< 64-bit counters summed by ND_GetNdAttackStat */
/** Interface type (data item 18) whose entries may name a second, owning interface. */
#define ND_IFTYPE_AGGREGATE 41u
/** Neighbour states of NdEntryInfo.ucState. */
#define ND_STATE_INCOMPLETE 0u /**< incomplete */
#define ND_STATE_REACHABLE 1u  /**< reachable */
#define ND_STATE_STALE 2u      /**< stale */
#define ND_STATE_DELAY 3u      /**< delay */
#define ND_STATE_PROBE 4u      /**< probe */
/** Entry kind: bit 0 marks a dynamic entry; the value 6 an invalid one. */
#define ND_KIND_DYNAMIC_BIT 0x01u /**< set in the kind of a dynamic entry */
#define ND_KIND_INVALID 6u        /**< the kind of an invalid entry */

/** Request of commands 0x110004 and 0x110005 (all words big-endian on the wire). */
typedef struct NdEntryKey {
    uint8_t aucAddr[16]; /**< IPv6 address, network order, sent as given */
    uint32_t uiIfIndex;  /**< interface index */
    uint32_t uiSelector; /**< 0 to 2, the caller's byte widened */
} NdEntryKey;
IPCLIENT_STATIC_ASSERT(sizeof(NdEntryKey) == ND_ENTRY_KEY_LEN, nd_entry_key_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryKey, uiIfIndex) == 16, nd_entry_key_ifindex);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryKey, uiSelector) == 20, nd_entry_key_selector);

/** One neighbour entry; the words and half-words are converted to host order, the bytes
 * kept as received. The meaning of the words at 24, 28 and 30 and of the byte at 39 is the
 * module's. */
typedef struct NdEntryInfo {
    uint8_t aucAddr[16];    /**< IPv6 neighbour address */
    uint32_t uiIfIndex;     /**< interface of the entry */
    uint32_t uiIfIndex2;    /**< second interface: the owning member, when non-zero */
    uint32_t uiWord24;      /**< the module's entry word */
    uint16_t usHalf28;      /**< the module's entry half-word */
    uint16_t usHalf30;      /**< the module's entry half-word */
    uint8_t aucLinkAddr[6]; /**< link-layer address */
    uint8_t ucState;        /**< ND_STATE_* */
    uint8_t ucByte39;       /**< passed to the table row */
    uint8_t ucKind;         /**< ND_KIND_* */
    uint8_t aucRes41[3];    /**< kept as received */
    uint32_t uiUpdateTime;  /**< last-update time */
    uint32_t uiRefreshTime; /**< 0 means none */
    uint8_t aucRes52[4];    /**< kept as received */
} NdEntryInfo;
IPCLIENT_STATIC_ASSERT(sizeof(NdEntryInfo) == ND_ENTRY_INFO_LEN, nd_entry_info_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryInfo, uiIfIndex2) == 20, nd_entry_info_ifindex2);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryInfo, usHalf28) == 28, nd_entry_info_half28);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryInfo, aucLinkAddr) == 32, nd_entry_info_link);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryInfo, ucState) == 38, nd_entry_info_state);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryInfo, ucKind) == 40, nd_entry_info_kind);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryInfo, uiUpdateTime) == 44, nd_entry_info_update);
IPCLIENT_STATIC_ASSERT(offsetof(NdEntryInfo, uiRefreshTime) == 48, nd_entry_info_refresh);

/** Neighbour summary of one address (operations 0 and 38); fields are the module's. */
typedef struct NdInfo {
    uint32_t uiWord0;     /**< big-endian on the wire */
    uint16_t usHalf4;     /**< big-endian on the wire */
    uint16_t usHalf6;     /**< big-endian on the wire */
    uint8_t aucData8[8];  /**< unchanged */
    uint32_t uiWord16;    /**< big-endian on the wire */
    uint32_t uiWord20;    /**< big-endian on the wire */
    uint32_t uiWord24;    /**< big-endian on the wire */
    uint16_t usHalf28;    /**< big-endian on the wire */
    uint8_t aucData30[2]; /**< unchanged */
} NdInfo;
IPCLIENT_STATIC_ASSERT(sizeof(NdInfo) == ND_INFO_LEN, nd_info_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdInfo, uiWord16) == 16, nd_info_word16);
IPCLIENT_STATIC_ASSERT(offsetof(NdInfo, usHalf28) == 28, nd_info_half28);

/** Row of the network-to-physical table view (host order). Type: 3 for a dynamic entry,
 * 2 for an invalid one, else 0 (0 is kept although the table defines no such value).
 * State: 1 reachable, 2 stale, 3 delay, 4 probe, 7 incomplete, 6 anything else. */
typedef struct NdNetToPhysicalRow {
    uint32_t uiIfIndex;      /**< the entry's interface index */
    uint8_t aucAddr[16];     /**< the entry's IPv6 address, network order */
    uint8_t aucLinkAddr[6];  /**< the entry's link-layer address */
    uint8_t ucByte;      /**< the entry's byte at 39 */
    uint8_t ucPad;           /**< not written */
    uint32_t uiType;         /**< 3 dynamic, 2 invalid, else 0 */
    uint32_t uiState;        /**< 1 reachable, 2 stale, 3 delay, 4 probe, 7 incomplete, 6 other */
    uint32_t uiLastUpdated;  /**< the entry's last-update time */
} NdNetToPhysicalRow;
IPCLIENT_STATIC_ASSERT(sizeof(NdNetToPhysicalRow) == 40, nd_net_to_physical_row_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdNetToPhysicalRow, aucLinkAddr) == 20, nd_row_link);
IPCLIENT_STATIC_ASSERT(offsetof(NdNetToPhysicalRow, ucByte) == 26, nd_row_byte);
IPCLIENT_STATIC_ASSERT(offsetof(NdNetToPhysicalRow, uiType) == 28, nd_row_type);
IPCLIENT_STATIC_ASSERT(offsetof(NdNetToPhysicalRow, uiState) == 32, nd_row_state);
IPCLIENT_STATIC_ASSERT(offsetof(NdNetToPhysicalRow, uiLastUpdated) == 36, nd_row_update);

/**
 * Exact (ND_ENTRY_CMD_EXACT) or next (ND_ENTRY_CMD_NEXT) entry after the key (address,
 * interface, selector 0 to 2), asked at the system master's endpoint. When the entry's
 * owning interface (the second index for a type-41 interface with a non-zero state, else
 * the entry's own) lives on another node, the exact entry is asked again there and, if that
 * node answers, its entry replaces the master's. 0, or 0x40010001 for a null pointer, another
 * command, a failed or empty reply from the master. A node that cannot be read or that fails
 * to answer leaves the master's answer.
 */
IPCLIENT_API uint32_t ND_GetEntryInfo(uint32_t uiCommand, uint8_t ucSelector, uint32_t uiIfIndex,
                                      const uint8_t *pucAddr, NdEntryInfo *pstInfo);
/** The entry after the one whose address and interface pstInfo holds, written over it. */
IPCLIENT_API uint32_t ND_GetNextEntryInfo(uint8_t ucSelector, NdEntryInfo *pstInfo);
/** Entries after (address, interface) from the own node, in the module's own form. The
 * CIOCTL status; 0x40010001 for any null pointer. */
IPCLIENT_API uint32_t ND_GetNextInfoBatch(const uint8_t *pucAddr, uint32_t uiIfIndex, uint32_t uiCapacity,
                                          void *pBuffer, uint32_t *puiReturnedLen);
/** The summary of an address on an interface, asked at the interface's node (data item 9).
 * The CIOCTL status (the reply is converted whatever it is), the item's failure, or
 * 0x40010001 for a null output. */
IPCLIENT_API uint32_t ND_GetInfo(uint32_t uiIfIndex, NdIPv6Addr stAddr, NdInfo *pstInfo);
/** The summary of an address on any interface, asked at the own node. */
IPCLIENT_API uint32_t ND_GetInfoByIP(const uint8_t *pucAddr, NdInfo *pstInfo);
/** The exact entry's refresh time: 0 with it, or 0x40010001 with *puiTime set to 0 when the
 * entry cannot be read or has none (a null result pointer gives 0x40010001 alone). */
IPCLIENT_API uint32_t ND_GetRefreshTime(uint32_t uiIfIndex, NdIPv6Addr stAddr, uint32_t *puiTime);
/** The row of the exact entry (selector 0) of an address on an ND layer-3 interface. */
IPCLIENT_API uint32_t ND_GetNetToPhysicalTable(uint32_t uiIfIndex, const uint8_t *pucAddr,
                                               NdNetToPhysicalRow *pstRow);
/** The first row: the first entry found on the ND layer-3 interfaces, in index order.
 * 0x40010001 for a null row, a selector above 2, no iterator or no entry at all. */
IPCLIENT_API uint32_t ND_GetFirstNetToPhysicalTable(uint8_t ucSelector, NdNetToPhysicalRow *pstRow);
/** The row after the one held in pstRow (its interface and address), written over it; the
 * walk does not leave the row's interface by itself. */
IPCLIENT_API uint32_t ND_GetNextNetToPhysicalTable(uint8_t ucSelector, NdNetToPhysicalRow *pstRow);
/** Add every node's counters to the caller's (which the caller zeroes): four attack
 * counters from every listed node; the alarm counter from nodes that are up and answer
 * exactly 8 bytes. */
IPCLIENT_API void ND_GetNdAttackStat(uint8_t ucSelector, uint64_t *pulCounters);
/** Adds the alarm counter (operation 45) of every node that is up and answers exactly 8 bytes. */
IPCLIENT_API void ND_GetAlarmThresholdStat(uint8_t ucSelector, uint64_t *pulCounter);
/** The extension bitmap (operation 39, master endpoint): the status; the word is stored only
 * on success with a non-empty reply. */
IPCLIENT_API uint32_t nd_GetExt3Bitmap(uint32_t *puiBitmap);
/** The value of the element of the wanted type in a tag-length-value block, at most 8 bytes,
 * read as a big-endian number (a shorter value fills the high-order bytes). 0x40010001 for
 * null pointers or when the walk ends without it. */
IPCLIENT_API uint32_t ND_GetPDataFromIPCIM(uint32_t uiLength, const void *pData, uint16_t usType,
                                           uint64_t *pulValue);
/** min(length, 4) value bytes in a zeroed word, stored as they lie. Always 0 (null pointers
 * store nothing). */
IPCLIENT_API uint32_t ND_GetTimeStampFromPData(uint32_t uiLength, const void *pData, uint32_t *puiTime);

/* ---- Packet sending and resolution -------------------------------------------------------- */
/*
 * Each operation is one ND module message (command 0x110001: BE32 operation, BE32 length
 * word, payload) sent without waiting (CIOCTL_Async) to the node that owns the interface,
 * found with IF_GetDataByIfIndex item 9; when that lookup fails its status is returned and
 * nothing is sent. Otherwise the sending status is returned; transmission results are not
 * reported. Exceptions:
 *   ND_SendNS waits: it goes with CIOCTL to the own node (0xFFFF8000) with a 4-byte reply
 *     area whose content is ignored, and returns CIOCTL's status;
 *   ND_DeleteDynamicEntry goes to the system master endpoint without a node lookup.
 *
 *   operation              op  length word  bytes sent  payload (offsets from the header)
 *   ND_SendRA               2      36           36      8 ifindex, 12 address, 28 link-layer
 *                                                       address, 34 BE16 usWord
 *   ND_SendNA               3      36           36      as ND_SendRA with zero at 34
 *   ND_DeleteDynamicEntry   4      20           28      8 address, 24 ifindex
 *   ND_Resolve              6      20           28      8 address, 24 ifindex
 *   ND_SendNS               8      28           28      8 ifindex, 12 address
 *   ND_SendSpecify         12     108          108      8 the NdSendSpecifyInfo record
 * The length word 20 of operations 4 and 6 is the module's format: 28 bytes are sent.
 *
 * IPv6 addresses are passed by value as NdIPv6Addr (16 network-order bytes) and travel
 * unchanged; link-layer addresses are 6 bytes and travel unchanged. A null link-layer
 * address or record pointer is refused with 0x40010001 before the node lookup.
 */
/** The caller's description of a packet to send (100 bytes, host order; addresses as they
 * go on the wire). The words named uiWord and usHalf are converted to network order in
 * the request, the byte arrays travel unchanged; their meaning is the ND module's. The
 * record itself is not modified. */
typedef struct NdSendSpecifyInfo {
    uint8_t aucHead[48]; /**< bytes 0 to 47, unchanged */
    uint32_t uiIfIndex; /**< also selects the node that sends */
    uint32_t uiWord52;   /**< big-endian on the wire */
    uint8_t aucRaw56[4]; /**< unchanged */
    uint32_t uiWord60;   /**< big-endian on the wire */
    uint16_t usHalf64;   /**< big-endian on the wire */
    uint16_t usHalf66;   /**< big-endian on the wire */
    uint32_t uiWord68;   /**< big-endian on the wire */
    uint32_t uiWord72;   /**< big-endian on the wire */
    uint32_t uiWord76;   /**< big-endian on the wire */
    uint8_t aucTail[20]; /**< bytes 80 to 99, unchanged */
} NdSendSpecifyInfo;
IPCLIENT_STATIC_ASSERT(sizeof(NdSendSpecifyInfo) == 100, nd_send_specify_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdSendSpecifyInfo, uiIfIndex) == 48, nd_send_specify_ifindex);
IPCLIENT_STATIC_ASSERT(offsetof(NdSendSpecifyInfo, aucRaw56) == 56, nd_send_specify_raw56);
IPCLIENT_STATIC_ASSERT(offsetof(NdSendSpecifyInfo, usHalf64) == 64, nd_send_specify_half64);
IPCLIENT_STATIC_ASSERT(offsetof(NdSendSpecifyInfo, uiWord76) == 76, nd_send_specify_word76);
IPCLIENT_STATIC_ASSERT(offsetof(NdSendSpecifyInfo, aucTail) == 80, nd_send_specify_tail);

/** Router advertisement; usWord is the module's 16-bit parameter, sent big-endian. */
IPCLIENT_API uint32_t ND_SendRA(uint32_t uiIfIndex, NdIPv6Addr stAddr, const uint8_t *pucMac, uint16_t usWord);
/** Neighbour advertisement. */
IPCLIENT_API uint32_t ND_SendNA(uint32_t uiIfIndex, NdIPv6Addr stAddr, const uint8_t *pucMac);
/** Neighbour solicitation, synchronous on the own node. */
IPCLIENT_API uint32_t ND_SendNS(uint32_t uiIfIndex, NdIPv6Addr stAddr);
/** A packet whose every field the caller gives; pstInfo->uiIfIndex picks the node. */
IPCLIENT_API uint32_t ND_SendSpecify(const NdSendSpecifyInfo *pstInfo);
/** Starts resolution of a neighbour; the unspecified address :: gives 0x40010001 before
 * anything else. */
IPCLIENT_API uint32_t ND_Resolve(NdIPv6Addr stAddr, uint32_t uiIfIndex);
/** Deletes a dynamic neighbour entry, through the system master endpoint. */
IPCLIENT_API uint32_t ND_DeleteDynamicEntry(NdIPv6Addr stAddr, uint32_t uiIfIndex);

/* ---- OpenFlow, rule and suppression tables ------------------------------------------------ */
/*
 * The IPv6 adjacency service keeps tables that applications own: OpenFlow-learned
 * neighbour entries, ND rules and VSI suppression entries. An owner drives each table in
 * one order:
 *   connect, smooth start, refresh every entry it holds, smooth end, then single refreshes
 *   and deletes as its state changes, and finally disconnect.
 * The smooth pair brackets a full resend so that the service can tell a complete table
 * from a partial one; entries of the bracketed scope that were not resent are the
 * service's to drop. Rule smooth messages are scoped by class and owner value, VSI smooth
 * messages by class; the OpenFlow smooth start and end share type 11, differ in their first
 * byte (2 and 3) and carry no scope.
 *
 * All table messages travel on a connection from ND_OpenFlowConnect or ND_RuleConnect
 * (port 11554, no time-outs) with send flags 256 and count 1, and get no reply; the
 * OpenFlow messages are the exceptions: the entry messages go without blocking, carry their
 * entry count and are answered with a 4-byte status, and the OpenFlow smooth markers are
 * answered too (the connections have no receive time-out: those waits end only with a
 * reply or the connection's end). A negative descriptor, a null required pointer or an out-of-range argument
 * gives 0x40010001 before anything is sent; otherwise the send status of ADJ6_Send is
 * returned. Field names that carry only an offset belong to the service.
 *
 * IPv6 addresses are NdIPv6Addr: 16 network-order bytes, sent as given.
 */

#define ND_OPENFLOW_VERSION 6u    /**< the word ND_OpenFlowConnect stores */
#define ND_OPENFLOW_HEAD_LEN 6u   /**< room for the channel header at the start of the caller's buffer */
#define ND_OPENFLOW_ENTRY_LEN 48u /**< bytes of one NdOpenFlowEntry */
/** Most entries one OpenFlow message carries: n x 48 must fit the 16-bit payload length. */
#define ND_OPENFLOW_ENTRY_MAX 1365u
/** Bytes of the caller's buffer for n OpenFlow entries: the header's room, then the entries. */
#define ND_OPENFLOW_BUF_LEN(n) (ND_OPENFLOW_HEAD_LEN + (n) * ND_OPENFLOW_ENTRY_LEN)
#define ND_OPENFLOW_SMOOTH_LEN 56u /**< bytes of an OpenFlow smooth marker's payload */
/** What an OpenFlow smooth marker returns when the service's word never arrived: the preset
 * word 0x40010001 in the device's little-endian order (bytes 01 00 01 40) read as
 * big-endian; the same value on every host. */
#define ND_OPENFLOW_SMOOTH_NO_REPLY 0x01000140u
#define ND_RULE_CLASS_MAX 8u          /**< highest class of a rule and of a rule smooth message */
#define ND_RULE_KIND_MAX 6u           /**< highest kind of a rule */
#define ND_ROAMING_MSG_MAX 4096u      /**< largest roaming message, its 12-byte header included */
#define ND_ROAMING_HEAD_LEN 12u       /**< bytes of the roaming header */
#define ND_ROAMING_RECORD_LEN 20u     /**< bytes of one roaming record */
#define ND_OVERLAY_SUP_PORT 1667u     /**< port of the overlay suppression service */
#define ND_OVERLAY_SUP_REQ_LEN 180u   /**< bytes of an overlay suppression request */
#define ND_VSI_INDEX_NONE 0xFFFFFFFFu /**< no VSI; refused by the overlay suppression operations */

/**
 * One OpenFlow entry in host order, as the caller lays it into its buffer at byte
 * 6 + i x 48 (copy it in: the buffer offers no alignment). The IPv6 address at 4 and the
 * bytes at 24 are sent as they stand; every other field is converted to big-endian in place.
 */
typedef struct NdOpenFlowEntry {
    uint32_t uiField0;        /**< big-endian on the wire */
    uint8_t aucAddr[16];      /**< IPv6 address, network order, sent as given */
    uint32_t uiField20;       /**< big-endian on the wire */
    uint8_t aucField24[6];    /**< sent as given */
    uint16_t usField30;       /**< big-endian on the wire */
    uint32_t uiField32;       /**< big-endian on the wire */
    uint32_t uiField36;       /**< big-endian on the wire */
    uint16_t usField40;       /**< big-endian on the wire */
    uint16_t usField42;       /**< big-endian on the wire */
    uint32_t uiField44;       /**< big-endian on the wire */
} NdOpenFlowEntry;
IPCLIENT_STATIC_ASSERT(sizeof(NdOpenFlowEntry) == 48, nd_openflow_entry_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdOpenFlowEntry, aucAddr) == 4, nd_openflow_entry_off4);
IPCLIENT_STATIC_ASSERT(offsetof(NdOpenFlowEntry, uiField20) == 20, nd_openflow_entry_off20);
IPCLIENT_STATIC_ASSERT(offsetof(NdOpenFlowEntry, usField30) == 30, nd_openflow_entry_off30);
IPCLIENT_STATIC_ASSERT(offsetof(NdOpenFlowEntry, usField40) == 40, nd_openflow_entry_off40);
IPCLIENT_STATIC_ASSERT(offsetof(NdOpenFlowEntry, uiField44) == 44, nd_openflow_entry_off44);

/** An ND rule in host order; the 64-byte message payload is this structure converted
 * (words at 16, 20, 24, 44, 48, 52, 56 and halves at 28, 30, 32, 60; the rest as given). */
typedef struct NdRuleInfo {
    uint8_t aucAddr[16];      /**< IPv6 address, network order; must not be :: */
    uint32_t uiIfIndex;       /**< must be a valid interface */
    uint32_t uiField20;       /**< big-endian on the wire */
    uint32_t uiField24;       /**< big-endian on the wire */
    uint16_t usField28;       /**< big-endian on the wire */
    uint16_t usField30;       /**< big-endian on the wire */
    uint16_t usField32;       /**< big-endian on the wire */
    uint8_t aucField34[6];    /**< sent as given */
    uint8_t ucKind;           /**< at most 6 */
    uint8_t ucClass;          /**< at most 8; the class of the smooth messages */
    uint8_t aucField42[2];    /**< sent as given */
    uint32_t uiField44;       /**< big-endian on the wire */
    uint32_t uiField48;       /**< big-endian on the wire */
    uint32_t uiField52;       /**< big-endian on the wire */
    uint32_t uiField56;       /**< big-endian on the wire */
    uint16_t usField60;       /**< big-endian on the wire */
    uint8_t aucField62[2];    /**< sent as given */
} NdRuleInfo;
IPCLIENT_STATIC_ASSERT(sizeof(NdRuleInfo) == 64, nd_rule_info_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdRuleInfo, uiIfIndex) == 16, nd_rule_info_off16);
IPCLIENT_STATIC_ASSERT(offsetof(NdRuleInfo, usField28) == 28, nd_rule_info_off28);
IPCLIENT_STATIC_ASSERT(offsetof(NdRuleInfo, aucField34) == 34, nd_rule_info_off34);
IPCLIENT_STATIC_ASSERT(offsetof(NdRuleInfo, ucKind) == 40, nd_rule_info_off40);
IPCLIENT_STATIC_ASSERT(offsetof(NdRuleInfo, ucClass) == 41, nd_rule_info_off41);
IPCLIENT_STATIC_ASSERT(offsetof(NdRuleInfo, uiField44) == 44, nd_rule_info_off44);
IPCLIENT_STATIC_ASSERT(offsetof(NdRuleInfo, usField60) == 60, nd_rule_info_off60);

/** A VSI suppression entry (44 bytes) in host order: the words at 0, 4, 32 and 36 are
 * converted; bytes 8 to 31 and 40 to 43 are sent as given. */
typedef struct NdVsiSupInfo {
    uint32_t uiVsiIndex;      /**< VSI index, big-endian on the wire */
    uint32_t uiField4;        /**< big-endian on the wire */
    uint8_t aucAddr[16];      /**< IPv6 address, network order, sent as given */
    uint8_t aucField24[8];    /**< sent as given */
    uint32_t uiField32;       /**< big-endian on the wire */
    uint32_t uiField36;       /**< big-endian on the wire */
    uint8_t ucClass;          /**< the class of the smooth messages */
    uint8_t aucField41[3];    /**< sent as given */
} NdVsiSupInfo;
IPCLIENT_STATIC_ASSERT(sizeof(NdVsiSupInfo) == 44, nd_vsi_sup_info_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdVsiSupInfo, aucAddr) == 8, nd_vsi_sup_info_off8);
IPCLIENT_STATIC_ASSERT(offsetof(NdVsiSupInfo, uiField32) == 32, nd_vsi_sup_info_off32);
IPCLIENT_STATIC_ASSERT(offsetof(NdVsiSupInfo, ucClass) == 40, nd_vsi_sup_info_off40);

/** OpenFlow table: a connection to the local node's service (no time-outs), or -1.
 * *puiVersion is set to 6 whenever the pointer is given, also when no connection could be
 * opened; a null pointer gives -1 (0xFFFFFFFF) without opening. */
IPCLIENT_API int32_t ND_OpenFlowConnect(uint32_t *puiVersion);
/** Closes the descriptor; a negative one is ignored. */
IPCLIENT_API void ND_OpenFlowDisconnect(int32_t iFd);
/**
 * Write the 6-byte header into pBuf (type 27 or 28; byte 1 left as it is; n x 48; n),
 * convert the n host-order entries that follow in place, send 6 + n x 48 bytes in one
 * non-blocking send and, if all of it went, wait for the service's 4-byte status (bytes
 * not received read as zero) and return it. A failed or short send returns 0: the batch is
 * lost without a word. 0x40010001 without touching the buffer for a negative descriptor, a
 * null buffer or more than 1365 entries. n = 0 sends the header alone.
 */
IPCLIENT_API uint32_t ND_RefreshOpenFlowEntry(int32_t iFd, void *pBuf, uint32_t uiCount);
/** As ND_RefreshOpenFlowEntry, with type 28, which deletes the entries. */
IPCLIENT_API uint32_t ND_DeleteOpenFlowEntry(int32_t iFd, void *pBuf, uint32_t uiCount);
/**
 * The OpenFlow smooth markers: type 11, 56 bytes, byte 0 = 2 (start) or 3 (end). A failed
 * send returns its status (0x40010001); otherwise the service's 4-byte word is read as
 * big-endian over a preset of 0x40010001 kept in host order, so that a receive that
 * delivers nothing returns ND_OPENFLOW_SMOOTH_NO_REPLY (0x01000140).
 */
IPCLIENT_API uint32_t ND_OpenFlowSmoothStart(int32_t iFd);
/** The end marker (byte 0 = 3); results as ND_OpenFlowSmoothStart. */
IPCLIENT_API uint32_t ND_OpenFlowSmoothEnd(int32_t iFd);

/** Rule and VSI tables: a connection to the system master endpoint's service, no
 * time-outs, or -1. */
IPCLIENT_API int32_t ND_RuleConnect(void);
/** Closes the descriptor; a negative one is ignored. */
IPCLIENT_API void ND_RuleDisconnect(int32_t iFd);
/** 0x40010001 without sending for a null rule, a class above 8, a kind above 6, an
 * interface that is not valid or the address ::. */
IPCLIENT_API uint32_t ND_RefreshRule(int32_t iFd, const NdRuleInfo *pstRule);
/** The address as given, the interface index and the class; neither is checked here, a
 * rule the service does not hold is its to ignore. */
IPCLIENT_API uint32_t ND_DeleteRule(int32_t iFd, uint32_t uiIfIndex, NdIPv6Addr stAddr, uint8_t ucClass);
/** Type 17, the start of a rule resend: {BE16 owner, class, zero}. 0x40010001 without sending
 * for a class above 8. */
IPCLIENT_API uint32_t ND_RuleSmoothStart(int32_t iFd, uint8_t ucClass, uint16_t usOwner);
/** Type 18, the end of a rule resend; as ND_RuleSmoothStart (type 17). */
IPCLIENT_API uint32_t ND_RuleSmoothEnd(int32_t iFd, uint8_t ucClass, uint16_t usOwner);

/** Type 60: the entry, converted. 0x40010001 for a null entry or a negative descriptor. */
IPCLIENT_API uint32_t ND_RefreshVsiSupEntry(int32_t iFd, const NdVsiSupInfo *pstEntry);
/** 0x40010001 for a null address; the class is not range-checked. */
IPCLIENT_API uint32_t ND_DeleteVsiSupEntry(int32_t iFd, uint32_t uiVsiIndex, const NdIPv6Addr *pstAddr,
                                           uint8_t ucClass);
/** Type 62, the start of a VSI suppression resend: {class, three zero bytes}; the class is
 * not range-checked. */
IPCLIENT_API uint32_t ND_VsiSupEntrySmoothBegin(int32_t iFd, uint8_t ucClass);
/** Type 63, the end of a VSI suppression resend; as ND_VsiSupEntrySmoothBegin. */
IPCLIENT_API uint32_t ND_VsiSupEntrySmoothEnd(int32_t iFd, uint8_t ucClass);

/**
 * Roaming detection records (n records of 20 bytes, usDataLen bytes in all) under a 12-byte
 * header: BE16 12, zero, BE16 total, BE16 usDataLen / n, BE16 n, BE16 usDataLen; sent as
 * type 80. 0x40010001 for a zero length, a negative descriptor, null records, a message
 * above 4096 bytes, usDataLen != (n & 0xFFF) x 16 + n x 4, or no memory for the message.
 */
IPCLIENT_API uint32_t ND_RoamingDetection(int32_t iFd, const void *pRecords, uint16_t usDataLen, uint16_t usCount);

/**
 * Overlay suppression of a VSI: one exchange (message type 0, 180-byte request, time-outs
 * 5 s and 5 s, send flags 0) with the service on port 1667 of the system master endpoint.
 * VSI index 0xFFFFFFFF is refused, as is a null output. A failed exchange returns its
 * status; a reply shorter than its 4-byte word is 0x40010001 and leaves the output as it
 * was. The set returns the service's word; the get stores it and returns 0. Only uiOn = 1
 * switches on; any other value switches off.
 */
IPCLIENT_API uint32_t ND_SetOverlaySuppression(uint32_t uiVsiIndex, uint32_t uiOn);
/** Stores the VSI's suppression word in *puiState and returns 0, or the exchange's failure. */
IPCLIENT_API uint32_t ND_GetOverlaySuppression(uint32_t uiVsiIndex, uint32_t *puiState);

/* ---- Interface configuration and display -------------------------------------------------- */
/*
 * Interface types served by ND, an interface's ND configuration and its display text, the
 * global ND parameters (module message operations to the system master's endpoint) and the
 * MAD ND configuration.
 */
struct IF_SELECT_S;

#define ND_L3_IF_TYPE_COUNT 29u    /**< interface types in the ND layer-3 list */
#define ND_IF_CONFIG_LEN 200u      /**< bytes of NdIfConfigInfo */
#define ND_IF_CONFIG_NAME_LEN 128u /**< bytes of NdIfConfigInfo.szName */
/** The display writes at most this many bytes (terminator included), whatever size is
 * given: the buffer must hold them. */
#define ND_IF_DISPLAY_ROOM 1024u
#define ND_DEFAULT_HOP_LIMIT 64u      /**< what ND_GetHopLimit returns when the request fails */
#define ND_DEFAULT_STALE_AGING 14400u /**< preset of the reply word of ND_GetStaleAging */

/** Flags of NdIfConfigInfo.uiFlags. */
#define ND_CFG_FLAG_MANAGED 0x2u         /**< hosts use DHCP for routable addresses */
#define ND_CFG_FLAG_OTHER 0x4u           /**< hosts use DHCP for other configuration */
#define ND_CFG_FLAG_ADV_RETRANS 0x10u    /**< the retransmit interval is advertised */
#define ND_CFG_FLAG_ADV_REACHABLE 0x20u  /**< the reachable time is advertised */
#define ND_CFG_FLAG_RA 0x40u             /**< router advertisement lines are shown */
#define ND_CFG_FLAG_RA_LIFETIME 0x200u   /**< the advertisement lifetime is configured */
#define ND_CFG_FLAG_DEST_GUARD 0x200000u /**< the destination-guard line is shown */
/** Destination-guard modes (anything else: disabled). */
#define ND_DEST_GUARD_ENABLE 2u   /**< enabled */
#define ND_DEST_GUARD_STRESSED 4u /**< enabled, stressed */

/** An interface's ND configuration (reply of command 0x110002), host order. The words not
 * named are the module's; the word at 36 is never written by ND_GetIfConfigInfo and the
 * half-word at 184 is kept as received. */
typedef struct NdIfConfigInfo {
    uint32_t uiRetransInterval; /**< milliseconds */
    uint32_t uiReachableTime;   /**< milliseconds */
    uint32_t uiWord8;           /**< the module's; big-endian on the wire */
    uint32_t uiDadAttempts;     /**< 0: DAD disabled */
    uint32_t uiRaInterval;      /**< seconds */
    uint32_t uiWord20;          /**< the module's; big-endian on the wire */
    uint32_t uiRaLifetime;      /**< seconds */
    uint32_t uiWord28;          /**< the module's; big-endian on the wire */
    uint32_t uiFlags;           /**< ND_CFG_FLAG_* */
    uint32_t uiWord36;          /**< never written by ND_GetIfConfigInfo */
    uint32_t uiDestGuardMode;   /**< ND_DEST_GUARD_* */
    uint32_t uiWord44;          /**< the module's; big-endian on the wire */
    char szName[ND_IF_CONFIG_NAME_LEN]; /**< always terminated */
    uint32_t uiWord176;         /**< the module's; big-endian on the wire */
    uint32_t uiWord180;         /**< the module's; big-endian on the wire */
    uint16_t usHalf184;         /**< the module's; kept as received */
    uint16_t usHalf186;         /**< the module's; big-endian on the wire */
    uint32_t uiWord188;         /**< the module's; big-endian on the wire */
    uint32_t uiWord192;         /**< the module's; big-endian on the wire */
    uint32_t uiWord196;         /**< the module's; big-endian on the wire */
} NdIfConfigInfo;
IPCLIENT_STATIC_ASSERT(sizeof(NdIfConfigInfo) == ND_IF_CONFIG_LEN, nd_if_config_size);
IPCLIENT_STATIC_ASSERT(offsetof(NdIfConfigInfo, uiFlags) == 32, nd_if_config_flags);
IPCLIENT_STATIC_ASSERT(offsetof(NdIfConfigInfo, uiDestGuardMode) == 40, nd_if_config_guard);
IPCLIENT_STATIC_ASSERT(offsetof(NdIfConfigInfo, szName) == 48, nd_if_config_name);
IPCLIENT_STATIC_ASSERT(offsetof(NdIfConfigInfo, uiWord176) == 176, nd_if_config_word176);
IPCLIENT_STATIC_ASSERT(offsetof(NdIfConfigInfo, usHalf184) == 184, nd_if_config_half184);
IPCLIENT_STATIC_ASSERT(offsetof(NdIfConfigInfo, usHalf186) == 186, nd_if_config_half186);
IPCLIENT_STATIC_ASSERT(offsetof(NdIfConfigInfo, uiWord196) == 196, nd_if_config_word196);

/** Add the interface types of each list to a selection, in order: the result of the last
 * IF_SelectType_Set, or 0x40010001 for a null selection. */
IPCLIENT_API uint32_t ND_SelectL3IfType(struct IF_SELECT_S *pstSelect);
/** The 25 router-advertisement types. */
IPCLIENT_API uint32_t ND_RA_SelectL3IfType(struct IF_SELECT_S *pstSelect);
/** The 24 router-advertisement types of the VT list (type 110 is not among them). */
IPCLIENT_API uint32_t ND_RA_SelectL3IfTypeIncludeVT(struct IF_SELECT_S *pstSelect);
/** The 24 router-advertisement types of the RETH list (type 42 is not among them). */
IPCLIENT_API uint32_t ND_RA_SelectL3IfTypeIncludeRETH(struct IF_SELECT_S *pstSelect);
/** The 19 advertising types. */
IPCLIENT_API uint32_t ND_SelectL3IfTypeForRtAdvertise(struct IF_SELECT_S *pstSelect);
/** 1 when the interface's type (data item 18) is an ND layer-3 type, else 0. */
IPCLIENT_API uint32_t nd_IsConcernedL3If(uint32_t uiIfIndex);
/** The CIOCTL status; the record is written only on success. */
IPCLIENT_API uint32_t ND_GetIfConfigInfo(uint32_t uiIfIndex, NdIfConfigInfo *pstInfo);
/** Writes the interface's ND display text (CR LF between lines, none at the end) into a
 * buffer of ND_IF_DISPLAY_ROOM bytes; returns its length when it does not exceed uiSize,
 * else 0. 0 with nothing written for a null buffer or a layer-2 interface. */
IPCLIENT_API uint32_t ND_GetIfDisplayInfo(uint32_t uiIfIndex, uint32_t uiSize, char *pcBuf);
/** The hop limit, or 64 when the request fails. */
IPCLIENT_API uint8_t ND_GetHopLimit(void);
/** Global parameters: the status; the big-endian reply word is stored on success (the stale
 * aging reads 14400 when the module answers nothing). 0x40010001 for a null pointer. */
IPCLIENT_API uint32_t ND_GetStaleAging(uint32_t *puiValue);
/** The stale aging unit (operation 13), as above. */
IPCLIENT_API uint32_t ND_GetStaleAgingUnit(uint32_t *puiValue);
/** The word of operation 31, as above. */
IPCLIENT_API uint32_t ND_GetSnpDadRetTime(uint32_t *puiValue);
/** The word of operation 32, as above. */
IPCLIENT_API uint32_t ND_GetSnpInvalidTime(uint32_t *puiValue);
/** The word of operation 33, as above. */
IPCLIENT_API uint32_t ND_GetSnpValidTime(uint32_t *puiValue);
/** As above, but the word is stored only when the reply is not empty. */
IPCLIENT_API uint32_t ND_GetRate(uint32_t *puiValue);
/** Flag readers: 1 is stored when the flag is set; otherwise nothing is stored. */
IPCLIENT_API uint32_t ND_GetLinkLocalMinimize(uint16_t *pusValue);
/** Bit 0x80 of the flag byte of operation 29. */
IPCLIENT_API uint32_t ND_GetIPConflictRecord(uint16_t *pusValue);
/** Operation 28: bit 0x01 stores 1 in *pusOnOffLog, bit 0x02 in *pusMoveRecord. */
IPCLIENT_API uint32_t ND_GetOnOffLogAndMoveRecord(uint16_t *pusOnOffLog, uint16_t *pusMoveRecord);
/** Extension bitmap readers: the status of nd_GetExt3Bitmap; on success 1 or 0. Resolving
 * routes and topology-change handling are enabled when their bit is clear. */
IPCLIENT_API uint32_t ND_GetRaTunnelBroadCast(uint16_t *pusValue);
/** 1 when bit 0x8000 of the bitmap is clear, else 0. */
IPCLIENT_API uint32_t ND_GetResolvingRoute(uint16_t *pusValue);
/** 1 when bit 0x4000 of the bitmap is clear, else 0. */
IPCLIENT_API uint32_t ND_GetTopoChgEnable(uint16_t *pusValue);
/** Prints the MAD ND configuration of database ("eL2MAD", "L2MAD"), list "nd_madCfg" (its
 * 10-byte key, terminator included; the first 48 bytes of each record are the interface
 * name): "MAD ND disabled." without records or database; with records "MAD ND enabled."
 * when usDetail is 0, else "MAD ND enabled interface:" and then each name after two spaces,
 * one a line. Every line ends in CR LF. */
IPCLIENT_API void ND_MADDispalyCfg(uint16_t usDetail);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_ND_H */
