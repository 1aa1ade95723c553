// kovalog.cpp - the rotating log file and the debug flags.
//
// A line is composed on the stack of its thread, without a lock: the date and time of the second
// and the thread's id are kept for each thread, so that most lines cost one clock reading, one
// formatting and one write. The log lock is held for the write and the count, and for a rotation.
//
// A thread is not cancelled while it holds the lock, and fork waits for the lock, so that neither
// leaves it locked for ever. What the host's own fork handlers log meanwhile goes out under the
// lock that their thread holds for the fork.
#include "koutil/kovalog.h"

#include "internal/guards.h"
#include "koutil/kovaio.h"
#include "koutil/snprintf.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace
{

constexpr size_t line_size = 1024;
constexpr size_t date_size = 64;
constexpr size_t name_size = 4096;
constexpr char log_levels[] = {'D', 'I', 'W', 'E', 'F', 'C'};
constexpr char rotating_line[] = "Rotating Log File\n";
constexpr int max_legend_entries = 255 * 8; // what the facility's 8-bit size can count

// Guarded by the log lock while threads log.
thread_mutex_t __vorn_debug_lock = THREAD_MUTEX_INITIALIZER;
char *__vorn_log_file_name = nullptr;
uint64_t __vorn_log_file_size = 0; // 0: never rotate
int __vorn_log_file_count = 0;
uint64_t __vorn_log_file_end = 0;
int __vorn_log_file_open_count = 0;
bool rotation_failed = false; // a rename failed: no more attempts until the next setup

// What a thread keeps from line to line.
struct ThreadStamp {
    bool known;
    bool forking;  // the thread holds the log lock over its fork
    time_t second; // that `date` shows
    size_t date_length;
    char date[date_size];
    size_t id_length;
    char id[16]; // " 4711] "
};
constinit thread_local ThreadStamp thread_stamp = {};

std::atomic<bool> fork_handlers_set{false};

void before_fork()
{
    pthread_mutex_lock(&__vorn_debug_lock.mutex);
    thread_stamp.known = false; // in the child the thread has a new id
    thread_stamp.forking = true;
}

void after_fork()
{
    thread_stamp.forking = false;
    pthread_mutex_unlock(&__vorn_debug_lock.mutex);
}

void show_second(ThreadStamp &stamp, time_t second)
{
    const int saved = errno; // the message may show it
    tm local = {};
    stamp.second = second;
    stamp.date_length = localtime_r(&second, &local) != nullptr
                            ? strftime(stamp.date, sizeof stamp.date, "%Y%m%d %H:%M:%S", &local)
                            : 0;
    if (stamp.date_length == 0) {
        memcpy(stamp.date, "????", 5);
        stamp.date_length = 4;
    }
    errno = saved;
}

void identify_thread(ThreadStamp &stamp, time_t second)
{
    if (!fork_handlers_set.exchange(true)) {
        // Without memory for the handlers a child shows its parent's thread id; nothing worse.
        (void)pthread_atfork(before_fork, after_fork, after_fork);
    }
    const int length = VoSnprintf(stamp.id, sizeof stamp.id, " %d] ", gettid());
    stamp.id_length = static_cast<size_t>(std::max(length, 0));
    show_second(stamp, second);
    stamp.known = !stamp.forking;
}

const ThreadStamp &stamp_for(time_t second)
{
    ThreadStamp &stamp = thread_stamp;
    if (__builtin_expect(!stamp.known, 0)) {
        identify_thread(stamp, second);
    } else if (__builtin_expect(stamp.second != second, 0)) {
        show_second(stamp, second);
    }
    return stamp;
}

// Writes the prefix of a line; returns its end, at most 90 characters on.
char *put_prefix(char *to, int level, const ThreadStamp &stamp, uint32_t microseconds)
{
    const bool plain = level == 0 || level == 1;
    *to++ = plain ? ' ' : '(';
    *to++ = level >= 0 && level < static_cast<int>(sizeof log_levels) ? log_levels[level] : '?';
    *to++ = plain ? ' ' : ')';
    *to++ = '[';
    memcpy(to, stamp.date, sizeof stamp.date); // whole: a fixed length is copied faster
    to += stamp.date_length;
    *to = '.';
    for (int digit = 6; digit >= 1; digit--) {
        to[digit] = static_cast<char>('0' + microseconds % 10);
        microseconds /= 10;
    }
    to += 7;
    memcpy(to, stamp.id, sizeof stamp.id);
    return to + stamp.id_length;
}

// Formats the message into `room` bytes, as far as it fits; returns the length of the whole.
size_t format_message(char *to, size_t room, const char *format, va_list args)
{
    to[0] = '\0';
    const int length = VoVsnprintf(to, room, format, args);
    return length > 0 ? static_cast<size_t>(length) : 0;
}

// What simple messages are made of, written at `at` while it fits.
struct Writer {
    char *at;
    char *end;
    bool fits = true;

    void put(const char *text, size_t length)
    {
        fits = fits && length <= static_cast<size_t>(end - at);
        if (fits) {
            memcpy(at, text, length);
            at += length;
        }
    }
    void put(const char *text) { text != nullptr ? put(text, strlen(text)) : put("(null)", 6); }
    template <typename T>
    void put_number(T value)
    {
        const auto result = std::to_chars(at, end, value);
        fits = fits && result.ec == std::errc();
        at = fits ? result.ptr : at;
    }
};

// Writes one conversion of a simple message and steps behind it; false for any other conversion.
bool put_conversion(Writer &out, const char *&conversion, va_list args)
{
    const bool wide = *conversion == 'l' || *conversion == 'z'; // all 64 bits wide here, "ll" too
    conversion += wide ? (conversion[0] == 'l' && conversion[1] == 'l' ? 2 : 1) : 0;
    switch (*conversion++) {
    case 'd':
        wide ? out.put_number(va_arg(args, int64_t)) : out.put_number(va_arg(args, int));
        return true;
    case 'u':
        wide ? out.put_number(va_arg(args, uint64_t)) : out.put_number(va_arg(args, unsigned));
        return true;
    case 's':
        if (!wide) {
            out.put(va_arg(args, const char *));
        }
        return !wide;
    case '%':
        if (!wide) {
            out.put("%", 1);
        }
        return !wide;
    default:
        return false;
    }
}

// Formats a message of plain text, texts and decimal numbers, as most are, in a third of the time
// that the platform takes. Returns its length, `room` if it does not fit, or -1 for a message with
// any other conversion, a width or a flag.
ssize_t put_simple_message(char *to, size_t room, const char *format, va_list args)
{
    Writer out = {to, to + room - 1};
    while (out.fits) {
        const char *const percent = strchrnul(format, '%');
        out.put(format, static_cast<size_t>(percent - format));
        if (*percent == '\0') {
            break;
        }
        format = percent + 1;
        if (!put_conversion(out, format, args)) {
            return -1;
        }
    }
    return out.fits ? out.at - to : static_cast<ssize_t>(room);
}

size_t put_message(char *to, size_t room, const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const ssize_t simple = format != nullptr ? put_simple_message(to, room, format, args) : 0;
    const size_t length =
        simple >= 0 ? static_cast<size_t>(simple) : format_message(to, room, format, again);
    va_end(again);
    return length;
}

// Composes the whole line; returns its length, less than line_size.
size_t compose(char (&line)[line_size], int level, const char *format, va_list args)
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    const ThreadStamp &stamp = stamp_for(now.tv_sec);
    char *const message = put_prefix(line, level, stamp, static_cast<uint32_t>(now.tv_usec));
    const auto prefix = static_cast<size_t>(message - line);
    const size_t length = prefix + put_message(message, line_size - prefix, format, args);
    if (__builtin_expect(length < line_size, 1)) {
        return length;
    }
    const int replaced =
        VoSnprintf(line, line_size, "(E) [%s] log message overflowed\n", stamp.date);
    return static_cast<size_t>(std::max(replaced, 0));
}

