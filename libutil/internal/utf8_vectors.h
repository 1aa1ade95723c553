// utf8_vectors.h - the wide steps of the UTF-8 conversions, for processors with AVX2.
//
// A wide step takes a whole number of well-formed characters from a block of fixed size, and gives
// up, with nothing changed, at a block that holds anything else; the plain rules then decide.
// Every element of the block is worked out in its own lane into what it adds to the target, and a
// table closes the gaps of the lanes that add nothing. The time of a step does not depend on the
// text, and its only chain from one step to the next is the length of the last.
//
// A step stores whole vectors, so it writes up to a vector's size behind what it adds. The next
// step covers that; behind the last one, what was there before is put back, so that a target is
// only ever changed where characters were converted to.
#ifndef KOUTIL_INTERNAL_UTF8_VECTORS_H
#define KOUTIL_INTERNAL_UTF8_VECTORS_H

#include "internal/testable.h"
#include "koutil/utf8.h"

#include <bit>
#include <cpuid.h>
#include <cstddef>
#include <immintrin.h>

#define KO_WIDE __attribute__((target("avx2,bmi,bmi2,popcnt")))

namespace koutil
{

// Conversions use wide steps where the processor has them; tests turn them off and on again.
KO_TESTABLE void utf8_allow_wide_steps(bool allowed);

// Whether processor and kernel provide what the wide steps use. Asked of the processor itself: the
// compiler's own test would bring a constructor into the library.
inline bool processor_is_wide()
{
    unsigned a = 0;
    unsigned b = 0;
    unsigned c = 0;
    unsigned d = 0;
    constexpr unsigned basic = bit_OSXSAVE | bit_AVX | bit_POPCNT;
    constexpr unsigned extended = bit_AVX2 | bit_BMI | bit_BMI2;
    constexpr unsigned saved_state = 6; // the kernel keeps both halves of the vector registers
    if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & basic) != basic) {
        return false;
    }
    unsigned low = 0;
    unsigned high = 0;
    __asm__("xgetbv" : "=a"(low), "=d"(high) : "c"(0));
    if ((low & saved_state) != saved_state) {
        return false;
    }
    return __get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & extended) == extended;
}

// A shuffle that moves the chosen bytes of a vector to its front, one for each choice.
struct GapTable {
    alignas(16) uint8_t shuffle[256][16];
};

// Eight lanes of two bytes; a bit keeps the lane, both of its bytes.
constexpr GapTable make_unit_gaps()
{
    GapTable table = {};
    for (unsigned kept = 0; kept < 256; ++kept) {
        unsigned at = 0;
        for (unsigned lane = 0; lane < 8; ++lane) {
            if ((kept >> lane & 1) != 0) {
                table.shuffle[kept][at++] = static_cast<uint8_t>(2 * lane);
                table.shuffle[kept][at++] = static_cast<uint8_t>(2 * lane + 1);
            }
        }
        for (; at < 16; ++at) {
            table.shuffle[kept][at] = 0x80;
        }
    }
    return table;
}

// Eight lanes of two bytes; a bit keeps both bytes, else only the second stays.
constexpr GapTable make_two_byte_gaps()
{
    GapTable table = {};
    for (unsigned both = 0; both < 256; ++both) {
        unsigned at = 0;
        for (unsigned lane = 0; lane < 8; ++lane) {
            if ((both >> lane & 1) != 0) {
                table.shuffle[both][at++] = static_cast<uint8_t>(2 * lane);
            }
            table.shuffle[both][at++] = static_cast<uint8_t>(2 * lane + 1);
        }
        for (; at < 16; ++at) {
            table.shuffle[both][at] = 0x80;
        }
    }
    return table;
}

// Four lanes of four bytes, of which the last is never used. The low four bits keep a lane's second
// byte, the high four its first; its third always stays.
constexpr GapTable make_three_byte_gaps()
{
    GapTable table = {};
    for (unsigned kept = 0; kept < 256; ++kept) {
        unsigned at = 0;
        for (unsigned lane = 0; lane < 4; ++lane) {
            if ((kept >> (4 + lane) & 1) != 0) {
                table.shuffle[kept][at++] = static_cast<uint8_t>(4 * lane);
            }
            if ((kept >> lane & 1) != 0) {
                table.shuffle[kept][at++] = static_cast<uint8_t>(4 * lane + 1);
            }
            table.shuffle[kept][at++] = static_cast<uint8_t>(4 * lane + 2);
        }
        for (; at < 16; ++at) {
            table.shuffle[kept][at] = 0x80;
        }
    }
    return table;
}

