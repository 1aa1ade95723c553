/* priv_check.h - the administrator test.
 *
 * Thread safety:  no state; any thread.
 */
#ifndef KOUTIL_PRIV_CHECK_H
#define KOUTIL_PRIV_CHECK_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Returns 1 if the effective user is the administrator (user id 0), else 0. */
KO_API int PrivCheck(void);

KO_END_DECLS

#endif