// With the lock held: rotates the file if it has passed its limit.
void rotate_if_full()
{
    if (__vorn_log_file_size == 0 || __vorn_log_file_end <= __vorn_log_file_size) {
        return;
    }
    if (__vorn_log_file_fd >= 0) {
        (void)!write(__vorn_log_file_fd, rotating_line, sizeof rotating_line - 1);
        (void)RotateLogs(__vorn_log_file_count, __vorn_log_file_name);
    } else if (!rotation_failed) { // the last open failed: try again
        (void)RotateLogs(__vorn_log_file_count, __vorn_log_file_name);
    }
    __vorn_log_file_end = 0;
}

// With the lock held: writes a line and counts it.
void put_line(const char *line, size_t length)
{
    const ssize_t written = __vorn_log_file_fd >= 0 ? write(__vorn_log_file_fd, line, length)
                                                    : static_cast<ssize_t>(length);
    if (written > 0) {
        __vorn_log_file_end += static_cast<uint64_t>(written);
    }
    rotate_if_full();
}

void deliver(const char *line, size_t length)
{
    int cancel_state = 0;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state);
    if (__builtin_expect(thread_stamp.forking, 0)) {
        put_line(line, length);
    } else {
        const koutil::LockGuard guard(__vorn_debug_lock);
        put_line(line, length);
    }
    pthread_setcancelstate(cancel_state, nullptr);
}