inline constexpr GapTable unit_gaps = make_unit_gaps();
inline constexpr GapTable two_byte_gaps = make_two_byte_gaps();
inline constexpr GapTable three_byte_gaps = make_three_byte_gaps();

KO_WIDE inline __m128i close_gaps(const GapTable &table, __m128i lanes, unsigned choice)
{
    const __m128i shuffle =
        _mm_load_si128(reinterpret_cast<const __m128i *>(table.shuffle[choice]));
    return _mm_shuffle_epi8(lanes, shuffle);
}

KO_WIDE inline __m256i each_half(__m128i half)
{
    return _mm256_broadcastsi128_si256(half);
}

KO_WIDE inline __m128i load_half(const void *at)
{
    return _mm_loadu_si128(static_cast<const __m128i *>(at));
}

KO_WIDE inline void store_half(void *at, __m128i value)
{
    _mm_storeu_si128(static_cast<__m128i *>(at), value);
}

KO_WIDE inline unsigned top_bits(__m256i bytes)
{
    return static_cast<unsigned>(_mm256_movemask_epi8(bytes));
}

// UTF-8 to UTF-16.

// What is wrong with a pair of neighbouring bytes: bit set from the first byte's high half, the
// first byte's low half and the second byte's high half; a fault is one that all three can have.
// Two continuation bytes in a row are only a fault where no lead two or three bytes before them
// announces them.
enum PairFault : uint8_t {
    too_short = 1,       // a lead without its continuation byte
    too_long = 2,        // ASCII and a continuation byte
    overlong_3 = 4,      // E0 80..9F
    surrogate = 8,       // ED A0..BF
    overlong_2 = 16,     // C0, C1
    overlong_4 = 32,     // F0 80..8F; F5.. 80..8F
    too_large = 64,      // F4 90..BF, F5.. 90..BF
    continuations = 128, // 80..BF 80..BF
};

struct BlockMasks {
    unsigned multi; // leads of two bytes and more
    unsigned three; // leads of three and four bytes
    unsigned four;  // leads of four bytes
    unsigned tails; // continuation bytes
};

// Bytes of a block and each byte's predecessor; before the first there is an ASCII byte.
struct Block {
    __m256i bytes;
    __m256i before;
};

KO_WIDE inline Block load_block(const UTF8 *at)
{
    const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(at));
    const __m256i carried = _mm256_permute2x128_si256(bytes, bytes, 0x08);
    return {bytes, _mm256_alignr_epi8(bytes, carried, 15)};
}

KO_WIDE inline BlockMasks block_masks(__m256i bytes)
{
    const unsigned high = top_bits(bytes);
    // Bits 6, 5 and 4 of each byte, shifted to its top.
    const unsigned multi = high & top_bits(_mm256_slli_epi16(bytes, 1));
    const unsigned three = multi & top_bits(_mm256_slli_epi16(bytes, 2));
    const unsigned four = three & top_bits(_mm256_slli_epi16(bytes, 3));
    return {multi, three, four, high & ~multi};
}

// Whether a block without leads of three and four bytes is well-formed, up to a lead at its end.
KO_WIDE inline bool is_well_formed_two(__m256i bytes, const BlockMasks &masks)
{
    const __m256i overlong = _mm256_cmpeq_epi8(
        _mm256_and_si256(bytes, _mm256_set1_epi8(char(0xFE))), _mm256_set1_epi8(char(0xC0)));
    return masks.tails == masks.multi << 1 && _mm256_testz_si256(overlong, overlong) != 0;
}

KO_WIDE inline __m256i high_halves(__m256i bytes)
{
    return _mm256_and_si256(_mm256_srli_epi16(bytes, 4), _mm256_set1_epi8(0x0F));
}

