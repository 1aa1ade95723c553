// hostlookup.h - the failure cache of reverse lookups, for its tests.
#ifndef KOUTIL_INTERNAL_HOSTLOOKUP_H
#define KOUTIL_INTERNAL_HOSTLOOKUP_H

#include "internal/testable.h"
#include "koutil/mutex.h"
#include "koutil/types.h"

#include <cstddef>

namespace koutil
{

extern KO_TESTABLE thread_mutex_t fail_cache_lock;

// Bucket of an address in the failure cache, from 0 to 1023.
KO_TESTABLE size_t fail_hash(const in46addr_t *a);

// Whether a failure of the address is remembered. With `refresh` its time becomes now, even if it
// has expired; without, an expired one is forgotten. The caller holds fail_cache_lock.
KO_TESTABLE int CheckFailCacheNoLock(const in46addr_t *a, int refresh);

} // namespace koutil

#endif
