/**
 * @file
 * Local IPC sockets and messages, and IP daemon service control.
 *
 * Local-IPC sockets are the platform's family 37: point-to-point sockets (protocol 1) to
 * services addressed by node and port, and group sockets (protocol 2). Messages framed by
 * IP_LIPC_SendMsg and read by IP_LIPC_RecvMsg / IP_LIPC_RecvMsg2 carry a 4-byte header:
 * type and total length (header included), both big-endian.
 *
 * Every socket here is opened, used and closed by the caller's thread; the daemon request
 * operations open and close their own socket on every path. Sends and receives block.
 */
#ifndef IPCLIENT_LIPC_H
#define IPCLIENT_LIPC_H

#include <stdint.h>

#include "ipclient/api.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/** Ports of the services reached here (on node 0x8000, the caller's own node). */
#define IP_LIPC_PORT_IPSTACK 1648u /**< IP daemon request port */
#define IP_LIPC_PORT_IPCFG 1653u   /**< address configuration service */
#define IP_LIPC_PORT_PORTATK 4418u /**< port-attack daemon */
#define IP_LIPC_OWN_NODE 0x8000u   /**< node number that names the caller's own node */

/** The 16-byte local-IPC socket address: length 16, family 37, port and node big-endian. */
typedef struct LIPC_SOCKADDR_S {
    uint8_t ucLen;           /**< 16; left 0 in the address IP_OpenSrvSock binds */
    uint8_t ucFamily;        /**< 37, the local-IPC family */
    uint8_t aucPort[2];      /**< port, big-endian */
    uint8_t aucNode[2];      /**< node, big-endian; 0x8000 is the own node */
    uint8_t aucReserved[10]; /**< zero */
} LIPC_SOCKADDR_S;

/** The 4-byte message header. */
typedef struct LIPC_MSG_HEAD_S {
    uint8_t aucType[2];   /**< message type, big-endian */
    uint8_t aucLength[2]; /**< total length including the header, big-endian */
} LIPC_MSG_HEAD_S;

IPCLIENT_STATIC_ASSERT(sizeof(LIPC_SOCKADDR_S) == 16, lipc_sockaddr_size);
IPCLIENT_STATIC_ASSERT(sizeof(LIPC_MSG_HEAD_S) == 4, lipc_head_size);

/**
 * Message buffers: IP_LIPC_AllocMsg(size) allocates size + 4 bytes and returns the address
 * 4 bytes into the block (null on failure), so that a received header lands in front of
 * the payload. IP_LIPC_FreeMsg frees such a buffer; null is ignored. Buffers given to the
 * receive operations and to IP_SendCfgMsgGetReply must come from IP_LIPC_AllocMsg.
 */
IPCLIENT_API void *IP_LIPC_AllocMsg(uint64_t ulSize);
/** Frees a buffer from IP_LIPC_AllocMsg (the block starts 4 bytes before pMsg); null is ignored. */
IPCLIENT_API void IP_LIPC_FreeMsg(void *pMsg);

/** Node of the socket's peer, in host order; 0 or 0x40010001. */
IPCLIENT_API uint32_t IP_GetPeerNodeFromSocket(int32_t iFd, uint16_t *pusNode);
/** A listening server socket on the own node's port (backlog 1024), or -1. */
IPCLIENT_API int32_t IP_OpenSrvSock(uint16_t usPort);
/** A connected socket to (node, port), or -1. The pull socket waits one second and tries
 * again while the connection is refused for lack of permission (at most 11 attempts). */
IPCLIENT_API int32_t IP_OpenPullSock(uint16_t usNode, uint16_t usPort);
/** A connected socket to (node, port), or -1: at most 11 connect attempts, repeated at once on
 * EINTR only; EISCONN counts as connected. */
IPCLIENT_API int32_t IP_OpenCliSock(uint16_t usNode, uint16_t usPort);
/** Closes a non-negative descriptor; anything else is ignored. */
IPCLIENT_API void IP_CloseSock(int32_t iFd);
/** A group socket of the given type that has joined the group (usFirst, usThird), or -1. */
IPCLIENT_API int32_t IP_JoinGroup(uint16_t usFirst, uint32_t uiGroupType, uint16_t usThird);

/**
 * Framed send: one message of type usType whose total is (usLen + 4) kept to 16 bits, as
 * the allocation and the send size alike; a null payload leaves the payload bytes zero.
 * 0 when the whole total was sent, else 0x40010001 (a negative descriptor sends nothing).
 * No retry on EINTR.
 */
