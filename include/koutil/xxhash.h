/* xxhash.h - the 32-bit and 64-bit xxHash functions, offered from this library.
 *
 * Fast hashes for tables and checksums; not for secrets. The one-shot functions hash a block, the
 * streaming ones a sequence of blocks: create a state, reset it with a seed, update it with each
 * block, take the digest, free it. A host that includes the hash's own <xxhash.h> too includes that
 * one first.
 *
 * Ownership:      a state belongs to the caller and goes back through the free function.
 * Thread safety:  a state belongs to one thread at a time; the rest has no state.
 */
#ifndef KOUTIL_XXHASH_H
#define KOUTIL_XXHASH_H

#include "koutil/types.h"

KO_BEGIN_DECLS

#ifndef XXHASH_H_5627135585666179
/* Outcome of a call on a state. */
typedef enum {
    XXH_OK = 0, /* success */
    XXH_ERROR   /* a null input */
} XXH_errorcode;

typedef uint32_t XXH32_hash_t;              /* a 32-bit hash, or its seed */
typedef uint64_t XXH64_hash_t;              /* a 64-bit hash, or its seed */
typedef struct XXH32_state_s XXH32_state_t; /* a 32-bit hash under way */
typedef struct XXH64_state_s XXH64_state_t; /* a 64-bit hash under way */
#endif

/* Returns the 32-bit hash of `length` bytes. A null `input` needs a `length` of 0. */
KO_API XXH32_hash_t XXH32(const void *input, size_t length, XXH32_hash_t seed);

/* Returns a new state, to be reset before use, or null when memory runs out. */
KO_API XXH32_state_t *XXH32_createState(void);

/* Free a state; null is allowed. Returns XXH_OK. */
KO_API XXH_errorcode XXH32_freeState(XXH32_state_t *state);

/* Begin a new hash with `seed`. Returns XXH_OK. */
KO_API XXH_errorcode XXH32_reset(XXH32_state_t *state, XXH32_hash_t seed);

/* Add `length` bytes to the hash. Returns XXH_OK; a null `input` gives XXH_ERROR unless `length` is
 * 0. */
KO_API XXH_errorcode XXH32_update(XXH32_state_t *state, const void *input, size_t length);

/* Returns the hash of all bytes added since the reset; the state may take more. */
KO_API XXH32_hash_t XXH32_digest(const XXH32_state_t *state);

/* Returns the 64-bit hash of `length` bytes. A null `input` needs a `length` of 0. */
KO_API XXH64_hash_t XXH64(const void *input, size_t length, XXH64_hash_t seed);

/* Returns a new state, to be reset before use, or null when memory runs out. */
KO_API XXH64_state_t *XXH64_createState(void);

/* Free a state; null is allowed. Returns XXH_OK. */
KO_API XXH_errorcode XXH64_freeState(XXH64_state_t *state);

/* Begin a new hash with `seed`. Returns XXH_OK. */
KO_API XXH_errorcode XXH64_reset(XXH64_state_t *state, XXH64_hash_t seed);

/* Add `length` bytes to the hash. Returns XXH_OK; a null `input` gives XXH_ERROR unless `length` is
 * 0. */
KO_API XXH_errorcode XXH64_update(XXH64_state_t *state, const void *input, size_t length);

/* Returns the hash of all bytes added since the reset; the state may take more. */
KO_API XXH64_hash_t XXH64_digest(const XXH64_state_t *state);

KO_END_DECLS

#endif
