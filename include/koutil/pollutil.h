/* pollutil.h - wait for readiness on many descriptors.
 *
 * A poll set is an array of pollfd entries with a count, which DPoll hands to poll(2) unchanged. A
 * dynamic set grows on the heap in steps of 64 entries and never shrinks; a quick set holds up to
 * four entries in its own storage and never allocates. Each descriptor stands in a set at most
 * once; entries keep the order in which they were added. Look-ups are linear: sets are small. For
 * thousands of descriptors use epoll(7).
 *
 * Life:           dynamic: DPollInit -> DPollSet / DPollClr, DPoll ... -> DPollFree.
 *                 quick:   set d to {POLL_STATIC, 4, 0, qfds}, then QPollSet and the DPoll
 *                 functions on &q.d. A copied quick set still points at the storage of the
 *                 original: point d.fds at its own qfds again.
 * Ownership:      a set never closes a descriptor.
 * Thread safety:  a set belongs to one thread; no lock is taken.
 * Units:          time-outs are milliseconds; a negative one waits for ever.
 *
 *     dpoll_t set;
 *     if (DPollInit(&set) == 0 && DPollSet(sock, POLLIN, &set) == 0 && DPoll(&set, 1000) > 0 &&
 *         DPollXRevents(sock, &set) != 0) {
 *         ... sock is readable, or its peer has gone
 *     }
 *     DPollFree(&set);
 */
#ifndef KOUTIL_POLLUTIL_H
#define KOUTIL_POLLUTIL_H

#include "koutil/types.h"

#include <poll.h>

KO_BEGIN_DECLS

/* Whether the array of a set is fixed storage or heap memory that may grow. */
typedef enum polltype { POLL_STATIC = 0, POLL_DYNAMIC = 1 } polltype_t;

/* A poll set. Only the first `nfds` entries mean anything. */
typedef struct dpoll {
    polltype_t polltype; /* who owns the storage */
    unsigned int maxfds; /* entries available */
    unsigned int nfds;   /* entries in use */
    struct pollfd *fds;  /* the entries */
} dpoll_t;

/* A quick set: a poll set and its four entries. */
typedef struct qpoll {
    dpoll_t d;             /* the set */
    struct pollfd qfds[4]; /* its storage */
} qpoll_t;

/* An empty quick set, to copy or to use. Its `d.fds` is null: whoever uses it, or a copy of it,
 * points `d.fds` at `qfds` before the first call. */
KO_API extern qpoll_t qpoll0;

/* Make `d` an empty dynamic set with room for 64 entries.
 *
 * Returns 0, or -1 when memory runs out; `d` is then an empty set without entries that DPollFree
 * accepts. */
KO_API int DPollInit(dpoll_t *d);

/* Free the entries of a dynamic set and leave `d` empty, without storage. Storage that the caller
 * owns (POLL_STATIC) is only let go of. */
KO_API void DPollFree(dpoll_t *d);

/* Find the entry of `fd`.
 *
 * Returns the entry, or null. The pointer is valid until the set changes. */
KO_API struct pollfd *DPollFind(SOCKET_T fd, dpoll_t *d);

/* Watch `fd` for `events`: change what its entry asks for, or add an entry. What poll returned for
 * it before is cleared.
 *
 * Requires: room for a new descriptor in a POLL_STATIC set; a full one panics.
 * Returns 0, or -1 when the set had to grow and memory ran out; the set is then unchanged. */
KO_API int DPollSet(SOCKET_T fd, short events, dpoll_t *d);

/* Watch `fd` for `events` in a quick set, as DPollSet does. Never allocates.
 *
 * Requires: fewer than `maxfds` entries in use when `fd` is new; a full set panics. */
KO_API void QPollSet(SOCKET_T fd, short events, qpoll_t *q);

/* Stop watching `fd`; the entries behind it move up by one. Does nothing when `fd` is not in the
 * set. */
KO_API void DPollClr(SOCKET_T fd, dpoll_t *d);

/* Watch every descriptor of the set for `events`, and clear what poll returned for each. */
KO_API void DPollSetAll(short events, dpoll_t *d);

/* Returns the events that poll returned for `fd`, or 0 when `fd` is not in the set. */
KO_API short DPollQRevents(SOCKET_T fd, dpoll_t *d);

/* Take the events that poll returned for `fd`: as DPollQRevents, and they are cleared. */
KO_API short DPollXRevents(SOCKET_T fd, dpoll_t *d);

/* Wait until a descriptor of the set is ready, at most `timeout` milliseconds.
 *
 * Returns what poll(2) returned: the number of ready entries, 0 after the time-out, or -1 with
 * errno set, EINTR included. */
KO_API int DPoll(dpoll_t *d, int timeout);

KO_END_DECLS

#endif
