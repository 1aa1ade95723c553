// fsmlist_test.cpp - the list of file systems: entries, edits, saves, and changes by other
// processes.
#include "koutil/fsmlist.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

using namespace std::string_literals;

namespace
{

// The configuration directory is looked up once per process.
const std::string &config_dir()
{
    static support::TempDir dir;
    setenv("VORNCONF", dir.path().c_str(), 1);
    return dir.path();
}

class FsmList : public ::testing::Test
{
  protected:
    ~FsmList() override
    {
        FsmListClose(&list, 0);
        rmdir(path.c_str());
        unlink(path.c_str());
    }

    void open_with(const std::string &text)
    {
        FsmListClose(&list, 0);
        change(text);
        ASSERT_EQ(FsmListOpen(&list, 7), 0);
    }

    // Writes the file as another process would, at a new modification time.
    void change(const std::string &text)
    {
        support::write_file(path, text);
        touch();
    }

    void touch()
    {
        now += 2;
        const timespec times[] = {{now, 0}, {now, 0}};
        utimensat(AT_FDCWD, path.c_str(), times, 0);
    }

    static FsmListEnt_t entry(const std::string &name, int priority,
                              const std::string &comment = "")
    {
        FsmListEnt_t ent = {};
        memcpy(ent.FsmName, name.data(), std::min(name.size(), sizeof ent.FsmName));
        memcpy(ent.Comment, comment.data(), std::min(comment.size(), sizeof ent.Comment));
        ent.Priority = priority;
        return ent;
    }

    VoError_t insert(int index, const std::string &name, int priority = 0,
                     const std::string &comment = "")
    {
        const FsmListEnt_t ent = entry(name, priority, comment);
        return FsmListInsert(list, index, &ent);
    }

    std::string names() const
    {
        std::string all;
        FsmListEnt_t ent;
        for (int i = 0; FsmListRead(list, i, &ent) == 0; i++) {
            all += (i > 0 ? " " : "") + std::string(ent.FsmName);
        }
        return all;
    }

    const std::string path = config_dir() + "/fsmlist";
    FsmListHndl_t *list = nullptr;
    time_t now = 1700000000;
};

} // namespace

TEST_F(FsmList, ReadsPriorityMarkerAndComment)
{
    open_with("data1 . 5\ndata2\ndata3 . -470\ndata4 x 40000 4294967301 # see\n# alone\ndata5 0 7\n"
              "data6 . 1K " +
              std::string(100, '#') + "\n" + std::string(300, 'n') + " . 3\n");
    FsmListEnt_t ent;
    int index = 0;
    for (const std::string &expected :
         {"data1/5/0/"s, "data2/0/0/"s, "data3/0/1/"s, "data4/5/0/# see"s, "/0/0/# alone"s,
          "data5/0/0/"s, "data6/1024/0/" + std::string(79, '#'), std::string(255, 'n') + "/3/0/"}) {
        ASSERT_EQ(FsmListRead(list, index, &ent), 0);
        EXPECT_EQ(ent.Index, index++);
        EXPECT_EQ(ent.FsmName + "/"s + std::to_string(ent.Priority) + "/" +
                      std::to_string(ent.Compatibility) + "/" + ent.Comment,
                  expected);
    }
    EXPECT_EQ(FsmListRead(list, index, &ent), 2);
    EXPECT_EQ(FsmListRead(list, -1, &ent), 11);
    EXPECT_EQ(FsmListFind(list, "data4", &ent), 0);
    EXPECT_EQ(ent.Index, 3);
    EXPECT_EQ(FsmListFind(list, std::string(400, 'n').c_str(), &ent), 0);
    EXPECT_EQ(FsmListFind(list, "DATA4", &ent), 2);
    EXPECT_EQ(ent.Index, -1);
    EXPECT_STREQ(ent.FsmName, "");
}

