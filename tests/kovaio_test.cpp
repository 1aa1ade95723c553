// kovaio_test.cpp - files and directories, on real ones.
#include "koutil/kovaio.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <thread>

using support::file_exists;
using support::read_file;
using support::TempDir;
using support::write_file;

namespace
{

std::string pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; i++) {
        text[i] = static_cast<char>((i * 2654435761U) >> 13);
    }
    return text;
}

bool takes_nothing = false; // whatever is written to

} // namespace

extern "C" ssize_t write(int fd, const void *bytes, size_t size)
{
    return takes_nothing ? 0 : syscall(SYS_write, fd, bytes, size);
}

TEST(KovaOpen, TranslatesItsFlags)
{
    const TempDir dir;
    const std::string file = dir / "f";
    umask(022);
    const std::pair<KovaFlgs_t, VoError_t> cases[] = {
        {0, ENOENT}, {1, ENOENT}, {2, ENOENT}, {8, ENOENT}, {9, ENOENT}, {6, 0},
        {0, 0},      {5, 0},      {7, 0},      {10, 0},     {14, EEXIST}};
    for (const auto &[flags, status] : cases) {
        SCOPED_TRACE(flags);
        KovaHndl_t *handle = reinterpret_cast<KovaHndl_t *>(1);
        EXPECT_EQ(KovaOpen(file.c_str(), flags, &handle), status);
        ASSERT_EQ(handle == nullptr, status != 0);
        if (handle != nullptr) {
            EXPECT_NE(fcntl(handle->_KovaHndl, F_GETFD) & FD_CLOEXEC, 0);
            EXPECT_EQ(write(handle->_KovaHndl, "kept", 4), (flags & 2) != 0 ? 4 : -1);
            EXPECT_EQ(KovaClose(&handle), 0);
        }
        EXPECT_EQ(KovaClose(&handle), 4);
    }
    EXPECT_EQ(read_file(file), "kept");
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644U);
    EXPECT_EQ(KovaOpen(file.c_str(), 1, nullptr), 11);
    EXPECT_EQ(KovaClose(nullptr), 4);
}

TEST(KovaHandle, ReadsWritesSeeksCutsAndMaps)
{
    const TempDir dir;
    KovaHndl_t *file;
    ASSERT_EQ(KovaOpen((dir / "f").c_str(), 7, &file), 0);
    char text[32];
    KovaSz_t size;
    const auto read = [&] {
        size = sizeof text;
        const VoError_t status = KovaRead(file, text, &size);
        return std::to_string(status) + " " + std::string(text, size);
    };
    const auto write = [&] {
        size = 10;
        const VoError_t status = KovaWrite(file, "0123456789", &size);
        return std::to_string(status) + " " + std::to_string(size);
    };
    EXPECT_EQ(write(), "0 10");
    EXPECT_EQ(read(), "0 ");
    EXPECT_EQ(KovaSeek(file, 4), 0);
    EXPECT_EQ(KovaFTruncate(file, 7), 0);
    EXPECT_EQ(read(), "0 456");
    EXPECT_EQ(KovaSeek(file, SIZE_MAX), EINVAL);
    void *map = nullptr;
    ASSERT_EQ(KovaMmap(file, 0, 7, &map), 0);
    memcpy(map, "mapped!", 7);
    EXPECT_EQ(KovaMunmap(file, 7, &map), 0);
    EXPECT_EQ(map, nullptr);
    EXPECT_EQ(read_file(dir / "f"), "mapped!");
    map = text + 1;
    EXPECT_EQ(KovaMunmap(nullptr, 7, &map), EINVAL);
    EXPECT_EQ(map, nullptr);
    map = text;
    EXPECT_EQ(KovaMmap(file, 1, 7, &map), EINVAL);
    EXPECT_EQ(map, nullptr);
    close(file->_KovaHndl);
    EXPECT_EQ(read(), std::to_string(EBADF) + " ");
    EXPECT_EQ(write(), std::to_string(EBADF) + " 0");
    EXPECT_EQ(KovaClose(&file), EBADF);
    EXPECT_EQ(file, nullptr);
}

