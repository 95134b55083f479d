/**
 * @file
 * FIB access: searches of the IPv4 and IPv6 forwarding information bases, their global data
 * records, route-change sequence numbers, per-node FIB counters, and the dump of every
 * running node's IPv4 forwarding table to a text file.
 *
 * Requests go to node 0xFFFF8000 unless stated. Search requests and replies are in host
 * order; the search key and the 128-byte route entries are the kernel's and are carried
 * unchanged.
 */
#ifndef IPCLIENT_FIB_H
#define IPCLIENT_FIB_H

#include <stddef.h>
#include <stdint.h>

#include "ipclient/api.h"
#include "ipclient/status.h"

IPCLIENT_BEGIN_DECLS

/** Most route entries one search returns (the reply holds a 64-bit count and 128 x 128 bytes). */
#define FIB_SEARCH_MAX_ENTRIES 128u
/** Bytes of one route entry of a search, copied to the caller unchanged. */
#define FIB_SEARCH_ENTRY_SIZE 128u
/** Bytes of the IPv4 search key; the request is the 64-bit count and this key (44 bytes). */
#define FIB4_SEARCH_KEY_SIZE 36u
/** Bytes of the IPv6 search key; the request is the 64-bit count and this key (52 bytes). */
#define FIB6_SEARCH_KEY_SIZE 44u

/**
 * IPv4 search key (36 bytes) as the library fills it for a default-route search: the
 * kernel's layout, chosen here as instance word, address family, destination and mask
 * (network order), then reserved bytes.
 */
typedef struct FIB4_SEARCH_KEY_S {
    uint32_t uiInstance;  /**< 0xFFFFFFFF: every instance */
    uint16_t usFamily;    /**< 2 */
    uint16_t usReserved;  /**< 0 */
    uint32_t uiDest;      /**< network order */
    uint32_t uiMask;      /**< network order */
    uint8_t aucReserved[20]; /**< 0 */
} FIB4_SEARCH_KEY_S;
IPCLIENT_STATIC_ASSERT(sizeof(FIB4_SEARCH_KEY_S) == FIB4_SEARCH_KEY_SIZE, fib4_key_size);

/** Offset of a route entry's VRF (u32). A route entry is 128 bytes, in host order as the
 * kernel stores it; addresses are in network order. */
#define FIB_ENTRY_VRF_OFFSET 0u
/** Offset of a route entry's outgoing interface (u32; 0: none). */
#define FIB_ENTRY_IFINDEX_OFFSET 4u
/** Offset of a route entry's prefix length (u8). */
#define FIB_ENTRY_PREFIX_LEN_OFFSET 8u
/** Offsets read from a 128-byte route entry: family (u16), next hop (4 or 16 bytes), and the
 * flags word (u32, bit 0: an active route), all as the kernel stores them. */
#define FIB_ENTRY_FAMILY_OFFSET 12u
/** Offset of a route entry's next hop: 4 bytes for family 2, 16 bytes for family 10. */
#define FIB_ENTRY_NEXTHOP_OFFSET 16u
/** Offset of a route entry's destination: 4 or 16 bytes, network order, in a 16-byte field. */
#define FIB_ENTRY_DEST_OFFSET 32u
/** Offset of a route entry's node (u32): the node the search was asked of. */
#define FIB_ENTRY_NODE_OFFSET 48u
/** Offset of a route entry's flags word (u32; bit 0: an active route). */
#define FIB_ENTRY_FLAGS_OFFSET 52u
/** Offset of a route entry's type (u8, one of FIB_ROUTE_*; 0 is read as unicast). */
#define FIB_ENTRY_TYPE_OFFSET 56u
/** Offset of a route entry's number of next hops (u8): 1 for a route of one path (or
 * none), more for a multipath route. The first hop is the entry's next hop and interface
 * (offsets 16 and 4); the next ones follow from FIB_ENTRY_MORE_HOPS_OFFSET. */
#define FIB_ENTRY_HOPS_OFFSET 57u
/** Offset of the further hops of a multipath route: up to FIB_ENTRY_MORE_HOPS_MAX records
 * of FIB_ENTRY_HOP_SIZE bytes, each the outgoing interface (u32) then the next hop (4 or
 * 16 bytes, network order, in a 16-byte field). A route of more hops than the entry holds
 * says how many it has at FIB_ENTRY_HOPS_OFFSET. */
