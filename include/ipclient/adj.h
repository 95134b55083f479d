/**
 * @file
 * Adjacency and protocol-enable channels.
 *
 * The adjacency message channel carries messages with a 6-byte header (type, reserved byte,
 * BE16 payload length, BE16 element count) on local-IPC connections to the adjacency
 * services: 11537 IPv4 adjacency, 11554 IPv6 adjacency, 1639 ARP entry daemon, 1641 WLAN
 * adjacency. ADJ4_* serve IPv4 users and ADJ6_* IPv6 users; they differ only where noted.
 * Node 0xFFFF in a destination means 0x8000, the caller's own node. A time-out of 65535
 * leaves the socket's default.
 *
 * The generic-netlink path resolves a family by name through the controller and sends one
 * command. The walk keeps its cursor in the platform's anchor service, which moves the
 * cursor to a successor when the element under it is removed.
 *
 * The protocol-to-CPU channel sends 96-byte enable requests in a 20-byte header to the
 * protocol-enable service (node 0x8000, port 1680; 11557 for the local variant).
 *
 * Every channel failure is 0x40010001 (descriptors: -1) unless noted.
 */
#ifndef IPCLIENT_ADJ_H
#define IPCLIENT_ADJ_H

#include <stddef.h>
#include <stdint.h>

#include "ipclient/api.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/** Port of the IPv4 adjacency service (ARP). */
#define ADJ_PORT_ARP 11537u
/** Port of the IPv6 adjacency service (ND). */
#define ADJ_PORT_ND 11554u
/** Port of the ARP entry daemon, on node 0x8000. */
#define ADJ_PORT_ARP_DAEMON 1639u
/** Port of the WLAN adjacency service. */
#define ADJ_PORT_WLAN 1641u
/** Time-out value (seconds) that leaves the socket's default time-out. */
#define ADJ_TIMEOUT_DEFAULT 65535u
/** Length of the message header: type, reserved byte, BE16 payload length, BE16 element count. */
#define ADJ_MSG_HEAD_LEN 6u

/** Send flags used by callers: the platform's MSG_DONTWAIT and wait-for-all. This one, 64, sends
 * without blocking; 0 sends blocking. */
#define ADJ_SEND_DONTWAIT 64
/** Send flag 256 (0x100), the platform's wait-for-all; used for table refreshes. */
#define ADJ_SEND_WAITALL 256

/** A message's destination. */
typedef struct ADJ_MSG_DEST_S {
    uint16_t usNode;        /**< 0xFFFF means 0x8000 */
    uint16_t usPort;        /**< destination port */
    uint16_t usLen;         /**< payload length */
    uint16_t usReserved;    /**< not used */
    const void *pPayload;   /**< payload bytes, sent as they stand; required */
} ADJ_MSG_DEST_S;

/** Opens a connection to (node, port) with the time-outs in seconds; a descriptor or -1.
 * At most 11 connect attempts; EINTR retries, EISCONN counts as connected. */
IPCLIENT_API int32_t ADJ4_GetMsgStart(uint16_t usNode, uint16_t usPort, uint32_t uiSendTimeout,
                                      uint32_t uiRecvTimeout);
/** Sends type, length and count in the header, then the payload, in one send with the
 * caller's flags; 0 only when the whole message went. A null payload with a non-zero
 * length gives 0x40010001 and sends nothing. */
IPCLIENT_API uint32_t ADJ4_Send(uint8_t ucType, int32_t iFd, uint16_t usLen, uint16_t usCount,
                                const void *pPayload, int32_t iFlags);
/** One receive of at most *pusLen bytes (repeated on EINTR): 0 and the length received, or
 * 0x40010001 with *pusLen 0 (also for a closed peer). */
IPCLIENT_API uint32_t ADJ4_Recv(int32_t iFd, uint16_t *pusLen, void *pBuf);
/** Send (count 1, flags 64) then receive on an open descriptor. A null payload or reply buffer
 * gives 0x40010001. */
IPCLIENT_API uint32_t ADJ4_GetMsg(uint8_t ucType, int32_t iFd, uint16_t usLen, const void *pPayload,
                                  uint16_t *pusReplyLen, void *pReply);
/** Closes a non-negative descriptor; a negative one is ignored. */
IPCLIENT_API void ADJ4_GetMsgEnd(int32_t iFd);
/** Opens (time-outs 5 s and 5 s), sends with flags 64, closes. A null destination or payload
 * gives 0x40010001. */
