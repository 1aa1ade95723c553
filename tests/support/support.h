// support.h - what the unit tests share: temporary folders, file texts, throw-away processes.
#ifndef KOUTIL_TESTS_SUPPORT_H
#define KOUTIL_TESTS_SUPPORT_H

#include <functional>
#include <string>
#include <string_view>

namespace support
{

// A folder that goes away with everything below it.
class TempDir
{
  public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    const std::string &path() const { return path_; }
    std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

  private:
    std::string path_;
};

// The whole of a file; empty when it cannot be read.
std::string read_file(const std::string &path);

// Replaces a file's contents.
void write_file(const std::string &path, std::string_view text);

bool file_exists(const std::string &path);

// What became of a throw-away process.
struct Outcome {
    int status = 0;  // as waitpid reports it
    std::string out; // its standard output
    std::string err; // its standard error
    bool exited(int code) const;
    bool signalled(int signal) const;
    // Died of a memory fault: by the signal itself, or by the sanitizer that caught it.
    bool crashed() const;
};

// Runs `body` in a child process, which exits with what it returns. Standard output and standard
// error are captured. Leaks are not looked for in the child. The child is killed after a minute.
Outcome run_in_child(const std::function<int()> &body);

// Calls `body` with standard output (1) or standard error (2) captured, in this process.
std::string capture(int descriptor, const std::function<void()> &body);

// Number of open descriptors of this process.
int open_descriptors();

} // namespace support

#endif
