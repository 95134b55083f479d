/**
 * @file
 * What a process on a Linux host learns of the simulated device it reaches.
 *
 * Nothing here exists on a device: a device's platform is always there. On a host the
 * platform substitute reaches a simulator (ipsimd) that runs for the process's instance
 * (IPCLIENT_INSTANCE) through the abstract socket "ipclient/<instance>/device", and answers
 * as a device without the IP modules while it cannot. Tools call ipp_device_state() to say
 * why in words.
 */
#ifndef IPPLAT_HOST_H
#define IPPLAT_HOST_H

#include <stddef.h>
#include <stdint.h>

#include "ipplat/platform.h"

#ifdef __cplusplus
extern "C" {
#endif

/** The states ipp_device_state() reports. */
enum ipp_device_state_code {
    IPP_DEVICE_ATTACHED = 0,      /**< a simulator of this user (or root) answers */
    IPP_DEVICE_ABSENT = 1,        /**< nothing listens for the instance */
    IPP_DEVICE_FOREIGN = 2,       /**< another user's process holds the instance's socket */
    IPP_DEVICE_SILENT = 3,        /**< a simulator listens but did not answer in time (stopped, hung) */
    IPP_DEVICE_NO_RESOURCES = 4,  /**< this process could not open a socket (descriptors) */
    IPP_DEVICE_DISABLED = 5,      /**< a test took the platform over (ipp_reset) */
    IPP_DEVICE_REFUSED = 6        /**< the simulator closed the connection or refused the greeting
                                       (it serves its own user only; IPCLIENT_NODE names no node of it) */
};

/**
 * Tries to reach the process's simulator now, whatever the pause between attempts, and says
 * how it went (an ipp_device_state_code); a connection already open is asked too. With
 * IPP_DEVICE_FOREIGN and IPP_DEVICE_REFUSED, *owner_uid (when not null) receives the uid of
 * the process that holds the socket; otherwise 0. A process waits for the simulator (its
 * connection and each answer) at most IPCLIENT_DEVICE_TIMEOUT_MS milliseconds (default 10000).
 * The reason is the calling process's last attempt (of any of its threads).
 */
IPPLAT_API int ipp_device_state(uint32_t *owner_uid);

/**
 * How many faults the simulator plays (set with ipsimd's fault.set and still able to fire):
 * *count (when not null) receives the number. 0 when the simulator answered, -1 when the
 * process reaches none (then *count is 0).
 */
IPPLAT_API int ipp_device_faults(uint32_t *count);

/** The instance the process reaches (IPCLIENT_INSTANCE, else "p<pid>"), copied with a
 * terminating null into buf of len bytes (cut when longer); the length of the whole name. */
IPPLAT_API size_t ipp_instance_name(char *buf, size_t len);

#ifdef __cplusplus
}
#endif

#endif /* IPPLAT_HOST_H */
