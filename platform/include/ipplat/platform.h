/**
 * @file
 * Platform interfaces used by the IP client library.
 *
 * On a device these come from the device operating system. On a Linux host they are
 * provided by the platform substitute (libipclient-platform), whose behaviour tests and the
 * device emulator script through ipplat/testctl.h.
 *
 * Conventions shared by every call:
 *  - Statuses are unsigned 32-bit, 0 for success.
 *  - Node numbers are 16-bit. Calls that take a node in a 32-bit word use its low 16 bits,
 *    so the channel form 0xFFFF8000 and the short form 0x8000 both mean "the caller's own
 *    node". Node getters return values in 0..0xFFFF.
 *  - Arrays returned by DEV_GetAllNodes and DEV_GetAllStandbyNodes come from malloc; the
 *    caller frees them with free.
 *
 * Where a device leaves a signature to the platform, the form chosen here is documented next
 * to the declaration.
 */
#ifndef IPPLAT_PLATFORM_H
#define IPPLAT_PLATFORM_H

#include <stddef.h>
#include <stdint.h>
#include <sys/socket.h>

/** Marks a platform function as exported from its shared library (default visibility). */
#if defined(__GNUC__)
#define IPPLAT_API __attribute__((visibility("default")))
#else
#define IPPLAT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Kernel control channel ------------------------------------------------------------ */

/**
 * Sends a request to a kernel module on a node and waits for its reply.
 * node: node word (0xFFFF8000 = own node); command: module and entry point;
 * request/request_len: body (null when 0); reply/reply_cap: caller's buffer (null when 0);
 * returned_len: receives the reply bytes written (may be null when no reply is expected).
 */
IPPLAT_API uint32_t CIOCTL(uint32_t node, uint32_t command, uint32_t request_len, const void *request,
                           uint32_t reply_cap, void *reply, uint32_t *returned_len);
/** Sends a request without waiting for a reply; returns the status of the sending. */
IPPLAT_API uint32_t CIOCTL_Async(uint32_t node, uint32_t command, uint32_t request_len, const void *request);

/* ---- Nodes ------------------------------------------------------------------------------ */

/** The caller's own node: the node that 0x8000 stands for. */
IPPLAT_API uint32_t LIP_GetLocalLip(void);
/** Chassis, slot and CPU of a node (0 for an unknown node). */
IPPLAT_API uint16_t LIP_GetChassID(uint16_t node);
/** Slot of a node (0 for an unknown node). */
IPPLAT_API uint16_t LIP_GetSlotID(uint16_t node);
/** CPU of a node (0 for an unknown node). */
IPPLAT_API uint16_t LIP_GetCpuID(uint16_t node);
/** The device's own node, as the device directory names it. */
IPPLAT_API uint32_t DEV_GetSelf(void);
/** The node of the system's master. */
IPPLAT_API uint32_t DEV_GetSystemMaster(void);
/** The master's node as the ND module's parameter requests address it. */
IPPLAT_API uint32_t DEV_GetSystemMasterEP(void);
/** A malloc'd array of *count node numbers, or null (count then 0) when no list exists. */
IPPLAT_API uint16_t *DEV_GetAllNodes(uint32_t *count);
/** The standby nodes, as DEV_GetAllNodes gives all nodes: a malloc'd array, or null (count 0). */
IPPLAT_API uint16_t *DEV_GetAllStandbyNodes(uint32_t *count);

/** Multi-tenant device contexts: the current context, and 1 when a context is a child. */
IPPLAT_API uint16_t MDC_GetCurrentMDC(void);
/** 1 when the context is a child context, else 0. */
IPPLAT_API uint32_t MDC_IsChildMDC(uint16_t mdc);

/* ---- Interfaces ------------------------------------------------------------------------- */

/** Data items of IF_GetDataByIfIndex and the type each writes. */
#define IF_DATA_NODE 9u   /**< uint16_t: owning node */
#define IF_DATA_NAME 11u  /**< char[IF_NAME_SIZE]: full name, zero-terminated */
#define IF_DATA_TYPE 18u  /**< uint32_t: interface type code */
#define IF_DATA_FLAGS 23u /**< uint32_t: flags word */
#define IF_DATA_KIND 32u  /**< uint32_t: interface kind */
/** Items this host's device adds (a simulated device answers them; the test-control
 * directory does not): */