IPCLIENT_API uint32_t IP_LIPC_SendMsg(int32_t iFd, uint16_t usType, const void *pPayload, uint16_t usLen);
/**
 * Framed receive into a buffer from IP_LIPC_AllocMsg: one receive of up to ulCap + 4
 * bytes. *pulLen receives the header's length minus 4 (0 when the header claims less than
 * 4), *puiType (optional) the header's type. A closed peer is not a failure: the header is
 * then what the buffer held. 0, or 0x40010001 on a failed receive.
 */
IPCLIENT_API uint32_t IP_LIPC_RecvMsg(int32_t iFd, uint64_t ulCap, void *pBuf, uint64_t *pulLen,
                                      uint32_t *puiType);
/**
 * Framed receive that grows: the header is peeked first; a message longer than ulCap is
 * read into a new buffer from IP_LIPC_AllocMsg, stored in *ppBuf, with *pusReplaced set to
 * 1 (the old buffer is left to the caller, who frees both). *pusReplaced is written only
 * then, so the caller sets it to 0 beforehand.
 */
IPCLIENT_API uint32_t IP_LIPC_RecvMsg2(int32_t iFd, uint64_t ulCap, void **ppBuf, uint64_t *pulLen,
                                       uint32_t *puiType, uint16_t *pusReplaced);
/** Framed send of the request, then IP_LIPC_RecvMsg of the reply; the reply's payload
 * length, 0 on any failure. A negative descriptor or a null reply buffer sends nothing. */
IPCLIENT_API uint64_t IP_SendCfgMsgGetReply(int32_t iFd, const void *pReq, uint32_t uiReqLen, uint16_t usType,
                                            uint64_t ulCap, void *pReply);
/** The same exchange with the IP daemon on its own socket (node 0x8000, port 1648); a null reply
 * buffer opens no socket. */
IPCLIENT_API uint64_t IP_GetMsgFromDaemon(const void *pReq, uint32_t uiReqLen, uint16_t usType, uint64_t ulCap,
                                          void *pReply);
/**
 * A command to the IP daemon with an 8-byte answer whose first 4 bytes are the daemon's
 * big-endian result, returned as it stands; 0x61010041 when the exchange fails. An answer
 * shorter than its 4-byte result (a closed peer) counts as a failed exchange. The payload
 * length is framed as IP_LIPC_SendMsg frames it (16 bits).
 */
IPCLIENT_API uint32_t IP_SendAndRecvMsgToDaemon(uint16_t usType, const void *pPayload, uint32_t uiLen);
/** A command to the IP daemon without answer: 0, or 0x61010041. */
IPCLIENT_API uint32_t IP_SendMsgToDaemon(uint16_t usType, const void *pPayload, uint16_t usLen);
/** The same exchange as IP_SendAndRecvMsgToDaemon with the port-attack daemon (port 4418). */
IPCLIENT_API uint32_t PORTATK_SendAndRecvMsgToDaemon(uint16_t usType, const void *pPayload, uint32_t uiLen);
/** Closes a non-negative descriptor; anything else is ignored. */
IPCLIENT_API void PORTATK_CloseSock(int32_t iFd);

/* ---- IP daemon service control ---------------------------------------------------------- */

/** Name of the IP daemon's service, "IPStack" unless the application repoints it; every
 * service operation below passes its current value. */
IPCLIENT_API extern char *g_pcIPStakcName;

/** The current value of g_pcIPStakcName. */
IPCLIENT_API char *IP_GetServiceName(void);
/** Starts the daemon on a node unless it reports any non-zero status: 0, or the service
 * manager's code. Node 0x8000 returns 0 at once. */
IPCLIENT_API uint32_t IP_StartDaemon(uint16_t usNode);
/** 1 when the daemon runs on the node (waiting while it is starting), else 0; 0 for 0x8000. */
IPCLIENT_API uint32_t IP_IsDaemonExist(uint16_t usNode);
/** Starts the daemon where it is missing: nothing (0) when it already runs on the local node or
 * the local node is 0x8000; otherwise on the local node, then on every node that lacks it:
 * 0 or 0x40010001. */
IPCLIENT_API uint32_t IP_ServiceStart(void);
/** Mode 0: as IP_ServiceStart. Otherwise 0 when the daemon runs on the local node, else
 * 0x40010001. */
IPCLIENT_API uint32_t IP_DaemonCheck(uint32_t uiMode);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_LIPC_H */
