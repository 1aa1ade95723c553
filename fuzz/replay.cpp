// replay.cpp - feeds a fuzz target the files of the folders named on its command line, and for each
// file every prefix of it, in builds without the fuzzing engine.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

// Runs the target on a block that is exactly as large as the input, so that reads past it show.
void run(const uint8_t *data, size_t size)
{
    uint8_t *copy = static_cast<uint8_t *>(malloc(size != 0 ? size : 1));
    if (size != 0) {
        memcpy(copy, data, size);
    }
    LLVMFuzzerTestOneInput(copy, size);
    free(copy);
}

bool replay(const std::filesystem::path &path)
{
    FILE *file = fopen(path.c_str(), "rb");
    if (file == nullptr) {
        return false;
    }
    std::vector<uint8_t> bytes(std::filesystem::file_size(path));
    const bool whole = fread(bytes.data(), 1, bytes.size(), file) == bytes.size();
    fclose(file);
    const size_t step = bytes.size() / 64 + 1;
    for (size_t size = 0; size < bytes.size(); size += step) {
        run(bytes.data(), size);
    }
    run(bytes.data(), bytes.size());
    return whole;
}

} // namespace

int main(int argc, char **argv)
{
    int files = 0;
    for (int i = 1; i < argc; i++) {
        for (const auto &entry : std::filesystem::directory_iterator(argv[i])) {
            if (!replay(entry.path())) {
                perror(entry.path().c_str());
                return 1;
            }
            files++;
        }
    }
    printf("%d inputs and their prefixes replayed\n", files);
    return files > 0 ? 0 : 1;
}
