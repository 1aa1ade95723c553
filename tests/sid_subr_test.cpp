// sid_subr_test.cpp - security identifiers: both forms, ids, root identities.
#include "koutil/sid_subr.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace
{

std::vector<unsigned char> binary(const std::string &text)
{
    // On the heap with the exact room, so that a byte too many is seen by the address sanitizer.
    std::unique_ptr<unsigned char[]> out(new unsigned char[SID_BINARY_SIZE]);
    const int length = binary_sid(text.c_str(), out.get());
    EXPECT_EQ(issid(text.c_str()), length);
    return {out.get(), out.get() + length};
}

std::string text_of(std::vector<unsigned char> sid)
{
    char text[SID_TEXT_SIZE];
    ascii_sid(sid.data(), text);
    return text;
}

std::string repeated(const std::string &piece, int times)
{
    return times == 0 ? "" : piece + repeated(piece, times - 1);
}

} // namespace

TEST(Sid, TextAndBinaryFormsAgree)
{
    EXPECT_EQ(binary("S-1-5-18"),
              (std::vector<unsigned char>{1, 1, 0, 0, 0, 0, 0, 5, 0x12, 0, 0, 0}));
    EXPECT_EQ(binary("s-1-1099511627776"), (std::vector<unsigned char>{1, 0, 1, 0, 0, 0, 0, 0}));
    const std::pair<const char *, const char *> texts[] = {
        {"S-1-5-21-1-2-3-4294967295", "S-1-5-21-1-2-3-4294967295"},
        {"S-255-281474976710655", "S-255-281474976710655"},
        {"S-1x-5y-18", "S-1-5-18"},
        {"S-1-", "S-1-0"},
        {"S--", "S-0-0"},
        {"S-257-5--4294967297", "S-1-5-0-1"},
    };
    for (const auto &[given, strict] : texts) {
        EXPECT_EQ(text_of(binary(given)), strict);
    }
    for (const char *text : {"X-1-5", "S-1", "S", "", "S1-5", "-1-5"}) {
        EXPECT_TRUE(binary(text).empty()) << text;
    }
    char text[12];
    ascii_sid(nullptr, text);
    EXPECT_STREQ(text, "Invalid SID");
}

TEST(Sid, MoreSubAuthoritiesThanTheBufferHoldsAreRefused)
{
    EXPECT_EQ(binary("S-1-5" + repeated("-7", 64)).size(), size_t{SID_BINARY_SIZE});
    unsigned char untouched = 0xEE;
    EXPECT_EQ(binary_sid(("S-1-5" + repeated("-7", 65)).c_str(), &untouched), 0);
    EXPECT_EQ(untouched, 0xEE);
    std::vector<unsigned char> longest(8 + 4 * 255, 0xFF);
    EXPECT_EQ(text_of(longest), "S-255-281474976710655" + repeated("-4294967295", 255));
}

TEST(Sid, IdsMapToRidsAndBack)
{
    uint32_t rid = 5;
    int group = 5;
    EXPECT_EQ(uid2rid(2147483148, &rid), -1);
    EXPECT_EQ(gid2rid(2147483148, &rid), -1);
    EXPECT_EQ(rid, 5u);
    EXPECT_EQ(uid2rid(2147483147, &rid), 0);
    EXPECT_EQ(rid, 4294967294u);
    EXPECT_EQ(gid2rid(2147483147, &rid), 0);
    EXPECT_EQ(rid, 4294967295u);
    EXPECT_EQ(rid2id(rid, &group), 2147483147u);
    EXPECT_EQ(group, 1);
    EXPECT_EQ(rid2id(1000, &group), 0u);
    EXPECT_EQ(group, 0);
    EXPECT_EQ(rid2id(998, nullptr), 0x7FFFFFFFu);
}

TEST(Sid, RootIdentities)
{
    const struct {
        const char *sid;
        int local, directory;
    } cases[] = {{"S-1-5-18", 1, 1},  {"s-1-5-18", 1, 1},   {"S-1-5-21-1-2-3-1000", 1, 0},
                 {"S-1-5-500", 0, 1}, {"S-1-5-1001", 0, 0}, {"root", 0, 0},
                 {"", 0, 0}};
    for (const auto &c : cases) {
        EXPECT_EQ(isrootsid(c.sid, 0), c.local) << c.sid;
        EXPECT_EQ(isrootsid(c.sid, 1), c.directory) << c.sid;
    }
    char sid[32];
    rootsid(sid, "S-1-5-21-1-2-3", 1);
    EXPECT_STREQ(sid, "S-1-5-21-1-2-3-500");
    rootsid(sid, nullptr, 0);
    EXPECT_STREQ(sid, "S-1-5-18");
}

TEST(Sid, LittleEndianBytes)
{
    unsigned char bytes[] = {0xFE, 0xDC, 0xBA, 0x98};
    unsigned char back[6] = {};
    uint16_t two = 0;
    uint32_t four = 0;
    voGetshortLittleEndian(bytes, &two);
    voGetlongLittleEndian(bytes, &four);
    EXPECT_EQ(two, 0xDCFE);
    EXPECT_EQ(four, 0x98BADCFEu);
    voPutshortLittleEndian(&two, back);
    voPutlongLittleEndian(&four, back + 2);
    EXPECT_EQ(memcmp(back, "\xFE\xDC\xFE\xDC\xBA\x98", 6), 0);
}
