/* library_init.h - the library's start-up call.
 *
 * The library has no constructors. A host calls LibraryInit once, early, before it starts threads,
 * and then what it needs of: kova_thread_init, mono_init with a thread for mono_handler, MsgQ_Init,
 * and the set-up of its log.
 *
 * Thread safety:  one thread, before the others exist.
 */
#ifndef KOUTIL_LIBRARY_INIT_H
#define KOUTIL_LIBRARY_INIT_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Take the baseline of thread priorities (thrpri_init), then set AllocMemory to MyMemalign and
 * FreeMemory to MyFree. */
KO_API void LibraryInit(void);

KO_END_DECLS

#endif
