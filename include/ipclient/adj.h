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

#define ADJ_PORT_ARP 11537u
#define ADJ_PORT_ND 11554u
#define ADJ_PORT_ARP_DAEMON 1639u
#define ADJ_PORT_WLAN 1641u
#define ADJ_TIMEOUT_DEFAULT 65535u
#define ADJ_MSG_HEAD_LEN 6u

/** Send flags used by callers: the platform's MSG_DONTWAIT and wait-for-all. */
#define ADJ_SEND_DONTWAIT 64
#define ADJ_SEND_WAITALL 256

/** A message's destination. */
typedef struct ADJ_MSG_DEST_S {
    uint16_t usNode;        /**< 0xFFFF means 0x8000 */
    uint16_t usPort;
    uint16_t usLen;         /**< payload length */
    uint16_t usReserved;
    const void *pPayload;
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
/** Send (count 1, flags 64) then receive on an open descriptor. */
IPCLIENT_API uint32_t ADJ4_GetMsg(uint8_t ucType, int32_t iFd, uint16_t usLen, const void *pPayload,
                                  uint16_t *pusReplyLen, void *pReply);
IPCLIENT_API void ADJ4_GetMsgEnd(int32_t iFd);
/** Opens (time-outs 5 s and 5 s), sends with flags 64, closes. */
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
 * length; the receive waits for the whole datagram (flag 256). */
IPCLIENT_API int32_t ADJ6_GetMsgStart(uint16_t usNode, uint16_t usPort, uint32_t uiSendTimeout,
                                      uint32_t uiRecvTimeout);
IPCLIENT_API uint32_t ADJ6_Send(uint8_t ucType, int32_t iFd, uint16_t usLen, uint16_t usCount,
                                const void *pPayload, int32_t iFlags);
IPCLIENT_API uint32_t ADJ6_Recv(int32_t iFd, uint16_t *pusLen, void *pBuf);
IPCLIENT_API uint32_t ADJ6_GetMsg(uint8_t ucType, int32_t iFd, uint16_t usLen, const void *pPayload,
                                  uint16_t *pusReplyLen, void *pReply);
IPCLIENT_API void ADJ6_GetMsgEnd(int32_t iFd);
IPCLIENT_API uint32_t ADJ6_SendMsg(uint8_t ucType, const ADJ_MSG_DEST_S *pstDest, uint16_t usCount);
IPCLIENT_API uint32_t ADJ6_SendMsgAndRecv(uint8_t ucType, const ADJ_MSG_DEST_S *pstDest, uint32_t uiSendTimeout,
                                          uint32_t uiRecvTimeout, int32_t iFlags, uint16_t *pusReplyLen,
                                          void *pReply);

/* ---- Generic netlink -------------------------------------------------------------------- */

/** Longest family name sent; longer names are cut. Replies are read into 48 bytes, so names
 * of up to 15 characters resolve. */
#define ADJ_GENL_NAME_MAX 23u
#define ADJ_GENL_FLAG_REQUEST 1u

typedef struct ADJ_GENL_S {
    int32_t iSock;             /**< -1 when closed */
    uint16_t usFamilyId;
    uint16_t usFlags;          /**< netlink message flags to send */
    uint8_t ucCmd;             /**< generic-netlink command */
    uint8_t aucReserved[7];
    const char *pcFamilyName;
    void *pBuffer;             /**< owned receive buffer, freed on close when set */
} ADJ_GENL_S;

IPCLIENT_API uint32_t ADJ4_GetGenlFamilyId(int32_t iSock, const char *pcName, uint16_t *pusId);
IPCLIENT_API uint32_t ADJ4_GenlOpen(ADJ_GENL_S *pstGenl);
IPCLIENT_API uint32_t ADJ4_GenlSendCmd(ADJ_GENL_S *pstGenl, const void *pPayload, uint32_t uiLen);
IPCLIENT_API void ADJ4_GenlClose(ADJ_GENL_S *pstGenl);
/** Resolves the family, sends the command (flags 1) and receives one reply without
 * blocking into the cleared reply buffer; 0 when the reply is of that family. */
IPCLIENT_API uint32_t ADJ4_GenlRecvDoIt(const char *pcName, uint8_t ucCmd, const void *pPayload, uint32_t uiLen,
                                        uint32_t uiCap, void *pReply);

/* ---- Walk over a doubly linked queue ---------------------------------------------------- */

/** A queue node (and the queue's head): next, then previous. An empty queue's head points at
 * itself. */
typedef struct ADJ_DTQ_NODE_S {
    struct ADJ_DTQ_NODE_S *pstNext;
    struct ADJ_DTQ_NODE_S *pstPrev;
} ADJ_DTQ_NODE_S;

/** The walk's context, allocated zeroed by ADJ_DtqWalkReg and freed by the anchor service. */
typedef struct ADJ_DTQ_WALK_S {
    uint8_t ucKind;
    uint64_t ulUser;
    uint64_t ulLast;          /**< position last returned; all ones after a step */
    ADJ_DTQ_NODE_S *pstHead;  /**< null once the walk is finished */
    uint32_t uiKey;
} ADJ_DTQ_WALK_S;

#define ADJ_DTQ_FORWARD 2u

/** A step function: the next position after `position` (0 at the end). */
typedef uint64_t (*ADJ_DTQ_STEP_PF)(uint32_t uiDirection, uint64_t ulPosition, void *pContext, void **ppContextOut);

IPCLIENT_API uint64_t ADJ_DtqWalkReg(void *pAnchor, uint8_t ucKind, uint32_t uiKey, ADJ_DTQ_NODE_S *pstHead,
                                     uint64_t ulUser);
IPCLIENT_API void ADJ_DtqWalkUnReg(uint64_t ulHandle, void *pAnchor);
/** The next position, or 0 at the end or on failure. A position the anchor service moved
 * the cursor to (its element was removed) is returned without stepping. */
IPCLIENT_API uint64_t ADJ_GetDtqNext(uint64_t ulHandle, void *pAnchor, ADJ_DTQ_STEP_PF pfStep);
/** The step for a doubly linked queue: direction 2 forward (next pointers), else backward;
 * position 0 starts at the first (last) node. */
IPCLIENT_API uint64_t ADJ_DtqWalkGetNext(uint32_t uiDirection, uint64_t ulPosition, void *pContext,
                                         void **ppContextOut);

/* ---- Protocol-to-CPU channel ------------------------------------------------------------ */

#define PROEN_PORT 1680u
#define PROEN_PORT_LOCAL 11557u
#define PROEN_MSG_HEAD_LEN 20u
#define PROEN_REQUEST_LEN 96u
#define PROEN_MSG_ENABLE 1u
#define PROEN_MSG_SMOOTH_START 4u
#define PROEN_MSG_SMOOTH_END 6u

typedef struct ProenMsgRequest {
    uint16_t usNode;
    uint16_t usPort;
    uint32_t uiLen;
    const void *pPayload;
} ProenMsgRequest;

/** One element of IP_EnableProtocolPacketListToCPU: the nine arguments of
 * IP_EnableProtocolToCPU in order (word 1 the per-interface flag, word 8 the index). */
typedef struct ProenEnableItem {
    uint32_t auiWord[9];
} ProenEnableItem;

/** One element of IP_EnableProtocolToCpuEx (48 bytes, host order). */
typedef struct ProenEnableItemEx {
    uint32_t auiWord[11]; /**< word 1 is the per-interface flag, word 10 the interface index */
    uint16_t usHalf;
    uint16_t usReserved;
} ProenEnableItemEx;

IPCLIENT_STATIC_ASSERT(sizeof(ProenEnableItem) == 36, proen_item_size);
IPCLIENT_STATIC_ASSERT(sizeof(ProenEnableItemEx) == 48, proen_item_ex_size);

/** A connected descriptor (time-outs 30 s), or -1 (0xFFFFFFFF). */
IPCLIENT_API int32_t PROEN_MSG_MsgStart(uint16_t usNode, uint16_t usPort);
IPCLIENT_API void PROEN_MSG_MsgEnd(int32_t iFd);
/** Header and payload in one non-blocking send; 0 only when the whole message went. A null
 * payload with a non-zero length gives 0x40010001 and sends nothing. */
IPCLIENT_API uint32_t PROEN_MSG_Send(uint32_t uiType, int32_t iFd, uint32_t uiReplyFlag, uint32_t uiLen,
                                     const void *pPayload);
IPCLIENT_API uint32_t PROEN_MSG_Recv(int32_t iFd, uint16_t *pusLen, void *pBuf);
IPCLIENT_API uint32_t PROEN_MSG_GetMsg(uint32_t uiType, int32_t iFd, uint32_t uiLen, const void *pPayload,
                                       uint16_t *pusReplyLen, void *pReply);
/** Uses the process descriptor when one is open, else a socket of its own for this call
 * (0x2001000e when none can be opened). */
IPCLIENT_API uint32_t PROEN_MSG_SendMsgAndRecv(uint32_t uiType, const ProenMsgRequest *pstReq, uint16_t *pusReplyLen,
                                               void *pReply);
IPCLIENT_API int32_t PROEN_Open(void);
IPCLIENT_API void PROEN_Close(int32_t iFd);
IPCLIENT_API int32_t PROEN_GetSocketFd(void);
IPCLIENT_API uint32_t PROEN_AppSmoothStart(uint32_t uiWord1, uint32_t uiWord2);
IPCLIENT_API uint32_t PROEN_AppSmoothEnd(uint32_t uiWord1, uint32_t uiWord2);

/** Inside a child multi-tenant context every enabling operation returns 0 and sends nothing. */
IPCLIENT_API uint32_t IP_EnableProtocolToCPU(uint32_t uiWord1, uint32_t uiPerInterface, uint32_t uiWord3,
                                             uint32_t uiWord4, uint32_t uiWord5, uint32_t uiWord6, uint32_t uiWord7,
                                             uint32_t uiWord8, uint32_t uiIfIndex);
IPCLIENT_API uint32_t IP_EnableProtocolToCPULocal(uint32_t uiWord1, uint32_t uiPerInterface, uint32_t uiWord3,
                                                  uint32_t uiWord4, uint32_t uiWord5, uint32_t uiWord6,
                                                  uint32_t uiWord7, uint32_t uiWord8, uint32_t uiIfIndex);
/** The sum of the per-element send results (0 when every element went). */
IPCLIENT_API uint32_t IP_EnableProtocolPacketListToCPU(uint32_t uiCount, ProenEnableItem *pstList);
IPCLIENT_API uint32_t IP_EnableProtocolToCpuEx(uint32_t uiCount, const ProenEnableItemEx *pstList, uint32_t uiWord);

/* ---- WLAN adjacency ------------------------------------------------------------------- */

/** Event callback: event type and the entry (from its first word, host order for its first
 * word only), or null for the entry-less event 2. Its result is ignored. */
typedef uint32_t (*WADJ4_EVENT_PF)(uint32_t uiType, void *pEntry);
IPCLIENT_API extern WADJ4_EVENT_PF g_pfWADJ4EventProc;

#define WADJ4_ENTRY_LEN 200u
#define WADJ4_EVENT_MAX 4096u

IPCLIENT_API int32_t WADJ4_RegEvent(uint32_t uiSelector, WADJ4_EVENT_PF pfCallback);
IPCLIENT_API void WADJ4_DeregEvent(int32_t iFd);
/** Reads one datagram without blocking and delivers its records. A record shorter than its
 * 12-byte header or longer than what remains ends the datagram. */
IPCLIENT_API uint32_t WADJ4_ProcEvent(int32_t iFd);
IPCLIENT_API uint32_t WADJ4_Refresh(uint32_t uiFirst, uint32_t uiSecond, const void *pEntry);
IPCLIENT_API uint32_t WADJ4_Delete(uint32_t uiFirst, uint32_t uiIfIndex);
IPCLIENT_API uint32_t WADJ4_DeleteByIf(uint32_t uiIfIndex, uint16_t usSelector);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_ADJ_H */
