// fsports.cpp - the port ranges file.
#include "koutil/fsports.h"

#include "internal/guards.h"
#include "koutil/getroot.h"
#include "koutil/logger.h"
#include "koutil/snprintf.h"

#include <cstdarg>
#include <cstring>
#include <syslog.h>

namespace
{

constexpr size_t kLineMax = 254;
constexpr unsigned long kPortMax = 65535;

// Log types of WriteLog.
enum { kInfo = 0, kDebug = 1, kWarning = 2 };

KO_PRINTF(2, 3) void report(int type, const char *format, ...)
{
    char text[512] = "";
    va_list args;
    va_start(args, format);
    VoVsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (WriteLog != nullptr) {
        WriteLog(type, text);
    } else if (type != kDebug) {
        syslog(type == kWarning ? LOG_WARNING : LOG_INFO, "%s", text);
    }
}

struct Directive {
    const char *name;
    const char *word; // what reports call it
    uint16_t *port;   // null when the caller does not ask for it
};

char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_word(const char *word, const char *lower_case)
{
    while (*word != '\0' && lower(*word) == *lower_case) {
        word++;
        lower_case++;
    }
    return lower(*word) == *lower_case;
}

koutil::FilePtr open_ports_file()
{
    const char *dir = GetVornConfigDir();
    const size_t size = strlen(dir) + sizeof "/fsports";
    const koutil::MallocPtr<char> path = koutil::callocate<char>(size);
    if (path == nullptr) {
        return nullptr;
    }
    VoSnprintf(path.get(), size, "%s/%s", dir, "fsports");
    return koutil::FilePtr(fopen(path.get(), "re"));
}

void apply_line(char *line, int number, const Directive (&directives)[3], bool verbose)
{
    char *rest = nullptr;
    const char *word = strtok_r(line, " \t", &rest);
    if (word == nullptr || *word == '#') {
        return;
    }
    const Directive *found = nullptr;
    for (const Directive &each : directives) {
        found = same_word(word, each.name) ? &each : found;
    }
    if (found == nullptr) {
        report(kWarning, "fsports: Unsupported directive '%s' on line %d\n", word, number);
        return;
    }
    const char *text = strtok_r(nullptr, " \t", &rest);
    if (text == nullptr) {
        report(kWarning, "fsports: No value recognized on line %d - ignored.\n", number);
        return;
    }
    const unsigned long value = strtoul(text, nullptr, 0);
    if (value == 0 || value > kPortMax) {
        report(kWarning, "fsports: Invalid value (%d) specified on line %d - ignored.\n",
               static_cast<int>(value), number);
        return;
    }
    if (found->port != nullptr) {
        *found->port = static_cast<uint16_t>(value);
    }
    if (verbose) {
        report(kInfo, "fsports: %s port set to %d\n", found->word, static_cast<int>(value));
    }
}

// Makes a range of which at least one end is configured whole.
void complete_range(uint16_t *minport, uint16_t *maxport)
{
    if (*minport == 0 && *maxport == 0) {
        return;
    }
    if (*minport == 0) {
        *minport = 1;
    }
    if (*maxport < *minport) {
        *maxport = static_cast<uint16_t>(kPortMax);
        report(kWarning, "fsports: max port set to %d\n", static_cast<int>(kPortMax));
    }
}

} // namespace

void genportrange(uint16_t *minport, uint16_t *maxport, uint16_t *altpmapport, int verbose)
{
    const Directive directives[] = {{"minport", "min", minport},
                                    {"maxport", "max", maxport},
                                    {"altpmap", "altpmap", altpmapport}};
    for (const Directive &each : directives) {
        if (each.port != nullptr) {
            *each.port = 0;
        }
    }
    const koutil::FilePtr file = open_ports_file();
    if (file == nullptr) {
        if (minport != nullptr || maxport != nullptr) {
            report(kDebug, "No fsports file - port range enforcement disabled.\n");
        }
        return;
    }
    char line[kLineMax + 1];
    for (int number = 1; fgets(line, sizeof line, file.get()) != nullptr; number++) {
        line[strcspn(line, "\n")] = '\0';
        apply_line(line, number, directives, verbose != 0);
    }
    if (minport != nullptr && maxport != nullptr) {
        complete_range(minport, maxport);
    }
}