IPCLIENT_API uint32_t ADJ4_SendMsg(uint8_t ucType, const ADJ_MSG_DEST_S *pstDest, uint16_t usCount);
/**
 * Opens with the caller's time-outs, sends (count 1), receives one reply, closes. A null
 * destination, payload or reply buffer is refused before anything is opened. The IPv4 form
 * does not check the reply length pointer first: with a null one it still sends, then
 * fails without receiving. The IPv6 form refuses it before opening.
 */
IPCLIENT_API uint32_t ADJ4_SendMsgAndRecv(uint8_t ucType, const ADJ_MSG_DEST_S *pstDest, uint32_t uiSendTimeout,
                                          uint32_t uiRecvTimeout, int32_t iFlags, uint16_t *pusReplyLen,
                                          void *pReply);

/** The IPv6 twins: the send succeeds when its result, taken as 16 bits, is the message's
 * length; the receive waits for the whole datagram (flag 256). This one opens exactly as
 * ADJ4_GetMsgStart. */
IPCLIENT_API int32_t ADJ6_GetMsgStart(uint16_t usNode, uint16_t usPort, uint32_t uiSendTimeout,
                                      uint32_t uiRecvTimeout);
/** As ADJ4_Send, but a result of -1 is not refused first: only its low 16 bits are compared
 * with 6 plus the length. */
IPCLIENT_API uint32_t ADJ6_Send(uint8_t ucType, int32_t iFd, uint16_t usLen, uint16_t usCount,
                                const void *pPayload, int32_t iFlags);
/** As ADJ4_Recv, receiving with flag 256 (the whole datagram). */
IPCLIENT_API uint32_t ADJ6_Recv(int32_t iFd, uint16_t *pusLen, void *pBuf);
/** As ADJ4_GetMsg, with the IPv6 send and receive. */
IPCLIENT_API uint32_t ADJ6_GetMsg(uint8_t ucType, int32_t iFd, uint16_t usLen, const void *pPayload,
                                  uint16_t *pusReplyLen, void *pReply);
/** Closes a non-negative descriptor; a negative one is ignored. */
IPCLIENT_API void ADJ6_GetMsgEnd(int32_t iFd);
/** As ADJ4_SendMsg, with the IPv6 send. */
IPCLIENT_API uint32_t ADJ6_SendMsg(uint8_t ucType, const ADJ_MSG_DEST_S *pstDest, uint16_t usCount);
/** As ADJ4_SendMsgAndRecv, with the IPv6 send and receive; a null reply length pointer is
 * also refused before anything is opened. */
IPCLIENT_API uint32_t ADJ6_SendMsgAndRecv(uint8_t ucType, const ADJ_MSG_DEST_S *pstDest, uint32_t uiSendTimeout,
                                          uint32_t uiRecvTimeout, int32_t iFlags, uint16_t *pusReplyLen,
                                          void *pReply);

/* ---- Generic netlink -------------------------------------------------------------------- */

/** Longest family name sent; longer names are cut. Replies are read into 48 bytes, so names
 * of up to 15 characters resolve. */
#define ADJ_GENL_NAME_MAX 23u
/** Netlink message flag 1: a request. */
#define ADJ_GENL_FLAG_REQUEST 1u

/** A generic-netlink handle: a socket and the family and command it sends to. */
typedef struct ADJ_GENL_S {
    int32_t iSock;             /**< -1 when closed */
    uint16_t usFamilyId;       /**< family id, filled by ADJ4_GenlOpen */
    uint16_t usFlags;          /**< netlink message flags to send */
    uint8_t ucCmd;             /**< generic-netlink command */
    uint8_t aucReserved[7];    /**< not used */
    const char *pcFamilyName;  /**< name of the family to resolve */
    void *pBuffer;             /**< owned receive buffer, freed on close when set */
} ADJ_GENL_S;

/** Asks the controller, on an open netlink socket, for the id of a family: 0 and the id, or
 * 0x40010001 (also for a null pointer or an error report of the kernel). */
IPCLIENT_API uint32_t ADJ4_GetGenlFamilyId(int32_t iSock, const char *pcName, uint16_t *pusId);
/** Opens a raw netlink socket of protocol 16 (generic netlink) and resolves pcFamilyName:
 * 0 with iSock and usFamilyId stored, or 0x40010001 with the socket closed. */
