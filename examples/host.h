// host.h - what the host programs beside it start of the library, before they have threads: the
// parts of the library in their order, the log file with its debug flags, the hooks for messages
// and events, and the clock thread. The library has no constructors; this is the place for it.
#ifndef KOUTIL_EXAMPLES_HOST_H
#define KOUTIL_EXAMPLES_HOST_H

#include <koutil/koutil.hpp>

#include <cstdarg>
#include <string>

namespace host
{

inline VoError_t log_event(char *event, char *text, uint32_t, uint32_t)
{
    Critical_Output("event %s: %s\n", event, text);
    return 0;
}

inline void report_clock_jump(char *format, ...)
{
    char text[128] = "";
    va_list args;
    va_start(args, format);
    VoVsnprintf(text, sizeof text, format, args);
    va_end(args);
    Warn_Output("%s\n", text);
}

inline void *run_clock(void *sync)
{
    static mono_handler_param_t param = {report_clock_jump, nullptr};
    kova_thread_sync(sync, 0, nullptr);
    mono_handler(&param);
}

// The log file and the debug flags of a program, which end with it. What went wrong at the start is
// the program's to judge.
struct Host {
    ko::LogFile log;
    ko::Facility facility;
    std::string log_path;
    bool log_opened = false;
    bool flags_known = false;
    bool clock_runs = false;

    // `name` is kept, not copied; `flags` are those of the legend to switch on, with commas
    // between.
    void start(char *name, int facility_number, vornlog_legend_t *legend, const std::string &file,
               int log_size, int older_logs, std::string flags)
    {
        set_caller_name(name);
        LibraryInit();
        kova_thread_init();
        mono_init();
        log_path = std::string(GetVornLogRoot()) + "/" + file;
        const bool has_flags = facility.open(facility_number, name, legend) == 0;
        log_opened = log.open(log_path.c_str(), log_size, older_logs) && has_flags;
        flags_known = ParseAllDebugParams(flags.data()) == 0;
        __vorn_logfn = LogToFile;
        __vorn_debugfn = LogToFile;
        kova_log_init_defaults();
        RasFn = log_event;
        clock_runs = kova_thread_create(run_clock, "clock", name, nullptr, 1) == 0;
    }

    // Logs a message whose flag is on; texts are given as char *.
    template <typename... Args>
    void debug(unsigned flag, const char *format, Args... args) const
    {
        if (facility.debugging(flag)) {
            __vorn_debugfn(0, const_cast<char *>(format), args...);
        }
    }
};

} // namespace host

#endif
