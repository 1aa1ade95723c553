// fuzz.h - what the fuzz targets share: requirements, inputs as exact blocks, files that hold them.
#ifndef KOUTIL_FUZZ_H
#define KOUTIL_FUZZ_H

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <string>
#include <unistd.h>

inline void require(bool condition, int line = __builtin_LINE())
{
    if (!condition) {
        fprintf(stderr, "the requirement of line %d does not hold\n", line);
        abort();
    }
}

struct Free {
    void operator()(void *block) const { free(block); }
};
using Text = std::unique_ptr<char, Free>;

// Bytes up to the first NUL as a text that ends with its block, so that reads past it show.
inline Text text_of(const void *data, size_t size)
{
    return Text(size != 0 ? strndup(static_cast<const char *>(data), size) : strdup(""));
}

// A block of `size` bytes that are not zero, for results that must not pass its end.
inline Text room_of(size_t size)
{
    char *block = static_cast<char *>(malloc(size != 0 ? size : 1));
    memset(block, 'x', size);
    return Text(block);
}

// A folder in memory, where there is such a file system, that goes away with the process. It is the
// installation root and the configuration directory, with a folder "oem".
class Folder
{
  public:
    Folder()
    {
        char shared[] = "/dev/shm/koutil_fuzz.XXXXXX";
        char other[] = "/tmp/koutil_fuzz.XXXXXX";
        const char *made = mkdtemp(shared);
        made = made != nullptr ? made : mkdtemp(other);
        require(made != nullptr);
        path_ = made;
        std::filesystem::create_directory(path_ + "/oem");
        setenv("VORNROOT", made, 1);
        setenv("VORNCONF", made, 1);
    }
    ~Folder() { std::filesystem::remove_all(path_); }
    Folder(const Folder &) = delete;
    Folder &operator=(const Folder &) = delete;

    // Writes a file and returns its path.
    std::string write(const char *name, const void *data, size_t size) const
    {
        std::string path = path_ + "/" + name;
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        require(file >= 0 &&
                (size == 0 || ::write(file, data, size) == static_cast<ssize_t>(size)));
        close(file);
        return path;
    }

  private:
    std::string path_;
};

#endif