int open_log(const char *filename)
{
    return voopen(filename, O_WRONLY | O_APPEND | O_CREAT, 0644);
}

// "NAME_number"; false when that is too long.
bool numbered_name(char (&name)[name_size], const char *filename, int number)
{
    const int length = number == 0 ? VoSnprintf(name, sizeof name, "%s", filename)
                                   : VoSnprintf(name, sizeof name, "%s_%d", filename, number);
    return length >= 0 && static_cast<size_t>(length) < sizeof name;
}

bool numbered_file_exists(const char *filename, int number)
{
    char name[name_size];
    struct stat st;
    return numbered_name(name, filename, number) && lstat(name, &st) == 0;
}

// The number in the name of a numbered file, or 0 for any other name.
int number_of(const char *entry, const char *base, size_t base_length)
{
    if (strncmp(entry, base, base_length) != 0 || entry[base_length] != '_') {
        return 0;
    }
    const char *digits = entry + base_length + 1;
    const long number = *digits >= '1' && *digits <= '9' ? strtol(digits, nullptr, 10) : 0;
    return number < INT_MAX ? static_cast<int>(number) : 0;
}

// The highest number below `limit` that a file has, so that a count of a thousand million costs no
// more than the files that exist; `limit` - 1 when the folder cannot be read to its end.
int highest_number(const char *filename, int limit)
{
    const char *slash = strrchr(filename, '/');
    const char *base = slash != nullptr ? slash + 1 : filename;
    char folder[name_size] = ".";
    if (slash != nullptr) {
        VoSnprintf(folder, sizeof folder, "%.*s", static_cast<int>(base - filename), filename);
    }
    DIR *const listing = opendir(folder);
    if (listing == nullptr) {
        return limit - 1;
    }
    int highest = 0;
    for (const dirent *entry; errno = 0, (entry = readdir(listing)) != nullptr;) {
        const int number = number_of(entry->d_name, base, strlen(base));
        highest = number < limit ? std::max(highest, number) : highest;
    }
    const bool complete = errno == 0;
    closedir(listing);
    return complete ? highest : limit - 1;
}

// Moves every file from `last` - 1 down to the log file itself one number up; false at the first
// that cannot be renamed.
bool shift_files(int last, const char *filename)
{
    constexpr int few = 64;
    char to[name_size];
    char from[name_size];
    if (!numbered_name(to, filename, last)) {
        return false;
    }
    (void)unlink(to);
    for (int j = last > few ? highest_number(filename, last) + 1 : last; j >= 1; j--) {
        if (!numbered_name(to, filename, j) || !numbered_name(from, filename, j - 1) ||
            (rename(from, to) != 0 && errno != ENOENT)) {
            return false;
        }
    }
    return true;
}

bool in_range(int facility)
{
    return facility >= 0 && facility < DBG_FAC_END;
}

bool legend_empty(const vornlog_legend_t *legend)
{
    return legend == nullptr || legend->vornlog_legend_key == nullptr;
}

size_t legend_length(const vornlog_legend_t *legend)
{
    size_t length = 0;
    while (legend != nullptr && legend[length].vornlog_legend_key != nullptr) {
        length++;
    }
    return length;
}

// Sets the bit of the flag `key`; false when the legend does not hold it.
bool set_flag(const vornlog_legend_t *legend, const char *key, uint8_t *flags, uint32_t size)
{
    for (; !legend_empty(legend); legend++) {
        if (strcmp(legend->vornlog_legend_key, key) == 0) {
            const uint32_t value = legend->vornlog_legend_value;
            if (value / 8 < size) {
                flags[value / 8] = static_cast<uint8_t>(flags[value / 8] | 1U << value % 8);
            }
            return true;
        }
    }
    return false;
}