IPCLIENT_API uint32_t ADJ4_GenlOpen(ADJ_GENL_S *pstGenl);
/** Sends one command to the kernel in one sendmsg: netlink header (length payload plus 20, type
 * the family id, the handle's flags; host order), generic header (the command), payload. 0 or 0x40010001. */
IPCLIENT_API uint32_t ADJ4_GenlSendCmd(ADJ_GENL_S *pstGenl, const void *pPayload, uint32_t uiLen);
/** Closes a non-negative socket (iSock becomes -1) and frees pBuffer (then null). */
IPCLIENT_API void ADJ4_GenlClose(ADJ_GENL_S *pstGenl);
/** Resolves the family, sends the command (flags 1) and receives one reply without
 * blocking into the cleared reply buffer; 0 when the reply is of that family. */
IPCLIENT_API uint32_t ADJ4_GenlRecvDoIt(const char *pcName, uint8_t ucCmd, const void *pPayload, uint32_t uiLen,
                                        uint32_t uiCap, void *pReply);

/* ---- Walk over a doubly linked queue ---------------------------------------------------- */

/** A queue node (and the queue's head): next, then previous. An empty queue's head points at
 * itself. */
typedef struct ADJ_DTQ_NODE_S {
    struct ADJ_DTQ_NODE_S *pstNext; /**< next node; in the head, the first node */
    struct ADJ_DTQ_NODE_S *pstPrev; /**< previous node; in the head, the last node */
} ADJ_DTQ_NODE_S;

/** The walk's context, allocated zeroed by ADJ_DtqWalkReg and freed by the anchor service. */
typedef struct ADJ_DTQ_WALK_S {
    uint8_t ucKind;           /**< caller's tag */
    uint64_t ulUser;          /**< caller's value */
    uint64_t ulLast;          /**< position last returned; all ones after a step */
    ADJ_DTQ_NODE_S *pstHead;  /**< null once the walk is finished */
    uint32_t uiKey;           /**< anchor key of the walk; the step function gets it as its direction */
} ADJ_DTQ_WALK_S;

/** Direction of ADJ_DtqWalkGetNext that follows the next pointers; any other walks backward. */
#define ADJ_DTQ_FORWARD 2u

/** A step function: the next position after `position` (0 at the end). */
typedef uint64_t (*ADJ_DTQ_STEP_PF)(uint32_t uiDirection, uint64_t ulPosition, void *pContext, void **ppContextOut);

/** Starts a walk over the queue at pstHead: allocates its context and begins an anchor path of
 * (pAnchor, uiKey) at position 0. The walk handle (non-zero), or 0. */
IPCLIENT_API uint64_t ADJ_DtqWalkReg(void *pAnchor, uint8_t ucKind, uint32_t uiKey, ADJ_DTQ_NODE_S *pstHead,
                                     uint64_t ulUser);
/** Ends the walk's anchor path; the anchor service frees the context. A zero handle is ignored. */
IPCLIENT_API void ADJ_DtqWalkUnReg(uint64_t ulHandle, void *pAnchor);
/** The next position, or 0 at the end or on failure. A position the anchor service moved
 * the cursor to (its element was removed) is returned without stepping. The step function
 * is called with the walk's key as its direction. */
IPCLIENT_API uint64_t ADJ_GetDtqNext(uint64_t ulHandle, void *pAnchor, ADJ_DTQ_STEP_PF pfStep);
/** The step for a doubly linked queue: direction 2 forward (next pointers), else backward;
 * position 0 starts at the first (last) node. */
IPCLIENT_API uint64_t ADJ_DtqWalkGetNext(uint32_t uiDirection, uint64_t ulPosition, void *pContext,
                                         void **ppContextOut);

/* ---- Protocol-to-CPU channel ------------------------------------------------------------ */

/** Port of the protocol-enable service, on node 0x8000. */
#define PROEN_PORT 1680u
/** Port of its local variant, on the caller's own node (IP_EnableProtocolToCPULocal). */
#define PROEN_PORT_LOCAL 11557u
/** Length of the channel's message header: BE32 type, reply flag (0 wait, 1 not), 1 and 20,
 * then bytes 00 60 and two zero bytes. */
#define PROEN_MSG_HEAD_LEN 20u
/** Length of an enable request payload: zero-filled, every word big-endian. */
#define PROEN_REQUEST_LEN 96u
/** Message type of an enable request. */
#define PROEN_MSG_ENABLE 1u
/** Message type of the application smooth start. */
#define PROEN_MSG_SMOOTH_START 4u
/** Message type of the application smooth end. */
#define PROEN_MSG_SMOOTH_END 6u

