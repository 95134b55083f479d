/**
 * @file
 * Test control of the host platform substitute.
 *
 * Scripts what the device operating system would answer: the kernel modules behind CIOCTL,
 * the node and interface directory, the service manager, the dump service, the
 * configuration database, kernel events and walk cursors; injects socket faults; counts the
 * calls the library makes; makes sleep virtual and redirects the libraries loaded at run
 * time. Plain C so that tests in any language can drive it.
 *
 * A process that never calls ipp_reset() talks to a simulated device when ipsimd runs for
 * its instance (IPCLIENT_INSTANCE): CIOCTL, the directory, the service manager, dumps,
 * the database and kernel events are then answered by the simulator. ipp_reset() hands the
 * platform to the test for the rest of the process: the simulator is no longer asked.
 *
 * ipp_reset() returns everything to the state of a device without the IP modules: CIOCTL
 * and CIOCTL_Async answer 0x40010001, no node list exists, no interface is known, every
 * local-IPC connection is refused for lack of a listener, services are not running, dumps
 * and database lists are empty, and sleep is real.
 */
#ifndef IPPLAT_TESTCTL_H
#define IPPLAT_TESTCTL_H

#include <stddef.h>
#include <stdint.h>

#include "ipplat/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Returns every facility to the reset state above and clears the call counts, the injected
 * faults and the socket log; the simulator is no longer asked. */
IPPLAT_API void ipp_reset(void);

/* ---- Kernel modules --------------------------------------------------------------------- */

/** One call as the library made it; the arguments are passed on as they were given. */
typedef struct ipp_kcall {
    uint32_t node;          /**< node word as the library passed it */
    uint32_t command;       /**< command code */
    const uint8_t *request; /**< the request pointer (may be null) */
    uint32_t request_len;   /**< request length in bytes */
    uint32_t reply_cap;     /**< 0 for CIOCTL_Async */
    int is_async;           /**< 1 for CIOCTL_Async */
    int reply_null;         /**< the reply buffer pointer was null */
    int returned_len_null;  /**< the returned-length pointer was null */
} ipp_kcall;

/**
 * Answers one call: writes at most call->reply_cap bytes to reply (which is null when the
 * library passed none), sets *returned_len (which may differ from the bytes written) and
 * returns the status. *returned_len starts at 0 and is stored only when the library gave a
 * returned-length pointer.
 */
typedef uint32_t (*ipp_kernel_handler)(void *ctx, const ipp_kcall *call, uint8_t *reply, uint32_t *returned_len);
/** Installs the kernel backend; null restores the default (every call fails with 0x40010001). */
IPPLAT_API void ipp_kernel_set_handler(ipp_kernel_handler handler, void *ctx);

/* ---- Node and interface directory -------------------------------------------------------- */

IPPLAT_API void ipp_dir_set_local_node(uint16_t node);  /**< LIP_GetLocalLip; also where 0x8000 leads */
IPPLAT_API void ipp_dir_set_self(uint16_t node);        /**< DEV_GetSelf */
IPPLAT_API void ipp_dir_set_master(uint16_t node);      /**< DEV_GetSystemMaster */
IPPLAT_API void ipp_dir_set_master_ep(uint16_t node);   /**< DEV_GetSystemMasterEP */
/** The node list (an empty list when count is 0); ipp_dir_clear_nodes removes it. */
IPPLAT_API void ipp_dir_set_nodes(const uint16_t *nodes, uint32_t count);
/** Removes the node list: DEV_GetAllNodes then answers null. */
IPPLAT_API void ipp_dir_clear_nodes(void);
/** The standby node list of DEV_GetAllStandbyNodes (an empty list when count is 0). */
IPPLAT_API void ipp_dir_set_standby_nodes(const uint16_t *nodes, uint32_t count);
/** Removes the standby node list: DEV_GetAllStandbyNodes then answers null. */
IPPLAT_API void ipp_dir_clear_standby_nodes(void);
/** The raw value IF_IsNodeUp returns for a node (default 0). */
IPPLAT_API void ipp_dir_set_node_up(uint16_t node, uint32_t value);
/** Chassis, slot and CPU that LIP_GetChassID, LIP_GetSlotID and LIP_GetCpuID report for a node. */
IPPLAT_API void ipp_dir_set_node_location(uint16_t node, uint16_t chassis, uint16_t slot, uint16_t cpu);
/** The current context (MDC_GetCurrentMDC) and the raw value MDC_IsChildMDC returns for it;
 * any other context answers 0. */