#define FIB_ENTRY_MORE_HOPS_OFFSET 60u
/** Bytes of one further hop of a route entry. */
#define FIB_ENTRY_HOP_SIZE 20u
/** Most further hops a route entry holds (60 + 3 x 20 = 120 of its 128 bytes). */
#define FIB_ENTRY_MORE_HOPS_MAX 3u
/** Route type at FIB_ENTRY_TYPE_OFFSET: forwarded to a next hop or an interface. */
#define FIB_ROUTE_UNICAST 1u
/** Route type: packets of the prefix are dropped silently. */
#define FIB_ROUTE_BLACKHOLE 6u
/** Route type: packets of the prefix are dropped with "unreachable". */
#define FIB_ROUTE_UNREACHABLE 7u
/** Route type: packets of the prefix are dropped with "administratively prohibited". */
#define FIB_ROUTE_PROHIBIT 8u

/** Global data records, converted to host order at the offsets the kernel uses. */
typedef struct FIB4_SPEC_DATA_S {
    uint8_t aucData[80]; /**< IPv4: u32 at 0, 4, 8, 16, 24, 28, 32, 36, 52, 56, 60, 64, 72, 76 and u16 at 20,
                              40, 42 in host order; every other byte is left as it was */
} FIB4_SPEC_DATA_S;
/** IPv6 global data record (44 bytes), filled by FIB6_Get_SpecData. */
typedef struct FIB6_SPEC_DATA_S {
    uint8_t aucData[44]; /**< IPv6: u32 at 0, 4, 8, 12, 20, 36, 40 and u16 at 16, 24, 26 in host order; every
                              other byte is left as it was */
} FIB6_SPEC_DATA_S;

/**
 * Searches: *pulCount entries wanted in, entries returned out (lowered when fewer came).
 * pEntries receives count x 128 bytes. The IPv4 form refuses a count of 0; the IPv6 form
 * sends it. At most 128 entries, and never more than the reply holds, are copied.
 */
IPCLIENT_API uint32_t FIB4_SearchInfo(const void *pKey, uint64_t *pulCount, void *pEntries);
/** IPv6 search (command 0x380004) with a 44-byte key; a count of 0 is sent as it stands. */
IPCLIENT_API uint32_t FIB6_SearchInfo(const void *pKey, uint64_t *pulCount, void *pEntries);
/** 0 with the record converted; the channel's code otherwise, the record then untouched (a
 * reply of the wrong length returns the channel's 0 with the record untouched). */
IPCLIENT_API uint32_t FIB4_Get_SpecData(FIB4_SPEC_DATA_S *pstData);
/** The IPv6 record from a 44-byte reply (command 0x380002), with the statuses of FIB4_Get_SpecData. */
IPCLIENT_API uint32_t FIB6_Get_SpecData(FIB6_SPEC_DATA_S *pstData);
/** The sequence number as received (not converted); 0 when the request fails. */
IPCLIENT_API uint32_t FIB4_GetRouteChangeSeq(void);
/** The IPv6 route-change sequence number (command 0x380006), as received; 0 when the request fails. */
IPCLIENT_API uint32_t FIB6_GetRouteChangeSeq(void);
/** Add each node's counter to *pulTotal (not reset). The connection-check counter asks
 * every node and takes any reply; the alarm-threshold counter asks running nodes only and
 * takes 8-byte replies only. */
IPCLIENT_API void FIB_GetConCheckStat(uint16_t usSelector, uint64_t *pulTotal);
/** Adds the alarm-threshold counter (command 0x38000C) of every running node to *pulTotal; only 8-byte
 * replies count. */
IPCLIENT_API void FIB_GetAlarmThresholdStat(uint16_t usSelector, uint64_t *pulTotal);
/**
 * Writes "[FIB Info]\r\n" and one line per route of every running node to the file. 0 and
 * the file; 0x4001000B when the file cannot be opened, a line cannot be written or closing
 * fails; 0x40010001 when the header cannot be written, there is no node list, or a node's
 * dump cannot be opened or pulled. On failure the file is deleted.
 * A dump service that keeps answering "more data" (0x40010009) with chunks that hold no
 * entry is taken as failing after 1,024 such chunks in a row (0x40010001), so that no
 * answer of the service holds the caller for ever.
 */
IPCLIENT_API uint32_t FIB_SaveForwardingTable(const char *pcPath);

IPCLIENT_END_DECLS

#endif /* IPCLIENT_FIB_H */
