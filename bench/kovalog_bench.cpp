// kovalog_bench.cpp - a log line from the call to the file: LogToFile, spdlog's basic file sink
// that flushes each message (with its own pattern, and with one that shows what a line of ours
// shows), and the limit, a bare write of a line of the same length. Lines go to files in TMPDIR or
// /tmp.
//
// Also the cost of Info_Output while nobody listens.
#include "koutil/koutil.h"

#include <benchmark/benchmark.h>

#if HAVE_SPDLOG
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

// A log file that is there for one benchmark.
class LogFile
{
  public:
    LogFile()
    {
        const char *base = getenv("TMPDIR");
        path_ = std::string(base != nullptr ? base : "/tmp") + "/kovalog_bench.XXXXXX";
        const int fd = mkstemp(path_.data());
        if (fd < 0) {
            abort();
        }
        close(fd);
    }
    ~LogFile() { unlink(path_.c_str()); }
    LogFile(const LogFile &) = delete;
    LogFile &operator=(const LogFile &) = delete;
    const char *path() const { return path_.c_str(); }

  private:
    std::string path_;
};

char format[] = "mount of %s by host %d took %u us\n";
constexpr char volume[] = "snfs1/projects";

std::unique_ptr<LogFile> file;

void open_ours(const benchmark::State &)
{
    file = std::make_unique<LogFile>();
    SetupLogFile(file->path(), 0, 0);
}

void close_ours(const benchmark::State &)
{
    CloseLog();
    file.reset();
}

void log_to_file(benchmark::State &state)
{
    unsigned taken = 100;
    for (auto _ : state) {
        LogToFile(1, format, volume, 17, taken++ % 1000);
    }
}

int bare_fd = -1;
constexpr char bare_line[] =
    " I [20260102 15:04:05.000678 471100] mount of snfs1/projects by host 17 took 555 us\n";

void open_bare(const benchmark::State &)
{
    file = std::make_unique<LogFile>();
    bare_fd = open(file->path(), O_WRONLY | O_APPEND | O_CLOEXEC);
}

void close_bare(const benchmark::State &)
{
    close(bare_fd);
    file.reset();
}

void bare_write(benchmark::State &state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(write(bare_fd, bare_line, sizeof bare_line - 1));
    }
}

#if HAVE_SPDLOG
std::shared_ptr<spdlog::logger> logger;

void open_spdlog(const benchmark::State &)
{
    file = std::make_unique<LogFile>();
    logger = spdlog::basic_logger_mt("bench", file->path());
    logger->flush_on(spdlog::level::trace);
}

void open_spdlog_same_line(const benchmark::State &state)
{
    open_spdlog(state);
    logger->set_pattern(" %L [%Y%m%d %H:%M:%S.%f %t] %v");
}

void close_spdlog(const benchmark::State &)
{
    spdlog::drop_all();
    logger.reset();
    file.reset();
}

void spdlog_basic(benchmark::State &state)
{
    int taken = 100;
    for (auto _ : state) {
        logger->info("mount of {} by host {} took {} us", volume, 17, taken++ % 1000);
    }
}

void spdlog_same_line(benchmark::State &state)
{
    spdlog_basic(state);
}
#endif

void info_without_hook(benchmark::State &state)
{
    WriteLog = nullptr;
    for (auto _ : state) {
        Info_Output("mount of %s by host %d took %u us\n", volume, 17, 555U);
    }
}

void sizes(benchmark::internal::Benchmark *bench)
{
    bench->Threads(1)->Threads(2)->UseRealTime();
}

BENCHMARK(log_to_file)->Setup(open_ours)->Teardown(close_ours)->Apply(sizes);
#if HAVE_SPDLOG
BENCHMARK(spdlog_basic)->Setup(open_spdlog)->Teardown(close_spdlog)->Apply(sizes);
BENCHMARK(spdlog_same_line)->Setup(open_spdlog_same_line)->Teardown(close_spdlog)->Apply(sizes);
#endif
BENCHMARK(bare_write)->Setup(open_bare)->Teardown(close_bare)->Apply(sizes);
BENCHMARK(info_without_hook);

} // namespace

BENCHMARK_MAIN();
