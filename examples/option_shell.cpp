// option_shell.cpp - a long job whose settings come as an option string and whose progress another
// process can follow: it reads every file below a folder and prints a checksum of the whole.
//
//     option_shell path=/srv/data,rate=4m,order=size,verbose,progress=data.progress
//     option_shell --watch data.progress      in a second terminal: a progress bar
//     option_shell --help                     what can be set
//
// Several arguments count as one option string, as if there were commas between them. The job
// reports into its progress file; the watcher reads that file, and notices a job that falls silent
// or ends without a word. Exit status: 0 done, 1 failed or interrupted, 2 wrong settings.
#include "koutil/koutil.hpp"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace
{

// Settings.

enum Order : uint64_t { kByName, kBySize, kAsFound };

struct Settings {
    char path[4096] = "";
    char progress[4096] = "";
    uint64_t block = 256 << 10; // bytes
    uint64_t rate = 0;          // bytes a second; 0 for no limit
    uint64_t limit = 0;         // seconds; 0 for no limit
    uint64_t order = kByName;
    uint32_t heartbeat = 5; // seconds
    bool hidden = true;
    bool verbose = false;
};

enum Code : uint32_t {
    kPath = 1,
    kProgress,
    kBlock,
    kRate,
    kLimit,
    kHeartbeat,
    kOrder,
    kHidden,
    kVerbose
};

#define FIELD(type, field) type, offsetof(Settings, field)
Option g_options[] = {
    {"path=%s", kPath, 0, 0, "folder to read; always needed", 0, FIELD(KOOPT_STR_STATIC, path)},
    {"progress=%s", kProgress, 0, 0, "progress file for --watch", 0,
     FIELD(KOOPT_STR_STATIC, progress)},
    {"block=%D", kBlock, 4096, 16 << 20, "bytes to read at once, 4k to 16m", 0,
     FIELD(KOOPT_UINT64, block)},
    {"rate=%D", kRate, 0, 0, "bytes to read in a second, at most", 0, FIELD(KOOPT_UINT64, rate)},
    {"limit=%t", kLimit, 1, 604800, "give up after this time: 90, 1:30, 1h30m", 0,
     FIELD(KOOPT_UINT64, limit)},
    {"heartbeat=%t", kHeartbeat, 0, 3600, "time between two signs of life", 0,
     FIELD(KOOPT_UINT32, heartbeat)},
    {"order=|name,names|size|found", kOrder, 0, 0, "order of the files", 0,
     FIELD(KOOPT_UINT64, order)},
    {"hidden=%b", kHidden, 0, 0, "read names that begin with a period too", 0,
     FIELD(KOOPT_BOOL, hidden)},
    {"verbose", kVerbose, 0, 0, "a line for each file", 0, FIELD(KOOPT_BOOL, verbose)},
    {nullptr, 0, 0, 0, nullptr, 0, KOOPT_INVALID, 0},
};
#undef FIELD

// Puts a value where the row of the table says.
void store(Settings *settings, uint32_t code, uint64_t number, const char *word)
{
    const Option *row = std::find_if(std::begin(g_options), std::end(g_options),
                                     [&](const Option &o) { return o.m_option == code; });
    char *const field = reinterpret_cast<char *>(settings) + row->m_field_offset;
    const uint32_t narrow = static_cast<uint32_t>(number);
    const bool flag = number != 0;
    switch (row->m_snopt_type) {
    case KOOPT_UINT64:
        memcpy(field, &number, sizeof number);
        break;
    case KOOPT_UINT32:
        memcpy(field, &narrow, sizeof narrow);
        break;
    case KOOPT_BOOL:
        memcpy(field, &flag, sizeof flag);
        break;
    default:
        strcpy(field, word); // every text field has the size that the parser was given
        break;
    }
}

bool parse_settings(std::string text, Settings *settings)
{
    char *rest = text.data();
    char word[sizeof settings->path];
    char message[512];
    for (;;) {
        uint64_t number = 0;
        const uint32_t code =
            parse_option(&rest, g_options, &number, word, sizeof word, message, sizeof message);
        if (code == OPTION_END) {
            break;
        }
        if (code == OPTION_ERROR) {
            fprintf(stderr, "option_shell: %s", message);
            return false;
        }
        store(settings, code, number, word);
    }
    if (settings->path[0] == '\0') {
        fputs("option_shell: path is needed\n", stderr);
        return false;
    }
    return true;
}

void print_help()
{
    fputs("usage: option_shell OPTION[,OPTION...]...\n"
          "       option_shell --watch PROGRESSFILE\n"
          "\nReads every file below a folder and prints a checksum of the whole. Options:\n",
          stderr);
    parser_usage(g_options);
    fputs("\nExit status: 0 done, 1 failed or interrupted, 2 wrong settings.\n", stderr);
}

// The job.

volatile sig_atomic_t g_interrupted;

void interrupt(int)
{
    g_interrupted = 1;
}

struct File {
    std::string name;
    uint64_t size = 0;
    uint64_t digest = 0;
};

std::string size_text(uint64_t size)
{
    char text[16];
    SizeStr(size, text);
    return text;
}

ko::Hash64 new_hash()
{
    ko::Hash64 hash(XXH64_createState());
    if (!hash || XXH64_reset(hash.get(), 0) != XXH_OK) {
        fputs("option_shell: out of memory\n", stderr);
        exit(1);
    }
    return hash;
}

class Job
{
  public:
    explicit Job(const Settings &settings)
        : settings_(settings)
        , track_(settings.progress[0] != '\0' ? UtilTrackInit(settings.progress) : nullptr)
        , started_(monotime())
        , buffer_(settings.block)
    {
        if (track_ == nullptr && settings.progress[0] != '\0') {
            fprintf(stderr, "option_shell: %s: %s; going on without\n", settings.progress,
                    strerror(errno));
        }
        UtilTrackProgressDecimals(track_, 2); // hundredths of a percent
        UtilTrackHeartBeatLimit(track_, static_cast<int>(settings.heartbeat));
    }
    Job(const Job &) = delete;
    Job &operator=(const Job &) = delete;

    int run()
    {
        UtilTrackPhase(track_, "Listing");
        const bool done = list() && read_all();
        if (!done) {
            fprintf(stderr, "option_shell: %s\n", failure_.c_str());
            UtilTrackFailure(track_, failure_.c_str());
            return 1;
        }
        print_result();
        UtilTrackSuccess(track_);
        return 0;
    }

  private:
    bool fail(const std::string &why)
    {
        failure_ = why;
        return false;
    }

    // Whether the job may go on; gives a sign of life.
    bool alive()
    {
        UtilTrackHeartBeatPulse(track_);
        if (g_interrupted != 0) {
            return fail("interrupted");
        }
        if (settings_.limit != 0 && monotime() - started_ >= settings_.limit * 1000) {
            return fail("time limit reached");
        }
        return true;
    }

    bool list()
    {
        namespace fs = std::filesystem;
        std::error_code error;
        fs::recursive_directory_iterator at(settings_.path,
                                            fs::directory_options::skip_permission_denied, error);
        for (; !error && at != fs::recursive_directory_iterator(); at.increment(error)) {
            if (!alive()) {
                return false;
            }
            std::error_code gone; // a file that went away is left out
            const std::string name = at->path().filename().string();
            if (!settings_.hidden && name[0] == '.') {
                at.disable_recursion_pending();
            } else if (!at->is_symlink(gone) && at->is_regular_file(gone)) {
                const uint64_t size = at->file_size(gone);
                files_.push_back({at->path().string(), gone ? 0 : size});
                total_ += files_.back().size;
            }
        }
        if (error) {
            return fail(std::string(settings_.path) + ": " + error.message());
        }
        sort_files();
        return true;
    }

    // By name means as people look for names: without regard to case, in every alphabet.
    void sort_files()
    {
        const auto text = [](const File &f) {
            return reinterpret_cast<const UTF8 *>(f.name.c_str());
        };
        if (settings_.order == kByName) {
            std::sort(files_.begin(), files_.end(), [&](const File &a, const File &b) {
                const int order = utf8casecmp(text(a), text(b));
                return order != 0 ? order < 0 : a.name < b.name;
            });
        } else if (settings_.order == kBySize) {
            std::stable_sort(files_.begin(), files_.end(),
                             [](const File &a, const File &b) { return a.size > b.size; });
        }
    }

    bool read_all()
    {
        UtilTrackPhase(track_, "Reading");
        reading_since_ = monotime();
        for (File &file : files_) {
            if (!alive() || !read_file(&file)) {
                return false;
            }
        }
        return true;
    }

    // Leaves out a file that errno says cannot be read; the job goes on.
    bool skip(const File &file)
    {
        fprintf(stderr, "option_shell: %s: %s\n", file.name.c_str(), strerror(errno));
        ++skipped_;
        return true;
    }

    bool read_file(File *file)
    {
        const std::unique_ptr<FILE, int (*)(FILE *)> in(fopen(file->name.c_str(), "rbe"), fclose);
        if (in == nullptr) {
            return skip(*file);
        }
        const ko::Hash64 hash = new_hash();
        file->size = 0;
        while (const size_t got = fread(buffer_.data(), 1, buffer_.size(), in.get())) {
            XXH64_update(hash.get(), buffer_.data(), got);
            file->size += got;
            done_ += got;
            report();
            if (!keep_to_rate()) {
                return false;
            }
        }
        if (ferror(in.get()) != 0) {
            return skip(*file);
        }
        file->digest = XXH64_digest(hash.get());
        if (settings_.verbose) {
            printf("%016llx  %10s  %s\n", static_cast<unsigned long long>(file->digest),
                   size_text(file->size).c_str(), file->name.c_str());
        }
        return true;
    }

    // A report rewrites the file, so there are at most twenty in a second.
    void report()
    {
        const uint64_t now = monotime();
        if (now - reported_ >= 50) {
            reported_ = now;
            const uint64_t part = total_ != 0 ? done_ * 10000 / total_ : 0;
            UtilTrackProgress(track_, static_cast<int>(std::min<uint64_t>(part, 10000)));
        }
    }

    // Sleeps while the job is ahead of its rate; false when it must end.
    bool keep_to_rate()
    {
        constexpr uint64_t nap = 100; // milliseconds
        for (;;) {
            if (!alive()) {
                return false;
            }
            const uint64_t due = settings_.rate != 0 ? done_ * 1000 / settings_.rate : 0;
            const uint64_t gone = monotime() - reading_since_;
            if (due <= gone) {
                return true;
            }
            mono_msleep(static_cast<int>(std::min(due - gone, nap)));
        }
    }

    void print_result()
    {
        const ko::Hash64 hash = new_hash();
        for (const File &file : files_) {
            XXH64_update(hash.get(), &file.digest, sizeof file.digest);
        }
        char time[24];
        format_interval((monotime() - started_ + 500) / 1000, time);
        printf("%zu files, %s, %s, checksum %016llx\n", files_.size() - skipped_,
               size_text(done_).c_str(), time,
               static_cast<unsigned long long>(XXH64_digest(hash.get())));
        UtilTrackProgress(track_, 10000);
    }

    const Settings &settings_;
    util_track_ctx_t *track_; // null without a progress file, which the reports allow
    uint64_t started_;        // milliseconds
    uint64_t reading_since_ = 0;
    uint64_t reported_ = 0;
    std::vector<char> buffer_;
    std::vector<File> files_;
    uint64_t total_ = 0; // bytes
    uint64_t done_ = 0;
    size_t skipped_ = 0;
    std::string failure_;
};

// The watcher.

struct Progress {
    pid_t pid = 0;
    double percent = -1; // negative for none
    std::string phase;
    std::string status;
};

// Reads a progress file; false when there is none, or when it is just being rewritten.
bool read_progress(const char *name, Progress *progress)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> in(fopen(name, "re"), fclose);
    char line[512];
    *progress = {};
    while (in != nullptr && fgets(line, sizeof line, in.get()) != nullptr) {
        char *const value = strstr(line, ": ");
        if (value == nullptr || strchr(value, '\n') == nullptr) {
            return false;
        }
        const std::string key(line, value);
        const std::string text(value + 2, strcspn(value + 2, "\n"));
        if (key == "Pid") {
            progress->pid = atoi(text.c_str());
        } else if (key == "Phase") {
            progress->phase = text;
        } else if (key == "Progress") {
            progress->percent = atof(text.c_str());
        } else if (key == "Status") {
            progress->status = text;
        }
    }
    return progress->pid > 0;
}

