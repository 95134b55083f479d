/**
 * @file
 * IP statistics and forwarding settings kept by the kernel's IP module (command 0x5b0001)
 * on every node: counters summed over the nodes that take part, per-interface counters,
 * BPA statistics and configuration, ECMP and load-sharing modes, TTL, MTU, and the lists of
 * interface types counted for statistics, BPA and load-sharing paths.
 *
 * IP module request: BE16 operation, BE16 data length (4 or 0), BE32 data. Replies are
 * converted from big-endian before they reach the caller. Every pointer argument is
 * checked: a null one gives 0x40010001 (or nothing, for operations without a result).
 */
#ifndef IPCLIENT_IPSTAT_H
#define IPCLIENT_IPSTAT_H

#include <stdint.h>

#include "ipclient/api.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/** IP counters of a node: 26 unsigned 32-bit counters (104 bytes). */
#define IP_STAT_COUNTERS 26u
/** Forwarding counters of an interface: 8 unsigned 64-bit counters. */
#define IP_FWIF_COUNTERS 8u
/** ICMP counters of an interface: 43 unsigned 32-bit counters (172 bytes). */
#define IP_ICMPIF_COUNTERS 43u
/** MIB counters of an interface: 19 unsigned 64-bit counters (152 bytes). */
#define IP_MIBIF_COUNTERS 19u
/** Records of the BPA statistics, each of IP_BPA_COUNTERS counters (2560 bytes in all). */
#define IP_BPA_RECORDS 64u
/** Counters of one BPA statistics record: 5 unsigned 64-bit counters. */
#define IP_BPA_COUNTERS 5u

/** Initially 1; the library only reads it. */
IPCLIENT_API extern uint32_t g_uiIPForwarding;

/** The 26 IP counters of one node. uiWord's low 16 bits are the operation, its high 16 bits
 * the length field; the 104-byte reply is converted on status 0. */
IPCLIENT_API uint32_t IP_GetIPStat(uint16_t usNode, uint32_t uiWord, uint32_t *puiCounters);
/** Sums over the local node and every running node (operation 0 and 1); zeroed first. */
IPCLIENT_API void IP_GetShowIpStat(uint32_t *puiCounters);
/** The same sum with operation 1. */
IPCLIENT_API void IP_GetStat(uint32_t *puiCounters);

/** Forwarding counters of an interface on one node, added into the caller's 8 counters;
 * *pusDone is set to 1 when they were. A node that is not up returns IF_IsNodeUp's value. */
IPCLIENT_API uint32_t IP_GetIPFWIfStat_ByNode(uint16_t usNode, uint32_t uiIfIndex, uint64_t *pulCounters,
                                              uint16_t *pusDone);
/** Forwarding counters of an interface over the nodes that carry it; 0x40010001 for index 0. */
IPCLIENT_API uint32_t IP_GetIPFWIfStat(uint32_t uiIfIndex, uint64_t *pulCounters);
/** Clears an interface's forwarding counters on one node (operation 62) when the node is up; no reply. */
IPCLIENT_API void IP_ClearIPFWIfStat_ByNode(uint16_t usNode, uint32_t uiIfIndex);
/** Clears an interface's forwarding counters on its owning node and every other standby node (on every
 * node for an interface spanning nodes); 0, or 0x40010001 for index 0. */
IPCLIENT_API uint32_t IP_ClearIPFWIfStat(uint32_t uiIfIndex);
/** The 43 ICMP counters of an interface: 0, or 0x40010001 unless a 172-byte reply came. */
IPCLIENT_API uint32_t IP_GetICMPIfStat(uint32_t uiIfIndex, uint32_t *puiCounters);
/** MIB counters of an interface on one node, added into the caller's 19; 19 when added, 0
 * for an empty reply, the channel status or IF_IsNodeUp's value otherwise. */
IPCLIENT_API uint32_t IP_GetIPIfMIBStat(uint16_t usNode, uint32_t uiIfIndex, uint64_t *pulCounters);
/** MIB counters of an interface over the nodes that carry it; 0x40010001 for index 0. Of
 * the local node's counters for an interface owned elsewhere only the fifth is added. */
