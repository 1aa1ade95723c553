// cache.h - what the cache's tests look at.
#ifndef KOUTIL_INTERNAL_CACHE_H
#define KOUTIL_INTERNAL_CACHE_H

#include "internal/testable.h"
#include "koutil/cache.h"

namespace koutil
{

// Verifies every invariant of a cache that no thread uses at the moment. Returns null, or what does
// not hold. Records may be held by the caller.
KO_TESTABLE const char *cache_check(cache_t *cache);

} // namespace koutil

#endif
