// voras.cpp - service events and their rate limit for each client.
//
// No frame here that calls the sink owns anything: the sink may panic and leave by longjmp.
#include "koutil/voras.h"

#include "internal/guards.h"
#include "internal/literal.h"
#include "koutil/dopanic.h"
#include "koutil/snprintf.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <unistd.h>

namespace
{

constexpr size_t event_size = 512;
constexpr uint32_t client_quiet_seconds = 3600;

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

// The client's record on a list, or null.
ras_clnt_t *find_client(const ListHdr_t &clients, const in46addr_t &addr)
{
    for (const Link_t *node = clients.h_first; node != nullptr; node = node->n_next) {
        auto *client = static_cast<ras_clnt_t *>(node->n_data);
        if (memcmp(&client->r_addr, &addr, sizeof addr) == 0) {
            return client;
        }
    }
    return nullptr;
}

// A record that has let nothing through yet, at the end of the list; null when memory runs out.
ras_clnt_t *add_client(ListHdr_t &clients, const in46addr_t &addr)
{
    ras_clnt_t *client = koutil::callocate<ras_clnt_t>().release();
    if (client != nullptr) {
        client->r_addr = addr;
        InitNode(&client->r_link, client);
        AppendNode(&clients, &client->r_link);
    }
    return client;
}

} // namespace

ras_fn_t RasFn = nullptr;
char FsName[256] = "none";
uint32_t LastRasEventTime[RAS_TIME_MAX];
ListHdr_t LastRasClientEventTime[RAS_CLTIME_MAX];
thread_mutex_t ras_clnt_lock = THREAD_MUTEX_INITIALIZER;

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

int NeedPerClntRas(int f_eventtype, const in46addr_t *f_addr)
{
    if (f_eventtype < 0 || f_eventtype >= RAS_CLTIME_MAX) {
        return 1;
    }
    const auto now = static_cast<uint32_t>(time(nullptr));
    ListHdr_t &clients = LastRasClientEventTime[f_eventtype];
    const koutil::LockGuard guard(ras_clnt_lock);
    ras_clnt_t *client = find_client(clients, *f_addr);
    if (client == nullptr) {
        client = add_client(clients, *f_addr);
    }
    if (client == nullptr) {
        return 1;
    }
    if (client->r_time != 0 && client->r_time + client_quiet_seconds >= now) {
        return 0;
    }
    client->r_time = now;
    return 1;
}
