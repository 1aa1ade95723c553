/* console.h - messages for whoever sits at the console.
 *
 * Thread safety:  any thread.
 */
#ifndef KOUTIL_CONSOLE_H
#define KOUTIL_CONSOLE_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Write `buff` to standard error, unchanged; null writes nothing. */
KO_API void ConsoleMessage(const char *buff);

/* Wait for the console. Nothing has to be waited for on this platform: returns at once. */
KO_API void ConsoleWait(void);

KO_END_DECLS

#endif
