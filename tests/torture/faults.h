// faults.h - what the parts of faults_torture share: the scenarios, and the calls that are made to
// fail.
//
// The program is linked with a copy of the static library in which every call of the C library that
// faults_calls.cpp defines as torture_NAME goes there instead. So only the library's calls fail,
// and scenarios prepare and look at files by plain calls.
#ifndef KOUTIL_TORTURE_FAULTS_H
#define KOUTIL_TORTURE_FAULTS_H

#include <atomic>
#include <cstddef>
#include <span>
#include <string>

// What a call takes. A memory run lets calls fail that need memory, a system run those that can be
// refused or cut short.
enum : unsigned { kMemory = 1, kSystem = 2 };

// A call of the C library, with the errors that it can have, ended by 0.
struct Call {
    const char *name;
    unsigned kinds;
    const int *errors;
};

// One use of a service from beginning to end. `run` starts in an empty folder and returns 0 for
// success, which it has verified, or the status of what failed, having verified that objects and
// files are what they were or what they were to become.
enum : unsigned { kFiles = 1, kMayPanic = 2 };
struct Scenario {
    const char *name;
    int (*run)();
    int no_memory; // the status that the contract names for lack of memory; 0: goes on without
    unsigned flags;
};
extern const std::span<const Scenario> file_scenarios, service_scenarios;

// What is to fail.
struct Plan {
    unsigned kinds = 0; // of the calls that are counted; 0: nothing fails
    long nth = 0;       // 0: count only
    bool forever = false;
    unsigned error = 0; // index in the call's errors
    size_t divisor = 0; // 1: transfers move a byte; n: an nth; 0: whole
};

// The record of a run, in memory that its processes share.
constexpr size_t kTraceMax = 8192;
struct Record {
    std::atomic<long> seen;
    std::atomic<const Call *> failed; // the call that was the nth
    std::atomic<bool> done;           // the fields below are set
    int outcome;
    int status;
    int live; // blocks
    char text[400];
    const Call *trace[kTraceMax];
};
extern Plan plan;
extern Record *record;
extern std::atomic<bool> armed; // off while a scenario prepares or looks

// Number of the library's blocks that nobody has freed; 0 without the address sanitizer.
int live_blocks();

// Ends the process: what the scenario found is a fault.
[[noreturn]] void wrong(const char *format, ...) __attribute__((format(printf, 1, 2)));

#define EXPECT(condition)                                                                          \
    ((condition) ? (void)0 : wrong("%s:%d: %s", __FILE__, __LINE__, #condition))

// The library's calls succeed while it lives.
class Calm
{
  public:
    Calm() { armed = false; }
    ~Calm() { armed = true; }
    Calm(const Calm &) = delete;
    Calm &operator=(const Calm &) = delete;
};

void put(const std::string &path, const std::string &text);
std::string get(const std::string &path); // "(none)" for a file that is not there

#endif
