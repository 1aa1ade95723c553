// private_host.h - a throw-away process with a network, a host name and a resolver of its own.
#ifndef KOUTIL_TESTS_PRIVATE_HOST_H
#define KOUTIL_TESTS_PRIVATE_HOST_H

#include "support/support.h"

#include <string>

namespace support
{

// Runs `body` as run_in_child does, in network, mount and host-name namespaces of its own, with the
// loopback interface up and the host name "mynode". Exits with kRefused where the kernel refuses
// that or the program `ip` is missing.
constexpr int kRefused = 77;
Outcome run_in_private_host(const std::function<int()> &body);

// Ends a test that needs what this host refuses.
#define SKIP_IF_REFUSED(outcome)                                                                   \
    if ((outcome).exited(support::kRefused)) {                                                     \
        GTEST_SKIP() << "no private network here, the kernel side is not tested "                  \
                     << (outcome).err;                                                             \
    }

// Runs the commands, one a line; stops the process at the first that fails.
void run_commands(const std::string &lines);

// Makes the texts of a hosts file all that the resolver of a private host knows.
void set_hosts(const std::string &hosts);

} // namespace support

#endif