KO_WIDE inline bool is_well_formed(const Block &block, const BlockMasks &masks)
{
    constexpr uint8_t carry = too_short | too_long | continuations;
    constexpr uint8_t large = carry | too_large | overlong_4;
    const __m256i first_high = each_half(
        _mm_setr_epi8(too_long, too_long, too_long, too_long, too_long, too_long, too_long,
                      too_long, char(continuations), char(continuations), char(continuations),
                      char(continuations), too_short | overlong_2, too_short,
                      too_short | overlong_3 | surrogate, too_short | too_large | overlong_4));
    const __m256i first_low = each_half(
        _mm_setr_epi8(char(carry | overlong_3 | overlong_2 | overlong_4), char(carry | overlong_2),
                      char(carry), char(carry), char(carry | too_large), char(large), char(large),
                      char(large), char(large), char(large), char(large), char(large), char(large),
                      char(large | surrogate), char(large), char(large)));
    const __m256i second_high = each_half(_mm_setr_epi8(
        too_short, too_short, too_short, too_short, too_short, too_short, too_short, too_short,
        char(too_long | overlong_2 | continuations | overlong_3 | overlong_4),
        char(too_long | overlong_2 | continuations | overlong_3 | too_large),
        char(too_long | overlong_2 | continuations | surrogate | too_large),
        char(too_long | overlong_2 | continuations | surrogate | too_large), too_short, too_short,
        too_short, too_short));
    const __m256i half = _mm256_set1_epi8(0x0F);
    const __m256i faults = _mm256_and_si256(
        _mm256_and_si256(_mm256_shuffle_epi8(first_high, high_halves(block.before)),
                         _mm256_shuffle_epi8(first_low, _mm256_and_si256(block.before, half))),
        _mm256_shuffle_epi8(second_high, high_halves(block.bytes)));
    const unsigned announced = masks.three << 2 | masks.four << 3;
    return top_bits(faults) == announced && _mm256_testz_si256(faults, _mm256_set1_epi8(0x7F)) != 0;
}

// How many bytes of a well-formed block are whole characters.
KO_WIDE inline unsigned whole_characters(const BlockMasks &masks)
{
    const unsigned cut =
        (masks.multi & 1u << 31) | (masks.three & 1u << 30) | (masks.four & 1u << 29);
    return static_cast<unsigned>(std::countr_zero(cut)); // 32 for no cut
}

enum class Longest { two, three, four };

// The units of sixteen bytes, each in the lane of its lead byte, the second unit of a pair in the
// lane behind. `after` are the bytes one later, `later` two later, `before` one earlier.
template <Longest longest>
KO_WIDE inline __m256i units_of(__m256i bytes, __m256i before, __m256i after, __m256i later)
{
    const __m256i tail = _mm256_set1_epi16(0x3F);
    const __m256i second = _mm256_and_si256(after, tail);
    const __m256i two = _mm256_or_si256(
        _mm256_slli_epi16(_mm256_and_si256(bytes, _mm256_set1_epi16(0x1F)), 6), second);
    __m256i units =
        _mm256_blendv_epi8(bytes, two, _mm256_cmpgt_epi16(bytes, _mm256_set1_epi16(0xBF)));
    if (longest == Longest::two) {
        return units;
    }
    const __m256i third = _mm256_and_si256(later, tail);
    const __m256i three = _mm256_or_si256(
        _mm256_or_si256(_mm256_slli_epi16(bytes, 12), _mm256_slli_epi16(second, 6)), third);
    units = _mm256_blendv_epi8(units, three, _mm256_cmpgt_epi16(bytes, _mm256_set1_epi16(0xDF)));
    if (longest == Longest::three) {
        return units;
    }
    // 0xD800 - (0x10000 >> 10) + the top bits of the code point
    const __m256i four_lead = _mm256_set1_epi16(0xEF);
    const __m256i high = _mm256_add_epi16(
        _mm256_set1_epi16(static_cast<short>(0xD7C0)),
        _mm256_or_si256(
            _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(bytes, _mm256_set1_epi16(0x07)), 8),
                            _mm256_slli_epi16(second, 2)),
            _mm256_srli_epi16(third, 4)));
    units = _mm256_blendv_epi8(units, high, _mm256_cmpgt_epi16(bytes, four_lead));
    const __m256i low = _mm256_or_si256(
        _mm256_set1_epi16(static_cast<short>(0xDC00)),
        _mm256_or_si256(_mm256_slli_epi16(_mm256_and_si256(after, _mm256_set1_epi16(0x0F)), 6),
                        third));
    return _mm256_blendv_epi8(units, low, _mm256_cmpgt_epi16(before, four_lead));
}

