// kovaio_bench.cpp - copying a file of 256 MiB: KovaFileCopy beside cp and beside bare sendfile(2).
//
// All copy the same warm file in the folder that TMPDIR names (or /tmp) onto a file that is removed
// before each copy, outside the measured time. Compare the wall-clock times.
#include "koutil/kovaio.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <spawn.h>
#include <string>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr size_t kSize = size_t{256} << 20;

// A folder with the file to copy, made once and removed at exit.
class Files
{
  public:
    Files()
    {
        const char *base = getenv("TMPDIR");
        dir_ = std::string(base != nullptr ? base : "/tmp") + "/kovaio_bench.XXXXXX";
        if (mkdtemp(dir_.data()) == nullptr) {
            abort();
        }
        FILE *file = fopen(from().c_str(), "wbe");
        const std::string block(1 << 20, 'k');
        for (size_t done = 0; done < kSize; done += block.size()) {
            fwrite(block.data(), 1, block.size(), file);
        }
        fclose(file);
    }
    ~Files()
    {
        unlink(from().c_str());
        unlink(to().c_str());
        rmdir(dir_.c_str());
    }
    std::string from() const { return dir_ + "/from"; }
    std::string to() const { return dir_ + "/to"; }

  private:
    std::string dir_;
};

const Files &files()
{
    static const Files instance;
    return instance;
}

bool koutil_copy(const char *from, const char *to)
{
    return KovaFileCopy(from, to) == 0;
}

bool cp_copy(const char *from, const char *to)
{
    char *argv[] = {const_cast<char *>("cp"), const_cast<char *>(from), const_cast<char *>(to),
                    nullptr};
    pid_t pid;
    int status = -1;
    return posix_spawnp(&pid, "cp", nullptr, nullptr, argv, environ) == 0 &&
           waitpid(pid, &status, 0) == pid && status == 0;
}

bool sendfile_copy(const char *from, const char *to)
{
    const int in = open(from, O_RDONLY | O_CLOEXEC);
    const int out = open(to, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    size_t left = kSize;
    while (left > 0) {
        const ssize_t moved = sendfile(out, in, nullptr, left);
        if (moved <= 0) {
            break;
        }
        left -= static_cast<size_t>(moved);
    }
    close(in);
    return close(out) == 0 && left == 0;
}

template <bool (*copy)(const char *, const char *)>
void copy_256_mib(benchmark::State &state)
{
    const std::string from = files().from();
    const std::string to = files().to();
    for (auto _ : state) {
        state.PauseTiming();
        unlink(to.c_str());
        state.ResumeTiming();
        if (!copy(from.c_str(), to.c_str())) {
            state.SkipWithError("the copy failed");
            break;
        }
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kSize));
}

BENCHMARK(copy_256_mib<koutil_copy>)->Name("KovaFileCopy")->UseRealTime();
BENCHMARK(copy_256_mib<cp_copy>)->Name("cp")->UseRealTime();
BENCHMARK(copy_256_mib<sendfile_copy>)->Name("sendfile")->UseRealTime();

} // namespace

BENCHMARK_MAIN();