// Sets the bit in every valid facility that knows the flag; false when none does.
bool set_flag_everywhere(const char *key)
{
    bool known = false;
    for (int i = 0; i < DBG_FAC_END; i++) {
        const debug_facility &facility = facilities[i];
        known |= facility_valid(i) != 0 && set_flag(facility.debug_legend, key,
                                                    facility.debug_flags, facility.debug_flag_size);
    }
    return known;
}

// Appends a legend's keys and descriptions; returns the end.
char **put_strings(char **to, const vornlog_legend_t *legend)
{
    for (; !legend_empty(legend); legend++) {
        *to++ = const_cast<char *>(legend->vornlog_legend_key);
        *to++ = const_cast<char *>(legend->vornlog_legend_desc);
    }
    return to;
}

// The flags as digits in `size` bytes; false when a step fails or runs out of room.
bool put_hex(char *to, size_t size, const uint8_t *flags, uint32_t count)
{
    size_t at = 0;
    const auto advance = [&](int length) {
        const bool fits = length >= 0 && static_cast<size_t>(length) < size - at;
        at += fits ? static_cast<size_t>(length) : 0;
        return fits;
    };
    bool good = advance(VoSnprintf(to, size, "0x"));
    for (uint32_t i = count; good && i > 0; i--) {
        good = advance(VoSnprintf(to + at, size - at, "%02x", flags[i - 1]));
    }
    return good;
}

} // namespace

int __vorn_log_file_fd = 1;
debug_facility facilities[DBG_FAC_END];

void LogToFile(int level, char *fmt, ...)
{
    const int saved = errno;
    char line[line_size];
    va_list args;
    va_start(args, fmt);
    const size_t length = compose(line, level, fmt, args);
    va_end(args);
    deliver(line, length);
    errno = saved;
}

int SetupLogFile(const char *filename, int filesize, int filecount)
{
    char *const name = strdup(filename);
    if (name == nullptr) {
        return 0;
    }
    __vorn_log_file_name = name; // an earlier name may have been given out: it is not freed
    __vorn_log_file_size = static_cast<uint64_t>(filesize); // negative: too large to be reached
    __vorn_log_file_count = filecount;
    __vorn_log_file_open_count++;
    rotation_failed = false;
    if (strcmp(name, "-") == 0) {
        __vorn_log_file_size = 0;
        __vorn_log_file_fd = STDERR_FILENO;
        return 1;
    }
    struct stat st;
    if (stat(name, &st) == 0) {
        __vorn_log_file_end = static_cast<uint64_t>(st.st_size);
    }
    __vorn_log_file_fd = open_log(name);
    return __vorn_log_file_fd >= 0 ? 1 : 0;
}

void CloseLog(void)
{
    if (__vorn_log_file_name == nullptr || --__vorn_log_file_open_count >= 1) {
        return;
    }
    if (strcmp(__vorn_log_file_name, "-") != 0) {
        if (__vorn_log_file_fd != -1) {
            (void)fsync(__vorn_log_file_fd); // as far as the disk lets us
            close(__vorn_log_file_fd);
        }
        __vorn_log_file_fd = -1;
    }
    free(__vorn_log_file_name);
    __vorn_log_file_name = nullptr;
    __vorn_log_file_count = 0;
    __vorn_log_file_size = 0;
    __vorn_log_file_end = 0;
}

int RotateLogs(int count, const char *filename)
{
    if (__vorn_log_file_fd >= 0) {
        close(__vorn_log_file_fd);
    }
    __vorn_log_file_fd = -1;
    rotation_failed = true;
    if (filename == nullptr) {
        return -1;
    }
    int last = count;
    while (last >= 0 && last < INT_MAX && numbered_file_exists(filename, last + 1)) {
        last++;
    }
    if (last > 0 && !shift_files(last, filename)) {
        return -1;
    }
    rotation_failed = false;
    __vorn_log_file_fd = open_log(filename);
    return 0;
}

