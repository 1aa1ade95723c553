/* slidingbucket.h - a recent rate: quantities per second over the last twenty time slices.
 *
 * Callers add quantities as they happen; GetBucket averages the completed slices, from the first
 * one that is not empty on, so a rate that has just begun is not diluted by the time before it.
 *
 *     completed, from the oldest              being filled
 *     | 0 | 0 | 7 | 0 | ... | 3 |                | 5 |
 *             \______ averaged ______/             not counted
 *
 * Life:           InitBucket or InitBucketScale, then PutBucket and GetBucket for ever. The clock
 *                 of a bucket begins with the first of them; a pause of 21 slices resets it.
 * Units:          slice lengths are microseconds of the wall clock; rates are quantities per
 *                 second.
 * Thread safety:  a bucket is not locked; callers that share one guard it.
 */
#ifndef KOUTIL_SLIDINGBUCKET_H
#define KOUTIL_SLIDINGBUCKET_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* The highest index of a slice. */
#define SB_SETSIZE 20

/* A rate: the quantities of the present slice and of those before it. */
typedef struct _sliding_bucket {
    uint64_t bucket[SB_SETSIZE + 1]; /* the quantity of each slice */
    uint32_t curr;                   /* the slice being filled */
    uint64_t base;  /* when it began, in microseconds since the epoch; 0 before the first use */
    uint64_t scale; /* length of a slice in microseconds */
} SlidingBucket_t;

/* Empty a bucket and give it slices of `scale` microseconds; 0 stands for half a second. */
KO_API void InitBucketScale(SlidingBucket_t *f_bucket, uint64_t scale);

/* Empty a bucket and give it slices of half a second. */
KO_API void InitBucket(SlidingBucket_t *f_bucket);

/* Add `qty` now. Panics on a bucket whose `curr` is corrupted. */
KO_API void PutBucket(SlidingBucket_t *f_bucket, uint64_t qty);

/* Returns the average quantity per second of the completed slices, 0 when they are all empty.
 * Panics on a bucket whose `curr` is corrupted. */
KO_API uint64_t GetBucket(SlidingBucket_t *f_bucket);

KO_END_DECLS

#endif