/** Where and what PROEN_MSG_SendMsgAndRecv sends, in host order. */
typedef struct ProenMsgRequest {
    uint16_t usNode;      /**< destination node; not used while the process descriptor is open */
    uint16_t usPort;      /**< destination port; likewise */
    uint32_t uiLen;       /**< payload length in bytes */
    const void *pPayload; /**< payload, sent as it stands; required */
} ProenMsgRequest;

/** One element of IP_EnableProtocolPacketListToCPU: the nine arguments of
 * IP_EnableProtocolToCPU in order (word 1 the per-interface flag, word 8 the index). */
typedef struct ProenEnableItem {
    uint32_t auiWord[9]; /**< the nine arguments, host order */
} ProenEnableItem;

/** One element of IP_EnableProtocolToCpuEx (48 bytes, host order). */
typedef struct ProenEnableItemEx {
    uint32_t auiWord[11]; /**< word 1 is the per-interface flag, word 10 the interface index */
    uint16_t usHalf;      /**< sent big-endian at payload offset 68 */
    uint16_t usReserved;  /**< not carried */
} ProenEnableItemEx;

IPCLIENT_STATIC_ASSERT(sizeof(ProenEnableItem) == 36, proen_item_size);
IPCLIENT_STATIC_ASSERT(sizeof(ProenEnableItemEx) == 48, proen_item_ex_size);

/** A connected descriptor (time-outs 30 s), or -1 (0xFFFFFFFF). */
IPCLIENT_API int32_t PROEN_MSG_MsgStart(uint16_t usNode, uint16_t usPort);
/** Closes a non-negative descriptor; a negative one is ignored. */
IPCLIENT_API void PROEN_MSG_MsgEnd(int32_t iFd);
/** Header and payload in one non-blocking send; 0 only when the whole message went. A null
 * payload with a non-zero length gives 0x40010001 and sends nothing. */
IPCLIENT_API uint32_t PROEN_MSG_Send(uint32_t uiType, int32_t iFd, uint32_t uiReplyFlag, uint32_t uiLen,
                                     const void *pPayload);
/** One receive of at most *pusLen bytes with flag 256 (wait for all), repeated on EINTR: 0 and
 * the length received, or 0x40010001 with *pusLen 0. */
IPCLIENT_API uint32_t PROEN_MSG_Recv(int32_t iFd, uint16_t *pusLen, void *pBuf);
/** Sends with reply flag 0, then receives the reply: the send's failure, or the receive's result. */
IPCLIENT_API uint32_t PROEN_MSG_GetMsg(uint32_t uiType, int32_t iFd, uint32_t uiLen, const void *pPayload,
                                       uint16_t *pusReplyLen, void *pReply);
/** Uses the process descriptor when one is open, else a socket of its own for this call
 * (0x2001000e when none can be opened). A null request, payload or reply buffer gives
 * 0x40010001. */
IPCLIENT_API uint32_t PROEN_MSG_SendMsgAndRecv(uint32_t uiType, const ProenMsgRequest *pstReq, uint16_t *pusReplyLen,
                                               void *pReply);
/** Opens a descriptor to node 0x8000, port 1680 and keeps it as the process descriptor; the
 * descriptor, or -1 (nothing kept). */
IPCLIENT_API int32_t PROEN_Open(void);
/** Closes the process descriptor and forgets it; any other or a negative descriptor is ignored. */
IPCLIENT_API void PROEN_Close(int32_t iFd);
/** The process descriptor, or -1 when none is open. */
IPCLIENT_API int32_t PROEN_GetSocketFd(void);
/** Sends message type 4 on the process descriptor with reply flag 1 and the 8-byte payload
 * uiWord2, uiWord1 (big-endian); no reply is read. The send's result, so 0x40010001 when no
 * process descriptor is open. */
IPCLIENT_API uint32_t PROEN_AppSmoothStart(uint32_t uiWord1, uint32_t uiWord2);
/** As PROEN_AppSmoothStart, with message type 6. */
IPCLIENT_API uint32_t PROEN_AppSmoothEnd(uint32_t uiWord1, uint32_t uiWord2);

