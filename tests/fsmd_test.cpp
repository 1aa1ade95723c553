// fsmd_test.cpp - the example daemon as a whole: watched, asked, reloaded, crashed, stopped. Load
// and peers that are slow or cut are the torture harness's.
#include "../examples/block_store.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

constexpr int blocks = 64;

// One connection to the daemon, over IPv4 or IPv6.
class Client
{
  public:
    explicit Client(uint16_t port, bool six = false)
    {
        in46addr_t address = in6addr_loopback;
        if (!six) {
            inet_pton(AF_INET6, "::ffff:127.0.0.1", &address);
        }
        int error = 0;
        socket_.reset(SockConnect(&address, port, &error));
    }
    bool connected() const { return static_cast<bool>(socket_); }
    void send_text(const std::string &text)
    {
        EXPECT_EQ(send(socket_.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    // The next answer: the body, the line "ERR ...", or "" at the end of the connection.
    std::string answer()
    {
        size_t end;
        while ((end = received_.find('\n')) == std::string::npos && receive()) {
        }
        const std::string head = take(std::min(end, received_.size()));
        take(1);
        const bool good = head.rfind("OK ", 0) == 0;
        const size_t size = good ? std::stoul(head.substr(3)) : 0;
        while (received_.size() < size && receive()) {
        }
        return good ? take(size) : head;
    }
    std::string ask(const std::string &request)
    {
        send_text(request + "\n");
        return answer();
    }

  private:
    std::string take(size_t size)
    {
        const std::string text = received_.substr(0, size);
        received_.erase(0, size);
        return text;
    }
    bool receive()
    {
        char bytes[8192];
        const ssize_t got = recv(socket_.get(), bytes, sizeof bytes, 0);
        received_.append(bytes, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        return got > 0;
    }

    ko::Descriptor socket_;
    std::string received_;
};

bool is_block(const std::string &body, uint64_t number)
{
    Block block = {};
    memcpy(&block, body.data(), std::min(body.size(), sizeof block));
    return body.size() == sizeof block && block.is(number);
}

// An installation with a running daemon, the children of this process.
class Fsmd : public ::testing::Test
{
  protected:
    Fsmd()
    {
        prctl(PR_SET_CHILD_SUBREAPER, 1);
        std::filesystem::create_directories(dir_ / "config");
        support::write_file(dir_ / "config/fsmlist", "data1 . 5\nhome\n");
        support::write_file(dir_ / "config/fsports", "minport 23000\nmaxport 23999\n");
        support::write_file(dir_ / "config/vars", "FSMD_PATIENCE=3\n");
    }
    ~Fsmd() override
    {
        if (watcher_ > 0) { // after a failure
            kill(watcher_, SIGKILL);
            waitpid(watcher_, nullptr, 0);
            int pid; // who was its child is this process's now
            FILE *children = fopen("/proc/thread-self/children", "re");
            while (children != nullptr && fscanf(children, "%d", &pid) == 1) {
                kill(pid, SIGKILL);
                waitpid(pid, nullptr, 0);
            }
            if (children != nullptr) {
                fclose(children);
            }
        }
    }

    void start()
    {
        const std::string program = example("fsmd");
        const pid_t pid = fork();
        if (pid == 0) {
            setenv("VORNROOT", dir_.path().c_str(), 1);
            execl(program.c_str(), "/some/where/fsmd", "-o", "blocks=64,cached=16,debug=request",
                  "data1", nullptr);
            _exit(99);
        }
        int status = -1;
        waitpid(pid, &status, 0);
        ASSERT_EQ(status, 0) << program;
        meet();
    }
    static std::string example(const std::string &name)
    {
        return std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../examples" / name;
    }
    // What the command-line client prints, behind its exit status.
    std::string fsmctl(const std::string &arguments) const
    {
        const std::string command =
            "VORNROOT=" + dir_.path() + " " + example("fsmctl") + " " + arguments + " 2>&1";
        FILE *pipe = popen(command.c_str(), "re");
        char text[4096];
        const size_t got = fread(text, 1, sizeof text, pipe);
        return std::to_string(WEXITSTATUS(pclose(pipe))) + " " + std::string(text, got);
    }
    // Waits until the daemon answers, and notes who it is.
    void meet()
    {
        const std::string port_file = dir_ / "data/data1.port";
        ASSERT_TRUE(within_seconds(30, [&] { return support::file_exists(port_file); }));
        port_ = static_cast<uint16_t>(std::stoi(support::read_file(port_file)));
        Client client(port_);
        const std::string state = client.ask("STATE");
        ASSERT_EQ(sscanf(state.c_str(), "file_system data1\nblocks 64\npid %d\nwatcher %d",
                         &daemon_, &watcher_),
                  2)
            << state;
    }
    template <typename Condition>
    static bool within_seconds(int seconds, const Condition &condition)
    {
        for (int i = 0; i < seconds * 100; i++) {
            if (condition()) {
                return true;
            }
            usleep(10'000);
        }
        return condition();
    }
    // Collects both processes; the watcher must have ended well.
    void expect_gone()
    {
        int status = -1;
        EXPECT_TRUE(within_seconds(30, [&] { return waitpid(watcher_, &status, WNOHANG) != 0; }));
        EXPECT_EQ(status, 0);
        waitpid(daemon_, nullptr, WNOHANG);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1);
        EXPECT_EQ(errno, ECHILD);
        watcher_ = daemon_ = 0;
        for (const auto &entry : std::filesystem::recursive_directory_iterator(dir_.path())) {
            const std::string name = entry.path().filename();
            EXPECT_TRUE(name.find('~') == std::string::npos &&
                        name.find(".port") == std::string::npos)
                << name;
        }
    }
    int count_in_log(const std::string &what) const
    {
        const std::string text = support::read_file(dir_ / "fsmd-data1.log");
        int count = 0;
        for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at++) {
            count++;
        }
        return count;
    }

    support::TempDir dir_;
    uint16_t port_ = 0;
    pid_t daemon_ = 0;
    pid_t watcher_ = 0;
};

} // namespace

TEST_F(Fsmd, AnswersRefusesAndReloads)
{
    ASSERT_NO_FATAL_FAILURE(start());
    Client six(port_, true);
    EXPECT_TRUE(!six.connected() || is_block(six.ask("GET 63"), 63));
    const std::string bad_requests[] = {
        "",         "GET",
        "GET -1",   "GET 64",
        "GET 1x",   "GET 18446744073709551616",
        "state",    "STATE ",
        "\x01\xff", std::string("\0GET 1", 6),
    };
    for (const auto &request : bad_requests) {
        Client client(port_);
        EXPECT_EQ(client.ask(request), "ERR what is that?") << request;
        EXPECT_TRUE(is_block(client.ask("GET 1"), 1));
        EXPECT_EQ(client.ask("QUIT"), "");
        EXPECT_EQ(client.answer(), "");
    }
    Client endless(port_);
    EXPECT_EQ(endless.ask(std::string(300, 'x')), "ERR request too long");
    EXPECT_EQ(endless.answer(), "");

    support::write_file(dir_ / "config/fsmlist", "data1 . 7\nhome\nmedia . 2\n");
    std::filesystem::last_write_time(dir_ / "config/fsmlist",
                                     std::filesystem::file_time_type::clock::now() +
                                         std::chrono::seconds(5));
    kill(watcher_, SIGHUP);
    EXPECT_TRUE(within_seconds(10, [&] { return count_in_log("read again") == 1; }));
    {
        Client client(port_);
        EXPECT_EQ(client.ask("LIST"), "data1 7\nhome 0\nmedia 2\n");
        EXPECT_NE(client.ask("STATS").find("\nbad_requests 11\n"), std::string::npos);
    }
    kill(daemon_, SIGTERM); // the watcher would not end if the daemon ended badly
    expect_gone();
    EXPECT_EQ(count_in_log("refused"), 10);
    EXPECT_EQ(count_in_log("SL_EVT_COMM_FAIL"), 1); // one for each client and hour
    EXPECT_EQ(count_in_log("stopped after"), 1);
}

TEST_F(Fsmd, ComesBackAfterACrashAndStopsWithItsWatcher)
{
    ASSERT_NO_FATAL_FAILURE(start());
    const pid_t first = daemon_;
    support::write_file(dir_ / "data/data1.port", "0\n");
    kill(first, SIGKILL);
    ASSERT_TRUE(
        within_seconds(30, [&] { return support::read_file(dir_ / "data/data1.port") != "0\n"; }));
    ASSERT_NO_FATAL_FAILURE(meet());
    EXPECT_NE(daemon_, first);
    Client client(port_, false);
    EXPECT_TRUE(is_block(client.ask("GET 63"), 63));

    EXPECT_EQ(fsmctl("data1 list"), "0 data1 5\nhome 0\n");
    EXPECT_EQ(fsmctl("data1 get 0 63"), "0 block 0: 4096 bytes, as they should be\n"
                                        "block 63: 4096 bytes, as they should be\n");
    EXPECT_EQ(fsmctl("data1 get 64"), "1 fsmctl: block 64: ERR what is that?\n");
    EXPECT_EQ(fsmctl("-s [::1]:1 data1 state").rfind("1 fsmctl: ::1 port 1: ", 0), 0u);
    EXPECT_EQ(fsmctl("data1 load 3 300").rfind("0 300 blocks over 3 connections, all right", 0),
              0u);
    EXPECT_EQ(fsmctl("data1 sing").rfind("2 usage", 0), 0u);
    kill(watcher_, SIGTERM);
    expect_gone();
    EXPECT_EQ(client.answer(), "");
}