TEST(KovaStat, TellsTypesAndFollowsLinksOnDemand)
{
    const TempDir dir;
    write_file(dir / "f", "abc");
    ASSERT_EQ(symlink("f", (dir / "link").c_str()), 0);
    ASSERT_EQ(symlink("gone", (dir / "dangling").c_str()), 0);
    KovaStat_t st;
    EXPECT_EQ(KovaStat((dir / "link").c_str(), &st), 0);
    EXPECT_EQ(st.KovaFiType, KOVA_FITYPE_REGULAR);
    EXPECT_EQ(st.KovaSz, 3U);
    EXPECT_LT(time(nullptr) - st.KovaMtime, 100);
    EXPECT_EQ(KovaLStat((dir / "link").c_str(), &st), 0);
    EXPECT_EQ(st.KovaFiType, KOVA_FITYPE_OTHER);
    EXPECT_EQ(KovaStat((dir / "dangling").c_str(), &st), ENOENT);
    EXPECT_EQ(st.KovaSz + static_cast<KovaSz_t>(st.KovaMtime), 0U);
    EXPECT_EQ(KovaStat(dir.path().c_str(), &st), 0);
    EXPECT_EQ(st.KovaFiType, KOVA_FITYPE_DIR);
    KovaStatFS_t fs;
    EXPECT_EQ(KovaStatFS(dir.path().c_str(), &fs), 0);
    EXPECT_GT(fs.KovaBSize * fs.KovaBlocks, 0U);
    EXPECT_EQ(KovaStatFS((dir / "gone").c_str(), &fs), ENOENT);
    EXPECT_EQ(fs.KovaBSize, 0U);
}

TEST(KovaMkPath, MakesWhatIsMissing)
{
    const TempDir dir;
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    write_file("file", "");
    const std::pair<const char *, VoError_t> cases[] = {
        {"a/b/c", 0}, {"a/b/c", 0},  {"x\\y", 0}, {"d//e///", 0},  {"/", 0},
        {"file", 0},  {nullptr, 11}, {"", 11},    {"\\z", ENOENT}, {"file/x", ENOTDIR}};
    for (const auto &[path, status] : cases) {
        EXPECT_EQ(KovaMkPath(path), status) << path;
    }
    EXPECT_TRUE(file_exists("a/b/c") && file_exists("x/y") && file_exists("d/e"));
    EXPECT_EQ(KovaMkdir("file"), 7);
    EXPECT_EQ(KovaMkdir("gone/a"), ENOENT);
    ASSERT_EQ(chdir("/"), 0);
}

TEST(KovaRmPath, RemovesTreesAndNeverFollowsLinks)
{
    const TempDir dir;
    ASSERT_EQ(KovaMkPath((dir / "t/a/b").c_str()), 0);
    ASSERT_EQ(KovaMkdir((dir / "kept").c_str()), 0);
    write_file(dir / "kept/f", "");
    write_file(dir / "t/a/f", "");
    ASSERT_EQ(symlink("../kept", (dir / "t/l").c_str()), 0);
    ASSERT_EQ(symlink("kept", (dir / "l").c_str()), 0);
    for (const char *name : {"t", "l"}) {
        EXPECT_EQ(KovaRmPath((dir / name).c_str()), 0);
        EXPECT_EQ(KovaRmPath((dir / name).c_str()), ENOENT);
    }
    EXPECT_EQ(KovaRename((dir / "kept/f").c_str(), (dir / "g").c_str()), 0);
    EXPECT_EQ(KovaDeleteDir((dir / "g").c_str()), ENOTDIR);
    EXPECT_EQ(KovaDelete((dir / "g").c_str()), 0);
    EXPECT_EQ(KovaDeleteDir((dir / "kept").c_str()), 0);
}

