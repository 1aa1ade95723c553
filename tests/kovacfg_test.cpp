// kovacfg_test.cpp - the keyword configuration file: what lines mean, how lists are edited, and
// what a save writes where. The torture harness lets each of its system calls fail.
#include "koutil/kovacfg.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>
#include <vector>

using namespace std::string_literals;

namespace
{

std::string renamed; // what was renamed last
unsigned refused;    // a bit for each rename to come

} // namespace

extern "C" int rename(const char *from, const char *to) noexcept
{
    renamed = from;
    errno = EPERM;
    const bool fails = (std::exchange(refused, refused >> 1) & 1) != 0;
    return fails ? -1 : static_cast<int>(syscall(SYS_rename, from, to));
}

namespace
{

class Cfg : public ::testing::Test
{
  protected:
    ~Cfg() override { KovaCfgClose(&cfg, 0, nullptr, 0); }

    // Loads `text`; the message of a failure stands in `message`.
    VoError_t load(KovaCfgType_t type, const std::string &text)
    {
        KovaCfgClose(&cfg, 0, nullptr, 0);
        support::write_file(path, text);
        message[0] = '\0';
        return KovaCfgOpen(path.c_str(), KOVA_OPEN_RDWR, type, &cfg, message, sizeof message);
    }

    VoError_t save()
    {
        message[0] = '\0';
        return KovaCfgSave(cfg, message, sizeof message);
    }

    // The whole list: <name>[value]...(comment), with '@' in front of metadata and '.' between
    // entries.
    static std::string list_of(KovaCfg_t *of)
    {
        std::string text;
        CfgEnt_t *ent = nullptr;
        while (KovaCfgNext(of, &ent) == 0) {
            text += ent != TAILQ_FIRST(&of->CfgEntHead) ? "." : "";
            text += ent->IsMetaData != 0 ? "@" : "";
            text += ent->KovaCfgName != nullptr ? "<" + std::string(ent->KovaCfgName) + ">" : "";
            for (size_t i = 0; i < 64 && ent->KovaCfgVals[i] != nullptr; i++) {
                text += "[" + std::string(ent->KovaCfgVals[i]) + "]";
            }
            const char *comment = ent->KovaCfgComment;
            text += comment != nullptr ? "(" + std::string(comment) + ")" : "";
        }
        return text;
    }
    std::string list() const { return list_of(cfg); }

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

    // Loads texts, each given as "text -> list".
    void expect_lists(KovaCfgType_t type, std::initializer_list<std::string> cases)
    {
        for (const std::string &c : cases) {
            const size_t arrow = c.find(" -> ");
            ASSERT_EQ(load(type, c.substr(0, arrow)), 0) << c << message;
            EXPECT_EQ(list(), c.substr(arrow + 4)) << c;
        }
    }

    support::TempDir dir;
    std::string path = dir / "file";
    KovaCfg_t *cfg = nullptr;
    char message[256] = "";
};

std::string repeated(const std::string &text, int times)
{
    return times == 0 ? "" : text + repeated(text, times - 1);
}

} // namespace

