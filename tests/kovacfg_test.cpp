// kovacfg_test.cpp - the keyword configuration file: what lines mean, how lists are edited, and
// what a save leaves on disk when the system fails it.
#include "koutil/kovacfg.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdarg>
#include <fcntl.h>
#include <random>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace
{

struct Faults {
    bool armed = false;
    int calls = 0;           // that could have failed so far
    int fail_at = 0;         // the call that fails, counted from 1; 0 none
    int error = EIO;         // with which errno
    int rename_error = 0;    // fails every rename
    int unlink_error = 0;    // fails every unlink
    long disk_room = -1;     // bytes that writes still find room for; -1 unlimited
    long bytes_at_once = -1; // a read or write takes no more; -1 unlimited
    int memory_fails_at = 0; // the allocation that fails, counted from 1; 0 none
} faults;

bool fails()
{
    if (faults.armed && ++faults.calls == faults.fail_at) {
        errno = faults.error;
        return true;
    }
    return false;
}

bool refused(int error)
{
    if (faults.armed && error != 0) {
        errno = error;
        return true;
    }
    return false;
}

} // namespace

extern "C" void *__libc_calloc(size_t, size_t) __attribute__((weak));

// The sanitizers bring an allocator of their own.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
#define CAN_FAIL_MEMORY 1
extern "C" void *calloc(size_t count, size_t size) noexcept
{
    const bool out = faults.memory_fails_at > 0 && --faults.memory_fails_at == 0;
    return out ? nullptr : __libc_calloc(count, size);
}
#else
#define CAN_FAIL_MEMORY 0
#endif