TEST(KovaRmPath, WalksTheDeepestTreeOnASmallStackAndRefusesLongerPaths)
{
    const TempDir dir;
    std::string path = dir.path() + "/" + std::string(2 - (dir.path().size() + 1) % 2, 't');
    const std::string top = path;
    path += std::string(1024 - path.size(), '/');
    for (size_t i = top.size() + 1; i < path.size(); i += 2) {
        path[i] = 'd';
    }
    ASSERT_EQ(KovaMkPath(path.c_str()), 0);
    write_file(path + "/f", "");
    const int open_before = support::open_descriptors();
    EXPECT_EQ(KovaRmPath(top.c_str()), 16);
    EXPECT_EQ(support::open_descriptors(), open_before);
    ASSERT_EQ(unlink((path + "/f").c_str()), 0);

    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, 256 * 1024);
    pthread_t thread;
    const auto body = [](void *arg) -> void * {
        EXPECT_EQ(KovaRmPath(static_cast<const char *>(arg)), 0);
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, body, const_cast<char *>(top.c_str())), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
    EXPECT_FALSE(file_exists(top));
}

TEST(KovaDirEnum, ListsEveryEntryOnce)
{
    const TempDir dir;
    write_file(dir / "sixsix", "abc");
    char name[] = "xxxxyyy";
    KovaStat_t st;
    KovaDirEnum_t *listing;
    ASSERT_EQ(KovaDirEnumStart(dir.path().c_str(), 4, name, &st, &listing), 0);
    std::string names;
    VoError_t status = 0;
    for (; status == 0; status = KovaDirEnumNext(listing, 4, name, &st)) {
        names += std::string(name) + (st.KovaFiType == KOVA_FITYPE_DIR ? "/" : "");
        EXPECT_EQ(std::string(name + 3, 4), std::string("\0yyy", 4));
    }
    EXPECT_EQ(status, 2);
    EXPECT_EQ(names.size(), std::string("./../six").size()) << names;
    EXPECT_NE(names.find("six"), std::string::npos) << names;
    KovaDirEnumEnd(&listing);
    EXPECT_EQ(listing, nullptr);
    KovaDirEnumEnd(&listing);
    listing = reinterpret_cast<KovaDirEnum_t *>(1);
    EXPECT_EQ(KovaDirEnumStart((dir / "sixsix").c_str(), 4, name, nullptr, &listing), ENOTDIR);
    EXPECT_EQ(listing, nullptr);
}

TEST(KovaFileCopy, CopiesEveryKindOfFileWithItsStatus)
{
    const TempDir dir;
    const std::string from = dir / "from";
    const std::string to = dir / "to";
    const std::string fifo = dir / "fifo"; // which the kernel cannot copy from by size
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const int open_before = support::open_descriptors();
    const auto copy = [](const std::string &source, const std::string &target) {
        return KovaFileCopy(source.c_str(), target.c_str());
    };
    for (const size_t size : {0U, 4096U, 4097U, 1000000U}) {
        const std::string text = pattern(size);
        write_file(from, text);
        write_file(to, std::string(2000000, 'o'));
        EXPECT_EQ(copy(from, to), 0) << size;
        EXPECT_TRUE(read_file(to) == text) << size;
        EXPECT_EQ(copy(from, "/dev/full"), size == 0 ? 0 : size <= 4096 ? ENOSPC : 1) << size;
        takes_nothing = true;
        EXPECT_EQ(copy("/proc/self/status", to), EIO); // sizeless, so the kernel does not copy it
        takes_nothing = false;
        std::thread writer([&] { write_file(fifo, text); });
        EXPECT_EQ(copy(fifo, to), 0) << size;
        writer.join();
        EXPECT_TRUE(read_file(to) == text) << size;
    }
    EXPECT_EQ(copy(dir / "gone", to), ENOENT);
    EXPECT_EQ(copy(from, dir.path()), EISDIR);
    EXPECT_EQ(copy(dir.path(), dir / "made"), 1);
    EXPECT_TRUE(file_exists(dir / "made"));
    EXPECT_EQ(copy("/proc/self/status", to), 0);
    EXPECT_EQ(read_file(to).substr(0, 5), "Name:");
    EXPECT_EQ(copy(from, from), 0);
    EXPECT_EQ(read_file(from), "");
    EXPECT_EQ(support::open_descriptors(), open_before);
}
