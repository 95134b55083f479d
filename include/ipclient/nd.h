/*
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
/* @@ND-EVENTS@@ */

/* ---- Entry queries and the network-to-physical table ------------------------------------- */
/* @@ND-QUERIES@@ */

/* ---- Packet sending and resolution -------------------------------------------------------- */
/* @@ND-SEND@@ */

/* ---- OpenFlow, rule and suppression tables ------------------------------------------------ */
/* @@ND-TABLES@@ */

/* ---- Interface configuration and display -------------------------------------------------- */
/* @@ND-CONFIG@@ */

IPCLIENT_END_DECLS

#endif /* IPCLIENT_ND_H */