// Stores the units of sixteen lanes that `kept` chooses; returns the place behind them.
KO_WIDE inline UTF16 *store_units(UTF16 *target, __m256i units, unsigned kept)
{
    const unsigned low = kept & 0xFF;
    const unsigned high = kept >> 8 & 0xFF;
    store_half(target, close_gaps(unit_gaps, _mm256_castsi256_si128(units), low));
    target += std::popcount(low);
    store_half(target, close_gaps(unit_gaps, _mm256_extracti128_si256(units, 1), high));
    return target + std::popcount(high);
}

// Stores the units of sixteen bytes; returns the place behind them.
template <Longest longest>
KO_WIDE inline UTF16 *store_half_block(UTF16 *target, const UTF8 *source, __m128i before,
                                       unsigned kept)
{
    const __m256i units = units_of<longest>(
        _mm256_cvtepu8_epi16(load_half(source)), _mm256_cvtepu8_epi16(before),
        _mm256_cvtepu8_epi16(load_half(source + 1)), _mm256_cvtepu8_epi16(load_half(source + 2)));
    return store_units(target, units, kept);
}

template <Longest longest>
KO_WIDE inline void store_block(UTF16 *target, const UTF8 *source, const Block &block,
                                unsigned kept)
{
    target = store_half_block<longest>(target, source, _mm256_castsi256_si128(block.before), kept);
    store_half_block<longest>(target, source + 16, _mm256_extracti128_si256(block.before, 1),
                              kept >> 16);
}

// A decoding by wide steps. `covered` is what stood behind the units converted so far.
struct WideDecoding {
    const UTF8 *from;
    const UTF8 *last; // the last place where a step can begin
    UTF16 *to;
    UTF16 *last_to;
    __m128i covered;

    KO_WIDE bool can_step() const { return from <= last && to <= last_to; }
    // Notes a step of `bytes` that will store `units`, and returns where to.
    KO_WIDE UTF16 *begin_step(unsigned bytes, int units)
    {
        UTF16 *const place = to;
        from += bytes;
        to += units;
        covered = load_half(to);
        return place;
    }
};

constexpr size_t wide_source = 34;     // bytes that a step of the decoding may read
constexpr size_t wide_target = 32 + 8; // units that it may write

// The loops below keep to one kind of block each, so that its constants stay in registers. They
// return false at a block that is not well-formed, else true.

KO_WIDE inline void decode_ascii_blocks(WideDecoding &job)
{
    while (job.can_step()) {
        const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(job.from));
        if (top_bits(bytes) != 0) {
            break;
        }
        __m256i *const place = reinterpret_cast<__m256i *>(job.begin_step(32, 32));
        _mm256_storeu_si256(place, _mm256_cvtepu8_epi16(_mm256_castsi256_si128(bytes)));
        _mm256_storeu_si256(place + 1, _mm256_cvtepu8_epi16(_mm256_extracti128_si256(bytes, 1)));
    }
}

// Blocks of ASCII and two-byte sequences; leaves off after some of ASCII alone.
KO_WIDE __attribute__((noinline)) inline bool decode_two_byte_blocks(WideDecoding &state)
{
    WideDecoding job = state;
    bool well_formed = true;
    for (int ascii_left = 4; ascii_left > 0 && job.can_step();) {
        const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(job.from));
        const BlockMasks masks = block_masks(bytes);
        if (masks.three != 0) {
            break;
        }
        well_formed = is_well_formed_two(bytes, masks);
        if (!well_formed) {
            break;
        }
        ascii_left -= masks.multi == 0 ? 1 : 0;
        const unsigned whole = whole_characters(masks);
        const unsigned kept = _bzhi_u32(~masks.tails, whole);
        const UTF8 *const source = job.from;
        UTF16 *const place = job.begin_step(whole, std::popcount(kept));
        store_block<Longest::two>(place, source, {bytes, bytes}, kept);
    }
    state = job;
    return well_formed;
}

