// kovaio_test.cpp - files and directories, on real ones.
#include "koutil/kovaio.h"
#include "support/failing_malloc.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using support::file_exists;
using support::read_file;
using support::TempDir;
using support::write_file;

namespace
{

VoError_t open_and_close(const std::string &path, KovaFlgs_t flags)
{
    KovaHndl_t *file = reinterpret_cast<KovaHndl_t *>(1);
    const VoError_t status = KovaOpen(path.c_str(), flags, &file);
    EXPECT_EQ(file == nullptr, status != 0);
    if (status == 0) {
        EXPECT_NE(fcntl(file->_KovaHndl, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(KovaClose(&file), 0);
    }
    EXPECT_EQ(KovaClose(&file), 4);
    return status;
}

std::string pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; i++) {
        text[i] = static_cast<char>((i * 2654435761U) >> 13);
    }
    return text;
}

} // namespace

TEST(KovaOpen, TranslatesItsFlags)
{
    const TempDir dir;
    const std::string file = dir / "f";
    umask(022);
    for (const KovaFlgs_t flags : {0U, 1U, 2U, 8U, 9U}) {
        EXPECT_EQ(open_and_close(file, flags), ENOENT) << flags;
    }
    EXPECT_EQ(open_and_close(file, 6), 0);
    struct stat st;
    ASSERT_EQ(stat(file.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0644U);
    write_file(file, "kept");
    for (const KovaFlgs_t flags : {0U, 5U, 7U, 10U}) {
        EXPECT_EQ(open_and_close(file, flags), 0) << flags;
    }
    EXPECT_EQ(read_file(file), "kept");
    EXPECT_EQ(open_and_close(file, 14), EEXIST);
    EXPECT_EQ(KovaOpen(file.c_str(), 1, nullptr), 11);
    EXPECT_EQ(KovaClose(nullptr), 4);
}

TEST(KovaHandle, ReadsWritesSeeksCutsAndMaps)
{
    const TempDir dir;
    KovaHndl_t *file;
    ASSERT_EQ(KovaOpen((dir / "f").c_str(), 7, &file), 0);
    KovaSz_t size = 10;
    EXPECT_EQ(KovaWrite(file, "0123456789", &size), 0);
    EXPECT_EQ(size, 10U);
    char text[32] = "";
    size = sizeof text;
    EXPECT_EQ(KovaRead(file, text, &size), 0);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(KovaSeek(file, 4), 0);
    EXPECT_EQ(KovaFTruncate(file, 7), 0);
    size = sizeof text;
    EXPECT_EQ(KovaRead(file, text, &size), 0);
    EXPECT_EQ(std::string(text, size), "456");
    EXPECT_EQ(KovaSeek(file, SIZE_MAX), EINVAL);
    void *map = nullptr;
    ASSERT_EQ(KovaMmap(file, 0, 7, &map), 0);
    memcpy(map, "mapped!", 7);
    EXPECT_EQ(KovaMunmap(file, 7, &map), 0);
    EXPECT_EQ(map, nullptr);
    EXPECT_EQ(read_file(dir / "f"), "mapped!");
    map = text;
    EXPECT_EQ(KovaMmap(file, 1, 7, &map), EINVAL);
    EXPECT_EQ(map, nullptr);
    map = text + 1;
    EXPECT_EQ(KovaMunmap(nullptr, 7, &map), EINVAL);
    EXPECT_EQ(map, nullptr);
    EXPECT_EQ(KovaClose(&file), 0);

    ASSERT_EQ(KovaOpen((dir / "f").c_str(), 1, &file), 0);
    size = 1;
    EXPECT_EQ(KovaWrite(file, "x", &size), EBADF);
    EXPECT_EQ(size, 0U);
    close(file->_KovaHndl);
    size = 1;
    EXPECT_EQ(KovaRead(file, text, &size), EBADF);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(KovaClose(&file), EBADF);
    EXPECT_EQ(file, nullptr);
}

TEST(KovaStat, TellsTypesAndFollowsLinksOnDemand)
{
    const TempDir dir;
    write_file(dir / "f", "abc");
    ASSERT_EQ(symlink("f", (dir / "l").c_str()), 0);
    ASSERT_EQ(symlink("gone", (dir / "d").c_str()), 0);
    KovaStat_t st;
    EXPECT_EQ(KovaStat((dir / "l").c_str(), &st), 0);
    EXPECT_EQ(st.KovaFiType, KOVA_FITYPE_REGULAR);
    EXPECT_EQ(st.KovaSz, 3U);
    EXPECT_LT(time(nullptr) - st.KovaMtime, 100);
    EXPECT_EQ(KovaLStat((dir / "l").c_str(), &st), 0);
    EXPECT_EQ(st.KovaFiType, KOVA_FITYPE_OTHER);
    EXPECT_EQ(KovaStat((dir / "d").c_str(), &st), ENOENT);
    EXPECT_EQ(st.KovaFiType + st.KovaSz + static_cast<KovaSz_t>(st.KovaMtime), 0U);
    EXPECT_EQ(KovaStat(dir.path().c_str(), &st), 0);
    EXPECT_EQ(st.KovaFiType, KOVA_FITYPE_DIR);
    KovaStatFS_t fs;
    EXPECT_EQ(KovaStatFS(dir.path().c_str(), &fs), 0);
    EXPECT_GE(fs.KovaBlocks, fs.KovaBAvail);
    EXPECT_GT(fs.KovaBSize, 0U);
    EXPECT_EQ(KovaStatFS((dir / "gone").c_str(), &fs), ENOENT);
    EXPECT_EQ(fs.KovaBSize, 0U);
}

TEST(KovaMkPath, MakesWhatIsMissing)
{
    const TempDir dir;
    ASSERT_EQ(chdir(dir.path().c_str()), 0);
    write_file("file", "");
    const struct {
        const char *path;
        VoError_t status;
        const char *made;
    } cases[] = {
        {"a/b/c", 0, "a/b/c"},
        {"a/b/c", 0, "a"},
        {"x\\y", 0, "x/y"},
        {"d//e///", 0, "d/e"},
        {"/", 0, "a"},
        {"file", 0, "file"},
        {nullptr, 11, "a"},
        {"", 11, "a"},
        {"\\z", ENOENT, "a"},
        {"file/x", ENOTDIR, "a"},
        {"./p\\q/r", 0, "p/q/r"},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(KovaMkPath(each.path), each.status) << each.path;
        EXPECT_TRUE(file_exists(each.made)) << each.path;
    }
    EXPECT_EQ(KovaMkdir("a"), 7);
    EXPECT_EQ(KovaMkdir("file"), 7);
    EXPECT_EQ(KovaMkdir("gone/a"), ENOENT);
    ASSERT_EQ(chdir("/"), 0);
}

TEST(KovaRmPath, RemovesTreesAndNeverFollowsLinks)
{
    const TempDir dir;
    ASSERT_EQ(KovaMkPath((dir / "t/a/b").c_str()), 0);
    ASSERT_EQ(KovaMkPath((dir / "kept").c_str()), 0);
    write_file(dir / "kept/f", "");
    write_file(dir / "t/a/f", "");
    ASSERT_EQ(symlink("../kept", (dir / "t/l").c_str()), 0);
    EXPECT_EQ(KovaRmPath((dir / "t").c_str()), 0);
    EXPECT_FALSE(file_exists(dir / "t"));
    ASSERT_EQ(symlink("kept", (dir / "l").c_str()), 0);
    EXPECT_EQ(KovaRmPath((dir / "l").c_str()), 0);
    EXPECT_FALSE(file_exists(dir / "l"));
    EXPECT_TRUE(file_exists(dir / "kept/f"));
    EXPECT_EQ(KovaRmPath((dir / "l").c_str()), ENOENT);
    EXPECT_EQ(KovaRename((dir / "kept/f").c_str(), (dir / "g").c_str()), 0);
    EXPECT_EQ(KovaDeleteDir((dir / "g").c_str()), ENOTDIR);
    EXPECT_EQ(KovaDelete((dir / "g").c_str()), 0);
    EXPECT_EQ(KovaDeleteDir((dir / "kept").c_str()), 0);
    EXPECT_FALSE(file_exists(dir / "kept"));
}

TEST(KovaRmPath, WalksTheDeepestTreeOnASmallStackAndRefusesLongerPaths)
{
    const TempDir dir;
    std::string path = dir.path() + "/" + std::string(2 - (dir.path().size() + 1) % 2, 't');
    const std::string top = path;
    ASSERT_EQ(KovaMkdir(path.c_str()), 0);
    while (path.size() < 1024) {
        path += "/d";
        ASSERT_EQ(KovaMkdir(path.c_str()), 0);
    }
    ASSERT_EQ(path.size(), 1024U);
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
        return KovaRmPath(static_cast<const char *>(arg)) == 0 ? arg : nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, body, const_cast<char *>(top.c_str())), 0);
    void *result = nullptr;
    pthread_join(thread, &result);
    pthread_attr_destroy(&attr);
    EXPECT_NE(result, nullptr);
    EXPECT_FALSE(file_exists(top));
}