extern "C" int open(const char *path, int flags, ...)
{
    va_list args;
    va_start(args, flags);
    const auto mode = va_arg(args, mode_t);
    va_end(args);
    return fails() ? -1 : static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" ssize_t read(int fd, void *data, size_t size)
{
    if (faults.armed && faults.bytes_at_once >= 0) {
        size = std::min(size, static_cast<size_t>(faults.bytes_at_once));
    }
    return syscall(SYS_read, fd, data, size);
}

extern "C" ssize_t write(int fd, const void *data, size_t size)
{
    if (fails()) {
        return -1;
    }
    if (faults.armed && faults.bytes_at_once >= 0) {
        size = std::min(size, static_cast<size_t>(faults.bytes_at_once));
    }
    if (faults.armed && faults.disk_room >= 0) {
        if (faults.disk_room == 0) {
            errno = ENOSPC;
            return -1;
        }
        size = std::min(size, static_cast<size_t>(faults.disk_room));
        faults.disk_room -= static_cast<long>(size);
    }
    return syscall(SYS_write, fd, data, size);
}

extern "C" int fsync(int fd)
{
    return fails() ? -1 : static_cast<int>(syscall(SYS_fsync, fd));
}

extern "C" int close(int fd)
{
    const int result = static_cast<int>(syscall(SYS_close, fd));
    return fails() ? -1 : result;
}

extern "C" int rename(const char *from, const char *to) noexcept
{
    if (refused(faults.rename_error) || fails()) {
        return -1;
    }
    return static_cast<int>(syscall(SYS_rename, from, to));
}

extern "C" int unlink(const char *path) noexcept
{
    return refused(faults.unlink_error) || fails() ? -1
                                                   : static_cast<int>(syscall(SYS_unlink, path));
}

namespace
{

class Cfg : public ::testing::Test
{
  protected:
    ~Cfg() override
    {
        faults = {};
        KovaCfgClose(&cfg, 0, nullptr, 0);
    }

    // Loads `text`; the message of a failure stands in `message`.
    VoError_t load(KovaCfgType_t type, const std::string &text, KovaFlgs_t flags = KOVA_OPEN_RDWR)
    {
        KovaCfgClose(&cfg, 0, nullptr, 0);
        support::write_file(path, text);
        message[0] = '\0';
        return KovaCfgOpen(path.c_str(), flags, type, &cfg, message, sizeof message);
    }

    VoError_t save()
    {
        message[0] = '\0';
        faults.armed = true;
        const VoError_t status = KovaCfgSave(cfg, message, sizeof message);
        faults.armed = false;
        return status;
    }

    // The whole list: <name>[value]...(comment), with '@' in front of metadata and '.' between
    // entries.
    std::string list() const { return list_of(cfg); }

    static std::string list_of(KovaCfg_t *of)
    {
        std::string text;
        CfgEnt_t *ent = nullptr;
        while (KovaCfgNext(of, &ent) == 0) {
            text += ent == TAILQ_FIRST(&of->CfgEntHead) ? "" : ".";
            text += ent->IsMetaData != 0 ? "@" : "";
            text += ent->KovaCfgName != nullptr ? "<" + std::string(ent->KovaCfgName) + ">" : "";
            for (size_t i = 0; i < 64 && ent->KovaCfgVals[i] != nullptr; i++) {
                text += "[" + std::string(ent->KovaCfgVals[i]) + "]";
            }
            text +=
                ent->KovaCfgComment != nullptr ? "(" + std::string(ent->KovaCfgComment) + ")" : "";
        }
        return text;
    }

    CfgEnt_t *entry(int index)
    {
        CfgEnt_t *ent = nullptr;
        EXPECT_EQ(KovaCfgEnum(cfg, index, &ent), 0);
        return ent;
    }

    VoError_t insert(int index, const char *name, std::vector<const char *> values,
                     const char *comment = nullptr)
    {
        values.push_back(nullptr);
        return KovaCfgInsert(cfg, index, name, const_cast<char **>(values.data()), comment, message,
                             sizeof message);
    }

    support::TempDir dir;
    std::string path = dir / "file";
    KovaCfg_t *cfg = nullptr;
    char message[256] = "";
};

std::string repeated(const std::string &text, int times)
{
    std::string all;
    for (int i = 0; i < times; i++) {
        all += text;
    }
    return all;
}

} // namespace

TEST_F(Cfg, LinesMeanWhatTheirFormSays)
{
    const struct {
        KovaCfgType_t type;
        std::string text;
        std::string list;
    } cases[] = {
        {CFGTYPE_WORDS, "server1 10 x\n", "<server1>[10][x]"},
        {CFGTYPE_WORDS, "  a b", "[a][b]"},
        {CFGTYPE_WORDS, "a\t \tb = c==d\n", "<a>[b][c][d]"},
        {CFGTYPE_WORDS, "key \"a b\" c\n", "<key>[a b][c]"},
        {CFGTYPE_WORDS, "key val # note\n", "<key>[val](# note)"},
        {CFGTYPE_WORDS, "k v# n\n", "<k>[v# n](# n)"},
        {CFGTYPE_WORDS, "a\vb c\n", "<a\vb>[b][c]"},
        {CFGTYPE_WORDS, "k \" a\"\n", "<k>[ a]"},
        {CFGTYPE_WORDS, "k \"=x\" y\n", "<k>[y]"},
        {CFGTYPE_WORDS, "a \"\" b\n", "<a>[\" b]"},
        {CFGTYPE_WORDS, "k \"# c\" d\n", "<k>(# c\" d)"},
        {CFGTYPE_WORDS, "k a\"b c\"d\n", "<k>[a\"b c][d]"},
        {CFGTYPE_WORDS, "\"a b\" c\n", "<a b>[c]"},
        {CFGTYPE_WORDS, "k \x93x y\x94 z\n", "<k>[x y][z]"},
        // The second byte of these UTF-8 letters is a quote.
        {CFGTYPE_WORDS, "n \xc3\x94 x\n", "<n>[\xc3\x94 x]"},
        {CFGTYPE_WORDS, "k \"a\nb \"c\n", "<k>[a].<b>[c]"},
        {CFGTYPE_WORDS, "k \"\nb\n", "<k>.<b>"},
        {CFGTYPE_WORDS, "k \"", "<k>"},
        {CFGTYPE_WORDS, "   \n", ""},
        {CFGTYPE_WORDS, "# @a b=c d\n", "@<@a b>[c d]"},
        {CFGTYPE_WORDS, "# @Owner adm \"x y\" z\n", "@<@Owner adm \"x y>[ z]"},
        {CFGTYPE_ASSIGN, "name = value\n", "<name >[ value]"},
        {CFGTYPE_ASSIGN, "key=v # c\n", "<key>[v # c](# c)"},
        {CFGTYPE_ASSIGN, "name=value#x # y\n", "<name>[value#x # y](#x # y)"},
        {CFGTYPE_ASSIGN, "# just a note\n", "(# just a note)"},
        {CFGTYPE_ASSIGN, "# @Owner=adm\n", "@<@Owner>[adm]"},
        {CFGTYPE_ASSIGN, "name=v # @Owner=adm\n", "@<@Owner>[v # @Owner][adm]"},
        {CFGTYPE_ASSIGN, "#@x\n#  @y\n", "(#@x).(#  @y)"},
        {CFGTYPE_ASSIGN, "k=\"\"\n", "<k>[\"]"},
        {CFGTYPE_ASSIGN, "a==b\n=x\ny=\n", "<a>[b].[x].<y>"},
        {CFGTYPE_VALUES, "a b=c # d\n", "[a b][c # d](# d)"},
        {CFGTYPE_VALUES, "# @Owner=adm\n", "@<@Owner>[adm]"},
        {77, "a=b\n", "[a][b]"},
        {CFGTYPE_ASSIGN, "", ""},
        {CFGTYPE_ASSIGN, "\r\n\n\na=1\n\n\r\r\nb=2\r\n\r\n", ".<a>[1].<b>[2]"},
        {CFGTYPE_ASSIGN, "a=1" + std::string(3000, '\n') + "b=2", "<a>[1].<b>[2]"},
        {CFGTYPE_ASSIGN, std::string(3000, '\r') + "b=2\n", ".<b>[2]"},
    };
    for (const auto &c : cases) {
        for (const long piece : {-1, 3}) { // whole reads, and reads that come short
            faults.bytes_at_once = piece;
            faults.armed = true;
            EXPECT_EQ(load(c.type, c.text), 0) << c.text << message;
            faults = {};
            EXPECT_EQ(list(), c.list) << c.text;
        }
    }
}

TEST_F(Cfg, LinesOfEveryLengthAroundTheLimit)
{
    const std::string ends[] = {"", "\n", "\r\n", "\n\n\n"};
    for (size_t length = 1018; length <= 1030; length++) {
        for (const std::string &end : ends) {
            for (const char *rest : {"", "b=2\n"}) {
                const std::string line = "a=" + std::string(length - 2, 'v');
                const std::string text = line + end + (end.empty() ? "" : rest);
                const bool fits = length + (end.empty() ? 0 : 1) <= 1024;
                EXPECT_EQ(load(CFGTYPE_ASSIGN, text), fits ? 0 : 22) << length << end;
                EXPECT_STREQ(message, fits ? "" : "Line is too long.");
                if (fits) {
                    const char *second = end.empty() || *rest == '\0' ? "" : ".<b>[2]";
                    EXPECT_EQ(list(), "<a>[" + line.substr(2) + "]" + second);
                }
            }
        }
    }
}

TEST_F(Cfg, BadFilesAreRefused)
{
    const struct {
        KovaCfgType_t type;
        std::string text;
        VoError_t status;
        const char *message;
    } cases[] = {
        {CFGTYPE_ASSIGN, std::string("a=1\n\0b", 6), 11, "Invalid character in file."},
        {CFGTYPE_ASSIGN, std::string("a=1\0", 4), 11, "Invalid character in file."},
        {CFGTYPE_ASSIGN, std::string("\0", 1), 11, "Invalid character in file."},
        {CFGTYPE_ASSIGN, std::string(1024, 'x') + std::string("\0", 1), 11,
         "Invalid character in file."},
        {CFGTYPE_ASSIGN, std::string(5000, 'x'), 22, "Line is too long."},
        {CFGTYPE_WORDS, "n" + repeated(" v", 65), 22, "Line 'n' has too many fields."},
        {CFGTYPE_VALUES, "v" + repeated("=v", 64), 22, "Line '(null)' has too many fields."},
    };
    for (const auto &c : cases) {
        const int descriptors = support::open_descriptors();
        cfg = reinterpret_cast<KovaCfg_t *>(1);
        support::write_file(path, c.text);
        EXPECT_EQ(KovaCfgOpen(path.c_str(), 1, c.type, &cfg, message, sizeof message), c.status);
        EXPECT_EQ(cfg, nullptr);
        EXPECT_STREQ(message, c.message);
        EXPECT_EQ(support::open_descriptors(), descriptors);
    }
    EXPECT_EQ(load(CFGTYPE_WORDS, "n" + repeated(" v", 64)), 0);

    KovaCfg_t *none = nullptr;
    EXPECT_EQ(KovaCfgOpen(dir.path().c_str(), 1, 2, &none, message, sizeof message), EISDIR);
    EXPECT_STREQ(message, "KOVA Cfg: Internal error reading cfg file (21)");
    const std::string fifo = dir / "fifo";
    mkfifo(fifo.c_str(), 0600);
    EXPECT_EQ(KovaCfgOpen(fifo.c_str(), 2, 2, &none, message, sizeof message), ESPIPE);
    EXPECT_STREQ(message, "KOVA Cfg: Internal Error: seek failed (29)");
    EXPECT_EQ(KovaCfgOpen("/nowhere", 1, 2, &none, message, 31), ENOENT);
    EXPECT_STREQ(message, "KOVA Cfg: Error(2) opening '/n");
    const std::string long_path = "/" + std::string(255, 'x');
    EXPECT_EQ(KovaCfgOpen(long_path.c_str(), 7, 2, &none, nullptr, 0), 22);
    EXPECT_EQ(KovaCfgOpen(nullptr, 7, 2, &none, nullptr, 0), 11);
    EXPECT_EQ(KovaCfgOpen(path.c_str(), 7, 2, nullptr, nullptr, 0), 11);
}

TEST_F(Cfg, EntriesAreInsertedFoundAndRemovedByPosition)
{
    ASSERT_EQ(load(CFGTYPE_WORDS, "b 1\n"), 0);
    EXPECT_EQ(insert(0, "a", {}), 0);
    EXPECT_EQ(insert(2, "c", {"2", "x"}, "note"), 0);
    EXPECT_EQ(insert(99, "d", {}), 0);
    EXPECT_EQ(insert(-1, nullptr, {"e"}), 0);
    EXPECT_EQ(insert(1, "a", {"9"}), 0);
    EXPECT_EQ(list(), "<a>.<a>[9].<b>[1].<c>[2][x](note).<d>.[e]");

    CfgEnt_t *found = nullptr;
    int index = 7;
    EXPECT_EQ(KovaCfgFind(cfg, "a", nullptr, nullptr, &found, &index), 0);
    EXPECT_EQ(index, 0);
    EXPECT_EQ(KovaCfgFind(cfg, "a", entry(1)->KovaCfgVals, nullptr, &found, &index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(KovaCfgFind(cfg, nullptr, nullptr, "note", &found, &index), 0);
    EXPECT_EQ(found, entry(3));
    EXPECT_EQ(KovaCfgFind(cfg, "A", nullptr, nullptr, &found, &index), 2);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(index, -1);
    EXPECT_EQ(KovaCfgFind(cfg, "b", nullptr, nullptr, nullptr, nullptr), 0);

    EXPECT_EQ(KovaCfgRemove(cfg, 1), 0);
    EXPECT_EQ(KovaCfgRemove(cfg, 4), 0);
    EXPECT_EQ(KovaCfgRemove(cfg, 4), 2);
    EXPECT_EQ(KovaCfgRemove(cfg, -1), 11);
    EXPECT_EQ(list(), "<a>.<b>[1].<c>[2][x](note).<d>");
    EXPECT_EQ(KovaCfgEnum(cfg, 4, &found), 2);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(KovaCfgEnum(nullptr, 0, &found), 11);
    EXPECT_EQ(KovaCfgNext(cfg, nullptr), 11);
}

TEST_F(Cfg, InsertedTextsFitIntoALine)
{
    ASSERT_EQ(load(CFGTYPE_WORDS, ""), 0);
    const std::string most(1023, 'x');
    const std::string more(1024, 'x');
    EXPECT_EQ(insert(-1, most.c_str(), {}), 0);
    EXPECT_EQ(insert(-1, "n", {most.substr(3).c_str(), ""}), 0);
    const std::string before = list();
    EXPECT_EQ(insert(-1, "n", {}, more.c_str()), 22);
    EXPECT_STREQ(message, "KOVA Cfg: Line is too long to insert into config file");
    EXPECT_EQ(insert(-1, more.c_str(), {}), 22);
    EXPECT_STREQ(message, "KOVA Cfg: : Line is too long to insert into config file (2)");
    EXPECT_EQ(insert(-1, "n", {most.substr(2).c_str(), ""}), 22);
    EXPECT_STREQ(message, "KOVA Cfg: Line is too long to insert into config file(3)");
    EXPECT_EQ(list(), before);
    EXPECT_EQ(insert(0, "n", std::vector<const char *>(70, "v")), 0);
    EXPECT_EQ(list().substr(0, 3 + 3 * 64 + 1), "<n>" + repeated("[v]", 64) + ".");
}

TEST_F(Cfg, ValuesAreInsertedAndDeleted)
{
    ASSERT_EQ(load(CFGTYPE_WORDS, "n a b # c\nserver1 4K x\n"), 0);
    const CfgEnt_t *other = entry(1);
    EXPECT_EQ(other->KovaCfgInts[0], 4096);
    EXPECT_EQ(other->KovaCfgIntsValid[0], 1);
    EXPECT_EQ(other->KovaCfgIntsValid[1], 0);
    EXPECT_EQ(KovaCfgRemove(cfg, 1), 0);
    CfgEnt_t *ent = entry(0);
    EXPECT_EQ(ent->_WorkBuffSz, 1025u);
    EXPECT_EQ(KovaCfgEntValInsert(ent, -1, "7"), 0);
    EXPECT_EQ(ent->KovaCfgInts[2], 7);
    EXPECT_EQ(KovaCfgEntValInsert(ent, 0, "new"), 0);
    EXPECT_EQ(KovaCfgEntValInsert(ent, 1, ent->KovaCfgVals[2]), 0);
    EXPECT_EQ(list(), "<n>[new][b][a][b][7](# c)");
    for (const int index : {6, -2, 64, INT32_MAX}) {
        EXPECT_EQ(KovaCfgEntValInsert(ent, index, "x"), 11);
    }
    EXPECT_EQ(KovaCfgEntValInsert(ent, 0, nullptr), 11);
    for (const int index : {5, -1, 64, INT32_MIN}) {
        KovaCfgEntValDelete(ent, index);
    }
    KovaCfgEntValDelete(ent, 1);
    KovaCfgEntValDelete(ent, 0);
    EXPECT_EQ(list(), "<n>[a][b][7](# c)");
    EXPECT_EQ(ent->KovaCfgInts[2], 7);
    EXPECT_EQ(ent->KovaCfgIntsValid[3], 0);
    while (KovaCfgEntValInsert(ent, -1, "v") == 0) {
    }
    EXPECT_EQ(list(), "<n>[a][b][7]" + repeated("[v]", 61) + "(# c)");
    EXPECT_EQ(KovaCfgEntValInsert(ent, -1, "v"), 22);
}

// A comment inside a value, and words joined by a vertical tab, share bytes in the line's buffer.
TEST_F(Cfg, TextsThatOverlapFitWhenTheyAreCopiedApart)
{
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "k=vvvvvvvvvv#" + std::string(980, 'c')), 0);
    EXPECT_EQ(KovaCfgEntValInsert(entry(0), -1, "x"), 0);
    ASSERT_EQ(load(CFGTYPE_WORDS, repeated("fourteen-chars\v", 60)), 0);
    const std::string before = list();
    EXPECT_EQ(KovaCfgEntValInsert(entry(0), -1, "x"), 0);
    EXPECT_EQ(list(), before + "[x]");
    KovaCfg_t *copy = nullptr;
    EXPECT_EQ(KovaCfgCopy(&copy, cfg, message, sizeof message), 22);
    EXPECT_EQ(copy, nullptr);
}

TEST_F(Cfg, CopiesCompareAlikeUntilTheyAreEdited)
{
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\nb=2 # c\n# @M=x\n"), 0);
    KovaCfg_t *copy = nullptr;
    ASSERT_EQ(KovaCfgCopy(&copy, cfg, nullptr, 0), 0);
    EXPECT_EQ(list_of(copy), "<a>[1].<b>[2 # c](# c).<@M>[x]");
    EXPECT_EQ(copy->KovaHndl, nullptr);
    EXPECT_EQ(KovaCfgCmp(cfg, copy), 0);
    EXPECT_EQ(KovaCfgEntValInsert(entry(0), -1, "3"), 0);
    EXPECT_EQ(KovaCfgCmp(cfg, copy), 1);
    KovaCfgEntValDelete(entry(0), 1);
    entry(1)->KovaCfgComment = nullptr;
    EXPECT_EQ(KovaCfgCmp(cfg, copy), 1);
    EXPECT_EQ(KovaCfgCmp(copy, cfg), 0); // what the second one lacks is not compared
    EXPECT_EQ(KovaCfgRemove(copy, 2), 0);
    EXPECT_EQ(KovaCfgCmp(copy, cfg), 1);
    EXPECT_EQ(KovaCfgCmp(cfg, nullptr), 1);
    EXPECT_EQ(KovaCfgCmp(nullptr, nullptr), 0);
    copy->KovaCfgPath[1] = '\x01';
    EXPECT_GT(KovaCfgCmp(cfg, copy), 0);
    EXPECT_LT(KovaCfgCmp(copy, cfg), 0);
    KovaCfgClose(&copy, 0, nullptr, 0);
}

TEST_F(Cfg, RunningOutOfMemoryChangesNothing)
{
    if (!CAN_FAIL_MEMORY) {
        GTEST_SKIP() << "the sanitizer owns the allocator";
    }
    ASSERT_EQ(load(CFGTYPE_WORDS, "a 1\n"), 0);
    const int descriptors = support::open_descriptors();
    KovaCfg_t *other = nullptr;
    const auto try_with = [&](int nth, auto &&operation, const char *expected) {
        message[0] = '\0';
        faults.memory_fails_at = nth;
        EXPECT_EQ(operation(), 20) << nth;
        EXPECT_STREQ(message, expected);
        EXPECT_EQ(other, nullptr);
        EXPECT_EQ(list(), "<a>[1]");
        EXPECT_EQ(support::open_descriptors(), descriptors);
    };
    const char *const text = "KOVA Cfg: Out of memory";
    const auto open_file = [&] {
        return KovaCfgOpen(path.c_str(), 1, CFGTYPE_WORDS, &other, message, sizeof message);
    };
    try_with(1, open_file, text); // the object; behind it the handle of the file, then two an entry
    for (int nth = 3; nth <= 6; nth++) {
        try_with(nth, open_file, text);
    }
    for (int nth = 1; nth <= 3; nth++) {
        try_with(
            nth, [&] { return KovaCfgCopy(&other, cfg, message, sizeof message); }, text);
    }
    for (int nth = 1; nth <= 2; nth++) {
        try_with(
            nth, [&] { return insert(0, "n", {}); }, text);
    }
    try_with(
        1, [&] { return KovaCfgEntValInsert(entry(0), 0, "v"); }, "");
}

TEST(ThreeState, ReadsYesAndNo)
{
    const std::pair<const char *, ThreeState_t> cases[] = {
        {"YES", THREEST_YES},    {"yes", THREEST_YES},      {"1", THREEST_YES},
        {"No", THREEST_NO},      {"0", THREEST_NO},         {"yess", THREEST_UNKNOWN},
        {"y", THREEST_UNKNOWN},  {"", THREEST_UNKNOWN},     {"true", THREEST_UNKNOWN},
        {"01", THREEST_UNKNOWN}, {nullptr, THREEST_UNKNOWN}};
    for (const auto &[text, state] : cases) {
        EXPECT_EQ(ThreeStateFmStr(text), state);
    }
}

TEST_F(Cfg, SavesWritesEachFormUnquoted)
{
    const struct {
        KovaCfgType_t type;
        const char *text;
        const char *saved;
    } cases[] = {
        {CFGTYPE_WORDS, "  a b\n\nk \"x y\" z # c\n#n\n", "a b\n# c\nk x y z\n#n\n"},
        {CFGTYPE_ASSIGN, "key=v # c\n# @Owner=adm\na=b=c\nname\n",
         "# c\nkey=v # c\n@Owner=adm\na=b\nname\n"},
        {CFGTYPE_VALUES, "a=b=c\n", "a b c\n"},
    };
    for (const auto &c : cases) {
        ASSERT_EQ(load(c.type, c.text), 0);
        EXPECT_EQ(save(), 0) << message;
        EXPECT_EQ(support::read_file(path), c.saved);
        EXPECT_FALSE(support::file_exists(path + "~"));
        EXPECT_NE(cfg->KovaHndl, nullptr);
    }
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\n"), 0);
    EXPECT_EQ(insert(0, nullptr, {}, "plain"), 0);
    EXPECT_EQ(KovaCfgClose(&cfg, 2, nullptr, 0), 0);
    EXPECT_EQ(support::read_file(path), "a=1\n");
    // Flags that ask for a new file do not stand in the way of the reopen, nor does a copy's lack
    // of a handle.
    unlink(path.c_str());
    ASSERT_EQ(KovaCfgOpen(path.c_str(), 15, CFGTYPE_ASSIGN, &cfg, nullptr, 0), 0);
    EXPECT_EQ(insert(0, "n", {"v"}, "plain"), 0);
    EXPECT_EQ(save(), 0) << message;
    KovaCfg_t *copy = nullptr;
    EXPECT_EQ(KovaCfgCopy(&copy, cfg, nullptr, 0), 0);
    EXPECT_EQ(KovaCfgClose(&copy, 1, nullptr, 0), 0);
    EXPECT_EQ(support::read_file(path), "# plain\nn=v\n");
}

TEST_F(Cfg, SavedListsReadBackAsTheyWere)
{
    std::mt19937 random(7);
    const auto word = [&] {
        std::string text;
        for (size_t length = 1 + random() % 12; length > 0; length--) {
            text += "abcXYZ019._-/:,\xc3\xa9"[random() % 17];
        }
        return text;
    };
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(load(CFGTYPE_WORDS, ""), 0);
        for (size_t entries = random() % 20; entries > 0; entries--) {
            std::vector<std::string> words(1 + random() % 64);
            std::vector<const char *> values;
            for (std::string &text : words) {
                text = word();
                values.push_back(text.c_str());
            }
            insert(static_cast<int>(random() % 10) - 1, word().c_str(), values);
        }
        const std::string before = list();
        ASSERT_EQ(KovaCfgClose(&cfg, 1, message, sizeof message), 0) << message;
        ASSERT_EQ(KovaCfgOpen(path.c_str(), 1, CFGTYPE_WORDS, &cfg, nullptr, 0), 0);
        EXPECT_EQ(list(), before);
    }
}