#define IF_DATA_MAC 100u       /**< uint8_t[6]: the interface's MAC */
#define IF_DATA_VRF 101u       /**< uint16_t: the VRF the interface sits in */
#define IF_DATA_LINK_STATE 102u /**< uint32_t: 1 while the link is up, 0 while it is down */
/* The numbers travel on the device channel (ipproto/device.hpp, if_item). */
/** Size of an interface name buffer, terminator included. */
#define IF_NAME_SIZE 32u
/** Flag of IF_DATA_FLAGS: the interface spans nodes. */
#define IF_FLAG_SPANS_NODES 0x10u

/** Writes one data item of an interface; 0 on success. On failure nothing is written. */
IPPLAT_API uint32_t IF_GetDataByIfIndex(uint32_t ifindex, uint32_t item, void *out);
/** 1 in the low 16 bits when the node is up. */
IPPLAT_API uint32_t IF_IsNodeUp(uint32_t node);
/** Interface predicates: 1 when true, 0 otherwise (also for an unknown interface). */
IPPLAT_API uint32_t IF_IsValidIfIndex(uint32_t ifindex);
/** 1 for a layer-2 interface. */
IPPLAT_API uint32_t IF_IsL2If(uint32_t ifindex);
/** 1 for a temporary interface. */
IPPLAT_API uint32_t IF_IsTempIf(uint32_t ifindex);
/** 1 for a visible interface. */
IPPLAT_API uint32_t IF_IsVisible(uint32_t ifindex);
/** 1 for an interface open to configuration. */
IPPLAT_API uint32_t IF_IsConfigure(uint32_t ifindex);
/** Interface index of a full name, 0 for an unknown name. */
IPPLAT_API uint32_t IF_GetIfIndexByFullName(const char *name);

/**
 * Interface selection: a set of interface type codes (0..255), a mode and a condition word.
 * The library builds selections on its stack, so the layout is fixed here.
 */
typedef struct IF_SELECT_S {
    uint32_t uiMode;         /**< mode given to IF_Select_Init */
    uint32_t uiCondition;    /**< condition bits ORed in by IF_SelectCondition_Set */
    uint32_t auiTypeBits[8]; /**< one bit a type: type t is bit (t mod 32) of word (t / 32) */
} IF_SELECT_S;
/** Clears the selection and sets its mode; 0 on success, non-zero for a null selection. */
IPPLAT_API uint32_t IF_Select_Init(uint32_t mode, IF_SELECT_S *sel);
/** Adds a type; 0 on success, non-zero for a type above 255 or a null selection. */
IPPLAT_API uint32_t IF_SelectType_Set(uint32_t type, IF_SELECT_S *sel);
/** 1 when the type is selected, else 0. */
IPPLAT_API uint32_t IF_SelectType_Check(uint32_t type, const IF_SELECT_S *sel);
/** ORs condition bits into the selection; 0 on success. The substitute records the
 * condition and does not filter by it. */
IPPLAT_API uint32_t IF_SelectCondition_Set(uint32_t condition, IF_SELECT_S *sel);
/** An iterator over the directory's interfaces in increasing index order, or null. */
IPPLAT_API void *IF_IteratorInitialize(void);
/** First / next interface whose type the selection holds (all types when it holds none);
 * 0 when none is left. */
IPPLAT_API uint32_t IF_GetFirstIfIndexByIfSelect(void *iterator, const IF_SELECT_S *sel);
/** The next such interface after the one last returned; 0 when none is left. */
IPPLAT_API uint32_t IF_GetNextIfIndexByIfSelect(void *iterator, const IF_SELECT_S *sel);
/** Frees an iterator (null is allowed). */
IPPLAT_API void IF_IteratorFinalize(void *iterator);

/* ---- Kernel events ---------------------------------------------------------------------- */

/** Subscribes to an event class; returns a pollable descriptor, negative on failure. */
IPPLAT_API int32_t KEvent_Subscribe(uint32_t event_class);
/** Receives one queued notification without blocking: its length, 0 or negative when none. */
IPPLAT_API int32_t KEvent_Recv(int32_t fd, void *buf, uint32_t cap);
/** Ends a subscription; 0 on success, negative for an unknown descriptor. */
IPPLAT_API int32_t KEvent_Unsubscribe(int32_t fd);

/**
 * Tag-length-value reader. An element is a big-endian 16-bit type, a big-endian 16-bit
 * length and that many value bytes. Returns 0 and the element's parts, or non-zero with
 * *value null when fewer than 4 bytes remain or the length runs past buf_len.
 */
IPPLAT_API uint32_t STLV_Get(const void *buf, uint32_t buf_len, uint16_t *type, uint16_t *len,
                             const void **value);