// Blocks of any kind; leaves off when longer sequences have not been met for a while.
KO_WIDE __attribute__((noinline)) inline bool decode_any_blocks(WideDecoding &state)
{
    WideDecoding job = state;
    bool well_formed = true;
    for (int short_left = 4; short_left > 0 && job.can_step();) {
        const Block block = load_block(job.from);
        const BlockMasks masks = block_masks(block.bytes);
        well_formed = is_well_formed(block, masks);
        if (!well_formed) {
            break;
        }
        short_left -= masks.three == 0 ? 1 : 0;
        const unsigned whole = whole_characters(masks);
        const unsigned kept = _bzhi_u32(~masks.tails | masks.four << 1, whole);
        const UTF8 *const source = job.from;
        UTF16 *const place = job.begin_step(whole, std::popcount(kept));
        if (masks.four == 0) {
            store_block<Longest::three>(place, source, block, kept);
        } else {
            store_block<Longest::four>(place, source, block, kept);
        }
    }
    state = job;
    return well_formed;
}

// Converts as much as wide steps can from the `left` bytes at *source into `room` units at *target.
KO_WIDE inline void decode_wide(const UTF8 **source, size_t left, UTF16 **target, size_t room)
{
    if (left < wide_source || room < wide_target) {
        return;
    }
    WideDecoding job = {*source, *source + (left - wide_source), *target,
                        *target + (room - wide_target), load_half(*target)};
    for (bool well_formed = true; well_formed && job.can_step();) {
        const __m256i bytes = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(job.from));
        const BlockMasks masks = block_masks(bytes);
        if (masks.three != 0) {
            well_formed = decode_any_blocks(job);
        } else if ((masks.multi | masks.tails) != 0) {
            well_formed = decode_two_byte_blocks(job);
        } else {
            decode_ascii_blocks(job);
        }
    }
    store_half(job.to, job.covered);
    *source = job.from;
    *target = job.to;
}

// UTF-16 to UTF-8.

constexpr size_t wide_units = 32;          // units that a step of the encoding may read
constexpr size_t wide_bytes = 3 * 16 + 16; // bytes that it may write

// One bit for each of sixteen lanes that are all ones or all zeros.
KO_WIDE inline unsigned lane_bits(__m256i lanes)
{
    return static_cast<unsigned>(_mm_movemask_epi8(
        _mm_packs_epi16(_mm256_castsi256_si128(lanes), _mm256_extracti128_si256(lanes, 1))));
}

// Lanes whose bits under `mask` are `value`.
KO_WIDE inline __m256i lanes_with(__m256i units, int mask, int value)
{
    return _mm256_cmpeq_epi16(_mm256_and_si256(units, _mm256_set1_epi16(static_cast<short>(mask))),
                              _mm256_set1_epi16(static_cast<short>(value)));
}

// Stores sixteen units below 0x800 as bytes; `both` are the units that have two.
KO_WIDE inline void encode_two_bytes(UTF8 *target, __m256i units, __m256i ascii, unsigned both)
{
    const __m256i lead = _mm256_srli_epi16(units, 6);
    const __m256i tail = _mm256_slli_epi16(_mm256_and_si256(units, _mm256_set1_epi16(0x3F)), 8);
    const __m256i pair =
        _mm256_or_si256(_mm256_or_si256(lead, tail), _mm256_set1_epi16(static_cast<short>(0x80C0)));
    const __m256i lanes = _mm256_blendv_epi8(pair, _mm256_slli_epi16(units, 8), ascii);
    const unsigned low = both & 0xFF;
    const unsigned high = both >> 8;
    store_half(target, close_gaps(two_byte_gaps, _mm256_castsi256_si128(lanes), low));
    target += 8 + std::popcount(low);
    store_half(target, close_gaps(two_byte_gaps, _mm256_extracti128_si256(lanes, 1), high));
}

