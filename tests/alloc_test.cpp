// alloc_test.cpp - aligned memory and the report of failures, with a clock of the test's own.
#include "koutil/alloc.h"
#include "koutil/voras.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

namespace
{

time_t now = 1000;
std::vector<std::string> events;
char file[] = "caller.cpp";

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t too_much = SIZE_MAX - 10; // no malloc: theirs may end the process
#else
constexpr size_t too_much = PTRDIFF_MAX;
#endif

VoError_t record(char *event, char *text, uint32_t, uint32_t)
{
    EXPECT_STREQ(event, "SL_EVT_SYS_RES_FAIL");
    events.emplace_back(strstr(text, "]: ") + 3);
    if (events.size() == 1) { // a sink may itself run out of memory
        EXPECT_EQ(MyMemalign(8, too_much, file, 99), nullptr);
    }
    return 0;
}

} // namespace

extern "C" time_t time(time_t *result)
{
    return result != nullptr ? *result = now : now;
}

TEST(Memalign, AlignsAndRemembersTheBlock)
{
    for (size_t alignment : {8, 16, 64, 4096}) {
        for (size_t size : {0, 1, 100, 5000}) {
            void *block = MyMemalign(alignment, size, file, 1);
            ASSERT_NE(block, nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignment, 0u);
            memset(block, 0xff, size);
            sys_ptr_t start;
            memcpy(&start, static_cast<char *>(block) - 8, 8);
            EXPECT_LE(static_cast<uintptr_t>(start) + 8, reinterpret_cast<uintptr_t>(block));
            MyFree(block, nullptr, 0);
        }
    }
}

TEST(Memalign, ReportsFailuresAtMostOnceInThreeHundredSeconds)
{
    RasFn = record;
    EXPECT_EQ(MyMemalign(16, SIZE_MAX, file, 12), nullptr); // the sum of the sizes wraps
    now += 10;
    EXPECT_EQ(MyMemalign(16, too_much, file, 34), nullptr);
    now += 290; // exactly 300 seconds after the report
    MyFree(MyMemalign(8, 1, file, 1), file, 1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], "Memory allocation of -1 bytes failed: file 'caller.cpp' line 12 total "
                         "memory failure count 1");
    now += 1;
    MyFree(MyMemalign(8, 1, file, 1), file, 1); // any call reports, also one that succeeds
    ASSERT_EQ(events.size(), 2u);
    EXPECT_NE(events[1].find("line 34 total memory failure count 3"), std::string::npos);
    now += 1000;
    EXPECT_EQ(MyMemalign(SIZE_MAX - 7, 0, file, 56), nullptr); // of 0 bytes: not counted
    EXPECT_EQ(events.size(), 2u);
}

TEST(Memalign, RefusesASmallAlignment)
{
    const auto outcome =
        support::run_in_child([] { return MyMemalign(4, 1, file, 1) != nullptr ? 0 : 1; });
    EXPECT_TRUE(outcome.crashed());
    EXPECT_NE(outcome.err.find("ASSERT failed \"alignsize >= MY_MINALIGN\" file libutil/alloc,"),
              std::string::npos);
}

TEST(PinnedMemory, IsZeroedAndAlignedToAPage)
{
    for (size_t size : {1, 100, 70000}) {
        auto *bytes = static_cast<char *>(AllocAndPinMemory(size));
        ASSERT_NE(bytes, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % 4096, 0u);
        EXPECT_EQ(std::string(bytes, size), std::string(size, '\0'));
        free(bytes);
    }
}
