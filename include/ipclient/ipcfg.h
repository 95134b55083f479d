/**
 * @file
 * Address configuration client and interface type selection tables.
 *
 * Each configuration request is one message to the address configuration service (node
 * 0x8000, port 1653) on a socket opened and closed within the call: a 16-byte header (kind 0,
 * length after the first 8 bytes, message type, body length; big-endian) and a body. The
 * service's 32-bit result is returned as it stands; 0x2316002C when the exchange itself
 * failed. IPv4 addresses and masks are taken in network order and sent as they stand.
 *
 * After every DHCP, BOOTP or DHCP auto-configuration change the client makes sure that the
 * "DHCPC" service runs on the system's master node; failures there are not reported.
 */
#ifndef IPCLIENT_IPCFG_H
#define IPCLIENT_IPCFG_H

#include <stddef.h>
#include <stdint.h>

#include "ipclient/api.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/** Operation codes of configuration records (BE16 at the start of the record). This one adds
 * a manual address. */
#define IPCFG_OP_ADD_MANUAL 1u
/** Deletes a manual address. */
#define IPCFG_OP_DEL_MANUAL 2u
/** Unnumbered setting with a flag of 0. */
#define IPCFG_OP_UNNUMBERED_OFF 3u
/** Unnumbered setting with a non-zero flag. */
#define IPCFG_OP_UNNUMBERED_ON 4u
/** Negotiation setting with a flag of 0. */
#define IPCFG_OP_NEGOTIATION_OFF 5u
/** Negotiation setting with a non-zero flag. */
#define IPCFG_OP_NEGOTIATION_ON 6u
/** Switches an acquisition method on (enable argument 1). */
#define IPCFG_OP_ACQUIRE_ON 7u
/** Switches an acquisition method off (any other enable argument). */
#define IPCFG_OP_ACQUIRE_OFF 8u
/** Switches cellular acquisition on (enable argument 1). */
#define IPCFG_OP_CELLULAR_ON 9u
/** Switches cellular acquisition off (any other enable argument). */
#define IPCFG_OP_CELLULAR_OFF 10u
/** Adds a context address. */
#define IPCFG_OP_ADD_CONTEXT 11u
/** Deletes a context address. */
#define IPCFG_OP_DEL_CONTEXT 12u
/** Adds a backup address. */
#define IPCFG_OP_ADD_BACKUP 13u
/** Deletes a backup address. */
#define IPCFG_OP_DEL_BACKUP 14u

/** Acquisition methods, carried in the acquisition record. This one is DHCP. */
#define IPCFG_METHOD_DHCP 3u
/** Acquisition method BOOTP. */
#define IPCFG_METHOD_BOOTP 4u
/** Acquisition method DHCP auto-configuration. */
#define IPCFG_METHOD_DHCP_AUTOCFG 6u

/** Message types of the request header. This one carries a configuration record. */
#define IPCFG_MSG_RECORD 1u
/** Message type of the debug setting (IPCfg_Mor_SetDebug). */
#define IPCFG_MSG_DEBUG 2u
/** Message type of the unnumbered-interface query (IPCfg_Mor_GetUnnumberedIf). */
#define IPCFG_MSG_UNNUMBERED_QUERY 3u

/** Replies are read with one receive of at most this many bytes. */
#define IPCFG_REPLY_SIZE 64u

/** The extended reply, in host order. */
typedef struct IPCFG_REPLY_EXT_S {
    uint32_t uiResult;   /**< reply bytes 8-11 */
    uint32_t uiValue;    /**< reply bytes 12-15 */
    uint16_t usValue;    /**< reply bytes 16-17 */
    uint8_t aucRaw[2];   /**< reply bytes 18-19, as they stand */
} IPCFG_REPLY_EXT_S;
IPCLIENT_STATIC_ASSERT(sizeof(IPCFG_REPLY_EXT_S) == 12, ipcfg_reply_ext_size);

/** The debug record: converted to big-endian in place by IPCfg_Mor_SetDebug. */
typedef struct IPCFG_DEBUG_S {
    uint16_t usField1; /**< first field, forwarded as it stands */
    uint16_t usField2; /**< second field, forwarded as it stands */
    uint32_t uiField3; /**< third field, forwarded as it stands */
} IPCFG_DEBUG_S;
IPCLIENT_STATIC_ASSERT(sizeof(IPCFG_DEBUG_S) == 8, ipcfg_debug_size);

