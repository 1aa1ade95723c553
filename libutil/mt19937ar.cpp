// mt19937ar.cpp - the Mersenne Twister MT19937.
//
// The state is regenerated and tempered 624 words at a time, so that drawing a number is a load and
// a step of the pointer to the next one. The new state is written behind the old one: word i + 624
// depends on the words i, i + 1 and i + 397, all of them well before it, and in this form the
// compiler does both loops in vector registers, as wide as the processor has them.
#include "koutil/mt19937ar.h"

#include <algorithm>

namespace
{

constexpr int kDegree = 624;
constexpr int kMiddle = 397;
constexpr uint32_t kMatrix = 0x9908B0DF;
constexpr uint32_t kUpperMask = 0x80000000;
constexpr uint32_t kLowerMask = 0x7FFFFFFF;

constexpr unsigned long kDefaultSeed = 5489;
constexpr unsigned long kArraySeed = 19650218;

alignas(64) uint32_t mt[2 * kDegree]; // the state, and its successor while that is made
alignas(64) uint32_t tempered[kDegree];
const uint32_t *next_word = tempered + kDegree; // in `tempered`; its end when all are used
bool seeded = false;

constexpr uint32_t temper(uint32_t y)
{
    y ^= y >> 11;
    y ^= y << 7 & 0x9D2C5680;
    y ^= y << 15 & 0xEFC60000;
    return y ^ y >> 18;
}

[[gnu::always_inline]] inline void regenerate()
{
    for (int i = 0; i < kDegree; i++) {
        const uint32_t y = (mt[i] & kUpperMask) | (mt[i + 1] & kLowerMask);
        mt[i + kDegree] = mt[i + kMiddle] ^ y >> 1 ^ (-(y & 1) & kMatrix);
    }
    for (int i = 0; i < kDegree; i++) {
        mt[i] = mt[i + kDegree];
        tempered[i] = temper(mt[i]);
    }
}

[[gnu::target("avx2")]] void regenerate_wide()
{
    regenerate();
}

// Makes the next 624 numbers and draws the first.
[[gnu::noinline]] uint32_t refill_and_draw()
{
    if (!seeded) {
        init_genrand(kDefaultSeed);
    }
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2")) {
        regenerate_wide();
    } else {
        regenerate();
    }
    next_word = tempered + 1;
    return tempered[0];
}

inline uint32_t draw()
{
    const uint32_t *word = next_word;
    if (__builtin_expect(word == tempered + kDegree, 0)) {
        return refill_and_draw();
    }
    next_word = word + 1;
    return *word;
}

constexpr uint32_t scrambled(uint32_t previous)
{
    return previous ^ previous >> 30;
}

} // namespace

void init_genrand(unsigned long s)
{
    mt[0] = static_cast<uint32_t>(s);
    for (uint32_t i = 1; i < kDegree; i++)
        mt[i] = 1812433253U * scrambled(mt[i - 1]) + i;
    next_word = tempered + kDegree;
    seeded = true;
}

void init_by_array(unsigned long init_key[], int key_length)
{
    init_genrand(kArraySeed);
    if (key_length <= 0)
        return;
    int i = 1;
    const auto advance = [&i] {
        if (++i >= kDegree) {
            mt[0] = mt[kDegree - 1];
            i = 1;
        }
    };
    int j = 0;
    for (int k = std::max(kDegree, key_length); k > 0; k--) {
        mt[i] = (mt[i] ^ scrambled(mt[i - 1]) * 1664525U) + static_cast<uint32_t>(init_key[j]) +
                static_cast<uint32_t>(j);
        advance();
        j = j + 1 < key_length ? j + 1 : 0;
    }
    for (int k = kDegree - 1; k > 0; k--) {
        mt[i] = (mt[i] ^ scrambled(mt[i - 1]) * 1566083941U) - static_cast<uint32_t>(i);
        advance();
    }
    mt[0] = 0x80000000;
}

unsigned long genrand_int32(void)
{
    return draw();
}

long genrand_int31(void)
{
    return static_cast<long>(draw() >> 1);
}

double genrand_real1(void)
{
    return draw() * (1.0 / 4294967295.0);
}

double genrand_real2(void)
{
    return draw() * (1.0 / 4294967296.0);
}

double genrand_real3(void)
{
    return (draw() + 0.5) * (1.0 / 4294967296.0);
}

double genrand_res53(void)
{
    const uint32_t a = draw() >> 5;
    const uint32_t b = draw() >> 6;
    return (a * 67108864.0 + b) * (1.0 / 9007199254740992.0);
}