// How long the job has given no sign of life, for people; empty for a short time.
std::string silence(const char *name)
{
    constexpr time_t noticeable = 10;
    struct stat info;
    if (stat(name, &info) != 0 || time(nullptr) - info.st_mtime < noticeable) {
        return "";
    }
    char text[24];
    format_interval(static_cast<uint64_t>(time(nullptr) - info.st_mtime), text);
    return std::string("  silent for ") + text;
}

std::string bar_line(const Progress &progress, const std::string &remark)
{
    constexpr int width = 40;
    std::string line = progress.phase.empty() ? "Starting" : progress.phase;
    line.resize(std::max<size_t>(line.size(), 10), ' ');
    if (progress.percent >= 0) {
        const int filled = std::clamp(static_cast<int>(progress.percent / 100 * width), 0, width);
        char percent[16];
        VoSnprintf(percent, sizeof percent, " %6.2f%%", progress.percent);
        line += "[" + std::string(static_cast<size_t>(filled), '#') +
                std::string(static_cast<size_t>(width - filled), '.') + "]" + percent;
    }
    return line + remark;
}

// Draws in place on a terminal; into a file a line for each tenth of the way and each phase.
class Screen
{
  public:
    void show(const Progress &progress, const std::string &remark)
    {
        const std::string line = bar_line(progress, remark);
        if (isatty(STDOUT_FILENO) != 0) {
            printf("\r%s\033[K", line.c_str());
        } else if (const int tenth = static_cast<int>(progress.percent / 10);
                   tenth != tenth_ || progress.phase != phase_) {
            printf("%s\n", line.c_str());
            tenth_ = tenth;
            phase_ = progress.phase;
        }
        fflush(stdout);
    }
    void end(const std::string &text)
    {
        printf("%s%s\n", isatty(STDOUT_FILENO) != 0 ? "\n" : "", text.c_str());
    }

