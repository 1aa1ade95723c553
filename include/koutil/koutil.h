/* koutil.h - the whole library.
 *
 * The conventions that hold everywhere; a module's header states only its exceptions.
 *
 *  1. Status. Functions that can fail return a VoError_t or int: 0 is success, any other value is
 *     the errno of the call that failed or one of the small codes listed in types.h. Families with
 *     their own rule say so at the top of their header.
 *  2. Results come through out-parameters, which are set to null or 0 on failure unless a function
 *     says otherwise. An out-parameter that may be null is said to be optional.
 *  3. Pointers must not be null unless a function says that null is allowed.
 *  4. Objects come from an Open or Alloc function and go back through a Close or Free function that
 *     takes the address of the caller's pointer and sets it to null.
 *  5. Memory that a function allocates for its caller is released with free(3) unless the function
 *     names another.
 *  6. Message buffers (ErrMsg/ErrMsgSz and the like) are optional: given one, a failing function
 *     writes a one-line description, cut to the size and terminated, and returns its status in any
 *     case.
 *  7. Texts are terminated byte strings. A text parameter declared `char *` where a hook's type
 *     asks for it is still only read unless the function says that it edits in place.
 *  8. Threads. Functions without state may be called from any thread; an object belongs to one
 *     thread at a time unless its header says more.
 *  9. The library has no constructors and no configuration of its own: hosts set the hooks and call
 *     the start-up functions early, before they start threads.
 * 10. Names that begin with an underscore are exported for the library's own modules and for tests;
 *     hosts seldom need them.
 */
#ifndef KOUTIL_KOUTIL_H
#define KOUTIL_KOUTIL_H

/* Ground: types, formatting, locks. */
#include "common/list.h"
#include "koutil/console.h"
#include "koutil/fmt_syserror.h"
#include "koutil/fprintf_indent.h"
#include "koutil/memsize.h"
#include "koutil/msleep.h"
#include "koutil/mt19937ar.h"
#include "koutil/mutex.h"
#include "koutil/payload.h"
#include "koutil/priv_check.h"
#include "koutil/rawip.h"
#include "koutil/rss.h"
#include "koutil/sid_subr.h"
#include "koutil/snprintf.h"
#include "koutil/timer.h"
#include "koutil/types.h"
#include "koutil/utf8.h"
#include "koutil/xxhash.h"

/* Runtime: panic, log output, memory, threads, clocks. */
#include "koutil/alloc.h"
#include "koutil/checked_build.h"
#include "koutil/dopanic.h"
#include "koutil/library_init.h"
#include "koutil/logger.h"
#include "koutil/memleak_dbg.h"
#include "koutil/mono_time.h"
#include "koutil/thread_common.h"
#include "koutil/thread_sync.h"
#include "koutil/thrpri.h"
#include "koutil/voras.h"

/* Services: files, log file, text, containers, queues. */
#include "koutil/cache.h"
#include "koutil/getroot.h"
#include "koutil/hash_table.h"
#include "koutil/ko_mmap.h"
#include "koutil/kovaio.h"
#include "koutil/kovalog.h"
#include "koutil/option_parse.h"
#include "koutil/pollutil.h"
#include "koutil/pretty_print.h"
#include "koutil/queue_util.h"
#include "koutil/slidingbucket.h"
#include "koutil/strint.h"
#include "koutil/subr.h"
#include "koutil/util_track.h"

/* Configuration and network. */
#include "koutil/brandcfg.h"
#include "koutil/fsmlist.h"
#include "koutil/fsports.h"
#include "koutil/hostlookup.h"
#include "koutil/kovacfg.h"
#include "koutil/kovagvar.h"
#include "koutil/mntargs.h"
#include "koutil/netif.h"
#include "koutil/sock46.h"
#include "koutil/subr2.h"

/* Replication and daemons. */
#include "koutil/rep_records.h"
#include "koutil/rep_stream.h"
#include "koutil/watcher.h"

#endif