IPPLAT_API void ipp_dir_set_mdc(uint16_t current, uint32_t is_child_value);

/** An interface of the directory: its data items and the answers of its predicates. */
typedef struct ipp_interface {
    uint32_t ifindex;           /**< interface index */
    uint16_t node;              /**< item 9 */
    char name[IF_NAME_SIZE];    /**< item 11, the full name */
    uint32_t type;              /**< item 18 */
    uint32_t flags;             /**< item 23 */
    uint32_t kind;              /**< item 32 */
    uint8_t valid,              /**< non-zero: IF_IsValidIfIndex answers 1 */
        l2,                     /**< non-zero: IF_IsL2If answers 1 */
        temp,                   /**< non-zero: IF_IsTempIf answers 1 */
        visible,                /**< non-zero: IF_IsVisible answers 1 */
        configured;             /**< non-zero: IF_IsConfigure answers 1 */
} ipp_interface;
/** Adds or replaces an interface. */
IPPLAT_API void ipp_dir_add_interface(const ipp_interface *itf);
/** Makes one data item of an interface fail with a status (0 makes it succeed again). */
IPPLAT_API void ipp_dir_fail_item(uint32_t ifindex, uint32_t item, uint32_t status);

/* ---- Service manager --------------------------------------------------------------------- */

/** Statuses SERVICE_GetStatus reports for (node, name), one per call; the last one repeats.
 * Without a script the status is 0 (not running). */
IPPLAT_API void ipp_service_script(uint16_t node, const char *name, const uint32_t *statuses, uint32_t count);
/** Result of SERVICE_GetStatus itself (non-zero: the call fails and writes nothing). */
IPPLAT_API void ipp_service_set_status_result(uint16_t node, const char *name, uint32_t result);
/** Result of SERVICE_Start for (node, name), default 0; SERVICE_BatchStart always answers 0. */
IPPLAT_API void ipp_service_set_start_result(uint16_t node, const char *name, uint32_t result);
/** Number of SERVICE_GetStatus calls for (node, name). */
IPPLAT_API uint32_t ipp_service_status_calls(uint16_t node, const char *name);
/** Number of starts of (node, name): SERVICE_Start calls and SERVICE_BatchStart calls naming the node. */
IPPLAT_API uint32_t ipp_service_start_calls(uint16_t node, const char *name);
/** Nodes of the last SERVICE_BatchStart of a name; returns their number (copies at most cap). */
IPPLAT_API uint32_t ipp_service_last_batch(const char *name, uint16_t *nodes, uint32_t cap);

/* ---- Dump service ----------------------------------------------------------------------- */

/** Queues a chunk for dumps of (node low 16 bits, request id); each DUMP_Pull delivers one. */
IPPLAT_API void ipp_dump_add_chunk(uint16_t node, uint32_t request_id, const void *bytes, uint32_t len);
/** What DUMP_Pull answers once the chunks are delivered (default 0, the end). */
IPPLAT_API void ipp_dump_set_final(uint16_t node, uint32_t request_id, uint32_t status);
/**
 * A producer of chunks for dumps of (node, request id), for tables too large to script
 * chunk by chunk: called once per DUMP_Pull with the chunk's index, it fills at most cap
 * bytes, sets *len and returns non-zero, or returns 0 at the end (the final status then
 * answers). It replaces any queued chunks; null removes it.
 */
