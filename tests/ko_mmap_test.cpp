// ko_mmap_test.cpp - mapping of a file region by path.
#include "koutil/ko_mmap.h"
#include "koutil/logger.h"
#include "support/support.h"

#include <gtest/gtest.h>

TEST(KoMmap, MapsAnExistingFileAndSaysWhyNot)
{
    const support::TempDir dir;
    const std::string path = dir / "f";
    const int open_before = support::open_descriptors();
    support::write_file(path, std::string(8192, 'a'));
    char why[KO_MMAP_ERR_SIZE] = "x";
    EXPECT_EQ(my_mmap((path + "g").c_str(), 0, 4096, why), nullptr);
    EXPECT_EQ(why, "my_mmap: cannot open '" + path + "g' - error 2");
    EXPECT_EQ(my_mmap(std::string(300, 'n').c_str(), 0, 1, why), nullptr);
    EXPECT_EQ(std::string(why).size(), sizeof why - 1);
    EXPECT_EQ(my_mmap(path.c_str(), 5, 4096, why), nullptr);
    EXPECT_EQ(why, "my_mmap: cannot map file '" + path + "' - error 22 start 5 size 4096!\n");
    char *map = static_cast<char *>(my_mmap(path.c_str(), 4096, 4096, why));
    ASSERT_NE(map, nullptr) << why;
    EXPECT_STREQ(why, "");
    EXPECT_EQ(support::open_descriptors(), open_before);
    map[1] = 'b';
    EXPECT_EQ(my_munmap(map + 1, 4096, 0, why), -1);
    EXPECT_STREQ(why, "my_munmap: munmap returned -1");
    EXPECT_EQ(my_munmap(map, 4096, 1, why), 0);
    EXPECT_STREQ(why, "");
    EXPECT_EQ(support::read_file(path).substr(4095, 4), "aaba");
}

TEST(KoMmap, ANegativeLastTimeIsTheCallersError)
{
    const auto outcome = support::run_in_child([] {
        setenv("KOVA_CHECKED_BUILD", "0", 1);
        WriteLog = [](int type, char *text) { printf("%d %.25s\n", type, text); };
        char why[KO_MMAP_ERR_SIZE] = "";
        const int status = my_munmap(nullptr, 1, -1, why);
        printf("%d %s", status, why);
        return 0;
    });
    EXPECT_NE(outcome.out.find("3 ERROR (libutil/ko_mmap:"), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("\n22 my_munmap: unexpected value for last_time: -1"),
              std::string::npos);
}
