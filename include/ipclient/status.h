/**
 * @file
 * Status codes returned by the IP client library.
 *
 * Every operation returns an unsigned 32-bit status; 0 is success. Codes produced by
 * kernel modules and services are passed through unchanged; the library itself produces
 * only the codes below.
 */
#ifndef IPCLIENT_STATUS_H
#define IPCLIENT_STATUS_H

/** Success. */
#define IPSTATUS_OK 0x00000000u
/** General failure: bad argument (null pointer, out-of-range family or index), a failed
 * channel call, a short send, an allocation failure, an empty or malformed reply. */
#define IPSTATUS_FAILED 0x40010001u
/** A reply had the wrong length or was empty where an entry was expected (ARP readers),
 * or the layer-2 VPN library could not be opened. */
#define IPSTATUS_BAD_REPLY 0x40010005u
/** Operation not supported (IP_SetForwarding always returns it). */
#define IPSTATUS_NOT_SUPPORTED 0x40010008u
/** The dump reader reports that more data follows; also a failure of the bridge
 * reference operation. */
#define IPSTATUS_MORE_DATA 0x40010009u
/** A failure of the forwarding-table dump and save operations. */
#define IPSTATUS_DUMP_FAILED 0x4001000bu
/** No socket of the protocol-to-CPU channel could be opened. */
#define IPSTATUS_PROEN_NO_SOCKET 0x2001000eu
/** Passed through from the address module: the entry conflicts with an existing address. */
#define IPSTATUS_ADDR_CONFLICT 0x43160041u
/** An event channel received a message of type 3: not an error, a signal to the caller. */
#define IPSTATUS_EVENT_RESYNC 0x00010024u
/** A socket exchange of the address library with the IP stack failed (short send, or a
 * receive error other than EINTR). */
#define IPSTATUS_IPSTACK_EXCHANGE 0x63160064u
/** A request of the address configuration client failed. */
#define IPSTATUS_IPCFG_FAILED 0x2316002cu
/** An exchange with the IP daemon or the port-attack daemon failed. */
#define IPSTATUS_DAEMON_EXCHANGE 0x61010041u

#endif /* IPCLIENT_STATUS_H */
