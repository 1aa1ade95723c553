// xxhash_test.cpp - published vectors of the hashes, through the linked library.
#include "koutil/xxhash.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

namespace
{

std::vector<unsigned char> bytes_to_hash(size_t count)
{
    std::vector<unsigned char> bytes(count);
    for (size_t i = 0; i < count; i++) {
        bytes[i] = static_cast<unsigned char>(i * 197 >> 3);
    }
    return bytes;
}

} // namespace

TEST(XxHash, MatchesThePublishedVectors)
{
    const std::string text = "Nobody inspects the spammish repetition";
    EXPECT_EQ(XXH32(nullptr, 0, 0), 0x02CC5D05U);
    EXPECT_EQ(XXH32("a", 1, 0), 0x550D7456U);
    EXPECT_EQ(XXH32("abc", 3, 0), 0x32D153FFU);
    EXPECT_EQ(XXH32(text.data(), text.size(), 0), 0xE2293B2FU);
    EXPECT_EQ(XXH64(nullptr, 0, 0), 0xEF46DB3751D8E999ULL);
    EXPECT_EQ(XXH64("a", 1, 0), 0xD24EC4F1A98C6E5BULL);
    EXPECT_EQ(XXH64("abc", 3, 0), 0x44BC2CF5AD770999ULL);
    EXPECT_EQ(XXH64(text.data(), text.size(), 0), 0xFBCEA83C8A378BF1ULL);
}

TEST(XxHash, StreamsInPiecesOfAnySize)
{
    const auto bytes = bytes_to_hash(1000);
    XXH32_state_t *state32 = XXH32_createState();
    XXH64_state_t *state64 = XXH64_createState();
    for (size_t piece : {1, 3, 16, 31, 33, 500, 1000}) {
        ASSERT_EQ(XXH32_reset(state32, 7), XXH_OK);
        ASSERT_EQ(XXH64_reset(state64, 7), XXH_OK);
        for (size_t at = 0; at < bytes.size(); at += piece) {
            const size_t length = std::min(piece, bytes.size() - at);
            ASSERT_EQ(XXH32_update(state32, bytes.data() + at, length), XXH_OK);
            ASSERT_EQ(XXH64_update(state64, bytes.data() + at, length), XXH_OK);
        }
        EXPECT_EQ(XXH32_digest(state32), XXH32(bytes.data(), bytes.size(), 7));
        EXPECT_EQ(XXH64_digest(state64), XXH64(bytes.data(), bytes.size(), 7));
    }
    EXPECT_EQ(XXH32_update(state32, nullptr, 0), XXH_OK);
    EXPECT_EQ(XXH32_freeState(state32), XXH_OK);
    EXPECT_EQ(XXH64_freeState(state64), XXH_OK);
}