TEST_F(Cfg, LinesTooLongToReadBackAreNotSaved)
{
    const auto value = [](size_t length) { return std::string(length, 'v'); };
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "old=1\n"), 0);
    EXPECT_EQ(KovaCfgEntValInsert(entry(0), 0, value(1019).c_str()), 0);
    EXPECT_EQ(save(), 22);
    EXPECT_EQ(std::string(message).substr(0, 40), "KOVA Cfg: Line is too long 'old=vvvvvvvv");
    EXPECT_EQ(support::read_file(path), "old=1\n");
    EXPECT_NE(cfg->KovaHndl, nullptr);
    KovaCfgEntValDelete(entry(0), 0);
    EXPECT_EQ(KovaCfgEntValInsert(entry(0), 0, value(1018).c_str()), 0);
    EXPECT_EQ(insert(0, nullptr, {}, value(1021).c_str()), 0);
    EXPECT_EQ(insert(0, nullptr, {}, ("#" + value(1022)).c_str()), 0);
    EXPECT_EQ(save(), 0) << message;
    EXPECT_EQ(load(CFGTYPE_ASSIGN, support::read_file(path)), 0) << message;
    EXPECT_EQ(insert(0, nullptr, {}, value(1022).c_str()), 0);
    EXPECT_EQ(save(), 22);
}

