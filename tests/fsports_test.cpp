// fsports_test.cpp - the port ranges file: its values, its reports and where they go.
#include "koutil/fsports.h"
#include "koutil/logger.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdarg>
#include <syslog.h>
#include <unistd.h>

namespace
{

std::string reports;

void record(int type, char *text)
{
    reports += std::to_string(type) + " " + text;
}

// The three results as one text; the reports go to `reports`.
std::string read(int verbose)
{
    uint16_t ports[3] = {7, 7, 7};
    reports.clear();
    genportrange(&ports[0], &ports[1], &ports[2], verbose);
    return std::to_string(ports[0]) + " " + std::to_string(ports[1]) + " " +
           std::to_string(ports[2]);
}

} // namespace

// Takes the place of the system log for the library too.
extern "C" void syslog(int priority, const char *format, ...)
{
    char text[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    reports += (priority == LOG_INFO      ? "info "
                : priority == LOG_WARNING ? "warning "
                                          : "?") +
               std::string(text);
}

TEST(FsPorts, ReadsValuesAndReportsWhatItIgnores)
{
    const support::TempDir dir;
    std::string config = dir.path(); // longer than any fixed buffer for a path
    for (int i = 0; i < 3; i++) {
        config += "/" + std::string(100, 'c');
        ASSERT_EQ(system(("mkdir " + config).c_str()), 0);
    }
    setenv("VORNCONF", config.c_str(), 1);
    const std::string top = "2 fsports: max port set to 65535\n";
    const auto invalid = [](const std::string &value, const std::string &line) {
        return "2 fsports: Invalid value (" + value + ") specified on line " + line +
               " - ignored.\n";
    };
    const struct {
        std::string text;
        const char *ports;
        std::string reports;
        int verbose = 0;
        void (*hook)(int, char *) = record;
    } cases[] = {
        {"", "0 0 0", ""},
        {"minport 20000\nmaxport 20100\naltpmap 9\n", "20000 20100 9",
         "0 fsports: min port set to 20000\n0 fsports: max port set to 20100\n"
         "0 fsports: altpmap port set to 9\n",
         1},
        {"minport 5%s\nmaxport %s", "5 65535 0",
         "info fsports: min port set to 5\n"
         "warning fsports: Invalid value (0) specified on line 2 - ignored.\n"
         "warning fsports: max port set to 65535\n",
         1, nullptr},
        {"MINPORT 0x4E20\nMaxPort\t047040 junk", "20000 20000 0", ""},
        {"minport 20000\n", "20000 65535 0", top},
        {"minport 20000\nmaxport 100\n", "20000 65535 0", top},
        {"maxport 100\n", "1 100 0", ""},
        {"altpmap 1\naltpmap 65535\r\n", "0 0 65535", ""},
        {"minport 70000\nminport 0\nminport x\nminport 99999999999999999999\n", "0 0 0",
         invalid("70000", "1") + invalid("0", "2") + invalid("0", "3") + invalid("-1", "4")},
        {"port 5\nport\n", "0 0 0",
         "2 fsports: Unsupported directive 'port' on line 1\n"
         "2 fsports: Unsupported directive 'port' on line 2\n"},
        {"# c\n\n  \t\n#minport 5\nminport \n minport 9 \n", "9 65535 0",
         "2 fsports: No value recognized on line 5 - ignored.\n" + top},
        {"#" + std::string(253, 'x') + "altpmap 77\nport 5\n", "0 0 77",
         "2 fsports: Unsupported directive 'port' on line 3\n"},
    };
    for (const auto &each : cases) {
        support::write_file(config + "/fsports", each.text);
        WriteLog = each.hook;
        EXPECT_EQ(read(each.verbose), each.ports) << each.text;
        EXPECT_EQ(reports, each.reports) << each.text;
    }

    // One end alone is not completed, a missing file means no range.
    WriteLog = record;
    support::write_file(config + "/fsports", "minport 5\n");
    reports.clear();
    uint16_t port = 7;
    genportrange(&port, nullptr, nullptr, 0);
    EXPECT_EQ(port, 5);
    ASSERT_EQ(unlink((config + "/fsports").c_str()), 0);
    genportrange(nullptr, nullptr, &port, 1);
    EXPECT_EQ(port, 0);
    EXPECT_EQ(reports, "");
    EXPECT_EQ(read(1), "0 0 0");
    EXPECT_EQ(reports, "1 No fsports file - port range enforcement disabled.\n");
    WriteLog = nullptr;
    read(1);
    EXPECT_EQ(reports, "");
}