/**
 * Exchanges: send the request (length bytes) to the service, receive at most 64 bytes and
 * return the big-endian result at reply bytes 8-11. 0, or 0x40010001 when no socket,
 * connection, send or receive could be had. A reply shorter than 12 bytes is accepted; the
 * bytes it does not reach are what the receive buffer held: zeros for the plain exchange,
 * whose buffer starts zeroed, and the request's own bytes for the extended exchange, which
 * receives into the request buffer (that buffer must therefore hold 64 bytes).
 */
IPCLIENT_API uint32_t IPCfg_SendAndRevFromPort(const void *pReq, uint32_t uiLen, uint32_t *puiResult);
/** The extended exchange: receives into pReq and fills pstExt from reply bytes 8-19. */
IPCLIENT_API uint32_t IPCfg_SendAndRevFromPortExt(void *pReq, uint32_t uiLen, IPCFG_REPLY_EXT_S *pstExt);

/** Builders: one request each, the service's result or 0x2316002C. A non-zero delete flag
 * sends the delete code. ipcfg_SetAddr sends a manual address record (code 1, delete 2) with
 * the extended exchange and copies the extended reply when pstExt is not null. */
IPCLIENT_API uint32_t ipcfg_SetAddr(uint32_t uiDelete, uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask,
                                    uint32_t uiFourth, IPCFG_REPLY_EXT_S *pstExt);
/** Backup address record (code 13, delete 14), the fifth word included. */
IPCLIENT_API uint32_t ipcfg_SetBackUpAddr(uint32_t uiDelete, uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask,
                                          uint32_t uiFourth, uint32_t uiFifth);
/** Context address record (code 11, delete 12). */
IPCLIENT_API uint32_t ipcfg_SetContextAddr(uint32_t uiDelete, uint32_t uiIfIndex, uint32_t uiAddr,
                                           uint16_t usThird);
/** Acquisition: code 7 when uiEnable is 1, else 8; then the "DHCPC" service check. */
IPCLIENT_API uint32_t ipcfg_SetCfg(uint32_t uiIfIndex, uint32_t uiMethod, uint32_t uiEnable);

/** Adds a manual address (code 1); address and mask in network order. */
IPCLIENT_API uint32_t IPCfg_AddManualAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth);
/** As IPCfg_AddManualAddr, also copying the extended reply to pstExt when it is not null. */
IPCLIENT_API uint32_t IPCfg_AddManualAddrExt(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask,
                                             uint32_t uiFourth, IPCFG_REPLY_EXT_S *pstExt);
/** Deletes a manual address (code 2). */
IPCLIENT_API uint32_t IPCfg_DelManualAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth);
/** Adds a backup address (code 13); address and mask in network order. */
IPCLIENT_API uint32_t IPCfg_AddBackUpAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth,
                                          uint32_t uiFifth);
/** Deletes a backup address (code 14). */
IPCLIENT_API uint32_t IPCfg_DelBackUpAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint32_t uiMask, uint32_t uiFourth,
                                          uint32_t uiFifth);
/** Adds a context address (code 11); the address in network order. */
IPCLIENT_API uint32_t IPCfg_AddContextAddr(uint32_t uiIfIndex, uint32_t uiAddr, uint16_t usThird);
/** Deletes the interface's context address (code 12; address and third sent as 0). */
IPCLIENT_API uint32_t IPCfg_DelContextAddr(uint32_t uiIfIndex);
/** Switches DHCP acquisition (method 3) on when uiEnable is 1, else off. */
IPCLIENT_API uint32_t IPCfg_SetDhcp(uint32_t uiIfIndex, uint32_t uiEnable);
/** Switches BOOTP acquisition (method 4) on when uiEnable is 1, else off. */
IPCLIENT_API uint32_t IPCfg_SetBootp(uint32_t uiIfIndex, uint32_t uiEnable);
/** Switches DHCP auto-configuration (method 6) on when uiEnable is 1, else off. */
IPCLIENT_API uint32_t IPCfg_SetDhcp_Autocfg(uint32_t uiIfIndex, uint32_t uiEnable);
/** Cellular acquisition: code 9 when uiEnable is 1, else 10. */
IPCLIENT_API uint32_t IPCfg_SetCellular(uint32_t uiIfIndex, uint32_t uiEnable);
/** Negotiation setting: code 6 when usFlag is non-zero, else 5. */
IPCLIENT_API uint32_t IPCfg_Mor_SetNego(uint32_t uiIfIndex, uint16_t usFlag);
/** Unnumbered setting: code 4 when usFlag is non-zero, else 3, with the interface whose address
 * is borrowed. */
