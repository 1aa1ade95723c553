/* list.h - intrusive doubly linked lists, and lists that several walkers step through at once.
 *
 * A Link_t is embedded in the record that it links and points back to it through n_data; a
 * ListHdr_t knows the first and the last node. An FpHdr_t is such a list with four markers: up to
 * four walks go through it at the same time while nodes are removed and added around them, because
 * a walk continues from its marker and not from the node that it returned last.
 *
 *     ListHdr_t            +--------------------------------+
 *     +---------+          v                                |
 *     | h_first |----> [ Link_t ] <--n_prev-- [ Link_t ]    |
 *     | h_last  |--+   [        ] --n_next--> [        ] ---+ n_hdr, in every node
 *     +---------+  |       | n_data       ^       | n_data
 *                  |       v              |       v
 *                  |    record            |    record
 *                  +----------------------+
 *
 * A node is on one list at most, and n_hdr tells which: it is null while the node is on none. A
 * null n_data is the sign of a marker.
 *
 * Life:           InitHdr, InitNode -> AppendNode ... RemoveNode. Nothing has to be destroyed.
 *                 FpInitHdr -> FpSetMarker -> FpIterate ... -> FpClearMarker; data nodes are added
 *                 to and removed from the list's fp_hdr with the plain functions.
 * Ownership:      the caller owns headers, nodes and records; nothing is allocated.
 * On failure:     nothing reports an error. A violated requirement is a programming error and stops
 *                 the process at once by a write through a null pointer, without a message.
 * Thread safety:  none here; the owner of a list serialises its operations. Walkers hold the
 *                 owner's lock during each call and may release it between calls.
 *
 * Linkage:        the functions are defined here so that compilers inline them, and the library
 *                 exports each of them: a call that is not inlined, and an address that is taken,
 *                 lead to the exported one.
 *
 *     struct client { Link_t link; int id; };
 *     InitHdr(&clients);
 *     InitNode(&c->link, c);
 *     AppendNode(&clients, &c->link);
 *     while ((c = (struct client *)RemoveFirstNode(&clients)) != NULL)
 *         free(c);
 */
#ifndef COMMON_LIST_H
#define COMMON_LIST_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* A node, embedded in the record that it links. */
typedef struct LinkList {
    struct LinkList *n_next;   /* toward the tail; null at the tail */
    struct LinkList *n_prev;   /* toward the head; null at the head */
    struct LinkListHdr *n_hdr; /* the list that the node is on; null on none */
    void *n_data;              /* the record; null in a marker */
} Link_t;

/* A list. Both fields are null when it is empty. */
typedef struct LinkListHdr {
    Link_t *h_first; /* the head */
    Link_t *h_last;  /* the tail */
} ListHdr_t;

/* Walks that one FpHdr_t can have at the same time. */
#define FP_MARKERS 4

/* A list with markers. Walk i stands at fp_marker[i] and ends at fp_post[i]; the slot is free while
 * fp_marker[i].n_hdr is null. */
typedef struct _fphdr {
    ListHdr_t fp_hdr;             /* the list itself */
    Link_t fp_marker[FP_MARKERS]; /* where each walk stands */
    Link_t fp_post[FP_MARKERS];   /* where each walk ends */
} FpHdr_t;

/* Make a list empty. */
KO_API void InitHdr(ListHdr_t *f_hdr);

/* Make a node that is on no list and stands for `f_data`, which is non-null for a node that is to
 * be put on a list. */
KO_API void InitNode(Link_t *f_node, void *f_data);

/* Link a node at the tail.
 *
 * Requires: the node's n_data is not null. The node is on no list, which is not checked. */
KO_API void AppendNode(ListHdr_t *f_hdr, Link_t *f_node);

/* Link a node at the head.
 *
 * Requires: the node's n_data is not null. The node is on no list, which is not checked. */
KO_API void InsertFirstNode(ListHdr_t *f_hdr, Link_t *f_node);

/* Link `f_newnode` directly before `f_node`.
 *
 * Requires: `f_node` is on this list and `f_newnode` is not; neither is null. Before the first node
 * `f_newnode` needs an n_data, as with InsertFirstNode. */
KO_API void InsertBeforeNode(ListHdr_t *f_hdr, Link_t *f_node, Link_t *f_newnode);

/* Link `f_newnode` directly behind `f_node`.
 *
 * Requires: `f_node` is on this list and `f_newnode` is not; neither is null. Behind the last node
 * `f_newnode` needs an n_data, as with AppendNode. */
KO_API void InsertAfterNode(ListHdr_t *f_hdr, Link_t *f_node, Link_t *f_newnode);

/* Take a node off its list; its n_data stays as it is.
 *
 * Requires: the node is on this list. */
KO_API void RemoveNode(ListHdr_t *f_hdr, Link_t *f_node);

/* Take the first node off the list.
 *
 * Returns its n_data, or null when the list is empty. A marker at the head is removed like any
 * other node and gives null as well. */