TEST_F(Cfg, TakesTheFirstFreeTemporaryName)
{
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\n"), 0);
    const auto temp = [this](char letter) {
        return path + "~" + (letter != '\0' ? std::string(1, letter) : "");
    };
    support::write_file(temp('\0'), "x");
    faults.rename_error = EXDEV; // so that the temporary file stays to be seen
    EXPECT_EQ(save(), EXDEV);
    EXPECT_EQ(support::read_file(temp('a')), "a=1\n");
    EXPECT_EQ(support::read_file(path), "a=1\n");
    symlink("nowhere", temp('b').c_str());
    for (char letter = 'c'; letter <= 'z'; letter++) {
        support::write_file(temp(letter), "something longer");
    }
    EXPECT_EQ(save(), EXDEV);
    EXPECT_EQ(support::read_file(temp('z')), "a=1\n");
    EXPECT_EQ(support::read_file(temp('y')), "something longer");
    EXPECT_FALSE(support::file_exists(dir / "nowhere"));
}

TEST_F(Cfg, ASaveKeepsModeAndOwner)
{
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\n"), 0);
    chmod(path.c_str(), 0640);
    const bool privileged = geteuid() == 0;
    if (privileged) {
        ASSERT_EQ(chown(path.c_str(), 12, 34), 0);
    }
    EXPECT_EQ(save(), 0);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    if (privileged) {
        EXPECT_EQ(st.st_uid, 12u);
        EXPECT_EQ(st.st_gid, 34u);
        // Whoever may not give the file to its group does not give its rights to another one.
        chmod(dir.path().c_str(), 0777);
        chmod(path.c_str(), 04666);
        EXPECT_TRUE(support::run_in_child([&] {
                        return setgid(77) == 0 && setuid(77) == 0 && save() == 0 ? 0 : 1;
                    }).exited(0));
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_uid, 77u);
        EXPECT_EQ(st.st_mode & 07777, 0606u);
    }
}

