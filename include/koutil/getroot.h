/* getroot.h - the installation's directories.
 *
 * One install root and twelve directories that hang from it. Three of them can be moved by an
 * environment variable; the others always follow the install root.
 *
 *     function              variable    without the variable
 *     GetVornRoot           VORNROOT    /usr/vorn
 *     GetVornConfigDir      VORNCONF    ROOT/config
 *     GetVornLogRoot        VORNLOGS    ROOT
 *     GetVornDataDir                    ROOT/data
 *     GetVornDebugDir                   ROOT/debug
 *     GetVornRasDir                     ROOT/ras
 *     GetVornZelstatsDir                ROOT/zelstats
 *     GetVornBinDir                     ROOT/bin
 *     GetVornHelpDir                    ROOT/help
 *     GetVornLibDir                     ROOT/lib
 *     GetVornOemDir                     ROOT/oem
 *     GetVornInstallDir                 ROOT/install
 *     GetVornLdapDir                    ROOT/ldap
 *
 * A variable that is set to the empty text counts as set. The value of a variable is taken as it
 * stands; a path composed below the root is cut at 255 characters, with one line on standard error.
 * Nothing is looked up, made or normalised on disk.
 *
 * Life:           the paths are worked out once, at the first call of any accessor; later changes
 *                 of the environment change nothing.
 * Ownership:      the texts belong to the library, are valid for the life of the process and must
 *                 not be changed. An accessor returns the same pointer every time, never null.
 * Thread safety:  any thread may call any accessor at any time; after the first call it is a test
 *                 and a load.
 */
#ifndef KOUTIL_GETROOT_H
#define KOUTIL_GETROOT_H

#include "koutil/mutex.h"
#include "koutil/types.h"

KO_BEGIN_DECLS

/* Held while the paths are worked out. */
KO_API extern thread_mutex_t get_vorn_root_mtx;

/* Returns the install root. */
KO_API char *GetVornRoot(void);

/* Returns the directory of the configuration files. */
KO_API char *GetVornConfigDir(void);

/* Returns the directory below which log files lie. */
KO_API char *GetVornLogRoot(void);

/* Returns the directory of the data files. */
KO_API char *GetVornDataDir(void);

/* Returns the directory of debugging output. */
KO_API char *GetVornDebugDir(void);

/* Returns the directory of service events. */
KO_API char *GetVornRasDir(void);

/* Returns the directory of statistics. */
KO_API char *GetVornZelstatsDir(void);

/* Returns the directory of the programs. */
KO_API char *GetVornBinDir(void);

/* Returns the directory of help texts. */
KO_API char *GetVornHelpDir(void);

/* Returns the directory of the libraries. */
KO_API char *GetVornLibDir(void);

/* Returns the directory of OEM files. */
KO_API char *GetVornOemDir(void);

/* Returns the directory of install files. */
KO_API char *GetVornInstallDir(void);

/* Returns the directory of LDAP files. */
KO_API char *GetVornLdapDir(void);

KO_END_DECLS

#endif