void GetLogFileInfo(int *isset, int *fd, char **filename, uint64_t *filesize, int *filecount)
{
    if (isset != nullptr) {
        *isset = __vorn_log_file_name != nullptr ? 1 : 0;
    }
    if (fd != nullptr) {
        *fd = __vorn_log_file_fd;
    }
    if (filename != nullptr) {
        *filename = __vorn_log_file_name;
    }
    if (filesize != nullptr) {
        *filesize = __vorn_log_file_size;
    }
    if (filecount != nullptr) {
        *filecount = __vorn_log_file_count;
    }
}

pid_t gettid(void) KO_NOTHROW
{
    return static_cast<pid_t>(syscall(SYS_gettid));
}

int init_facility(int facility, const char *name, vornlog_legend_t *legend)
{
    if (!in_range(facility)) {
        return EINVAL;
    }
    debug_facility &record = facilities[facility];
    if (record.debug_legend != nullptr) {
        return EBUSY;
    }
    VoSnprintf(record.name, sizeof record.name, "%s", name != nullptr ? name : "");
    const size_t entries = legend_length(legend);
    if (entries == 0 || entries > max_legend_entries) {
        return EINVAL;
    }
    const size_t size = (entries - 1) / 8 + 1;
    auto *flags = static_cast<uint8_t *>(calloc(size, 1));
    if (flags == nullptr) {
        return ENOMEM;
    }
    record.debug_flag_size = static_cast<uint8_t>(size);
    record.debug_flags = flags;
    record.debug_legend = legend;
    return 0;
}

int facility_valid(int facility)
{
    return in_range(facility) && facilities[facility].debug_flags != nullptr &&
                   facilities[facility].debug_legend != nullptr &&
                   facilities[facility].name[0] != '\0'
               ? 1
               : 0;
}

void facility_at_exit(int facility)
{
    if (!in_range(facility)) {
        return;
    }
    debug_facility &record = facilities[facility];
    VoSnprintf(record.name, sizeof record.name, "%s", "_facility_at_exit()_");
    record.debug_flag_size = 0;
    free(record.debug_flags);
    record.debug_flags = nullptr;
    record.debug_legend = nullptr;
}

int ParseAllDebugParams(char *options)
{
    for (int i = 0; i < DBG_FAC_END; i++) {
        if (facility_valid(i) != 0) {
            memset(facilities[i].debug_flags, 0, facilities[i].debug_flag_size);
        }
    }
    char *rest = options;
    while (const char *key = rest != nullptr ? strtok_r(rest, ",", &rest) : nullptr) {
        if (!set_flag_everywhere(key)) {
            return -1;
        }
    }
    return 0;
}

int _ParseDebugParams(char *options, const vornlog_legend_t *legend, uint8_t *debugflags,
                      uint32_t words)
{
    const uint32_t size = debugflags != nullptr ? words : 0;
    if (size != 0) {
        memset(debugflags, 0, size);
    }
    char *rest = options;
    while (const char *key = rest != nullptr ? strtok_r(rest, ",", &rest) : nullptr) {
        if (!set_flag(legend, key, debugflags, size)) {
            return -1;
        }
    }
    return 0;
}

int DebugFlagsHexString(char **hexstring, int facility)
{
    *hexstring = nullptr;
    if (!in_range(facility)) {
        return EINVAL;
    }
    const debug_facility &record = facilities[facility];
    const uint32_t count = record.debug_flags != nullptr ? record.debug_flag_size : 0;
    const size_t size = count * 2 + 3;
    auto text = koutil::callocate<char>(size);
    if (!text) {
        return ENOMEM;
    }
    if (!put_hex(text.get(), size, record.debug_flags, count)) {
        return EIO;
    }
    *hexstring = text.release();
    return 0;
}

char **_GetDebugStrings(const vornlog_legend_t *legend)
{
    char **strings = koutil::callocate<char *>(2 * legend_length(legend) + 2).release();
    if (strings != nullptr) {
        put_strings(strings, legend);
    }
    return strings;
}

char **GetAllDebugStrings(void)
{
    size_t entries = 0;
    for (const debug_facility &facility : facilities) {
        entries += legend_length(facility.debug_legend);
    }
    char **strings = koutil::callocate<char *>(2 * entries + 2).release();
    char **end = strings;
    for (const debug_facility &facility : facilities) {
        end = end != nullptr ? put_strings(end, facility.debug_legend) : nullptr;
    }
    return strings;
}