// Lets the calls of a save fail one after the other.
TEST_F(Cfg, ACompleteTextIsOnDiskWhateverFails)
{
    const std::string old_text = "a=1\n";
    const std::string new_text = "# note\na=1\nb=2\n";
    const struct {
        std::string message;
        bool replaced;
        bool handle;
    } outcomes[] = {
        {"KOVA Cfg: Error opening " + path + "~", false, true},                 // open
        {"KOVA Cfg: Error writing " + path + "~", false, true},                 // the comment
        {"KOVA Cfg: Error writing to the configuration file (5)", false, true}, // the first entry
        {"KOVA Cfg: Error writing to the configuration file (5)", false, true}, // the second
        {"KOVA Cfg: Error writing to the configuration file (5)", false, true}, // fsync
        {"KOVA Cfg: Error closing temp configuration file (5)", false, true},   // close
        {"KOVA Cfg: Error closing configuration file (5)", false, false},       // close
        {"KOVA Cfg: Error renaming new copy of cfg file (5)", false, false},    // rename
        {"KOVA Cfg: Error reopening new copy of cfg file (5)", true, false},    // open
    };
    int call = 0;
    for (const auto &outcome : outcomes) {
        const int descriptors = support::open_descriptors();
        ASSERT_EQ(load(CFGTYPE_ASSIGN, old_text), 0);
        insert(-1, "b", {"2"});
        insert(0, nullptr, {}, "note");
        faults = {};
        faults.fail_at = ++call;
        EXPECT_EQ(save(), EIO) << call;
        EXPECT_EQ(message, outcome.message);
        EXPECT_EQ(cfg->KovaHndl != nullptr, outcome.handle) << call;
        EXPECT_EQ(support::read_file(path), outcome.replaced ? new_text : old_text) << call;
        faults = {};
        EXPECT_EQ(save(), 0) << message; // the object can be saved once the fault is gone
        EXPECT_EQ(support::read_file(path), new_text);
        EXPECT_NE(cfg->KovaHndl, nullptr);
        KovaCfgClose(&cfg, 0, nullptr, 0);
        EXPECT_EQ(support::open_descriptors(), descriptors);
        unlink((path + "~").c_str());
    }
}

