// assert.h - the library's assertion.
//
// A failed assertion ends in DoPanic with the expression exactly as the source has it: the macro's
// argument is stringised once and never expanded, so a named constant keeps its name in the text.
#ifndef KOUTIL_INTERNAL_ASSERT_H
#define KOUTIL_INTERNAL_ASSERT_H

#include "koutil/dopanic.h"

// KO_MODULE is the source path without its extension ("libutil/alloc"); the build defines it.
#define KO_ASSERT(expr)                                                                            \
    (__builtin_expect(!(expr), 0) ? DoPanic("ASSERT failed ", #expr, 1, KO_MODULE, __LINE__)       \
                                  : (void)0)

#endif
