// xxhash.cpp - offers twelve functions of the installed xxHash header as the library's own.
//
// The header is taken in its inline form, which gives all its names a prefix and internal linkage;
// only the twelve wrappers below have external names, in the static library too.
#define XXH_INLINE_ALL
#define XXH_NO_XXH3
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wconversion"
#include <xxhash.h>
#pragma GCC diagnostic pop

namespace
{

using State32 = XXH32_state_t;
using State64 = XXH64_state_t;
using Code = XXH_errorcode;

uint32_t hash32(const void *input, size_t length, uint32_t seed)
{
    return XXH32(input, length, seed);
}
State32 *create32()
{
    return XXH32_createState();
}
Code free32(State32 *state)
{
    return XXH32_freeState(state);
}
Code reset32(State32 *state, uint32_t seed)
{
    return XXH32_reset(state, seed);
}
Code update32(State32 *state, const void *in, size_t len)
{
    return XXH32_update(state, in, len);
}
uint32_t digest32(const State32 *state)
{
    return XXH32_digest(state);
}

uint64_t hash64(const void *input, size_t length, uint64_t seed)
{
    return XXH64(input, length, seed);
}
State64 *create64()
{
    return XXH64_createState();
}
Code free64(State64 *state)
{
    return XXH64_freeState(state);
}
Code reset64(State64 *state, uint64_t seed)
{
    return XXH64_reset(state, seed);
}
Code update64(State64 *state, const void *in, size_t len)
{
    return XXH64_update(state, in, len);
}
uint64_t digest64(const State64 *state)
{
    return XXH64_digest(state);
}

} // namespace

// From here on the plain names are this library's.
#undef XXH32
#undef XXH32_createState
#undef XXH32_freeState
#undef XXH32_reset
#undef XXH32_update
#undef XXH32_digest
#undef XXH32_state_s
#undef XXH32_state_t
#undef XXH64
#undef XXH64_createState
#undef XXH64_freeState
#undef XXH64_reset
#undef XXH64_update
#undef XXH64_digest
#undef XXH64_state_s
#undef XXH64_state_t
#undef XXH_OK
#undef XXH_ERROR
#undef XXH_errorcode
#undef XXHASH_H_5627135585666179

#include "koutil/xxhash.h"

namespace
{

State32 *own(XXH32_state_t *state)
{
    return reinterpret_cast<State32 *>(state);
}
State64 *own(XXH64_state_t *state)
{
    return reinterpret_cast<State64 *>(state);
}
const State32 *own(const XXH32_state_t *state)
{
    return reinterpret_cast<const State32 *>(state);
}
const State64 *own(const XXH64_state_t *state)
{
    return reinterpret_cast<const State64 *>(state);
}
XXH_errorcode own(Code code)
{
    return static_cast<XXH_errorcode>(code);
}

} // namespace

XXH32_hash_t XXH32(const void *input, size_t length, XXH32_hash_t seed)
{
    return hash32(input, length, seed);
}
XXH32_state_t *XXH32_createState(void)
{
    return reinterpret_cast<XXH32_state_t *>(create32());
}
XXH_errorcode XXH32_freeState(XXH32_state_t *state)
{
    return own(free32(own(state)));
}
XXH_errorcode XXH32_reset(XXH32_state_t *state, XXH32_hash_t seed)
{
    return own(reset32(own(state), seed));
}
XXH_errorcode XXH32_update(XXH32_state_t *state, const void *input, size_t length)
{
    return input == nullptr && length == 0 ? XXH_OK : own(update32(own(state), input, length));
}
XXH32_hash_t XXH32_digest(const XXH32_state_t *state)
{
    return digest32(own(state));
}

XXH64_hash_t XXH64(const void *input, size_t length, XXH64_hash_t seed)
{
    return hash64(input, length, seed);
}
XXH64_state_t *XXH64_createState(void)
{
    return reinterpret_cast<XXH64_state_t *>(create64());
}
XXH_errorcode XXH64_freeState(XXH64_state_t *state)
{
    return own(free64(own(state)));
}
XXH_errorcode XXH64_reset(XXH64_state_t *state, XXH64_hash_t seed)
{
    return own(reset64(own(state), seed));
}
XXH_errorcode XXH64_update(XXH64_state_t *state, const void *input, size_t length)
{
    return input == nullptr && length == 0 ? XXH_OK : own(update64(own(state), input, length));
}
XXH64_hash_t XXH64_digest(const XXH64_state_t *state)
{
    return digest64(own(state));
}
