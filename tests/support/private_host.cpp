// private_host.cpp - a throw-away process with a network, a host name and a resolver of its own.
#include "support/private_host.h"

#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace support
{

namespace
{

bool enter_namespaces()
{
    constexpr int kNamespaces = CLONE_NEWNET | CLONE_NEWNS | CLONE_NEWUTS;
    const uid_t uid = getuid();
    if (unshare(kNamespaces) != 0) {
        if (unshare(kNamespaces | CLONE_NEWUSER) != 0) {
            return false;
        }
        write_file("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1");
    }
    return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           sethostname("mynode", 6) == 0 && system("ip link set lo up 2>/dev/null") == 0;
}

// Puts an empty file of this process's own over a file of /etc.
void cover(const char *path)
{
    char name[] = "/tmp/koutil-cover.XXXXXX";
    close(mkstemp(name));
    const bool covered = mount(name, path, nullptr, MS_BIND, nullptr) == 0;
    unlink(name);
    if (!covered) {
        perror(path);
        _exit(kRefused);
    }
}

} // namespace

Outcome run_in_private_host(const std::function<int()> &body)
{
    return run_in_child([&] { return enter_namespaces() ? body() : kRefused; });
}

void run_commands(const std::string &lines)
{
    if (system(("set -e\n" + lines).c_str()) != 0) {
        fprintf(stderr, "failed: %s\n", lines.c_str());
        fflush(nullptr);
        _exit(99);
    }
}

void set_resolver(const std::string &hosts, const std::string &sources)
{
    static bool covered = false;
    const std::pair<const char *, std::string> files[] = {
        {"/etc/hosts", hosts},
        {"/etc/nsswitch.conf", "hosts: " + sources + "\n"},
        {"/etc/resolv.conf", "nameserver 127.0.0.1\noptions timeout:1 attempts:1\n"}};
    for (const auto &[path, text] : files) {
        if (!covered) {
            cover(path);
        }
        write_file(path, text);
    }
    covered = true;
}

NameServer::NameServer()
    : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(53);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(socket_, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        perror("bind");
        _exit(99);
    }
    thread_ = std::thread([this] { serve(); });
}

NameServer::~NameServer()
{
    shutdown(socket_, SHUT_RDWR);
    thread_.join();
    close(socket_);
}

void NameServer::serve()
{
    for (;;) {
        unsigned char message[512];
        sockaddr_in from;
        socklen_t length = sizeof from;
        const ssize_t got = recvfrom(socket_, message, sizeof message, 0,
                                     reinterpret_cast<sockaddr *>(&from), &length);
        if (got < 13) {
            return;
        }
        queries_++;
        const std::string name(reinterpret_cast<char *>(message) + 13, message[12]);
        const bool exists = name.rfind("nodata", 0) == 0;
        const bool fails = name.rfind("fail", 0) == 0;
        message[2] = static_cast<unsigned char>(message[2] | 0x80); // an answer,
        message[3] = fails ? 0x82 : exists ? 0x80 : 0x83;           // with this outcome
        memset(message + 6, 0, 6);                                  // and no record behind it
        sendto(socket_, message, static_cast<size_t>(got), 0, reinterpret_cast<sockaddr *>(&from),
               length);
    }
}

} // namespace support