// Eight units in lanes of four bytes: the first, second and third byte of each at the place of a
// three-byte sequence; a shorter one ends at the third. A pair's first unit has its first two bytes
// in the second and third place, its second unit the last two. `before` are the units one earlier.
template <bool pairs>
KO_WIDE inline __m256i bytes_of(__m256i units, __m256i before)
{
    const __m256i third =
        _mm256_and_si256(_mm256_slli_epi32(units, 16), _mm256_set1_epi32(0x3F0000));
    const __m256i second = _mm256_and_si256(_mm256_slli_epi32(units, 2), _mm256_set1_epi32(0x3F00));
    const __m256i first = _mm256_srli_epi32(units, 12);
    const __m256i three = _mm256_or_si256(_mm256_or_si256(first, second),
                                          _mm256_or_si256(third, _mm256_set1_epi32(0x8080E0)));
    const __m256i below_three = _mm256_cmpgt_epi32(_mm256_set1_epi32(0x800), units);
    const __m256i ascii = _mm256_cmpgt_epi32(_mm256_set1_epi32(0x80), units);
    __m256i lanes =
        _mm256_or_si256(three, _mm256_and_si256(below_three, _mm256_set1_epi32(0x4000)));
    lanes = _mm256_blendv_epi8(lanes, _mm256_slli_epi32(units, 16), ascii);
    if (!pairs) {
        return lanes;
    }
    const __m256i kind = _mm256_and_si256(units, _mm256_set1_epi32(0xFC00));
    const __m256i high = _mm256_add_epi32(_mm256_and_si256(units, _mm256_set1_epi32(0x3FF)),
                                          _mm256_set1_epi32(0x40));
    const __m256i front = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(high, _mm256_set1_epi32(0x700)),
                        _mm256_and_si256(_mm256_slli_epi32(high, 14), _mm256_set1_epi32(0x3F0000))),
        _mm256_set1_epi32(0x80F000));
    const __m256i back = _mm256_or_si256(
        _mm256_or_si256(_mm256_and_si256(second, _mm256_set1_epi32(0x0F00)),
                        _mm256_slli_epi32(_mm256_and_si256(before, _mm256_set1_epi32(3)), 12)),
        _mm256_or_si256(third, _mm256_set1_epi32(0x808000)));
    lanes = _mm256_blendv_epi8(lanes, front, _mm256_cmpeq_epi32(kind, _mm256_set1_epi32(0xD800)));
    return _mm256_blendv_epi8(lanes, back, _mm256_cmpeq_epi32(kind, _mm256_set1_epi32(0xDC00)));
}

// Stores sixteen units as bytes; `second` and `first` are the units that have a second last and a
// third last byte.
template <bool pairs>
KO_WIDE inline void encode_any(UTF8 *target, __m256i units, unsigned second, unsigned first)
{
    const __m256i carried = _mm256_permute2x128_si256(units, units, 0x08);
    const __m256i before = _mm256_alignr_epi8(units, carried, 14);
    for (int i = 0; i < 2; ++i) {
        const __m128i half =
            i == 0 ? _mm256_castsi256_si128(units) : _mm256_extracti128_si256(units, 1);
        const __m128i half_before =
            i == 0 ? _mm256_castsi256_si128(before) : _mm256_extracti128_si256(before, 1);
        const __m256i lanes =
            bytes_of<pairs>(_mm256_cvtepu16_epi32(half), _mm256_cvtepu16_epi32(half_before));
        const unsigned low = (second & 0xF) | (first & 0xF) << 4;
        const unsigned high = (second >> 4 & 0xF) | (first & 0xF0);
        store_half(target, close_gaps(three_byte_gaps, _mm256_castsi256_si128(lanes), low));
        target += 4 + std::popcount(low);
        store_half(target, close_gaps(three_byte_gaps, _mm256_extracti128_si256(lanes, 1), high));
        target += 4 + std::popcount(high);
        second >>= 8;
        first >>= 8;
    }
}