TEST_F(FsmList, EditsReachTheFileWhenSaved)
{
    open_with("b\n");
    EXPECT_EQ(insert(0, "data1", 5, "c"), 0);
    EXPECT_EQ(insert(-1, "d", 32767), 0);
    EXPECT_EQ(insert(1, std::string(256, 'x'), 0, std::string(80, 'y')), 0);
    EXPECT_EQ(insert(0, "no", 32768), 11);
    EXPECT_EQ(insert(0, "no", -5), 11);
    FsmListEnt_t ent = entry("new", 1);
    EXPECT_EQ(FsmListModify(list, 2, &ent), 0);
    EXPECT_EQ(FsmListModify(list, 4, &ent), 2);
    ent.Priority = 40000;
    EXPECT_EQ(FsmListModify(list, 0, &ent), 11);
    const std::string x(255, 'x');
    EXPECT_EQ(names(), "data1 " + x + " new d");
    EXPECT_EQ(support::read_file(path), "b\n");
    EXPECT_EQ(FsmListIsModified(list), 1);
    EXPECT_EQ(FsmListSave(list), 0);
    EXPECT_EQ(FsmListIsModified(list), 0);
    EXPECT_EQ(support::read_file(path),
              "# c\ndata1 . 5\n# " + std::string(79, 'y') + "\n" + x + "\nnew . 1\nd . 32767\n");
    EXPECT_EQ(FsmListDelete(list, 1), 0);
    EXPECT_EQ(FsmListClose(&list, 1), 0);
    open_with(support::read_file(path));
    EXPECT_EQ(names(), " data1 new d"); // the comment is an entry of its own now
    EXPECT_EQ(FsmListFind(list, "data1", &ent), 0);
    EXPECT_EQ(ent.Priority, 5);
}

TEST_F(FsmList, RefreshKeepsUnsavedEditsAndLoadsChanges)
{
    open_with("a\n");
    EXPECT_EQ(FsmListRefresh(list), 0);
    EXPECT_EQ(insert(-1, "b"), 0);
    touch();
    EXPECT_EQ(FsmListRefresh(list), 6);
    EXPECT_EQ(names(), "a b");
    EXPECT_EQ(FsmListSave(list), 0);
    EXPECT_TRUE(support::run_in_child([] { return FsmListAddName("theirs"); }).exited(0));
    touch();
    EXPECT_EQ(FsmListRefresh(list), 0);
    EXPECT_EQ(names(), "a b theirs");
    unlink(path.c_str());
    EXPECT_EQ(FsmListRefresh(list), 0);
    EXPECT_EQ(names(), "");
    EXPECT_TRUE(support::file_exists(path));
}

TEST_F(FsmList, AHandleWithoutAListSurvivesEveryCall)
{
    open_with("a\n");
    unlink(path.c_str());
    mkdir(path.c_str(), 0755);
    touch();
    FsmListEnt_t ent = entry("b", 0);
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(FsmListRefresh(list), EISDIR);
        EXPECT_EQ(FsmListRead(list, 0, &ent), 11);
        EXPECT_EQ(FsmListFind(list, "a", &ent), 11);
        EXPECT_EQ(ent.Index, -1);
        EXPECT_EQ(FsmListInsert(list, 0, &ent), 11);
        EXPECT_EQ(FsmListModify(list, 0, &ent), 11);
        EXPECT_EQ(FsmListDelete(list, 0), 11);
        EXPECT_EQ(FsmListSave(list), 11);
        EXPECT_EQ(FsmListIsModified(list), 0);
    }
    EXPECT_EQ(FsmListAddName("x"), -1);
    FsmListHndl_t *other = nullptr;
    rmdir(path.c_str());
    EXPECT_EQ(FsmListOpen(&other, 1), ENOENT);
    EXPECT_EQ(FsmListRefresh(list), 0); // the list comes back with the file
    EXPECT_EQ(insert(0, "back"), 0);
    EXPECT_EQ(FsmListClose(&list, 1), 0);
    EXPECT_EQ(support::read_file(path), "back\n");
}

TEST_F(FsmList, AddNameAddsOnce)
{
    const std::string long_name(300, 'n');
    for (int round = 0; round < 2; round++) {
        EXPECT_EQ(FsmListAddName("data1"), 0);
        EXPECT_EQ(FsmListAddName(long_name.c_str()), 0);
        EXPECT_EQ(FsmListAddName("data2"), 0);
    }
    EXPECT_EQ(support::read_file(path), "data1\n" + long_name.substr(0, 255) + "\ndata2\n");
    EXPECT_EQ(FsmListAddName(nullptr), -1);
}
