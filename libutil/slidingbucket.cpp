// slidingbucket.cpp - rates over a sliding window.
//
// The current slice covers the times after `base` up to and including base + scale.
#include "koutil/slidingbucket.h"

#include "internal/assert.h"
#include "koutil/msleep.h"

namespace
{

constexpr uint32_t slices = SB_SETSIZE + 1;
constexpr uint64_t default_scale = 500'000;
constexpr uint64_t usec_per_sec = 1'000'000;

__extension__ using uint128 = unsigned __int128;

// Makes the slice that `now` lies in the current one; a clock that went back moves nothing.
void bring_up_to(SlidingBucket_t *f_bucket, uint64_t now)
{
    KO_ASSERT(f_bucket->curr <= SB_SETSIZE);
    if (f_bucket->scale == 0) {
        f_bucket->scale = default_scale; // never initialised
    }
    if (f_bucket->base == 0) {
        f_bucket->base = now;
    }
    if (now <= f_bucket->base) {
        return;
    }
    const uint64_t elapsed = now - f_bucket->base;
    if (elapsed / f_bucket->scale >= slices) {
        InitBucketScale(f_bucket, f_bucket->scale);
        f_bucket->base = now;
        return;
    }
    for (uint64_t passed = (elapsed - 1) / f_bucket->scale; passed > 0; passed--) {
        f_bucket->curr = (f_bucket->curr + 1) % slices;
        f_bucket->bucket[f_bucket->curr] = 0;
        f_bucket->base += f_bucket->scale;
    }
}

} // namespace

void InitBucketScale(SlidingBucket_t *f_bucket, uint64_t scale)
{
    *f_bucket = {};
    f_bucket->scale = scale != 0 ? scale : default_scale;
}

void InitBucket(SlidingBucket_t *f_bucket)
{
    InitBucketScale(f_bucket, default_scale);
}

void PutBucket(SlidingBucket_t *f_bucket, uint64_t qty)
{
    bring_up_to(f_bucket, MicroTime());
    f_bucket->bucket[f_bucket->curr] += qty;
}

uint64_t GetBucket(SlidingBucket_t *f_bucket)
{
    bring_up_to(f_bucket, MicroTime());
    uint128 sum = 0;
    uint32_t count = 0;
    for (uint32_t age = 1; age < slices; age++) {
        const uint64_t quantity = f_bucket->bucket[(f_bucket->curr + age) % slices];
        sum += quantity;
        if (count > 0 || quantity != 0) {
            count++;
        }
    }
    if (count == 0) {
        return 0;
    }
    return static_cast<uint64_t>(sum * usec_per_sec / count / f_bucket->scale);
}