// Stores sixteen units that are eight pairs as bytes.
KO_WIDE inline void encode_pairs(UTF8 *target, __m256i units)
{
    const __m256i mask = _mm256_set1_epi32(0x3F);
    // The pair's first unit, less its mark, with 0x10000 added as the code point has it.
    const __m256i high = _mm256_add_epi32(_mm256_and_si256(units, _mm256_set1_epi32(0x3FF)),
                                          _mm256_set1_epi32(0x40));
    const __m256i low = _mm256_srli_epi32(units, 16);
    const __m256i first = _mm256_srli_epi32(high, 8);
    const __m256i second = _mm256_and_si256(_mm256_srli_epi32(high, 2), mask);
    const __m256i third =
        _mm256_or_si256(_mm256_slli_epi32(_mm256_and_si256(high, _mm256_set1_epi32(3)), 4),
                        _mm256_and_si256(_mm256_srli_epi32(low, 6), _mm256_set1_epi32(0x0F)));
    const __m256i fourth = _mm256_and_si256(low, mask);
    const __m256i bytes = _mm256_or_si256(
        _mm256_or_si256(first, _mm256_slli_epi32(second, 8)),
        _mm256_or_si256(_mm256_slli_epi32(third, 16), _mm256_slli_epi32(fourth, 24)));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(target),
                        _mm256_or_si256(bytes, _mm256_set1_epi32(static_cast<int>(0x808080F0))));
}

// Converts as much as wide steps can from the `left` units at *source into `room` bytes at *target.
KO_WIDE inline void encode_wide(const UTF16 **source, size_t left, UTF8 **target, size_t room)
{
    if (left < wide_units || room < wide_bytes) {
        return;
    }
    const UTF16 *from = *source;
    const UTF16 *const last = from + (left - wide_units);
    UTF8 *to = *target;
    UTF8 *const last_to = to + (room - wide_bytes);
    __m128i covered = load_half(to); // what stood behind the bytes converted so far
    while (from <= last && to <= last_to) {
        const __m256i units = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(from));
        const __m256i next = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(from + 16));
        const __m256i not_ascii = _mm256_set1_epi16(static_cast<short>(0xFF80));
        if (_mm256_testz_si256(_mm256_or_si256(units, next), not_ascii) != 0) {
            const __m256i bytes = _mm256_permute4x64_epi64(_mm256_packus_epi16(units, next), 0xD8);
            covered = load_half(to + 32);
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(to), bytes);
            from += 32;
            to += 32;
            continue;
        }
        const __m256i ascii_lanes = lanes_with(units, 0xFF80, 0);
        const unsigned second = ~lane_bits(ascii_lanes) & 0xFFFF;
        if (_mm256_testz_si256(units, _mm256_set1_epi16(static_cast<short>(0xF800))) != 0) {
            const size_t length = 16 + static_cast<size_t>(std::popcount(second));
            covered = load_half(to + length);
            encode_two_bytes(to, units, ascii_lanes, second);
            from += 16;
            to += length;
            continue;
        }
        const unsigned below = lane_bits(lanes_with(units, 0xF800, 0));
        const unsigned surrogates = lane_bits(lanes_with(units, 0xF800, 0xD800));
        const unsigned first = ~(below | surrogates) & 0xFFFF;
        size_t length = 16 + static_cast<size_t>(std::popcount(second) + std::popcount(first));
        size_t taken = 16;
        if (surrogates != 0) {
            const unsigned low = lane_bits(lanes_with(units, 0xFC00, 0xDC00));
            const unsigned high = surrogates & ~low;
            if ((high << 1 & 0xFFFF) != low) {
                break;
            }
            if (low == 0xAAAA) {
                covered = load_half(to + 32);
                encode_pairs(to, units);
                from += 16;
                to += 32;
                continue;
            }
            // A pair that the block cuts is left for the next step.
            const size_t cut = high >> 15;
            taken -= cut;
            length -= 2 * cut;
            covered = load_half(to + length);
            encode_any<true>(to, units, second, first);
        } else {
            covered = load_half(to + length);
            encode_any<false>(to, units, second, first);
        }
        from += taken;
        to += length;
    }
    store_half(to, covered);
    *source = from;
    *target = to;
}

} // namespace koutil

#endif
