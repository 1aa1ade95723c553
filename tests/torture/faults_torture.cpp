// faults_torture.cpp - lets every call of every scenario fail in turn, each time in a process of
// its own.
//
//     faults_torture memory|system [-v] [-j shards] [-m most injections per scenario] [scenario...]
//
// Prints a line for each scenario with -v, each fault that it finds, and a line of figures.
#include "torture/faults.h"

#include "koutil/dopanic.h"

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" const char *__asan_default_options();
extern "C" const char *__asan_default_options()
{
    return "detect_leaks=0:allocator_may_return_null=1:handle_abort=1";
}

namespace
{

enum { kOk, kStatus, kPanic, kWrong, kOutcomes };
struct Totals {
    std::atomic<long> calls, injections, outcomes[kOutcomes];
};
Totals *totals; // one for each scenario
constexpr unsigned kSeconds = 60;

template <typename T>
T *shared(size_t count)
{
    void *memory =
        mmap(nullptr, count * sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? (abort(), nullptr) : static_cast<T *>(memory);
}

[[noreturn]] void finish(int outcome, int status, const char *text)
{
    armed = false;
    record->outcome = outcome;
    record->status = status;
    snprintf(record->text, sizeof record->text, "%s", text);
    record->done = true;
    _exit(0);
}

void panicked(char *kind, char *what, int, char *file, int line)
{
    char text[256];
    snprintf(text, sizeof text, "panic: %s%s, %s:%d", kind, what, file, line);
    finish(kPanic, 0, text);
}

int descriptors()
{
    DIR *listing = opendir("/proc/self/fd");
    int count = 0;
    while (readdir(listing) != nullptr) {
        count++;
    }
    closedir(listing);
    return count;
}

[[noreturn]] void child(const Scenario &scenario)
{
    const int log = open("../log", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(log, 1);
    dup2(log, 2);
    setenv("VORNROOT", std::filesystem::current_path().c_str(), 1);
    setenv("VORNCONF", std::filesystem::current_path().c_str(), 1);
    DoPanicFn = panicked;
    alarm(kSeconds);
    const int before = descriptors();
    armed = true;
    const int status = scenario.run();
    armed = false;
    if (const int more = descriptors() - before) {
        wrong("%d descriptors more than before", more);
    }
    record->live = live_blocks();
    finish(status == 0 ? kOk : kStatus, status, "");
}

// One scenario in one shard: its runs, and what they did.
class Trial
{
  public:
    Trial(const Scenario &scenario, Totals &total, std::string folder)
        : scenario_(scenario)
        , total_(total)
        , folder_(std::move(folder))
    {
    }

    // Runs it once undisturbed, which counts its calls. Returns what can be done to it.
    std::vector<Plan> plans(unsigned kinds);
    // Runs it under `each` and judges the outcome.
    void suffer(const Plan &each);

  private:
    void run(const Plan &each);
    const char *fault_of_outcome();

    const Scenario &scenario_;
    Totals &total_;
    std::string folder_;
    int live_ = 0;
    char text_[64] = "";
};

void Trial::run(const Plan &each)
{
    plan = each;
    std::filesystem::remove_all(folder_);
    std::filesystem::create_directories(folder_);
    record->seen = 0;
    record->failed = nullptr;
    record->done = false;
    const pid_t pid = fork();
    if (pid == 0) {
        std::filesystem::current_path(folder_);
        child(scenario_);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    if (!record->done) {
        const bool hangs = WIFSIGNALED(status) && WTERMSIG(status) == SIGALRM;
        record->outcome = kWrong;
        snprintf(record->text, sizeof record->text, hangs ? "hangs" : "crashes");
    }
}

std::vector<Plan> Trial::plans(unsigned kinds)
{
    suffer({.kinds = kinds});
    live_ = record->live;
    std::vector<Plan> result;
    const long calls = std::min<long>(record->seen, kTraceMax);
    for (long nth = 1; nth <= calls; nth++) {
        const int *const errors = record->trace[nth - 1]->errors;
        for (unsigned i = 0; errors[i] != 0 && (i == 0 || kinds == kSystem); i++) {
            result.push_back({kinds, nth, false, i, 0});
            if (kinds == kMemory || (errors[i] != EINTR && errors[i] != EAGAIN)) {
                result.push_back({kinds, nth, true, i, 0});
            }
        }
    }
    for (size_t divisor : {1, 3}) {
        if (kinds == kSystem) {
            result.push_back({.kinds = kinds, .divisor = divisor});
        }
    }
    total_.calls = calls;
    return result;
}

const char *Trial::fault_of_outcome()
{
    const bool disturbed = plan.nth != 0 || plan.divisor != 0;
    switch (record->outcome) {
    case kPanic:
        return (scenario_.flags & kMayPanic) != 0 && disturbed ? nullptr : record->text;
    case kWrong:
        return record->text;
    default:
        break;
    }
    const int status = record->status;
    const bool passed_on = status == ENOMEM && scenario_.no_memory == 20; // of a call that failed
    const bool named =
        disturbed && (plan.kinds == kSystem || status == scenario_.no_memory || passed_on);
    if (status != 0 && !named) {
        snprintf(text_, sizeof text_, "status %d", status);
        return text_;
    }
    if (disturbed && record->live > live_) {
        snprintf(text_, sizeof text_, "%d blocks leaked", record->live - live_);
        return text_;
    }
    return nullptr;
}

void Trial::suffer(const Plan &each)
{
    run(each);
    const char *const found = fault_of_outcome();
    total_.injections += each.nth != 0 || each.divisor != 0 ? 1 : 0;
    total_.outcomes[found != nullptr ? kWrong : record->outcome]++;
    if (found == nullptr) {
        return;
    }
    const Call *const failed = record->failed;
    printf("FOUND %s, call %ld %s%s, error %u, transfers 1/%zu: %s\n", scenario_.name, plan.nth,
           failed != nullptr ? failed->name : "-", plan.forever ? " and on" : "", plan.error,
           plan.divisor, found);
    std::ifstream log(folder_ + "/../log");
    std::string line;
    for (int i = 0; i < 30 && std::getline(log, line); i++) {
        printf("    %s\n", line.c_str());
    }
    fflush(stdout);
}

} // namespace

void wrong(const char *format, ...)
{
    char text[sizeof record->text];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    finish(kWrong, 0, text);
}

void put(const std::string &path, const std::string &text)
{
    std::ofstream(path) << text;
}

std::string get(const std::string &path)
{
    std::ifstream file(path);
    return file ? std::string(std::istreambuf_iterator<char>(file), {}) : "(none)";
}

int main(int argc, char **argv)
{
    const bool memory = argc > 1 && strcmp(argv[1], "memory") == 0;
    bool verbose = false;
    size_t shards = 1;
    size_t most = SIZE_MAX;
    for (int option; (option = getopt(argc - 1, argv + 1, "vj:m:")) != -1;) {
        verbose |= option == 'v';
        shards = option == 'j' ? strtoul(optarg, nullptr, 10) : shards;
        most = option == 'm' ? strtoul(optarg, nullptr, 10) : most;
    }
    const std::vector<std::string> names(argv + 1 + optind, argv + argc);
    std::vector<const Scenario *> chosen;
    for (const auto scenarios : {file_scenarios, service_scenarios}) {
        for (const Scenario &each : scenarios) {
            const bool named = std::find(names.begin(), names.end(), each.name) != names.end();
            if ((names.empty() || named) && (memory || (each.flags & kFiles) != 0)) {
                chosen.push_back(&each);
            }
        }
    }
    totals = shared<Totals>(chosen.size() + 1);
    char base[] = "/tmp/faults_torture-XXXXXX";
    if (mkdtemp(base) == nullptr) {
        return 2;
    }
    for (size_t shard = 0; shard < shards; shard++) {
        if (fork() == 0) {
            record = shared<Record>(1);
            const std::string folder = std::string(base) + "/" + std::to_string(shard) + "/scratch";
            for (size_t s = 0; s < chosen.size(); s++) {
                Trial trial(*chosen[s], totals[s], folder);
                const std::vector<Plan> plans = trial.plans(memory ? kMemory : kSystem);
                const size_t count = std::min(plans.size(), most);
                for (size_t i = shard; i < count; i += shards) {
                    trial.suffer(plans[i * plans.size() / count]);
                }
            }
            _exit(0);
        }
    }
    while (wait(nullptr) > 0) {
    }
    std::filesystem::remove_all(base);
    Totals &all = totals[chosen.size()];
    for (size_t s = 0; s < chosen.size(); s++) {
        const Totals &t = totals[s];
        all.injections += t.injections;
        for (int i = 0; i < kOutcomes; i++) {
            all.outcomes[i] += t.outcomes[i];
        }
        if (verbose) {
            printf("%-22s %5ld calls %6ld injections %6ld ok %6ld status %5ld panic %3ld wrong\n",
                   chosen[s]->name, t.calls.load(), t.injections.load(),
                   t.outcomes[kOk] - static_cast<long>(shards), t.outcomes[kStatus].load(),
                   t.outcomes[kPanic].load(), t.outcomes[kWrong].load());
        }
    }
    printf("%zu scenarios, %ld injections: %ld went on, %ld statuses, %ld panics, %ld wrong\n",
           chosen.size(), all.injections.load(),
           all.outcomes[kOk] - static_cast<long>(shards * chosen.size()),
           all.outcomes[kStatus].load(), all.outcomes[kPanic].load(), all.outcomes[kWrong].load());
    return all.outcomes[kWrong] != 0 ? 1 : 0;
}
