// kovacfg_bench.cpp - loading a keyword file of 10,000 lines, beside the seek and read of up to
// 1024 bytes per line that loading costs at least; and searching the loaded list.
#include "koutil/kovacfg.h"

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace
{

constexpr int line_count = 10000;

// A file of "key=value" lines that goes away with the program.
class OptionFile
{
  public:
    OptionFile()
    {
        std::string text;
        for (int i = 0; i < line_count; i++) {
            text += "option_" + std::to_string(i) + "=" + std::to_string(i % 100) + "K\n";
        }
        const int fd = mkstemp(path_);
        if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
            abort();
        }
        close(fd);
    }
    ~OptionFile() { unlink(path_); }
    const char *path() const { return path_; }

  private:
    char path_[32] = "/tmp/kovacfg_bench.XXXXXX";
};

const OptionFile &file()
{
    static const OptionFile the_file;
    return the_file;
}

void load(benchmark::State &state)
{
    for (auto _ : state) {
        KovaCfg_t *cfg = nullptr;
        if (KovaCfgOpen(file().path(), KOVA_OPEN_READ, CFGTYPE_ASSIGN, &cfg, nullptr, 0) != 0) {
            abort();
        }
        state.PauseTiming();
        KovaCfgClose(&cfg, 0, nullptr, 0);
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * line_count);
}

// The same seeks and reads; when `keep`, each line into an entry of its own, else into one buffer.
void seek_and_read(benchmark::State &state, bool keep)
{
    static char *lines[line_count + 1];
    static void *entries[line_count + 1];
    static char buffer[1025];
    for (auto _ : state) {
        const int fd = open(file().path(), O_RDONLY | O_CLOEXEC);
        off_t offset = 0;
        for (size_t i = 0;; i++) {
            char *line = buffer;
            if (keep) {
                entries[i] = calloc(1, sizeof(CfgEnt_t));
                line = lines[i] = static_cast<char *>(calloc(1, 1025));
            }
            lseek(fd, offset, SEEK_SET);
            const ssize_t size = read(fd, line, 1024);
            if (size <= 0) {
                break;
            }
            offset += static_cast<char *>(memchr(line, '\n', static_cast<size_t>(size))) + 1 - line;
        }
        close(fd);
        if (keep) {
            state.PauseTiming();
            for (size_t i = 0; i <= line_count; i++) {
                free(entries[i]);
                free(lines[i]);
            }
            state.ResumeTiming();
        }
    }
    state.SetItemsProcessed(state.iterations() * line_count);
}

void find_last(benchmark::State &state)
{
    KovaCfg_t *cfg = nullptr;
    if (KovaCfgOpen(file().path(), KOVA_OPEN_READ, CFGTYPE_ASSIGN, &cfg, nullptr, 0) != 0) {
        abort();
    }
    const std::string last = "option_" + std::to_string(line_count - 1);
    for (auto _ : state) {
        CfgEnt_t *ent = nullptr;
        benchmark::DoNotOptimize(KovaCfgFind(cfg, last.c_str(), nullptr, nullptr, &ent, nullptr));
    }
    KovaCfgClose(&cfg, 0, nullptr, 0);
    state.SetItemsProcessed(state.iterations() * line_count);
}

} // namespace

BENCHMARK(load)->Name("load/KovaCfgOpen")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(seek_and_read, own, true)
    ->Name("load/seek_read_allocate")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(seek_and_read, one, false)->Name("load/seek_read")->Unit(benchmark::kMillisecond);
BENCHMARK(find_last)->Name("find/KovaCfgFind")->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
