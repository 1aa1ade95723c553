// block_reader_test.cpp - the example that reads files through the buffer cache.
#include "support/support.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace
{

class BlockReader : public ::testing::Test
{
  protected:
    BlockReader()
    {
        for (size_t i = 0; i < 300 * 512 + 100; i++) // the last block is a short one
            text_ += static_cast<char>(i * i % 251);
        support::write_file(one_, text_);
        support::write_file(two_, text_.substr(0, 1024));
    }
    support::Outcome run(std::vector<std::string> words) const
    {
        words.insert(words.begin(), {"block_reader", "-b", "512"});
        return support::run_in_child([&] {
            std::vector<char *> argv;
            argv.reserve(words.size() + 1);
            for (std::string &word : words)
                argv.push_back(word.data());
            argv.push_back(nullptr);
            execv(BLOCK_READER, argv.data());
            return 127;
        });
    }
    // Runs it and checks the status, and that each text is in what it prints.
    void expect(int status, std::vector<std::string> words,
                const std::vector<std::string> &texts) const
    {
        const support::Outcome outcome = run(std::move(words));
        EXPECT_TRUE(outcome.exited(status)) << outcome.out << outcome.err;
        for (const std::string &text : texts) {
            EXPECT_NE((outcome.out + outcome.err).find(text), std::string::npos)
                << text << " is not in\n"
                << outcome.out << outcome.err;
        }
    }

    support::TempDir dir_;
    std::string one_ = dir_ / "one";
    std::string two_ = dir_ / "two";
    std::string trace_ = dir_ / "trace";
    std::string text_;
};

TEST_F(BlockReader, CountsWhatAListAndATraceLookUp)
{
    expect(0, {"-t", "1", "-p", "0,1,302,0", one_, two_},
           {"303 blocks", "lookups             4", "hits                1", "misses              3",
            "3 blocks read, 0 written back, 0 wrong, 0 errors"});
    support::write_file(trace_, "0 2\n2\n0\n");
    expect(0, {"-t", "1", "-n", "2", "-p", "@" + trace_, one_},
           {"lookups             4", "hits                0", "ghost hits          1"});
}

TEST_F(BlockReader, ChangesReachTheFiles)
{
    expect(0, {"-n", "8", "-w", "100", "-t", "8", "-l", "3010", "-p", "scan", one_},
           {"changed          3010", " 0 wrong, 0 errors"});
    for (size_t at = 0; at < text_.size(); at += 512)
        text_[at] = static_cast<char>(text_[at] + 10);
    EXPECT_EQ(support::read_file(one_), text_);
    for (const char *pattern : {"zipf", "mixed"}) {
        expect(0, {"-n", "20", "-w", "30", "-l", "5000", "-p", pattern, one_, two_},
               {"changed          1500", " 0 wrong, 0 errors"});
    }
}

TEST_F(BlockReader, RefusesWhatItCannotRead)
{
    support::write_file(dir_ / "empty", "");
    for (const char *pattern : {"", "301", "1,,2", "@/none"})
        expect(2, {"-p", pattern, one_}, {"block_reader: "});
    for (const char *trace :
         {"0 302\n", "5\nx\n", "-3\n", "0 1 2\n", "99999999999999999999\n", ""}) {
        support::write_file(trace_, trace);
        expect(2, {"-p", "@" + trace_, one_}, {*trace ? "trace: line " : "nothing to look up"});
    }
    expect(2, {"-n", "0", one_}, {"-n takes a number from 1 to"});
    expect(2, {"-t", "3x", one_}, {"-t takes a number from 1 to 256"});
    expect(2, {dir_.path()}, {"no regular file"});
    expect(2, {dir_ / "empty"}, {"no blocks"});
    expect(2, {dir_ / "none"}, {"No such file"});
    expect(2, {}, {"which files?"});
}

} // namespace