KO_API void *RemoveFirstNode(ListHdr_t *f_hdr);

/* Move the nodes of `f_src` behind those of `f_dst`, in their order; `f_src` is empty afterwards.
 * The time is linear in their number. Moving a list onto itself changes nothing.
 *
 * Requires: every node of `f_src` has an n_data, so no walk stands on it. */
KO_API void MoveList(ListHdr_t *f_src, ListHdr_t *f_dst);

/* Make a list with markers empty, with all slots free. */
KO_API void FpInitHdr(FpHdr_t *f_hdr);

/* Begin a walk over the nodes that are on the list now. Nodes that are put at the tail or at the
 * head later are not visited; nodes inserted between others are.
 *
 * Returns the walk's index from 0 to 3, which FpClearMarker must give back, or -1 for a list that
 * holds nothing at all; FpIterate and FpClearMarker take -1 too.
 *
 * Requires: a free slot. */
KO_API int32_t FpSetMarker(FpHdr_t *f_hdr);

/* Step a walk to the next data node. The node returned, like any other, may be removed before the
 * next step.
 *
 * Returns its n_data, or null at the end of the walk and for -1.
 *
 * Requires: an index from -1 to 3. */
KO_API void *FpIterate(FpHdr_t *f_hdr, int f_index);

/* End a walk and free its slot; does nothing for -1.
 *
 * Requires: -1, or the index of a walk that was begun and not ended. */
KO_API void FpClearMarker(FpHdr_t *f_hdr, int f_index);

/* Returns the n_data of the first node that has one, or null. */
KO_API void *FpFirstNode(FpHdr_t *f_hdr);

/* Returns the n_data of the last node that has one, or null. */
KO_API void *FpLastNode(FpHdr_t *f_hdr);

/* Only definitions follow.
 *
 * gnu_inline means the same in C and in C++: the body serves for inlining alone and no copy of it
 * is emitted, so whatever is not inlined resolves to the library's symbol. The library itself
 * defines KO_LIST_DEFINE in the one source file that emits them. */
#ifdef KO_LIST_DEFINE
#define KO_LIST_INLINE
#else
#define KO_LIST_INLINE extern inline __attribute__((__gnu_inline__))
#endif

/* Stops the process. The pointer is volatile because a compiler deletes a plain write through null,
 * and what leads to it. */
extern inline __attribute__((__gnu_inline__, __always_inline__)) KO_NORETURN void _list_misuse(void)
{
    volatile int *volatile nowhere = 0;
    *nowhere = 0;
    __builtin_trap();
}

KO_LIST_INLINE void InitHdr(ListHdr_t *f_hdr)
{
    f_hdr->h_first = 0;
    f_hdr->h_last = 0;
}

KO_LIST_INLINE void InitNode(Link_t *f_node, void *f_data)
{
    f_node->n_next = 0;
    f_node->n_prev = 0;
    f_node->n_hdr = 0;
    f_node->n_data = f_data;
}

KO_LIST_INLINE void AppendNode(ListHdr_t *f_hdr, Link_t *f_node)
{
    Link_t *last = f_hdr->h_last;
    if (!f_node->n_data)
        _list_misuse();
    f_node->n_next = 0;
    f_node->n_prev = last;
    f_node->n_hdr = f_hdr;
    *(last ? &last->n_next : &f_hdr->h_first) = f_node;
    f_hdr->h_last = f_node;
}

KO_LIST_INLINE void InsertFirstNode(ListHdr_t *f_hdr, Link_t *f_node)
{
    Link_t *first = f_hdr->h_first;
    if (!f_node->n_data)
        _list_misuse();
    f_node->n_next = first;
    f_node->n_prev = 0;
    f_node->n_hdr = f_hdr;
    *(first ? &first->n_prev : &f_hdr->h_last) = f_node;
    f_hdr->h_first = f_node;
}

KO_LIST_INLINE void InsertBeforeNode(ListHdr_t *f_hdr, Link_t *f_node, Link_t *f_newnode)
{
    if (!f_node || !f_newnode || f_node->n_hdr != f_hdr || f_newnode->n_hdr == f_hdr)
        _list_misuse();
    if ((f_hdr->h_first == f_node) != !f_node->n_prev)
        _list_misuse();
    if (f_hdr->h_first == f_node) {
        InsertFirstNode(f_hdr, f_newnode);
        return;
    }
    f_newnode->n_next = f_node;
    f_newnode->n_prev = f_node->n_prev;
    f_newnode->n_hdr = f_hdr;
    f_node->n_prev->n_next = f_newnode;
    f_node->n_prev = f_newnode;
}

KO_LIST_INLINE void InsertAfterNode(ListHdr_t *f_hdr, Link_t *f_node, Link_t *f_newnode)
{
    if (!f_node || !f_newnode || f_node->n_hdr != f_hdr || f_newnode->n_hdr == f_hdr)
        _list_misuse();
    if ((f_hdr->h_last == f_node) != !f_node->n_next)
        _list_misuse();
    if (f_hdr->h_last == f_node) {
        AppendNode(f_hdr, f_newnode);
        return;
    }
    f_newnode->n_next = f_node->n_next;
    f_newnode->n_prev = f_node;
    f_newnode->n_hdr = f_hdr;
    f_node->n_next->n_prev = f_newnode;
    f_node->n_next = f_newnode;
}