typedef int (*ipp_dump_producer)(void *ctx, uint32_t index, uint8_t *buf, uint32_t cap, uint32_t *len);
/** Installs a producer for dumps of (node, request id) and drops the queued chunks; null removes it. */
IPPLAT_API void ipp_dump_set_producer(uint16_t node, uint32_t request_id, ipp_dump_producer producer, void *ctx);
/** Makes DUMP_Request for (node, request id) answer a negative result. */
IPPLAT_API void ipp_dump_fail_request(uint16_t node, uint32_t request_id, int32_t result);
/** Number of DUMP_Request calls since the reset, failed ones included. */
IPPLAT_API uint32_t ipp_dump_request_count(void);
/** The i-th request: node word, id, and up to cap request bytes; returns the request length. */
IPPLAT_API uint32_t ipp_dump_request(uint32_t i, uint32_t *node, uint32_t *request_id, uint8_t *bytes, uint32_t cap);
/** Handles requested and not yet terminated. */
IPPLAT_API uint32_t ipp_dump_open_handles(void);

/* ---- Configuration database ------------------------------------------------------------- */

/** Appends a record to the list named by key in (db, group). */
IPPLAT_API void ipp_dbm_add_record(const char *db, const char *group, const void *key, uint32_t key_len,
                                   const void *record, uint32_t record_len);
/** Makes DBM_Open of (db, group) fail with a status. */
IPPLAT_API void ipp_dbm_fail_open(const char *db, const char *group, uint32_t status);
/** Database handles opened and not yet closed. */
IPPLAT_API uint32_t ipp_dbm_open_handles(void);
/** Iterators made by DBM_GetNextSortList and not yet freed. */
IPPLAT_API uint32_t ipp_dbm_open_iterators(void);

/* ---- Kernel events ---------------------------------------------------------------------- */

/** Queues a notification for every subscriber of a class; returns the subscribers reached. */
IPPLAT_API uint32_t ipp_kevent_post(uint32_t event_class, const void *bytes, uint32_t len);
/** Makes the next KEvent_Subscribe answer this negative result (0 clears it). */
IPPLAT_API void ipp_kevent_fail_subscribe(int32_t result);
/** Subscriptions made and not yet ended. */
IPPLAT_API uint32_t ipp_kevent_subscriptions(void);

/* ---- Walk cursors ----------------------------------------------------------------------- */

/** The element at position is removed: every path of (anchor, key) standing on it moves to
 * successor. */
IPPLAT_API void ipp_anchor_remove(void *anchor, uint32_t key, uint64_t position, uint64_t successor);
/** Makes the next ANCHOR_BeginPath fail (answer 0). */
IPPLAT_API void ipp_anchor_fail_next_begin(void);
/** Paths begun and not yet ended. */
IPPLAT_API uint32_t ipp_anchor_open_paths(void);

/* ---- Calls, faults and local-IPC sockets ------------------------------------------------ */

/** Kinds of calls the substitute counts; the socket kinds are also logged. */
typedef enum ipp_call {
    IPP_CALL_SOCKET,       /**< socket */
    IPP_CALL_CONNECT,      /**< connect */
    IPP_CALL_BIND,         /**< bind */
    IPP_CALL_LISTEN,       /**< listen */
    IPP_CALL_ACCEPT,       /**< accept */
    IPP_CALL_SEND,         /**< send */
    IPP_CALL_SENDTO,       /**< sendto */
    IPP_CALL_SENDMSG,      /**< sendmsg */
    IPP_CALL_RECV,         /**< recv */
    IPP_CALL_RECVFROM,     /**< recvfrom */
    IPP_CALL_RECVMSG,      /**< recvmsg */
    IPP_CALL_SETSOCKOPT,   /**< setsockopt */
    IPP_CALL_GETSOCKOPT,   /**< getsockopt */
    IPP_CALL_GETPEERNAME,  /**< getpeername */
    IPP_CALL_CLOSE,        /**< close */
    IPP_CALL_SLEEP,        /**< sleep */
    IPP_CALL_DLOPEN,       /**< dlopen of a library loaded at run time */
    IPP_CALL_CIOCTL,       /**< CIOCTL */
    IPP_CALL_CIOCTL_ASYNC, /**< CIOCTL_Async */
    IPP_CALL_COUNT         /**< number of kinds; not a call */
} ipp_call;