TEST_F(Cfg, LinesMeanWhatTheirFormSays)
{
    expect_lists(CFGTYPE_WORDS,
                 {"server1 10 x\n -> <server1>[10][x]", "  a b -> [a][b]",
                  "a\t \tb = c==d\n -> <a>[b][c][d]", "key \"a b\" c\n -> <key>[a b][c]",
                  "key val # note\n -> <key>[val](# note)", "k v# n\n -> <k>[v# n](# n)",
                  "a\vb c\n -> <a\vb>[b][c]", "k \" a\"\n -> <k>[ a]", "k \"=x\" y\n -> <k>[y]",
                  "a \"\" b\n -> <a>[\" b]", "k \"# c\" d\n -> <k>(# c\" d)",
                  "k a\"b c\"d\n -> <k>[a\"b c][d]", "\"a b\" c\n -> <a b>[c]",
                  "k \x93x y\x94 z\n -> <k>[x y][z]", "k \"a\nb \"c\n -> <k>[a].<b>[c]",
                  "k \"\nb\n -> <k>.<b>", "k \" -> <k>", "   \n -> ",
                  "# @a b=c d\n -> @<@a b>[c d]",
                  "# @Owner adm \"x y\" z\n -> @<@Owner adm \"x y>[ z]",
                  // The second byte of this UTF-8 letter is a quote.
                  "n \xc3\x94 x\n -> <n>[\xc3\x94 x]"});
    expect_lists(
        CFGTYPE_ASSIGN,
        {"name = value\n -> <name >[ value]", "key=v # c\n -> <key>[v # c](# c)",
         "name=value#x # y\n -> <name>[value#x # y](#x # y)", "# just a note\n -> (# just a note)",
         "# @Owner=adm\n -> @<@Owner>[adm]", "name=v # @Owner=adm\n -> @<@Owner>[v # @Owner][adm]",
         "#@x\n#  @y\n -> (#@x).(#  @y)", "k=\"\"\n -> <k>[\"]", "a==b\n=x\ny=\n -> <a>[b].[x].<y>",
         " -> ", "\r\n\n\na=1\n\n\r\r\nb=2\r\n\r\n -> .<a>[1].<b>[2]",
         "a=1" + std::string(3000, '\n') + "b=2 -> <a>[1].<b>[2]",
         std::string(3000, '\r') + "b=2\n -> .<b>[2]"});
    expect_lists(CFGTYPE_VALUES,
                 {"a b=c # d\n -> [a b][c # d](# d)", "# @Owner=adm\n -> @<@Owner>[adm]"});
    expect_lists(77, {"a=b\n -> [a][b]"});
}

TEST_F(Cfg, LinesOfEveryLengthAroundTheLimit)
{
    for (size_t length = 1018; length <= 1030; length++) {
        for (const std::string end : {"", "\n", "\r\n", "\n\n\n", "\nb=2\n", "\r\n\nb=2\n"}) {
            const std::string value(length - 2, 'v');
            const bool fits = length + (end.empty() ? 0 : 1) <= 1024;
            EXPECT_EQ(load(CFGTYPE_ASSIGN, "a=" + value + end), fits ? 0 : 22) << length << end;
            EXPECT_STREQ(message, fits ? "" : "Line is too long.");
            const char *second = end.find('b') != std::string::npos ? ".<b>[2]" : "";
            EXPECT_EQ(list(), fits ? "<a>[" + value + "]" + second : "");
        }
    }
}

