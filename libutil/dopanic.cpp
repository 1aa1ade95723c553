// dopanic.cpp - the panic path.
//
// It must work in any state of the process: no lock of the library, no allocation, and no object
// with a destructor on these frames, because a host's handler may leave by longjmp.
#include "koutil/dopanic.h"

#include "internal/literal.h"
#include "koutil/snprintf.h"

#include <cstdio>
#include <cstdlib>
#include <syslog.h>
#include <unistd.h>

namespace
{

char default_caller[] = "libutil";

const char *or_null_text(const char *text)
{
    return text != nullptr ? text : "(null)";
}

void DefaultPanic(char *str1, char *str2, int core, char *file, int line)
{
    char text[2048] = "";
    VoSnprintf(text, sizeof text, "%.*s: %s %s\"%s\" file %s, line %d",
               static_cast<int>(sizeof PanicNomenclature), PanicNomenclature,
               or_null_text(CallerName), or_null_text(str1), or_null_text(str2), or_null_text(file),
               line);
    syslog(LOG_ALERT, "%s", text);
    fprintf(stderr, "%s\n", text);
    if (core == 0) {
        _exit(PanicNoCoreExitCode);
    }
    abort();
}

} // namespace

do_panic_fn_t DoPanicFn = DefaultPanic;
char PanicNomenclature[2048] = "PANIC";
int PanicNoCoreExitCode = 1;
int Panicked = 0;
char *CallerName = default_caller;

void set_caller_name(char *name)
{
    CallerName = name;
}

void DoPanic(const char *str1, const char *str2, int core, const char *file, int line)
{
    const do_panic_fn_t handler = DoPanicFn != nullptr ? DoPanicFn : DefaultPanic;
    handler(koutil::literal(str1), koutil::literal(str2), core, koutil::literal(file), line);
    _exit(1);
}
