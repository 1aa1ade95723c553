// hostlookup.cpp - the name behind an address, with a cache of failures.
//
// The cache is a table of lists, allocated whole at the first failure and never shrunk. Expired
// entries go when a check meets them.
#include "koutil/hostlookup.h"

#include "common/list.h"
#include "internal/guards.h"
#include "internal/hostlookup.h"
#include "internal/in46addr.h"
#include "koutil/msleep.h"
#include "koutil/rawip.h"

#include <cstring>
#include <netdb.h>

namespace
{

constexpr size_t kBuckets = 1024;
constexpr uint64_t kLifetime = 1800000000; // microseconds
constexpr size_t kNameSize = 256;

struct failcache_ent_t {
    Link_t fc_link;
    in46addr_t fc_addr;    // whose reverse lookup failed
    uint64_t fc_timestamp; // MicroTime of the last failure
};

static_assert(sizeof(ListHdr_t) * kBuckets == 16384);

ListHdr_t *fail_cache; // guarded by fail_cache_lock; null before the first failure

bool same(const in46addr_t &a, const in46addr_t &b)
{
    return memcmp(&a, &b, sizeof a) == 0;
}

failcache_ent_t *find_entry(ListHdr_t &bucket, const in46addr_t &address)
{
    for (Link_t *node = bucket.h_first; node != nullptr; node = node->n_next) {
        failcache_ent_t *entry = static_cast<failcache_ent_t *>(node->n_data);
        if (same(entry->fc_addr, address)) {
            return entry;
        }
    }
    return nullptr;
}

bool is_remembered(const in46addr_t *a)
{
    const koutil::LockGuard guard(koutil::fail_cache_lock);
    return koutil::CheckFailCacheNoLock(a, 0) != 0;
}

void remember_failure(const in46addr_t *a)
{
    const koutil::LockGuard guard(koutil::fail_cache_lock);
    if (fail_cache == nullptr) {
        fail_cache = koutil::callocate<ListHdr_t>(kBuckets).release();
    }
    if (fail_cache == nullptr || koutil::CheckFailCacheNoLock(a, 1) != 0) {
        return;
    }
    failcache_ent_t *entry = koutil::callocate<failcache_ent_t>().release();
    if (entry == nullptr) {
        return;
    }
    InitNode(&entry->fc_link, entry);
    entry->fc_addr = *a;
    entry->fc_timestamp = MicroTime();
    AppendNode(&fail_cache[koutil::fail_hash(a)], &entry->fc_link);
}

// Asks the resolver; `failed` says whether the text is the numeric one.
void doGetHostFromIp(const in46addr_t *a, char *name, bool &failed)
{
    const koutil::SocketAddress address = koutil::SocketAddress::of(*a, 0);
    char host[kNameSize] = "";
    failed = getnameinfo(address.get(), address.length(), host, sizeof host, nullptr, 0,
                         NI_NAMEREQD) != 0;
    if (failed) {
        RawIp(a, name);
    } else {
        memcpy(name, host, strnlen(host, sizeof host - 1) + 1);
    }
}

} // namespace

namespace koutil
{

thread_mutex_t fail_cache_lock = THREAD_MUTEX_INITIALIZER;

// The integer hash of Robert Jenkins over the last two words of the address.
size_t fail_hash(const in46addr_t *a)
{
    uint32_t words[4];
    memcpy(words, a, sizeof words);
    uint32_t h = words[2] ^ words[3];
    h = (h + 0x7ED55D16) + (h << 12);
    h = (h ^ 0xC761C23C) ^ (h >> 19);
    h = (h + 0x165667B1) + (h << 5);
    h = (h + 0xD3A2646C) ^ (h << 9);
    h = (h + 0xFD7046C5) + (h << 3);
    h = (h ^ 0xB55A4F09) ^ (h >> 16);
    return h % kBuckets;
}

int CheckFailCacheNoLock(const in46addr_t *a, int refresh)
{
    if (fail_cache == nullptr) {
        return 0;
    }
    ListHdr_t &bucket = fail_cache[fail_hash(a)];
    failcache_ent_t *entry = find_entry(bucket, *a);
    if (entry == nullptr) {
        return 0;
    }
    const uint64_t now = MicroTime();
    if (refresh != 0) {
        entry->fc_timestamp = now;
        return 1;
    }
    if (now <= entry->fc_timestamp + kLifetime) {
        return 1;
    }
    RemoveNode(&bucket, &entry->fc_link);
    free(entry);
    return 0;
}

} // namespace koutil

char *GetHostFromIp(const in46addr_t *a, char *name)
{
    bool failed;
    doGetHostFromIp(a, name, failed);
    return name;
}

char *GetHostFromIpFailCache(const in46addr_t *a, char *name)
{
    if (is_remembered(a)) {
        return RawIp(a, name);
    }
    bool failed;
    doGetHostFromIp(a, name, failed);
    if (failed) {
        remember_failure(a);
    }
    return name;
}