TEST_F(Cfg, BadFilesAreRefused)
{
    const int descriptors = support::open_descriptors();
    const struct {
        KovaCfgType_t type;
        std::string text;
        VoError_t status;
        const char *message;
    } cases[] = {
        {CFGTYPE_ASSIGN, "a=1\n\0b"s, 11, "Invalid character in file."},
        {CFGTYPE_ASSIGN, "a=1\0"s, 11, "Invalid character in file."},
        {CFGTYPE_ASSIGN, "\0"s, 11, "Invalid character in file."},
        {CFGTYPE_ASSIGN, std::string(1024, 'x') + "\0"s, 11, "Invalid character in file."},
        {CFGTYPE_WORDS, "n" + repeated(" v", 65), 22, "Line 'n' has too many fields."},
        {CFGTYPE_VALUES, "v" + repeated("=v", 64), 22, "Line '(null)' has too many fields."},
        {CFGTYPE_WORDS, "n" + repeated(" v", 64), 0, ""},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(load(c.type, c.text), c.status);
        EXPECT_EQ(cfg != nullptr, c.status == 0);
        EXPECT_STREQ(message, c.message);
        EXPECT_EQ(support::open_descriptors(), descriptors + (c.status == 0 ? 1 : 0));
    }
    KovaCfg_t *none = cfg;
    EXPECT_EQ(KovaCfgOpen(dir.path().c_str(), 1, 2, &none, message, sizeof message), EISDIR);
    EXPECT_STREQ(message, "KOVA Cfg: Internal error reading cfg file (21)");
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(KovaCfgOpen("/nowhere", 1, 2, &none, message, 31), ENOENT);
    EXPECT_STREQ(message, "KOVA Cfg: Error(2) opening '/n");
    const std::string long_path = "/" + std::string(255, 'x');
    EXPECT_EQ(KovaCfgOpen(long_path.c_str(), 7, 2, &none, nullptr, 0), 22);
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
    EXPECT_EQ(KovaCfgFind(cfg, "a", entry(1)->KovaCfgVals, nullptr, &found, &index), 0);
    EXPECT_EQ(index, 1);
    EXPECT_EQ(KovaCfgFind(cfg, nullptr, nullptr, "note", &found, nullptr), 0);
    EXPECT_EQ(found, entry(3));
    EXPECT_EQ(KovaCfgFind(cfg, "A", nullptr, nullptr, &found, &index), 2);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(index, -1);

    EXPECT_EQ(KovaCfgRemove(cfg, 1), 0);
    EXPECT_EQ(KovaCfgRemove(cfg, 4), 0);
    EXPECT_EQ(KovaCfgRemove(cfg, 4), 2);
    EXPECT_EQ(KovaCfgRemove(cfg, -1), 11);
    EXPECT_EQ(list(), "<a>.<b>[1].<c>[2][x](note).<d>");
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
    EXPECT_EQ(list(), "<n>" + repeated("[v]", 64) + "." + before);
}

TEST_F(Cfg, ValuesAreInsertedAndDeleted)
{
    ASSERT_EQ(load(CFGTYPE_WORDS, "n 4K x # c\n"), 0);
    CfgEnt_t *ent = entry(0);
    EXPECT_EQ(ent->KovaCfgInts[0], 4096);
    EXPECT_EQ(ent->KovaCfgIntsValid[0], 1);
    EXPECT_EQ(ent->KovaCfgIntsValid[1], 0);
    EXPECT_EQ(KovaCfgEntValInsert(ent, -1, "7"), 0);
    EXPECT_EQ(KovaCfgEntValInsert(ent, 0, "new"), 0);
    EXPECT_EQ(KovaCfgEntValInsert(ent, 1, ent->KovaCfgVals[2]), 0); // a text of its own
    EXPECT_EQ(list(), "<n>[new][x][4K][x][7](# c)");
    for (const int index : {6, -2, 64, INT32_MAX}) {
        EXPECT_EQ(KovaCfgEntValInsert(ent, index, "x"), 11);
    }
    for (const int index : {5, -1, 64, INT32_MIN, 1, 0}) {
        KovaCfgEntValDelete(ent, index);
    }
    EXPECT_EQ(list(), "<n>[4K][x][7](# c)");
    EXPECT_EQ(ent->KovaCfgInts[2], 7);
    EXPECT_EQ(ent->KovaCfgIntsValid[4], 0);
    while (KovaCfgEntValInsert(ent, -1, "v") == 0) {
    }
    EXPECT_EQ(list(), "<n>[4K][x][7]" + repeated("[v]", 61) + "(# c)");
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
    KovaCfg_t *copy = cfg;
    EXPECT_EQ(KovaCfgCopy(&copy, cfg, message, sizeof message), 22);
    EXPECT_EQ(copy, nullptr);
}

