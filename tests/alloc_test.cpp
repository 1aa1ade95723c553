// alloc_test.cpp - aligned memory and the report of failures, with a clock of the test's own.
#include "koutil/alloc.h"
#include "koutil/voras.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstring>
#include <ctime>
#include <vector>

namespace
{

time_t now = 1000;
std::vector<std::string> events;
char file[] = "caller.cpp";

VoError_t record(char *event, char *text, uint32_t, uint32_t)
{
    EXPECT_STREQ(event, "SL_EVT_SYS_RES_FAIL");
    events.emplace_back(strstr(text, "]: ") + 3);
    if (events.size() == 1) { // a sink may itself run out of memory
        EXPECT_EQ(MyMemalign(8, SIZE_MAX, file, 99), nullptr);
    }
    return 0;
}

} // namespace

extern "C" time_t time(time_t *)
{
    return now;
}

TEST(Memalign, AlignsZeroesPagesAndRefusesASmallAlignment)
{
    for (size_t alignment : {8, 16, 64, 4096}) {
        for (size_t size : {0, 1, 5000}) {
            void *block = MyMemalign(alignment, size, file, 1);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0u);
            memset(block, 0xff, size);
            MyFree(block, nullptr, 0);
        }
    }
    auto *pages = static_cast<char *>(AllocAndPinMemory(70000));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(pages) % 4096, 0u);
    EXPECT_EQ(std::string(pages, 70000), std::string(70000, '\0'));
    free(pages);
    const auto child = support::run_in_child([] { return MyMemalign(4, 1, file, 1) == nullptr; });
    EXPECT_NE(child.err.find("\"alignsize >= MY_MINALIGN\" file libutil/alloc,"),
              std::string::npos);
}

TEST(Memalign, ReportsFailuresAtMostOnceInThreeHundredSeconds)
{
    RasFn = record;
    EXPECT_EQ(MyMemalign(16, SIZE_MAX, file, 12), nullptr);
    now += 300; // still quiet: the sink's own failure waits for the next second
    MyFree(MyMemalign(8, 1, file, 1), file, 1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], "Memory allocation of -1 bytes failed: file 'caller.cpp' line 12 total "
                         "memory failure count 1");
    now += 1;
    MyFree(MyMemalign(8, 1, file, 1), file, 1); // any call reports, also one that succeeds
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NE(events[1].find("line 99 total memory failure count 2"), std::string::npos);
    now += 1000;
    EXPECT_EQ(MyMemalign(SIZE_MAX - 7, 0, file, 56), nullptr); // of 0 bytes: not counted
    EXPECT_EQ(events.size(), 2u);
}
