/* watcher.h - keep a daemon running under a watcher process.
 *
 * A daemon hands its real main function to KeepRunning instead of calling it. KeepRunning detaches
 * from the terminal and becomes a small supervisor, the watcher, which shows as "NAME-watcher" in
 * the process list. It starts the daemon as its child in a session of its own and then
 *
 *     on SIGTERM                           sends SIGTERM to the daemon, after five seconds SIGKILL,
 *                                          and exits with 0
 *     on SIGINT, SIGQUIT, SIGHUP,          sends the same signal to the daemon
 *        SIGUSR1, SIGUSR2, SIGPIPE
 *     when the daemon ends with 0          exits with 0
 *     when the daemon ends otherwise       starts it again after a pause of five seconds
 *     at the fifth core dump of a series,  gives up and exits with 1
 *        each within an hour of the last
 *     when a fork or a wait fails          exits with 1
 *
 * Signals that arrive during a pause are taken after it. Everything is reported to the system log
 * under LOG_DAEMON. For debugging, two environment variables (set to anything) switch parts off:
 *
 *     WATCHER_NODETACH    WATCHER_NORESTART    who runs the daemon
 *     -                   -                    child of the detached watcher
 *     set                 -                    child of the calling process, which is the watcher
 *     -                   set                  the detached process; nobody watches it
 *     set                 set                  the calling process
 *
 * Life:           call KeepRunning once, first thing in main, before threads exist and before
 *                 anything is left in a stdio buffer: the fork would write it twice. The working
 *                 folder, the umask and the standard descriptors stay as they are.
 * Thread safety:  one thread.
 *
 *     int main(int argc, char **argv) { return KeepRunning(daemon_main, argc, argv); }
 */
#ifndef KOUTIL_WATCHER_H
#define KOUTIL_WATCHER_H

#include "koutil/types.h"

#include <sys/types.h>

KO_BEGIN_DECLS

/* A daemon's main function. */
typedef int (*main_f)(int argc, char **argv);

/* In a watched daemon: the watcher's process id. */
KO_API extern pid_t WatcherPid;

/* Run `inner_main(argc, argv)` as the tables at the top of watcher.h say. `argv` is the vector that
 * main received; its strings are overwritten to rename the watcher when they are the process's own
 * arguments and have room for the name; the daemon then gets a copy and shows the original command
 * line.
 *
 * The watcher and the daemon that it watches do not return: they end in exit(3).
 *
 * Returns 0 in the caller when the watcher was detached
 * Returns 1 when the detaching fork failed
 * Returns -1 when memory ran out
 * Returns the result of `inner_main` in the process that ran it without a watcher. */
KO_API int KeepRunning(main_f inner_main, int argc, char **argv);

KO_END_DECLS

#endif