IPCLIENT_API uint32_t IP_GetMibIfStat(uint32_t uiIfIndex, uint64_t *pulCounters);
/** BPA statistics (64 records of 5 counters): counters 1-4 are added, counter 5 is the last
 * node's. Index 0 (or an interface spanning nodes) reads every node. */
IPCLIENT_API uint32_t IP_GetBpaStat(uint32_t uiIfIndex, uint64_t *pulRecords);
/** BPA configuration from the IP daemon: the reply length (4), 0 on any failure. */
IPCLIENT_API uint32_t IP_GetBpaCfg(uint32_t uiIfIndex, uint32_t *puiValue);

/** The 2 ECMP words of one node, request word as for IP_GetIPStat; the channel status. The words are
 * converted only when the reply is exactly 8 bytes, else left as received. */
IPCLIENT_API uint32_t IP_GetEcmp(uint16_t usNode, uint32_t uiWord, uint32_t *puiEcmp);
/** The 4 load-sharing mode words of one node, request word as for IP_GetIPStat; the channel status. The
 * words are converted on status 0 whatever the reply length. */
IPCLIENT_API uint32_t IP_GetLoadSharingMode(uint16_t usNode, uint32_t uiWord, uint32_t *puiMode);
/** The 8 ECMP mode words of the local node, request word as for IP_GetIPStat; the channel status. The
 * words are converted only when the reply is exactly 32 bytes. */
IPCLIENT_API uint32_t IP_GetEcmpMode(uint32_t uiWord, uint32_t *puiMode);
/** Four configuration words from the local node; 0x40010001 for a null buffer or a size
 * below 16. */
IPCLIENT_API uint32_t IP_GetConf(uint32_t uiSize, uint32_t *puiConf);
/** Sets the default TTL on the given node (operation 14, no reply); the channel status. */
IPCLIENT_API uint32_t IP_SetIPDefaultTTL(uint32_t uiTtl, uint16_t usNode);
/** The default TTL, 0 to 255; 255 on any failure. */
IPCLIENT_API uint32_t IP_GetDefTTL(void);
/** Not supported: always 0x40010008. */
IPCLIENT_API uint32_t IP_SetDefTTL(void);
/** Not supported: always 0x40010008. */
IPCLIENT_API uint32_t IP_SetForwarding(void);
/** The value of g_uiIPForwarding. */
IPCLIENT_API uint32_t IP_GetForwarding(void);
/** The interface's MTU (operation 11), stored on status 0; the channel status. */
IPCLIENT_API uint32_t IP_GetIfMTU(uint32_t uiIfIndex, uint32_t *puiMtu);
/** The 16-bit IP forwarding configuration (operation 108): zeroed first, stored on status 0; the channel
 * status. */
IPCLIENT_API uint32_t IP_GetIPFWConf(uint16_t *pusConf);

struct IF_SELECT_S;
/** Adds the statistics types; the result of the last addition. */
IPCLIENT_API uint32_t IP_StatSetSelectIfType(struct IF_SELECT_S *pstSelection);
/** 1 when the interface is valid, not temporary, visible, configured and of a statistics
 * type; else 0 (also when its type cannot be read). */
IPCLIENT_API uint32_t IP_StatIfIndexValidCheck(uint32_t uiIfIndex);
/** 1 when the interface is valid, not temporary and of a BPA type; else 0. */
IPCLIENT_API uint32_t IP_IsBpaSupportedIf(uint32_t uiIfIndex);
/** Initialises the selection (mode 5) and adds the BPA types; the OR of the results. */
IPCLIENT_API uint32_t IP_SetBpaIfType(struct IF_SELECT_S *pstSelection);
/** Adds the load-sharing path types; the result of the last addition. */
IPCLIENT_API uint32_t IP_loadsharing_path_SelectIfType(struct IF_SELECT_S *pstSelection);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_IPSTAT_H */