TEST(KovaDirEnum, ListsEveryEntryOnce)
{
    const TempDir dir;
    write_file(dir / "sixsix", "abc");
    char name[8];
    memset(name, 'x', sizeof name);
    KovaStat_t st;
    KovaDirEnum_t *listing;
    ASSERT_EQ(KovaDirEnumStart(dir.path().c_str(), 4, name, &st, &listing), 0);
    std::string names;
    VoError_t status = 0;
    for (; status == 0; status = KovaDirEnumNext(listing, 4, name, &st)) {
        names += std::string(name) + (st.KovaFiType == KOVA_FITYPE_DIR ? "/" : "");
        EXPECT_EQ(std::string(name + 4, 4), "xxxx");
        EXPECT_EQ(name[3], '\0');
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
    const int open_before = support::open_descriptors();
    for (const size_t size : {0U, 1U, 4095U, 4096U, 4097U, 8192U, 8193U, 1000000U}) {
        const std::string text = pattern(size);
        write_file(from, text);
        write_file(to, std::string(2000000, 'o'));
        EXPECT_EQ(KovaFileCopy(from.c_str(), to.c_str()), 0) << size;
        EXPECT_TRUE(read_file(to) == text) << size;
        if (file_exists("/dev/full") && size > 0) {
            EXPECT_EQ(KovaFileCopy(from.c_str(), "/dev/full"), size <= 4096 ? ENOSPC : 1) << size;
        }
        // The same through a pipe, which the kernel cannot copy from by size.
        unlink((dir / "fifo").c_str());
        ASSERT_EQ(mkfifo((dir / "fifo").c_str(), 0600), 0);
        std::thread writer([&] { write_file(dir / "fifo", text); });
        EXPECT_EQ(KovaFileCopy((dir / "fifo").c_str(), to.c_str()), 0) << size;
        writer.join();
        EXPECT_TRUE(read_file(to) == text) << size;
    }
    EXPECT_EQ(KovaFileCopy((dir / "gone").c_str(), to.c_str()), ENOENT);
    EXPECT_EQ(KovaFileCopy(from.c_str(), dir.path().c_str()), EISDIR);
    EXPECT_EQ(KovaFileCopy(dir.path().c_str(), (dir / "made").c_str()), 1);
    EXPECT_TRUE(file_exists(dir / "made"));
    EXPECT_EQ(KovaFileCopy("/proc/self/status", to.c_str()), 0);
    EXPECT_EQ(read_file(to).substr(0, 5), "Name:");
    EXPECT_EQ(KovaFileCopy(from.c_str(), from.c_str()), 0);
    EXPECT_EQ(read_file(from), "");
    EXPECT_EQ(support::open_descriptors(), open_before);
}

TEST(KovaFileCopy, StopsAtASizeLimitWithWhatWasWritten)
{
    const TempDir dir;
    write_file(dir / "from", pattern(100000));
    const auto outcome = support::run_in_child([&] {
        signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{50000, 50000};
        setrlimit(RLIMIT_FSIZE, &limit);
        return KovaFileCopy((dir / "from").c_str(), (dir / "to").c_str());
    });
    EXPECT_TRUE(outcome.exited(1)) << outcome.err;
    EXPECT_TRUE(read_file(dir / "to") == pattern(50000));
}

TEST(Kovaio, ReportsEveryFailedAllocationAndKeepsNothing)
{
    const TempDir dir;
    const std::string path = dir / "a/b";
    const int open_before = support::open_descriptors();
    KovaHndl_t *file = nullptr;
    KovaDirEnum_t *listing = nullptr;
    char name[256];
    const std::function<VoError_t()> calls[] = {
        [&] { return KovaMkPath(path.c_str()); },
        [&] { return KovaOpen(path.c_str(), 1, &file); },
        [&] { return KovaDirEnumStart(path.c_str(), sizeof name, name, nullptr, &listing); },
    };
    for (const auto &call : calls) {
        VoError_t status = 20;
        for (int good = 0; status != 0; good++) {
            ASSERT_TRUE(status == 20 || status == ENOMEM) << status;
            EXPECT_EQ(listing, nullptr);
            const support::FailingMalloc failing(good);
            status = call();
        }
    }
    KovaClose(&file);
    KovaDirEnumEnd(&listing);
    EXPECT_EQ(support::open_descriptors(), open_before);
}