/* ---- Dump service ----------------------------------------------------------------------- */

/** Status of DUMP_Pull: a chunk was delivered and more may follow. */
#define DUMP_MORE_DATA 0x40010009u
/** Starts a dump on a node; a handle, negative on failure. */
IPPLAT_API int32_t DUMP_Request(uint32_t node, uint32_t request_id, const void *request, uint32_t request_len);
/** Delivers the next chunk (at most cap bytes, *len set) with DUMP_MORE_DATA; 0 at the end
 * (nothing delivered); any other value is a failure. */
IPPLAT_API uint32_t DUMP_Pull(int32_t handle, uint32_t cap, void *buf, uint32_t *len);
/** Ends a dump and releases its handle. */
IPPLAT_API void DUMP_Terminate(int32_t handle);

/* ---- Configuration database ------------------------------------------------------------- */

/** Opens a database group; 0 and a handle on success. */
IPPLAT_API uint32_t DBM_Open(const char *db, const char *group, uint32_t mode, void **handle);
/**
 * Copies the next record of the list named by key into data (at most data_len bytes).
 * *iterator is null before the first call and is created by it. Returns 1 when a record
 * was copied, 0 at the end, negative on error. Arguments a5 and a6 are passed as 0.
 */
IPPLAT_API int32_t DBM_GetNextSortList(void *handle, const void *key, uint32_t key_len, void **iterator,
                                       uint32_t a5, uint32_t a6, uint32_t data_len, void *data);
/** Frees an iterator made by DBM_GetNextSortList (null is allowed). */
IPPLAT_API void DBM_FreeIterator(void *iterator);
/** Closes a database handle; 0 on success. */
IPPLAT_API uint32_t DBM_Close(void *handle);
/** Number of records of the list named by key; negative on error. */
IPPLAT_API int32_t DBM_Len(void *handle, const void *key, uint32_t key_len);

/* ---- Walk cursors ----------------------------------------------------------------------- */

/** Release function given to ANCHOR_EndPath for the path's context. */
typedef void (*ANCHOR_RELEASE_PF)(void *context);
/** Begins a path of (anchor, key) at a position; a non-zero path handle, 0 on failure. */
IPPLAT_API uint64_t ANCHOR_BeginPath(void *anchor, uint32_t key, uint64_t position, void *context);
/** The path's current position and context; 0 on success. */
IPPLAT_API uint32_t ANCHOR_Inquire(void *anchor, uint64_t path, uint64_t *position, void **context);
/** Stores the path's position; 0 on success. */
IPPLAT_API uint32_t ANCHOR_Set(void *anchor, uint64_t path, uint64_t position);
/** Ends a path; the release function (if any) is called with its context. */
IPPLAT_API void ANCHOR_EndPath(void *anchor, uint64_t path, ANCHOR_RELEASE_PF release);

/* ---- Service manager -------------------------------------------------------------------- */

/** Service status values: 0 and 4 not running, 1 starting, anything else running. */
#define SERVICE_STATUS_STOPPED 0u
/** Status 1: the service is starting. */
#define SERVICE_STATUS_STARTING 1u
/** Status 4: not running either (the service is absent). */
#define SERVICE_STATUS_ABSENT 4u
/** Writes the status of the named service on a node to *status; 0 on success, else *status
 * is not valid. The third argument is passed as 0. */
IPPLAT_API uint32_t SERVICE_GetStatus(uint16_t node, const char *name, uint32_t zero, uint32_t *status);
/** Starts the named service on a node; 0 on success. The last two arguments are passed as 0. */
IPPLAT_API uint32_t SERVICE_Start(uint16_t node, const char *name, uint32_t zero1, uint32_t zero2);
/** Starts the named service on each of count nodes; 0 on success. The last two arguments are
 * passed as 0. */
IPPLAT_API uint32_t SERVICE_BatchStart(const uint16_t *nodes, uint32_t count, const char *name, uint32_t zero1,
                                       uint32_t zero2);

/* ---- Text helpers ----------------------------------------------------------------------- */

/** Bounded print: never writes more than size bytes (terminator included) and returns the
 * number of characters actually written (0 when size is 0). */
IPPLAT_API int scnprintf(char *buf, size_t size, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
/** Copies at most size - 1 characters and terminates; returns strlen(src). */
IPPLAT_API size_t strlcpy(char *dst, const char *src, size_t size);

#ifdef __cplusplus
}
#endif

#endif /* IPPLAT_PLATFORM_H */