/**
 * Sends one enable request to node 0x8000, port 1680 and returns the service's 4-byte status,
 * or the channel's failure. A per-interface request (uiPerInterface non-zero) with uiIfIndex 0
 * gives 0x40010001; one for an interface of type 40 or 11 (data item 18) gives 0, unsent.
 * Inside a child multi-tenant context every enabling operation returns 0 and sends nothing.
 */
IPCLIENT_API uint32_t IP_EnableProtocolToCPU(uint32_t uiWord1, uint32_t uiPerInterface, uint32_t uiWord3,
                                             uint32_t uiWord4, uint32_t uiWord5, uint32_t uiWord6, uint32_t uiWord7,
                                             uint32_t uiWord8, uint32_t uiIfIndex);
/** As IP_EnableProtocolToCPU, with payload half-word 92 set to 1; without a process
 * descriptor it goes to the local node (LIP_GetLocalLip), port 11557. */
IPCLIENT_API uint32_t IP_EnableProtocolToCPULocal(uint32_t uiWord1, uint32_t uiPerInterface, uint32_t uiWord3,
                                                  uint32_t uiWord4, uint32_t uiWord5, uint32_t uiWord6,
                                                  uint32_t uiWord7, uint32_t uiWord8, uint32_t uiIfIndex);
/** Sends every element as an enable request without waiting for replies; the sum of the
 * per-element send results (0 when every element went). A null list gives 0x40010001, no
 * socket 0x2001000e. An element without the per-interface flag gets word 8 set to 0 in place. */
IPCLIENT_API uint32_t IP_EnableProtocolPacketListToCPU(uint32_t uiCount, ProenEnableItem *pstList);
/** Sends every element as a form-3 request (uiWord at payload offset 88) without waiting; the
 * sum of the send results. A zero count or null list gives 0x40010001, even in a child context.
 * The per-interface flag of every element is read from the first element. */
IPCLIENT_API uint32_t IP_EnableProtocolToCpuEx(uint32_t uiCount, const ProenEnableItemEx *pstList, uint32_t uiWord);

/* ---- WLAN adjacency ------------------------------------------------------------------- */

/** Event callback: event type and the entry (from its first word, host order for its first
 * word only), or null for the entry-less event 2. Its result is ignored. */
typedef uint32_t (*WADJ4_EVENT_PF)(uint32_t uiType, void *pEntry);
/** The process's one WLAN event callback; null when nobody is subscribed. */
IPCLIENT_API extern WADJ4_EVENT_PF g_pfWADJ4EventProc;

/** Length in bytes of a WLAN adjacency entry. */
#define WADJ4_ENTRY_LEN 200u
/** Largest event datagram read by WADJ4_ProcEvent, in bytes. */
#define WADJ4_EVENT_MAX 4096u

/** Subscribes on node 0x8000, port 1641 (time-outs 5 s and 1 s): message type 5 with the BE32
 * selector and 4 zero bytes. On success the callback is stored, replacing any earlier one, and
 * the descriptor returned; else -1. A null callback is stored like any other: no subscriber,
 * and WADJ4_ProcEvent fails without reading. */
IPCLIENT_API int32_t WADJ4_RegEvent(uint32_t uiSelector, WADJ4_EVENT_PF pfCallback);
/** Closes a non-negative descriptor and clears the callback; a negative one is ignored. */
IPCLIENT_API void WADJ4_DeregEvent(int32_t iFd);
/** Reads one datagram without blocking and delivers its records. A record shorter than its
 * 12-byte header or longer than what remains ends the datagram. 0, or 0x40010001 when no
 * callback is registered or the receive fails. */
IPCLIENT_API uint32_t WADJ4_ProcEvent(int32_t iFd);
/** Installs or refreshes an entry in the WLAN module (command 0x150001, node 0x8000): both words
 * and the 200-byte entry as given. The channel status; 0x40010001 for a null entry. */
IPCLIENT_API uint32_t WADJ4_Refresh(uint32_t uiFirst, uint32_t uiSecond, const void *pEntry);
/** Deletes an entry by first word and interface index, as given; the channel status, or
 * 0x40010001 unsent when the interface's kind (data item 32) is 4. */
IPCLIENT_API uint32_t WADJ4_Delete(uint32_t uiFirst, uint32_t uiIfIndex);
/** Deletes an interface's entries, with a 16-bit selector as given; the same kind test. */
IPCLIENT_API uint32_t WADJ4_DeleteByIf(uint32_t uiIfIndex, uint16_t usSelector);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_ADJ_H */