/** Calls the library made since the last reset. */
IPPLAT_API uint64_t ipp_call_count(ipp_call call);
/** The next `times` calls of a kind fail with errno err (-1 returned, null for dlopen) before
 * reaching the system. Socket calls here are those of the library (any family). Calls of
 * sleep, CIOCTL and CIOCTL_Async are only counted, never failed. */
IPPLAT_API void ipp_fault_inject(ipp_call call, uint32_t times, int err);
/** The next `times` family-37 sends send only the first `bytes` bytes of their message. */
IPPLAT_API void ipp_fault_short_send(uint32_t times, uint32_t bytes);

/** One socket call of the library, as recorded. */
typedef struct ipp_sock_event {
    ipp_call call;               /**< kind of call */
    int fd;                      /**< descriptor called on; for socket, the new one (or -1) */
    int result;  /**< the call's return value (descriptor, byte count, 0 or -1) */
    int err;     /**< errno when result is -1 */
    int domain,                  /**< socket: domain */
        type,                    /**< socket: type */
        protocol;                /**< socket: protocol */
    int level,                   /**< setsockopt and getsockopt: level */
        option;                  /**< setsockopt and getsockopt: option */
    int value_null;              /**< setsockopt with a null value */
    uint32_t value_len;          /**< setsockopt: length of the value */
    uint8_t value[16];           /**< first bytes of the option value */
    uint8_t addr[16];            /**< connect, bind, sendto, sendmsg: the address as given */
    uint32_t addr_len;           /**< length of the address as given */
    int flags;                   /**< send, recv and their relatives */
    uint64_t length;             /**< bytes offered or buffer capacity; listen: the backlog */
} ipp_sock_event;
/** Records in the socket call log. */
IPPLAT_API uint32_t ipp_sock_log_count(void);
/** Copies record i (0 = oldest; the log keeps the first 4096 since the reset); 0 on success. */
IPPLAT_API int ipp_sock_log_get(uint32_t i, ipp_sock_event *out);

/** Names the local-IPC namespace of this process (default: from IPCLIENT_INSTANCE, else the
 * process id), so that parallel test processes never meet. The next platform call looks
 * for a simulator of that instance. */
IPPLAT_API void ipp_lipc_set_instance(const char *instance);
/** A listening family-37 endpoint for a fake service at (node, port); node 0x8000 means the
 * local node. Returns a real descriptor (accept and close it with the system's calls), or -1. */
IPPLAT_API int ipp_lipc_listen(uint16_t node, uint16_t port);
/** A group member's endpoint, as IP_JoinGroup-style membership (type, first, third) creates it:
 * sends one datagram to it; returns the bytes sent or -1. */
IPPLAT_API int ipp_lipc_group_send(uint32_t group_type, uint16_t first, uint16_t third, const void *bytes,
                                   uint32_t len);

/* ---- Run-time behaviour ----------------------------------------------------------------- */

/** Virtual sleep returns at once and only adds to the total. */
IPPLAT_API void ipp_sleep_set_virtual(int on);
/** Seconds asked of sleep since the reset, virtual or real. */
IPPLAT_API uint64_t ipp_sleep_total_seconds(void);
/** dlopen of `path` opens `target` instead (null target: the library is missing). A redirect
 * wins over the file a simulated device names for the path. */
IPPLAT_API void ipp_dlopen_redirect(const char *path, const char *target);

#ifdef __cplusplus
}
#endif

#endif /* IPPLAT_TESTCTL_H */
