/* kovagvar.h - variables that several programs share, kept in a file of "NAME=value" lines.
 *
 *     BASE=/opt/x
 *     BIN=${BASE}/bin
 *
 * The file is a keyword file of assignments (kovacfg.h); of a line with several '=' only the text
 * up to the second one counts, and a line without '=' gives the empty value. A later line hides
 * earlier ones of its name. References "${NAME}" are replaced once, when the file is loaded, by the
 * value of the latest earlier line of that name; unknown ones vanish; an unfinished "${" cuts the
 * value there; any other '$' stays.
 *
 *     void *vars = gvar_open("vars", 1);
 *     char *bin = gvar_get(vars, "BIN");
 *     ... gvar_refresh(vars) now and then; `bin` stays as it is ...
 *     gvar_release(vars, bin);
 *     gvar_close(vars);
 *
 * Life:           gvar_open -> get, release, refresh, next -> gvar_close.
 * Ownership:      values belong to the instance. One from gvar_get lives until it has been released
 *                 as often as it was got, through any number of refreshes, and at the longest until
 *                 gvar_close. Names and values from gvar_next live until the next refresh.
 * Null:           a null instance is allowed everywhere; it has no variables.
 * Thread safety:  no locks: one thread at a time, or the callers serialise.
 */
#ifndef KOUTIL_KOVAGVAR_H
#define KOUTIL_KOVAGVAR_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* One loaded file. Callers hold it as a void pointer. */
typedef struct gvar_instance gvar_instance;

/* Make an instance of a file and load it. A name that begins with "/" or "./" is a path; any other
 * one lies in the configuration directory. The file need not exist, or be readable, yet. With
 * `use_getenv` other than 0 the environment takes precedence in gvar_get.
 *
 * Ownership: the instance goes back through gvar_close.
 * Returns the instance, or null for a null name or when memory runs out. */
KO_API void *gvar_open(const char *name, int use_getenv);

/* Load the file again if its modification time, in whole seconds, has changed; a missing file has
 * no variables. When the file cannot be read, the variables stay and the next refresh tries again.
 * When memory runs out, or the values pass 64 MiB, the variables of the lines up to there are
 * loaded. */
KO_API void gvar_refresh(void *void_gvip);

/* The value of a variable: from the environment first, when the instance says so or is null, then
 * from the file. A value from the file is counted and stays valid until gvar_release.
 *
 * Returns null when there is none, and for a null or empty name. */
KO_API char *gvar_get(void *void_gvip, const char *name);

/* Give back a value from gvar_get. Any other pointer, such as a value from the environment, is
 * ignored. */
KO_API void gvar_release(void *void_gvip, char *value);

/* Step through the variables in file order: `*void_gvpp` is null for the first one and is set to
 * the position reached, which is good until the next refresh. `namep` is optional.
 *
 * Returns the value, which is not counted, and its name in `*namep`; or null at the end. */
KO_API char *gvar_next(void *void_gvip, void **void_gvpp, char **namep);

/* Replace the references in `valp`, in place, by the current variables. `valp` must have room for
 * the text as it is and for the text as it becomes. When memory runs out it stays as it is. */
KO_API void gvar_expand(gvar_instance *gvip, char *valp);

/* Free an instance with all its values, released or not. */
KO_API void gvar_close(void *void_gvip);

KO_END_DECLS

#endif