TEST_F(Cfg, CopiesCompareAlikeUntilTheyAreEdited)
{
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\nb=2 # c\n# @M=x\n"), 0);
    KovaCfg_t *copy = nullptr;
    ASSERT_EQ(KovaCfgCopy(&copy, cfg, nullptr, 0), 0);
    EXPECT_EQ(list_of(copy), "<a>[1].<b>[2 # c](# c).<@M>[x]");
    EXPECT_EQ(KovaCfgCmp(cfg, copy), 0);
    EXPECT_EQ(KovaCfgEntValInsert(entry(0), -1, "3"), 0);
    EXPECT_EQ(KovaCfgCmp(cfg, copy), 1);
    KovaCfgEntValDelete(entry(0), 1);
    entry(1)->KovaCfgComment = nullptr;
    EXPECT_EQ(KovaCfgCmp(cfg, copy), 1);
    EXPECT_EQ(KovaCfgCmp(copy, cfg), 0); // what the second one lacks is not compared
    EXPECT_EQ(KovaCfgRemove(copy, 2), 0);
    EXPECT_EQ(KovaCfgCmp(copy, cfg), 1);
    copy->KovaCfgPath[1] = '\x01';
    EXPECT_GT(KovaCfgCmp(cfg, copy), 0);
    EXPECT_LT(KovaCfgCmp(copy, cfg), 0);
    KovaCfgClose(&copy, 0, nullptr, 0);
}

TEST(ThreeState, ReadsYesAndNo)
{
    const std::pair<const char *, int> cases[] = {{"YES", 1},  {"yes", 1}, {"1", 1},
                                                  {"No", 2},   {"0", 2},   {"y", 0},
                                                  {"yess", 0}, {"", 0},    {"01", 0}};
    for (const auto &[text, state] : cases) {
        EXPECT_EQ(ThreeStateFmStr(text), state) << text;
    }
}

TEST_F(Cfg, SavesWriteEachFormUnquoted)
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
    EXPECT_EQ(insert(0, nullptr, {}, "plain"), 0);
    EXPECT_EQ(KovaCfgClose(&cfg, 2, nullptr, 0), 0); // 2 does not save
    EXPECT_EQ(support::read_file(path), "a b c\n");
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
    support::write_file(path + "~", "x");
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(renamed, path + "~a");
    EXPECT_EQ(symlink("nowhere", (path + "~a").c_str()), 0);
    for (char letter = 'b'; letter <= 'z'; letter++) {
        support::write_file(path + "~" + letter, "something longer");
    }
    EXPECT_EQ(save(), 0);
    EXPECT_EQ(renamed, path + "~z"); // which is overwritten
    EXPECT_EQ(support::read_file(path), "a=1\n");
    EXPECT_EQ(support::read_file(path + "~"), "x");
    EXPECT_EQ(support::read_file(path + "~y"), "something longer");
    EXPECT_FALSE(support::file_exists(dir / "nowhere"));
}

TEST_F(Cfg, ASaveKeepsModeAndOwner)
{
    ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\n"), 0);
    chmod(path.c_str(), 0640);
    const bool privileged = geteuid() == 0 && chown(path.c_str(), 12, 34) == 0;
    EXPECT_EQ(save(), 0);
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    EXPECT_EQ(st.st_uid, privileged ? 12u : geteuid());
    EXPECT_EQ(st.st_gid, privileged ? 34u : getegid());
}

TEST_F(Cfg, TheOldFileIsMovedAsideOnlyWhereRenamingOverItIsRefused)
{
    const std::pair<unsigned, const char *> cases[] = {
        {0b1, ""},
        {0b11, "KOVA Cfg: Error removing old copy of cfg file(1)"},
        {0b101, "KOVA Cfg: Error renaming new copy of cfg file (1)"},
    };
    for (const auto &[refusals, text] : cases) {
        ASSERT_EQ(load(CFGTYPE_ASSIGN, "a=1\n"), 0);
        KovaCfgEntValDelete(entry(0), 0);
        EXPECT_EQ(KovaCfgEntValInsert(entry(0), 0, "2"), 0);
        const bool replaced = *text == '\0';
        refused = refusals;
        EXPECT_EQ(save(), replaced ? 0 : EPERM);
        EXPECT_STREQ(message, text);
        EXPECT_EQ(support::read_file(path), replaced ? "a=2\n" : "a=1\n");
        EXPECT_EQ(support::read_file(path + "~"), replaced ? "" : "a=2\n");
        EXPECT_FALSE(support::file_exists(path + "~~"));
        unlink((path + "~").c_str());
    }
}
