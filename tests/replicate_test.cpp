// replicate_test.cpp - the example that copies a tree: whole, broken off anywhere, and hostile.
#include "koutil/koutil.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

std::string program()
{
    char path[4096];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    const std::string self(path, static_cast<size_t>(length));
    return self.substr(0, self.rfind('/')) + "/../examples/replicate";
}

bool run(const std::string &command)
{
    return system(command.c_str()) == 0;
}

int connect_to(int port)
{
    in46addr_t loopback = IN6ADDR_ANY_INIT;
    memcpy(&loopback.s6_addr[10], "\xff\xff\x7f\0\0\1", 6);
    int error;
    return SockConnect(&loopback, static_cast<uint16_t>(port), &error);
}

// A receiver process and the directory it fills.
class Receiver
{
  public:
    explicit Receiver(const std::string &directory)
    {
        mkdir(directory.c_str(), 0700);
        output_ = popen(
            ("timeout 100 " + program() + " receive " + directory + " 0 2>/dev/null").c_str(), "r");
        EXPECT_EQ(sscanf(line().c_str(), "listening on port %d", &port), 1);
    }
    // The next line that the receiver prints.
    std::string line()
    {
        char text[512] = "";
        return fgets(text, sizeof text, output_) != nullptr ? text : "";
    }
    int exit_code() { return WEXITSTATUS(pclose(output_)); }
    int port = 0;

  private:
    FILE *output_;
};

class Replicate : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        if (access(program().c_str(), X_OK) != 0) {
            GTEST_SKIP() << "the examples are not built";
        }
        ASSERT_TRUE(run("cd " + dir.path() +
                        " && mkdir -p src/a/b/c src/empty src/ro && echo f >src/ro/f &&"
                        " chmod 500 src/ro && ln -s ../../nowhere src/a/link && : >src/zero &&"
                        " head -c 2500001 /dev/urandom >src/big && ln -s src way && printf 'x y' "
                        ">'src/a/with blank' &&"
                        " touch \"src/a/b/$(printf 'n%.0s' $(seq 255))\" && mkdir out"));
    }
    std::string same(const std::string &target)
    {
        return "diff -r --no-dereference " + dir / "src" + " " + target;
    }
    std::string send_to(const std::string &targets)
    {
        return program() + " send -t 20 -p " + dir / "progress" + " " + dir / "way" + " " +
               targets + " >/dev/null 2>&1";
    }
    // The bytes that the sender sends for the tree.
    std::string whole_stream()
    {
        SOCKET_T listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0), none = -1;
        const int port = BindSame(&listener, &none, 0, 0);
        EXPECT_EQ(listen(listener, 1), 0);
        FILE *sender = popen(send_to("127.0.0.1:" + std::to_string(port)).c_str(), "r");
        const int sock = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        std::string bytes, piece(65536, '\0');
        for (ssize_t got; (got = read(sock, piece.data(), piece.size())) > 0;) {
            bytes.append(piece, 0, static_cast<size_t>(got));
        }
        close(sock);
        close(listener);
        EXPECT_NE(pclose(sender), 0) << "nobody replied";
        return bytes;
    }
    support::TempDir dir;
};

} // namespace

TEST_F(Replicate, SeveralTargetsGetTheSameTree)
{
    Receiver one(dir / "one"), two(dir / "two");
    ASSERT_TRUE(run(send_to("127.0.0.1:" + std::to_string(one.port) +
                            " localhost:" + std::to_string(two.port))));
    EXPECT_EQ(one.exit_code() + two.exit_code(), 0);
    EXPECT_TRUE(run(same(dir / "one") + " && " + same(dir / "two")));
    const auto kept = [&](const char *tree) {
        return "\"$(stat -c '%a %y' " + dir / tree + "/ro/f)\"";
    };
    EXPECT_TRUE(run("test " + kept("src") + " = " + kept("one")));
    const std::string progress = support::read_file(dir / "progress");
    EXPECT_NE(progress.find("Phase: Complete\nProgress: 100.00\nStatus: Success\n"),
              std::string::npos);
}

TEST_F(Replicate, AStreamThatBreaksOffAnywhereLeavesOnlyWholeFiles)
{
    const std::string bytes = whole_stream();
    const size_t whole = bytes.size();
    ASSERT_GT(whole, 2500001u);
    Receiver receiver(dir / "out");
    std::vector<size_t> cuts = {0, 1, 31, 32, 33, whole / 2, whole - 1};
    for (size_t cut = 80; cut < 900; cut += 97) {
        cuts.insert(cuts.end(), {cut, whole - cut});
    }
    for (size_t cut : cuts) {
        const int sock = connect_to(receiver.port);
        ASSERT_EQ(send(sock, bytes.data(), cut, MSG_NOSIGNAL), static_cast<ssize_t>(cut));
        close(sock);
        ASSERT_EQ(receiver.line().substr(0, 11), "broken off:") << cut;
        ASSERT_FALSE(run(same(dir / "out") + " | grep -v 'Only in " + dir / "src" + "'")) << cut;
        ASSERT_TRUE(run("rm -rf " + dir / "out" + "/*"));
    }
    ASSERT_TRUE(run(send_to("127.0.0.1:" + std::to_string(receiver.port))));
    EXPECT_EQ(receiver.exit_code(), 0);
    EXPECT_TRUE(run(same(dir / "out")));
}

TEST_F(Replicate, NamesThatLeaveTheDirectoryEndTheStream)
{
    struct Case {
        uint16_t type;
        const char *name;
    };
    const Case cases[] = {{18, ".."},     {18, "."}, {18, "../evil"},  {18, "trap"},
                          {1, "../evil"}, {1, ""},   {1, "/tmp/evil"}, {1, "a/../../evil"}};
    ASSERT_EQ(mkdir((dir / "outside").c_str(), 0700), 0);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_EQ(symlink((dir / "outside").c_str(), (dir / "out/trap").c_str()), 0);
        Receiver receiver(dir / "out");
        rep_stream_t *out = create_rep_out_stream();
        assign_rep_target_sync(out, connect_to(receiver.port));
        const char tag[16] = {};
        rep_file_t root = {}, inside = {};
        root.rep_inode_inum = root.rep_parent_inum = inside.rep_parent_inum = 2;
        inside.rep_inode_inum = 3;
        const inode_id_t in_root = {2, 0, 0}, in_trap = {3, 0, 0};
        ExtendedStat_t stat = {};
        stat.sr_nt_sd_key = 1;
        send_rep_header(out, nullptr, 1, 0, 1, 1);
        send_file_ns(out, 18, "", &root, 2, 0, 0700);
        send_sd_mapping(out, 1, reinterpret_cast<const uint8_t *>("0600"), 4);
        if (c.type == 18) {
            send_file_ns(out, 18, c.name, &inside, 3, 0, 0700);
        }
        send_file_header(out, 1, c.type == 18 ? "evil" : c.name, c.type == 18 ? &in_trap : &in_root,
                         1, &stat, nullptr, 1, 1);
        send_blob_record(out, 0, 0, 0, tag);
        const rep_stats_t none = {};
        send_rep_command_sync(out, 100, reinterpret_cast<const uint8_t *>(&none), sizeof none);
        EXPECT_EQ(receiver.exit_code(), 1);
        cleanup_rep_stream(out, 0);
        EXPECT_TRUE(run("test ! -e " + dir / "evil" + " && test -z \"$(ls " + dir / "outside" +
                        ")\" && test ! -e /tmp/evil"));
        ASSERT_TRUE(run("rm -rf " + dir / "out" + "/*"));
    }
}
