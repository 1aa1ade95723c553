// pollutil.cpp - poll sets: an array of pollfd entries with a count.
#include "koutil/pollutil.h"

#include "internal/assert.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace
{

constexpr unsigned int growth = 64;

// The entries a dynamic set has room for are all zeroed until they are used.
bool grow(dpoll_t *d)
{
    if (d->maxfds > UINT_MAX - growth) {
        return false;
    }
    auto *fds = static_cast<struct pollfd *>(calloc(size_t{d->maxfds} + growth, sizeof *d->fds));
    if (fds == nullptr) {
        return false;
    }
    if (d->nfds > 0) {
        memcpy(fds, d->fds, d->nfds * sizeof *fds);
    }
    free(d->fds);
    d->fds = fds;
    d->maxfds += growth;
    return true;
}

bool change(SOCKET_T fd, short events, dpoll_t *d)
{
    struct pollfd *entry = DPollFind(fd, d);
    if (entry == nullptr) {
        return false;
    }
    entry->events = events;
    entry->revents = 0;
    return true;
}

void append(SOCKET_T fd, short events, dpoll_t *d)
{
    d->fds[d->nfds++] = {fd, events, 0};
}

} // namespace

qpoll_t qpoll0 = {{POLL_STATIC, 4, 0, nullptr}, {{-1, 0, 0}, {-1, 0, 0}, {-1, 0, 0}, {-1, 0, 0}}};

int DPollInit(dpoll_t *d)
{
    *d = {POLL_DYNAMIC, 0, 0, nullptr};
    return grow(d) ? 0 : -1;
}

void DPollFree(dpoll_t *d)
{
    if (d->polltype == POLL_DYNAMIC) {
        free(d->fds);
    }
    d->fds = nullptr;
    d->maxfds = 0;
    d->nfds = 0;
}

struct pollfd *DPollFind(SOCKET_T fd, dpoll_t *d)
{
    for (unsigned int i = 0; i < d->nfds; i++) {
        if (d->fds[i].fd == fd) {
            return &d->fds[i];
        }
    }
    return nullptr;
}

int DPollSet(SOCKET_T fd, short events, dpoll_t *d)
{
    if (change(fd, events, d)) {
        return 0;
    }
    if (d->nfds >= d->maxfds) {
        KO_ASSERT(d->polltype == POLL_DYNAMIC);
        if (!grow(d)) {
            return -1;
        }
    }
    append(fd, events, d);
    return 0;
}

void QPollSet(SOCKET_T fd, short events, qpoll_t *q)
{
    if (change(fd, events, &q->d)) {
        return;
    }
    KO_ASSERT(q->d.nfds < q->d.maxfds);
    append(fd, events, &q->d);
}

void DPollClr(SOCKET_T fd, dpoll_t *d)
{
    struct pollfd *entry = DPollFind(fd, d);
    if (entry == nullptr) {
        return;
    }
    struct pollfd *last = &d->fds[--d->nfds];
    memmove(entry, entry + 1, static_cast<size_t>(last - entry) * sizeof *entry);
    last->events = 0;
    last->revents = 0;
}

void DPollSetAll(short events, dpoll_t *d)
{
    for (unsigned int i = 0; i < d->nfds; i++) {
        d->fds[i].events = events;
        d->fds[i].revents = 0;
    }
}

short DPollQRevents(SOCKET_T fd, dpoll_t *d)
{
    const struct pollfd *entry = DPollFind(fd, d);
    return entry != nullptr ? entry->revents : short{0};
}

short DPollXRevents(SOCKET_T fd, dpoll_t *d)
{
    struct pollfd *entry = DPollFind(fd, d);
    if (entry == nullptr) {
        return 0;
    }
    const short revents = entry->revents;
    entry->revents = 0;
    return revents;
}

int DPoll(dpoll_t *d, int timeout)
{
    return poll(d->fds, d->nfds, timeout);
}
