// support.cpp - temporary folders, file texts, throw-away processes.
#include "support/support.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace support
{

TempDir::TempDir()
{
    const char *base = getenv("TMPDIR");
    path_ = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/koutil.XXXXXX";
    if (mkdtemp(path_.data()) == nullptr) {
        perror("mkdtemp");
        abort();
    }
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string read_file(const std::string &path)
{
    std::string text;
    if (FILE *file = fopen(path.c_str(), "rbe"); file != nullptr) {
        char block[65536];
        for (size_t got; (got = fread(block, 1, sizeof block, file)) > 0;) {
            text.append(block, got);
        }
        fclose(file);
    }
    return text;
}

void write_file(const std::string &path, std::string_view text)
{
    FILE *file = fopen(path.c_str(), "wbe");
    if (file == nullptr || fwrite(text.data(), 1, text.size(), file) != text.size() ||
        fclose(file) != 0) {
        perror(path.c_str());
        abort();
    }
}

bool file_exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

bool Outcome::exited(int code) const
{
    return WIFEXITED(status) && WEXITSTATUS(status) == code;
}

bool Outcome::signalled(int signal) const
{
    return WIFSIGNALED(status) && WTERMSIG(status) == signal;
}

bool Outcome::crashed() const
{
    return signalled(SIGSEGV) || signalled(SIGILL) || signalled(SIGTRAP) || signalled(SIGABRT) ||
           exited(66) ||
           (exited(1) && (err.find("Sanitizer") != std::string::npos ||
                          err.find("runtime error: ") != std::string::npos));
}

namespace
{

// Reads both pipes of a child to their ends.
void drain(int out_fd, int err_fd, Outcome &outcome)
{
    pollfd fds[2] = {{out_fd, POLLIN, 0}, {err_fd, POLLIN, 0}};
    std::string *texts[2] = {&outcome.out, &outcome.err};
    int open_count = 2;
    while (open_count > 0) {
        if (poll(fds, 2, -1) < 0 && errno != EINTR) {
            break;
        }
        for (int i = 0; i < 2; i++) {
            if (fds[i].fd < 0 || fds[i].revents == 0) {
                continue;
            }
            char block[4096];
            const ssize_t got = read(fds[i].fd, block, sizeof block);
            if (got > 0) {
                texts[i]->append(block, static_cast<size_t>(got));
            } else if (got == 0 || errno != EINTR) {
                close(fds[i].fd);
                fds[i].fd = -1;
                open_count--;
            }
        }
    }
}

} // namespace

Outcome run_in_child(const std::function<int()> &body)
{
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        perror("pipe2");
        abort();
    }
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        alarm(60);
        dup2(out[1], 1);
        dup2(err[1], 2);
        const int code = body();
        fflush(nullptr);
        _exit(code);
    }
    close(out[1]);
    close(err[1]);
    Outcome outcome;
    drain(out[0], err[0], outcome);
    while (waitpid(pid, &outcome.status, 0) < 0 && errno == EINTR) {
    }
    return outcome;
}

std::string capture(int descriptor, const std::function<void()> &body)
{
    fflush(nullptr);
    FILE *file = tmpfile();
    const int saved = fcntl(descriptor, F_DUPFD_CLOEXEC, 3);
    dup2(fileno(file), descriptor);
    body();
    fflush(nullptr);
    dup2(saved, descriptor);
    close(saved);
    std::string text;
    rewind(file);
    char block[4096];
    for (size_t got; (got = fread(block, 1, sizeof block, file)) > 0;) {
        text.append(block, got);
    }
    fclose(file);
    return text;
}

int open_descriptors()
{
    int count = 0;
    if (DIR *dir = opendir("/proc/self/fd"); dir != nullptr) {
        while (readdir(dir) != nullptr) {
            count++;
        }
        closedir(dir);
    }
    return count;
}

} // namespace support
