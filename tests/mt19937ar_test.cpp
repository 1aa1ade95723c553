// Random numbers: published vectors and the standard library's generator.
#include "koutil/mt19937ar.h"

#include "support/support.h"

#include <gtest/gtest.h>
#include <iterator>
#include <random>
#include <vector>

namespace
{

TEST(RandomNumbers, UnseededStartAsWithTheDefaultSeed)
{
    const auto outcome = support::run_in_child([] {
        for (unsigned long expected : {3499211612UL, 581869302UL, 3890346734UL}) {
            if (genrand_int32() != expected)
                return 1;
        }
        return 0;
    });
    EXPECT_TRUE(outcome.exited(0));
}

TEST(RandomNumbers, FollowTheStandardLibrary)
{
    for (unsigned long seed : {5489UL, 0UL, 1UL, 0xFFFFFFFFUL, 0x123456789ABCDEFUL}) {
        init_genrand(seed);
        std::mt19937 peer(static_cast<uint32_t>(seed));
        for (int i = 0; i < 10000; i++)
            ASSERT_EQ(genrand_int32(), peer()) << "seed " << seed << " output " << i;
    }
}

// The published array seeding, run on plain arrays.
std::vector<uint32_t> seeded_by(const std::vector<unsigned long> &key)
{
    std::vector<uint32_t> mt{19650218};
    for (uint32_t i = 1; i < 624; i++)
        mt.push_back(1812433253U * (mt[i - 1] ^ mt[i - 1] >> 30) + i);
    size_t i = 1;
    const auto mix = [&](uint32_t factor, uint32_t add) {
        mt[i] = (mt[i] ^ (mt[i - 1] ^ mt[i - 1] >> 30) * factor) + add;
        if (++i == 624) {
            mt[0] = mt[623];
            i = 1;
        }
    };
    for (size_t k = 0, j = 0; k < std::max<size_t>(624, key.size()); k++, j = (j + 1) % key.size())
        mix(1664525, static_cast<uint32_t>(key[j] + j));
    for (int k = 0; k < 623; k++)
        mix(1566083941, static_cast<uint32_t>(-i));
    mt[0] = 0x80000000;
    return mt;
}

// Feeds std::mt19937 a state instead of a seed.
struct State {
    using result_type = uint32_t;
    std::vector<uint32_t> words;
    template <typename Iterator>
    void generate(Iterator begin, Iterator)
    {
        std::copy(words.begin(), words.end(), begin);
    }
};

TEST(RandomNumbers, SeedFromAnArray)
{
    unsigned long published[] = {0x123, 0x234, 0x345, 0x456};
    init_by_array(published, 4);
    for (unsigned long expected : {1067595299UL, 955945823UL, 477289528UL})
        EXPECT_EQ(genrand_int32(), expected);

    for (size_t length : {1, 2, 623, 624, 625, 2000}) {
        std::vector<unsigned long> key(length);
        for (size_t i = 0; i < length; i++)
            key[i] = 0xFFFFFFFF00000000 + i * 2654435761; // only the low half counts
        init_by_array(key.data(), static_cast<int>(length));
        State state{seeded_by(key)};
        std::mt19937 peer(state);
        for (int i = 0; i < 2000; i++)
            ASSERT_EQ(genrand_int32(), peer()) << "key of " << length;
    }

    for (int length : {0, -1}) {
        init_by_array(nullptr, length);
        std::mt19937 peer(19650218);
        EXPECT_EQ(genrand_int32(), peer());
    }
}

TEST(RandomNumbers, OtherRangesComeFromTheSameDraws)
{
    init_genrand(42);
    std::mt19937 peer(42);
    for (int i = 0; i < 1000; i++) {
        ASSERT_EQ(genrand_int31(), static_cast<long>(peer() >> 1));
        ASSERT_DOUBLE_EQ(genrand_real1(), peer() / 4294967295.0);
        ASSERT_DOUBLE_EQ(genrand_real2(), peer() / 4294967296.0);
        ASSERT_DOUBLE_EQ(genrand_real3(), (peer() + 0.5) / 4294967296.0);
        const uint64_t high = peer() >> 5;
        const uint64_t low = peer() >> 6;
        ASSERT_DOUBLE_EQ(genrand_res53(),
                         static_cast<double>(high << 26 | low) / 9007199254740992.0);
    }
}

} // namespace