TEST_F(Cfg, AFullDiskKeepsTheOldFileAndShortWritesAreContinued)
{
    for (long room = 0; room <= 19; room++) {
        const bool fits = room == 19;
        ASSERT_EQ(load(CFGTYPE_ASSIGN, "old=1\nname=2\n"), 0);
        insert(0, "new", {"1"});
        faults.disk_room = room;
        faults.bytes_at_once = 4;
        faults.armed = true;
        EXPECT_EQ(KovaCfgClose(&cfg, 1, message, sizeof message), fits ? 0 : ENOSPC);
        faults = {};
        EXPECT_EQ(cfg, nullptr);
        EXPECT_EQ(support::read_file(path), fits ? "new=1\nold=1\nname=2\n" : "old=1\nname=2\n");
        unlink((path + "~").c_str());
        EXPECT_STREQ(message, fits ? "" : "KOVA Cfg: Error writing to the configuration file (28)");
    }
}

TEST_F(Cfg, TheOldFileIsRemovedOnlyWhereRenamingOverItIsRefused)
{
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\n"), 0);
    insert(-1, "b", {"2"});
    faults.rename_error = EPERM;
    faults.unlink_error = EPERM;
    EXPECT_EQ(save(), EPERM);
    EXPECT_STREQ(message, "KOVA Cfg: Error removing old copy of cfg file(1)");
    EXPECT_EQ(support::read_file(path), "a=1\n");
    faults.unlink_error = 0;
    EXPECT_EQ(save(), EPERM);
    EXPECT_STREQ(message, "KOVA Cfg: Error renaming new copy of cfg file (1)");
    EXPECT_EQ(support::read_file(path + "~a"), "a=1\nb=2\n");
    EXPECT_EQ(cfg->KovaHndl, nullptr);
    // A refusal once, as by a file system that does not rename over a file.
    support::write_file(path, "a=1\n");
    faults = {};
    faults.error = EEXIST;
    faults.fail_at =
        5; // open, two writes, fsync, close, then the rename: there is no handle to close
    faults.fail_at = 6; // behind open, two writes, sync and close
    EXPECT_EQ(save(), 0) << message;
    EXPECT_EQ(support::read_file(path), "a=1\nb=2\n");
}
