// checked_build.cpp - the checked-build mode.
//
// No frame here that calls a hook owns anything: a hook may panic and leave by longjmp.
#include "koutil/checked_build.h"

#include "internal/literal.h"
#include "koutil/dopanic.h"
#include "koutil/logger.h"
#include "koutil/snprintf.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace
{

constexpr size_t message_size = 1024;
constexpr int log_info = 0;
constexpr int log_debug = 1;
constexpr int log_error = 3;

struct Decision {
    int checked;
    const char *text;
};

constexpr Decision off_by_variable = {0,
                                      "Checked Build disabled - 'KOVA_CHECKED_BUILD' env var.\n"};
constexpr Decision on_by_variable = {1, "Checked Build enabled - 'KOVA_CHECKED_BUILD' env var.\n"};
constexpr Decision off_on_appliance = {0, "Checked Build disabled - Vantor.\n"};
constexpr Decision on_by_file = {
    1, "Checked Build enabled - '/usr/burn/test/checked_build/ENABLED' touch file found.\n"};
constexpr Decision off_by_default = {0, "Checked Build disabled - default.\n"};

std::atomic<bool> asked_before{false};

bool touch_file_exists()
{
    struct stat st;
    return stat("/usr/burn/test/checked_build/ENABLED", &st) == 0 && S_ISREG(st.st_mode);
}

const Decision &decide()
{
    if (const char *variable = getenv("KOVA_CHECKED_BUILD"); variable != nullptr) {
        return *variable == '0' ? off_by_variable : on_by_variable;
    }
    if (IsZelkorAppliance() == 1) {
        return off_on_appliance;
    }
    return touch_file_exists() ? on_by_file : off_by_default;
}

} // namespace

int IsZelkorAppliance(void)
{
    const char *type = getenv("APPLIANCE_TYPE");
    return type != nullptr && (strcmp(type, "mirelle") == 0 || strcmp(type, "vantor") == 0) ? 1 : 0;
}

int IsKovaCheckedBuild(void)
{
    const bool first = !asked_before.exchange(true, std::memory_order_relaxed);
    const Decision &decision = decide();
    const write_log_fn_t hook = WriteLog;
    if (first && hook != nullptr) {
        char text[message_size] = ""; // a hook may edit what it is given
        VoSnprintf(text, sizeof text, "%s", decision.text);
        hook(decision.checked != 0 ? log_info : log_debug, text);
    }
    return decision.checked;
}

void PanicCheckedBuild(const char *filename, int linenum, const char *fmt, ...)
{
    char message[message_size] = "";
    va_list args;
    va_start(args, fmt);
    VoVsnprintf(message, sizeof message, fmt, args);
    va_end(args);
    if (IsKovaCheckedBuild() == 1) {
        DoPanic("", message, 1, filename, linenum);
    }
    char line[message_size] = "";
    VoSnprintf(line, sizeof line, "ERROR (%s:%d) %s\n", filename != nullptr ? filename : "(null)",
               linenum, message);
    PanicCheckedWriteLog(line);
}

void PanicCheckedWriteLog(const char *str)
{
    const size_t length = strlen(str);
    const bool complete = length != 0 && str[length - 1] == '\n';
    const write_log_fn_t hook = WriteLog;
    if (hook == nullptr) {
        fprintf(stderr, "%s%s", str, complete ? "" : "\n");
        return;
    }
    auto *copy = complete ? nullptr : static_cast<char *>(malloc(length + 2));
    if (copy == nullptr) { // complete, or no memory: the line without its newline beats no line
        hook(log_error, koutil::literal(str));
        return;
    }
    memcpy(copy, str, length);
    copy[length] = '\n';
    copy[length + 1] = '\0';
    hook(log_error, copy);
    free(copy);
}
