// voras.cpp - service events.
//
// No frame here that calls the sink owns anything: the sink may panic and leave by longjmp.
#include "koutil/voras.h"

#include "internal/literal.h"
#include "koutil/dopanic.h"
#include "koutil/snprintf.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <sys/time.h>
#include <unistd.h>

namespace
{

constexpr size_t event_size = 512;

const char *caller_name()
{
    const char *name = CallerName;
    if (name == nullptr) {
        return "";
    }
    const char *slash = strrchr(name, '/');
    return slash != nullptr ? slash + 1 : name;
}

// The message of an event: who raised it, and its text.
void compose(char (&message)[event_size], const char *text)
{
    const int pid = getpid();
    if (strcmp(FsName, "none") == 0) {
        VoSnprintf(message, sizeof message, "%s[PID=%d]: %s", caller_name(), pid, text);
    } else {
        VoSnprintf(message, sizeof message, "%s[PID=%d]: fs '%.*s': %s", caller_name(), pid,
                   static_cast<int>(sizeof FsName), FsName, text);
    }
}

// The event text in one piece on standard error.
void print_text(const char *format, va_list args)
{
    flockfile(stderr);
    if (format != nullptr) {
        vfprintf(stderr, format, args);
    }
    fputc('\n', stderr);
    funlockfile(stderr);
}

} // namespace

ras_fn_t RasFn = nullptr;
char FsName[256] = "none";
uint32_t LastRasEventTime[RAS_TIME_MAX];

VoError_t RasEvent(const char *f_event, const char *f_format, ...)
{
    va_list args;
    va_start(args, f_format);
    const ras_fn_t sink = RasFn;
    if (sink == nullptr) {
        print_text(f_format, args);
        va_end(args);
        return 0;
    }
    timeval now = {};
    gettimeofday(&now, nullptr);
    char text[event_size] = "";
    VoVsnprintf(text, sizeof text, f_format, args);
    va_end(args);
    char message[event_size] = "";
    compose(message, text);
    return sink(koutil::literal(f_event), message, static_cast<uint32_t>(now.tv_sec),
                static_cast<uint32_t>(now.tv_usec));
}
