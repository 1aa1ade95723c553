/* hostlookup.h - the name behind an address, with a cache of failures.
 *
 * Both functions always yield a text: the name that the resolver knows, or the numeric form. A
 * reverse lookup can take many seconds where the resolver does not answer; the second function
 * remembers for 30 minutes which addresses had no name, so that log lines and status output do not
 * stall again and again.
 *
 * Names are looked up the other way round by GetHostByName of subr2.h.
 *
 * Thread safety:  any thread. No lock is held while the resolver is asked, so two threads may ask
 *                 for the same address at once.
 */
#ifndef KOUTIL_HOSTLOOKUP_H
#define KOUTIL_HOSTLOOKUP_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Write the name of the host with the address `a`, or its numeric text, into `name`, a buffer of
 * 256 bytes. Asks the resolver every time.
 *
 * Returns `name`. */
KO_API char *GetHostFromIp(const in46addr_t *a, char *name);

/* Write the name of the host with the address `a`, as GetHostFromIp does, but without asking the
 * resolver for an address whose lookup failed within the last 30 minutes. What is remembered is
 * never bounded, so use it for addresses of the cluster and its clients; where memory runs out
 * nothing is remembered and the answer is the same.
 *
 * Returns `name`. */
KO_API char *GetHostFromIpFailCache(const in46addr_t *a, char *name);

KO_END_DECLS

#endif
