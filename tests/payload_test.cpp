// payload_test.cpp - hexadecimal dumps.
#include "koutil/payload.h"
#include "support/support.h"

#include <gtest/gtest.h>

namespace
{

std::string dump(const std::string &bytes, int space, int do_skip, unsigned offset)
{
    const auto *data = reinterpret_cast<const unsigned char *>(bytes.data());
    const auto size = static_cast<unsigned>(bytes.size());
    return support::capture(1, [&] { dump_payload(stdout, space, do_skip, data, size, offset); });
}

} // namespace

TEST(Payload, LaysOutLines)
{
    EXPECT_EQ(dump("", 4, 0, 0), "");
    EXPECT_EQ(dump("a", 0, 0, 256), " 0100:  61 |a\n");
    EXPECT_EQ(dump("ab\n", 3, 0, 0xffff), "   ffff:  6162 0a |ab.\n");
    EXPECT_EQ(dump("a", -35, 0, 0x10000), std::string(35, ' ') + "10000:  61 |a\n");
    EXPECT_EQ(dump("0123456789 ~\x7f\x1f\x80\xff" + std::string("abcd"), 1, 1, 0xfffffff0),
              " fffffff0:  3031 3233 3435 3637 3839 207e 7f1f 80ff  |0123456789 ~....\n"
              " 0000:  6162 6364  |abcd\n");
}

TEST(Payload, CollapsesRunsOfZeroLines)
{
    const std::string zeros(16, '\0');
    const std::string text = "################";
    const std::string marker = "         .........\n";
    const std::string hash = "2323 2323 2323 2323 2323 2323 2323 2323  |################\n";
    const std::string zero = "0000 0000 0000 0000 0000 0000 0000 0000  |................\n";
    EXPECT_EQ(dump(text + zeros + text, 2, 1, 0),
              "  0000:  " + hash + "  0010:  " + zero + "  0020:  " + hash);
    EXPECT_EQ(dump(zeros + zeros + zeros + "x", 2, 1, 0),
              "  0000:  " + zero + marker + "  0030:  78 |x\n");
    EXPECT_EQ(dump(text + zeros + zeros.substr(3), 2, 1, 0),
              "  0000:  " + hash + "  0010:  " + zero);
    EXPECT_EQ(dump(zeros + zeros, 2, 0, 0), "  0000:  " + zero + "  0010:  " + zero);
}