IPCLIENT_API uint32_t IPCfg_Mor_SetUnnumber(uint32_t uiIfIndex, uint32_t uiBorrowIfIndex, uint16_t usFlag);
/** Sends the debug record (message type 2); the record is left converted to big-endian.
 * A null record gives 0x40010001. */
IPCLIENT_API uint32_t IPCfg_Mor_SetDebug(IPCFG_DEBUG_S *pstDebug);
/** The interface whose address uiIfIndex borrows: 0 and the index, or 0x2316002C when the
 * exchange failed or the answer is 0. A null out pointer gives 0x40010001. */
IPCLIENT_API uint32_t IPCfg_Mor_GetUnnumberedIf(uint32_t uiIfIndex, uint32_t *puiBorrowIfIndex);

/* ---- Interface type selection tables ---------------------------------------------------- */

/** Number of entries of g_auiIPAddrCliIfType. */
#define IPCFG_CLI_IFTYPE_COUNT 43u
/** Number of entries of g_auiIPAddrShowIfType. */
#define IPCFG_SHOW_IFTYPE_COUNT 46u

/** Interface types that may carry addresses (configuration) and that are displayed. The
 * entries may be changed in place; the counts are fixed. */
IPCLIENT_API extern uint32_t g_auiIPAddrCliIfType[IPCFG_CLI_IFTYPE_COUNT];
/** Interface types that are displayed: the configuration list plus 11, 40 and 120. */
IPCLIENT_API extern uint32_t g_auiIPAddrShowIfType[IPCFG_SHOW_IFTYPE_COUNT];

/** The list and its fixed count (43, 46). puiCount may be null. */
IPCLIENT_API uint32_t *IPCFG_GetIfType(uint32_t *puiCount);
/** The display list and its fixed count, 46; puiCount may be null. */
IPCLIENT_API uint32_t *IPCFG_GetShowIfType(uint32_t *puiCount);

struct IF_SELECT_S;
/** Adds every type of the list to the platform selector; the OR of the answers. */
IPCLIENT_API uint32_t IPCFG_SetIFType(struct IF_SELECT_S *pstSelector);
/** The same with the display list. */
IPCLIENT_API uint32_t IPCFG_SetShowIFType(struct IF_SELECT_S *pstSelector);

/** An address entry read from the configuration database (24 bytes). Bytes 2-7 are not
 * written. Values are copied as the database stores them. */
typedef struct IPCFG_DB_ADDR_S {
    uint16_t usValue;       /**< the record's 16-bit value */
    uint8_t aucReserved[6]; /**< not written */
    uint32_t auiValue[4];   /**< the record's four 32-bit values */
} IPCFG_DB_ADDR_S;
IPCLIENT_STATIC_ASSERT(sizeof(IPCFG_DB_ADDR_S) == 24, ipcfg_db_addr_size);
IPCLIENT_STATIC_ASSERT(offsetof(IPCFG_DB_ADDR_S, auiValue) == 8, ipcfg_db_addr_values);

/**
 * Database reads for one interface. The 52-byte key is the key value (host order) and the
 * name, at most 47 characters, zero-padded to 48. IPCfg_Mor_GetAddrNum gives the number of
 * records (0 on error or a null name). IPCfg_Mor_GetAddr copies records until *pulCount
 * are copied (a count of 0 copies every record: the array must hold them all); 0 and the
 * number copied, or 0x40010001 with the count unchanged when nothing was copied.
 */
IPCLIENT_API uint32_t IPCfg_Mor_GetAddrNum(void *pDb, uint32_t uiKey, const char *pcName);
/** Copies the interface's records into pstEntries until *pulCount are copied (every one when 0):
 * 0 and the number copied, or 0x40010001 (also for a null name, count or array). */
IPCLIENT_API uint32_t IPCfg_Mor_GetAddr(void *pDb, uint32_t uiKey, const char *pcName, uint64_t *pulCount,
                                        IPCFG_DB_ADDR_S *pstEntries);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_IPCFG_H */