  private:
    int tenth_ = -2;
    std::string phase_;
};

bool is_dead(pid_t pid)
{
    return kill(pid, 0) != 0 && errno == ESRCH;
}

int watch(const char *name)
{
    constexpr int pause = 100;            // milliseconds between two looks
    constexpr uint64_t patience = 10'000; // milliseconds to wait for a first report
    const uint64_t started = monotime();
    Screen screen;
    Progress progress;
    for (bool seen = false, dead = false;; mono_msleep(pause)) {
        Progress news;
        if (read_progress(name, &news)) {
            progress = news;
            seen = true;
            screen.show(progress, silence(name));
        } else if (!seen && monotime() - started >= patience) {
            fprintf(stderr, "option_shell: no report in %s\n", name);
            return 1;
        }
        if (!progress.status.empty()) {
            screen.end(progress.status);
            return progress.status == "Success" ? 0 : 1;
        }
        if (seen && dead) {
            screen.end("process " + std::to_string(progress.pid) + " ended without a report");
            return 1;
        }
        // Its last report may have come after this look: there is one more.
        dead = seen && is_dead(progress.pid);
    }
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 3 && strcmp(argv[1], "--watch") == 0) {
        return watch(argv[2]);
    }
    if (argc < 2 || argv[1][0] == '-') {
        print_help();
        return argc == 2 && strcmp(argv[1], "--help") == 0 ? 0 : 2;
    }
    std::string text = argv[1];
    for (int i = 2; i < argc; ++i) {
        text += std::string(",") + argv[i];
    }
    Settings settings;
    if (!parse_settings(text, &settings)) {
        fputs("Try: option_shell --help\n", stderr);
        return 2;
    }
    struct sigaction action = {};
    action.sa_handler = interrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    return Job(settings).run();
}