KO_LIST_INLINE void RemoveNode(ListHdr_t *f_hdr, Link_t *f_node)
{
    Link_t *next = f_node->n_next;
    Link_t *prev = f_node->n_prev;
    if (f_node->n_hdr != f_hdr)
        _list_misuse();
    *(prev ? &prev->n_next : &f_hdr->h_first) = next;
    *(next ? &next->n_prev : &f_hdr->h_last) = prev;
    f_node->n_next = 0;
    f_node->n_prev = 0;
    f_node->n_hdr = 0;
}

KO_LIST_INLINE void *RemoveFirstNode(ListHdr_t *f_hdr)
{
    Link_t *first = f_hdr->h_first;
    if (!first)
        return 0;
    RemoveNode(f_hdr, first);
    return first->n_data;
}

KO_LIST_INLINE void MoveList(ListHdr_t *f_src, ListHdr_t *f_dst)
{
    if (f_src == f_dst)
        return;
    while (f_src->h_first) {
        Link_t *node = f_src->h_first;
        RemoveNode(f_src, node);
        AppendNode(f_dst, node);
    }
}

KO_LIST_INLINE void FpInitHdr(FpHdr_t *f_hdr)
{
    int i;
    InitHdr(&f_hdr->fp_hdr);
    for (i = 0; i < FP_MARKERS; i++) {
        InitNode(&f_hdr->fp_marker[i], 0);
        InitNode(&f_hdr->fp_post[i], 0);
    }
}

/* Markers carry this value while they are moved, because the functions refuse nodes without data.
 */
#define KO_LIST_MOVING ((void *)(uintptr_t)1)

KO_LIST_INLINE int32_t FpSetMarker(FpHdr_t *f_hdr)
{
    int i = 0;
    if (!f_hdr->fp_hdr.h_first)
        return -1;
    while (i < FP_MARKERS && f_hdr->fp_marker[i].n_hdr)
        i++;
    if (i == FP_MARKERS)
        _list_misuse();
    f_hdr->fp_marker[i].n_data = KO_LIST_MOVING;
    f_hdr->fp_post[i].n_data = KO_LIST_MOVING;
    InsertFirstNode(&f_hdr->fp_hdr, &f_hdr->fp_marker[i]);
    AppendNode(&f_hdr->fp_hdr, &f_hdr->fp_post[i]);
    f_hdr->fp_marker[i].n_data = 0;
    f_hdr->fp_post[i].n_data = 0;
    return i;
}

KO_LIST_INLINE void *FpIterate(FpHdr_t *f_hdr, int f_index)
{
    Link_t *marker;
    Link_t *node;
    if (f_index == -1)
        return 0;
    if (f_index < 0 || f_index >= FP_MARKERS)
        _list_misuse();
    marker = &f_hdr->fp_marker[f_index];
    for (node = marker->n_next; node && !node->n_data; node = node->n_next) {
        if (node == &f_hdr->fp_post[f_index])
            return 0;
    }
    if (!node)
        return 0;
    marker->n_data = KO_LIST_MOVING;
    RemoveNode(&f_hdr->fp_hdr, marker);
    InsertAfterNode(&f_hdr->fp_hdr, node, marker);
    marker->n_data = 0;
    return node->n_data;
}

KO_LIST_INLINE void FpClearMarker(FpHdr_t *f_hdr, int f_index)
{
    if (f_index == -1)
        return;
    if (f_index < 0 || f_index >= FP_MARKERS)
        _list_misuse();
    f_hdr->fp_marker[f_index].n_data = KO_LIST_MOVING;
    f_hdr->fp_post[f_index].n_data = KO_LIST_MOVING;
    RemoveNode(&f_hdr->fp_hdr, &f_hdr->fp_marker[f_index]);
    RemoveNode(&f_hdr->fp_hdr, &f_hdr->fp_post[f_index]);
    f_hdr->fp_marker[f_index].n_data = 0;
    f_hdr->fp_post[f_index].n_data = 0;
}

KO_LIST_INLINE void *FpFirstNode(FpHdr_t *f_hdr)
{
    Link_t *node = f_hdr->fp_hdr.h_first;
    while (node && !node->n_data)
        node = node->n_next;
    return node ? node->n_data : 0;
}

KO_LIST_INLINE void *FpLastNode(FpHdr_t *f_hdr)
{
    Link_t *node = f_hdr->fp_hdr.h_last;
    while (node && !node->n_data)
        node = node->n_prev;
    return node ? node->n_data : 0;
}

#undef KO_LIST_MOVING
#undef KO_LIST_INLINE

KO_END_DECLS

#endif
