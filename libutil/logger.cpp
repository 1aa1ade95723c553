// logger.cpp - the output functions, their hooks and the route to the log file.
//
// No frame here that calls a hook owns anything: a hook may panic and leave by longjmp.
#include "koutil/logger.h"

#include "internal/literal.h"
#include "koutil/dopanic.h"
#include "koutil/snprintf.h"

#include <cstdio>

namespace
{

constexpr size_t message_size = 2048;
constexpr size_t mylog_size = 1024;

enum LogType { type_info = 0, type_debug = 1, type_warn = 2, type_error = 3, type_critical = 7 };

// Level of the log file for each log type; -1 drops the message.
constexpr int level_of_type[] = {1, 0, 2, 3, 4, -1, -1, 5};

// Formats and delivers one message; only warnings and worse come here without a hook.
void output(LogType type, const char *format, va_list args)
{
    char text[message_size];
    text[0] = '\0'; // and no more: clearing the whole buffer costs as much as formatting
    VoVsnprintf(text, sizeof text, format, args);
    const write_log_fn_t hook = WriteLog;
    if (hook != nullptr) {
        hook(type, text);
    } else if (type != type_info && type != type_debug) {
        fputs(text, stderr);
    }
}

void route(int type, char *text)
{
    if (type < 0 || type >= static_cast<int>(sizeof level_of_type / sizeof level_of_type[0])) {
        return;
    }
    const int level = level_of_type[type];
    if (level >= 0) {
        __vorn_logfn(level, koutil::literal("%s"),
                     text != nullptr ? text : koutil::literal("(null)"));
    }
}

const char *prefix_of_priority(int priority)
{
    constexpr const char *prefixes[] = {"*Fatal*",   "*Alert*",  "*Critical*", "*Error*",
                                        "*Warning*", "*Notice*", nullptr,      "(Debug)"};
    if (priority < 0 || priority > 7) {
        return "UNKNOWN MSG TYPE-> ";
    }
    return prefixes[priority];
}

} // namespace

// Where the two bare functions below go on to. Only their assembler text names these, so the names
// are plain ones that every way of linking keeps.
extern "C" {
__attribute__((used, visibility("hidden"))) void koutil_info_output(const char *format, ...);
__attribute__((used, visibility("hidden"))) void koutil_debug_output(const char *format, ...);
}

void koutil_info_output(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    output(type_info, format, args);
    va_end(args);
}

void koutil_debug_output(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    output(type_debug, format, args);
    va_end(args);
}

// A function of nothing but assembler text: no prologue and no instrumentation. Without
// optimisation one of the compilers saves the variable arguments all the same, to a frame that is
// not there.
#ifdef __clang__
#define KO_OPTIMISED
#else
#define KO_OPTIMISED optimize("O1"),
#endif
#define KO_BARE                                                                                    \
    __attribute__((naked, KO_OPTIMISED no_profile_instrument_function,                             \
                   no_sanitize("address", "undefined", "thread")))

write_log_fn_t WriteLog = nullptr;
shutdown_log_fn_t ShutDownLog = nullptr;
vorn_logfunc_t __vorn_logfn = __vorn_logfn_default;
vorn_debugfunc_t __vorn_debugfn = __vorn_debugfn_default;

void __vorn_logfn_default(int, char *, ...) {}

void __vorn_debugfn_default(int, char *, ...) {}

// Info_Output and Debug_Output are called in hot paths of daemons that listen to neither. A
// function with variable arguments begins by saving fourteen registers; these two test the hook
// before that, and go on, with every argument where the caller put it, only if somebody listens.
#define KO_IF_HOOKED_GO_TO(target)                                                                 \
    asm("movq WriteLog@GOTPCREL(%rip), %r11\n\t"                                                   \
        "cmpq $0, (%r11)\n\t"                                                                      \
        "jne " #target "\n\t"                                                                      \
        "ret")

KO_BARE void Info_Output(const char *, ...)
{
    KO_IF_HOOKED_GO_TO(koutil_info_output);
}

KO_BARE void Debug_Output(const char *, ...)
{
    KO_IF_HOOKED_GO_TO(koutil_debug_output);
}

void Warn_Output(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    output(type_warn, format, args);
    va_end(args);
}

void Error_Output(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    output(type_error, format, args);
    va_end(args);
}

void Critical_Output(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    output(type_critical, format, args);
    va_end(args);
}

void _Panic_Output(const char *file, int line, const char *format, ...)
{
    char text[message_size] = "";
    va_list args;
    va_start(args, format);
    VoVsnprintf(text, sizeof text, format, args);
    va_end(args);
    DoPanic("", text, 1, file, line);
}

void common_WriteLog(int, char *str)
{
    fputs(str, stdout);
}

void kova_log_init_defaults(void)
{
    if (WriteLog == nullptr) {
        WriteLog = _writelog_wrapper;
    }
}

void _writelog_wrapper(int level, char *msg)
{
    route(level, msg);
}

void _mylog_wrapper(int level, char *fmt, va_list)
{
    route(level, fmt);
}

void mylog(int error, char *message, ...)
{
    char text[mylog_size] = "";
    va_list args;
    va_start(args, message);
    VoVsnprintf(text, sizeof text, message, args);
    va_end(args);
    const char *prefix = prefix_of_priority(error);
    if (prefix != nullptr) {
        printf("%s: %s\n", prefix, text);
    } else {
        printf("%s\n", text);
    }
    fflush(stdout);
}
