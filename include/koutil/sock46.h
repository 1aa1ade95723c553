/* sock46.h - socket calls that take an address of either family.
 *
 * An in46addr_t holds an IPv6 address, or an IPv4 address in its mapped form ::ffff:a.b.c.d. These
 * wrappers choose the family from the address, so that a program talks over IPv4 and IPv6 alike:
 *
 *     int error;
 *     SOCKET_T fd = SockConnect(&peer, 2049, &error);
 *     if (fd == -1) { Error_Output("connect: %s\n", strerror(error)); }
 *
 * Errors:         a failing platform call gives -1 with errno set. Calls are neither repeated after
 *                 a signal nor bounded in time, and descriptors are not close-on-exec.
 *                 A socket of a third family is not refused: its address is read as an IPv6 one,
 *                 other than by RecvFrom.
 * Ownership:      descriptors that are returned belong to the caller.
 * Units:          ports are in host order; addresses are in network order.
 * Thread safety:  no state; any thread may call every function.
 */
#ifndef KOUTIL_SOCK46_H
#define KOUTIL_SOCK46_H

#include "koutil/types.h"

#include <sys/types.h>

KO_BEGIN_DECLS

/* Open a stream socket of the address's family and connect it, blocking for as long as the platform
 * takes.
 *
 * Returns the connected socket, with 0 in `*error`; or -1 with the error number in `*error`, the
 * socket being closed. */
KO_API SOCKET_T SockConnect(const in46addr_t *a, uint16_t port, int *error);

/* Send a datagram through the socket of the family that fits the address. Either socket may be -1.
 *
 *     address    fd4        fd6        sent through
 *     IPv4       a socket   any        fd4
 *     IPv4       -1         a socket   fd6, as a mapped address
 *     IPv6       any        a socket   fd6
 *     otherwise                        nothing: -1, errno EAFNOSUPPORT
 *
 * Returns the number of bytes sent, or -1 with errno set. */
KO_API ssize_t SendTo(SOCKET_T fd4, SOCKET_T fd6, void *buf, size_t len, int flags,
                      const in46addr_t *a, uint16_t port);

/* Receive as recvfrom(2) does, and describe the sender in `*a` and `*port`: all zero and 0 when the
 * sender is of another family, when the platform names none (a stream socket) and on failure.
 *
 * Returns the result of the receive call. */
KO_API ssize_t RecvFrom(SOCKET_T fd, void *buf, size_t len, int flags, in46addr_t *a,
                        uint16_t *port);

/* Accept a connection on the listening socket `ls` and describe the peer in `*a` and `*port`.
 *
 * Returns the new socket. On failure returns -1 and leaves `*a` and `*port` as they are. */
KO_API SOCKET_T Accept(SOCKET_T ls, in46addr_t *a, uint16_t *port);

/* The address and port of the peer of a connected socket.
 *
 * Returns 0. On failure returns -1 and leaves `*a` and `*port` as they are. */
KO_API int GetPeerName(SOCKET_T ls, in46addr_t *a, uint16_t *port);

/* The address and port that a socket is bound to.
 *
 * Returns 0. On failure returns -1 and leaves `*a` and `*port` as they are. */
KO_API int GetSockName(SOCKET_T ls, in46addr_t *a, uint16_t *port);

/* Bind an IPv4 and an IPv6 socket to one common port on the wildcard addresses, trying the ports
 * from `minport` to `maxport` in increasing order. Either socket may be -1.
 *
 * With two sockets a `minport` of 0 stands for 49152 and a `maxport` of 0 for 65535. With one
 * socket a `minport` of 0 leaves the choice to the system, whatever `maxport` is. Ports outside 1
 * to 65535 are never tried. SO_REUSEADDR is set as BindSameSockOpts does.
 *
 * Where the IPv4 socket gets a port that the IPv6 socket cannot have, the IPv4 socket is closed and
 * `*s4` replaced by a fresh one of the same type: options set on it earlier are lost. Both sockets
 * can only get the same port when the IPv6 one has IPV6_V6ONLY set, or both share addresses.
 *
 * Returns the port; 0 when no port of the range could be bound to or both sockets are -1; -1 on a
 * failure of the system, errno being set: `*s4` then holds a socket that is still open, or -1. */
KO_API int BindSame(SOCKET_T *s4, SOCKET_T *s6, int minport, int maxport);

/* Set SO_REUSEADDR on the sockets that are not -1, when `sockettype` is SOCK_STREAM and a range is
 * asked for (`minport` or `maxport` not 0).
 *
 * Returns 0, also when there is nothing to do; or -1 when the platform refuses. */
KO_API int BindSameSockOpts(SOCKET_T *s4, SOCKET_T *s6, int minport, int maxport, int sockettype);

/* Split a text into an address and a port. `input_str` is edited in place, and `*addr` points into
 * it, or is null when there is no address; `port` may be null.
 *
 *     "host", "host 80", "10.1.2.3"    "host", 0       a port after a blank is not read
 *     "host:80", "10.1.2.3:80"         "host", 80
 *     "fe80::1"                        "fe80::1", 0
 *     "[fe80::1]:80"                   "fe80::1", 80
 *     "[fe80::1]", "[::1] 80"          "::1", 0
 *     "::1]", "[]:80:1"                null
 *
 * The number of colons decides first: brackets are understood only in a text with two or more of
 * them. The port is a decimal number, cut to 16 bits; a text that is no number gives 0. */
KO_API void ExtractAddrPort(char *input_str, char **addr, unsigned short *port);

/* Store in `*x`, which is written although it is declared const, the exclusive or of two addresses.
 * `x` may be one of the two. */
KO_API void IN6_XOR(const in46addr_t *x, const in46addr_t *a, const in46addr_t *b);

/* Compare two addresses as two 64-bit big-endian halves by the sign of their wrapping difference.
 * This is no total order (the highest address compares below ::), so it does not serve for sorting.
 *
 * Returns 0 for equal addresses, otherwise -1 or 1. */
KO_API int IN6_CMP(const in46addr_t *a, const in46addr_t *b);

KO_END_DECLS

#endif
