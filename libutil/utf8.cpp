// utf8.cpp - UTF-8 and UTF-16 conversion, case mapping and case-insensitive comparison.
//
// A conversion walks its source one character at a time by the plain rules, which know every limit
// and failure. Long runs are taken faster where that gives the same result; see take_runs.
//
// In the NUL-terminated mode the terminator is looked for first, no further than the target's room
// can need, so that the same loops serve both modes: `end` is then the terminator, and the rules
// that speak of the end of the source do not apply to it.
#include "koutil/utf8.h"

#include "internal/utf8_case.h"
#include "internal/utf8_vectors.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstring>
#include <emmintrin.h>

namespace
{

struct SfmTable {
    UTF16 unit[128];
};

constexpr UTF16 sfm_first = 0xF000;   // control characters
constexpr UTF16 sfm_special = 0xF020; // the characters of sfm_U2A
constexpr UTF16 sfm_last = 0xF029;

constexpr char sfm_characters[] = "\"*:<>?\\| .";
static_assert(sizeof sfm_characters - 1 == sfm_last - sfm_special + 1);

// Inside a name a space and a period stay as they are.
constexpr SfmTable make_sfm_table(bool inside)
{
    SfmTable table = {};
    for (unsigned i = 0; i < 128; ++i) {
        table.unit[i] = static_cast<UTF16>(i < 0x20 ? sfm_first + i : i);
    }
    for (unsigned i = 0; sfm_characters[i] != '\0'; ++i) {
        table.unit[static_cast<unsigned char>(sfm_characters[i])] =
            static_cast<UTF16>(sfm_special + i);
    }
    if (inside) {
        table.unit[0x20] = 0x20;
        table.unit[0x2E] = 0x2E;
    }
    return table;
}

constexpr SfmTable sfm_inside = make_sfm_table(true);

} // namespace

// The exported arrays are other names of objects that are computed whole.
extern "C" {
extern const koutil::CaseTable ko_utf8_lower;
extern const koutil::CaseTable ko_utf8_upper;
extern const SfmTable ko_utf8_sfm;
constexpr koutil::CaseTable ko_utf8_lower = koutil::make_case_table(true);
constexpr koutil::CaseTable ko_utf8_upper = koutil::make_case_table(false);
constexpr SfmTable ko_utf8_sfm = make_sfm_table(false);

extern const utf8hashbkt_t utf8hash_tolower[UTF8HASH_BUCKETS]
    __attribute__((alias("ko_utf8_lower")));
extern const utf8hashbkt_t utf8hash_toupper[UTF8HASH_BUCKETS]
    __attribute__((alias("ko_utf8_upper")));
extern const UTF16 sfm_A2U[128] __attribute__((alias("ko_utf8_sfm")));
}

const UTF16 sfm_U2A[16] = {'"', '*', ':', '<', '>', '?', '\\', '|', ' ', '.'};

static_assert(koutil::is_complete(ko_utf8_lower, true));
static_assert(koutil::is_complete(ko_utf8_upper, false));

namespace
{

constexpr int halfShift = 10;
constexpr UTF32 halfBase = 0x10000;
constexpr UTF32 halfMask = 0x3FF;

constexpr bool is_surrogate(UTF32 ch)
{
    return ch >= 0xD800 && ch <= 0xDFFF;
}
constexpr bool is_low_surrogate(UTF32 ch)
{
    return ch >= 0xDC00 && ch <= 0xDFFF;
}

struct TrailingTable {
    signed char count[256];
};

constexpr TrailingTable make_trailing_table()
{
    TrailingTable table = {};
    for (unsigned lead = 0xC0; lead < 256; ++lead) {
        int count = lead < 0xE0 ? 1 : lead < 0xF0 ? 2 : lead < 0xF8 ? 3 : lead < 0xFC ? 4 : 5;
        table.count[lead] = static_cast<signed char>(count);
    }
    return table;
}

// How many continuation bytes a lead byte announces.
constexpr TrailingTable trailingBytesForUTF8 = make_trailing_table();

size_t sequence_length(UTF8 lead)
{
    return static_cast<size_t>(trailingBytesForUTF8.count[lead]) + 1;
}

bool is_continuation(UTF8 byte)
{
    return (byte & 0xC0) == 0x80;
}

// Whether the `length` bytes announced by the lead byte at `source` are a legal sequence. Reads on
// only behind a byte that is no terminator.
bool is_legal(const UTF8 *source, size_t length)
{
    const UTF8 lead = source[0];
    if (lead < 0x80) {
        return true;
    }
    if (lead < 0xC2 || lead > 0xF4) {
        return false;
    }
    const UTF8 least = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const UTF8 most = lead == 0xF4 ? 0x8F : 0xBF;
    if (source[1] < least || source[1] > most) {
        return false;
    }
    return (length < 3 || is_continuation(source[2])) && (length < 4 || is_continuation(source[3]));
}

UTF8 continuation(UTF32 ch)
{
    return static_cast<UTF8>((ch & 0x3F) | 0x80);
}

// Encodes a code point. Returns its length, or 0 with nothing written when there is no room.
inline size_t encode(UTF32 ch, UTF8 *target, const UTF8 *end)
{
    const ptrdiff_t room = end - target;
    if (ch < 0x80) {
        if (room < 1) {
            return 0;
        }
        target[0] = static_cast<UTF8>(ch);
        return 1;
    }
    if (ch < 0x800) {
        if (room < 2) {
            return 0;
        }
        target[0] = static_cast<UTF8>(ch >> 6 | 0xC0);
        target[1] = continuation(ch);
        return 2;
    }
    if (ch < halfBase) {
        if (room < 3) {
            return 0;
        }
        target[0] = static_cast<UTF8>(ch >> 12 | 0xE0);
        target[1] = continuation(ch >> 6);
        target[2] = continuation(ch);
        return 3;
    }
    if (room < 4) {
        return 0;
    }
    target[0] = static_cast<UTF8>(ch >> 18 | 0xF0);
    target[1] = continuation(ch >> 12);
    target[2] = continuation(ch >> 6);
    target[3] = continuation(ch);
    return 4;
}

// A conversion on its way. `source` and `target` stand at a character's start between two steps.
template <typename From, typename To>
struct Conversion {
    const From *source;
    const From *end;   // the end of the source, or its terminator
    const From *begin; // where the call began
    To *target;
    To *target_end;
    bool strict;

    size_t left() const { return static_cast<size_t>(end - source); }
    size_t room() const
    {
        return target < target_end ? static_cast<size_t>(target_end - target) : 0;
    }
};

using Decoding = Conversion<UTF8, UTF16>;
using Encoding = Conversion<UTF16, UTF8>;

// The unit for the last character of a bounded source under the sfm mapping, where it is ASCII. The
// periods of "." and ".." stay.
UTF16 last_sfm_unit(const Decoding &job, UTF8 last)
{
    const ptrdiff_t length = job.end - job.begin;
    const bool dots = job.begin[0] == '.' && (length == 1 || (length == 2 && job.begin[1] == '.'));
    return dots ? last : ko_utf8_sfm.unit[last];
}

// The code point of the legal sequence of two bytes and more at `source`, of which `left` bytes can
// be read. Returns its length, or 0 when it is not legal or not whole. A code point that a shorter
// sequence has, or none, gives away the leads and second bytes that is_legal refuses.
inline size_t decode_sequence(const UTF8 *source, size_t left, UTF32 *ch)
{
    const UTF8 lead = source[0];
    if (left < 2 || lead < 0xC2 || !is_continuation(source[1])) {
        return 0;
    }
    const UTF32 second = source[1] & 0x3Fu;
    if (lead < 0xE0) {
        *ch = UTF32{lead & 0x1Fu} << 6 | second;
        return 2;
    }
    if (left < 3 || !is_continuation(source[2])) {
        return 0;
    }
    const UTF32 third = source[2] & 0x3Fu;
    if (lead < 0xF0) {
        *ch = UTF32{lead & 0x0Fu} << 12 | second << 6 | third;
        return *ch >= 0x800 ? 3 : 0;
    }
    if (left < 4 || lead > 0xF4 || !is_continuation(source[3])) {
        return 0;
    }
    *ch = UTF32{lead & 0x07u} << 18 | second << 12 | third << 6 | (source[3] & 0x3Fu);
    return *ch >= halfBase && *ch <= 0x10FFFF ? 4 : 0;
}

// Converts one character at a time until the source reaches `stop` or a step fails. The rules for a
// character, in their order: it is whole; it is legal; there is room for a unit; it is no surrogate
// in strict mode; there is room for all of it.
template <bool terminated, bool sfm>
ConversionResult decode_characters(Decoding &job, const UTF8 *stop)
{
    const UTF16 *const units = sfm ? sfm_inside.unit : nullptr;
    const UTF8 *source = job.source;
    UTF16 *target = job.target;
    ConversionResult result = conversionOK;
    while (source < stop) {
        const UTF8 lead = *source;
        if (lead < 0x80) {
            if (target >= job.target_end) {
                result = targetExhausted;
                break;
            }
            const bool last = sfm && !terminated && source + 1 == job.end;
            *target++ = last ? last_sfm_unit(job, lead) : sfm ? units[lead] : lead;
            ++source;
            continue;
        }
        const size_t left = terminated ? SIZE_MAX : static_cast<size_t>(job.end - source);
        UTF32 ch = 0;
        const size_t length = decode_sequence(source, left, &ch);
        if (length == 0) {
            result = sequence_length(lead) > left ? sourceExhausted : sourceIllegal;
            break;
        }
        if (target >= job.target_end) {
            result = targetExhausted;
            break;
        }
        if (ch >= halfBase) {
            if (job.target_end - target < 2) {
                result = targetExhausted;
                break;
            }
            *target++ = static_cast<UTF16>(0xD800 + ((ch - halfBase) >> halfShift));
            ch = 0xDC00 + ((ch - halfBase) & halfMask);
        } else if (job.strict && is_surrogate(ch)) {
            result = sourceIllegal;
            break;
        }
        *target++ = static_cast<UTF16>(ch);
        source += length;
    }
    job.source = source;
    job.target = target;
    return result;
}

// The code point that a surrogate at `source` begins, and how many units it takes; 0 units for a
// lone one that strict mode refuses. A high surrogate at the end of a bounded source is taken as it
// is.
template <bool terminated>
size_t surrogate_code_point(const Encoding &job, const UTF16 *source, UTF32 *ch)
{
    *ch = *source;
    if (is_low_surrogate(*ch)) {
        return job.strict ? 0 : 1;
    }
    if (!terminated && source + 1 == job.end) {
        return 1;
    }
    const UTF32 low = source[1];
    if (is_low_surrogate(low)) {
        *ch = ((*ch - 0xD800) << halfShift) + (low - 0xDC00) + halfBase;
        return 2;
    }
    return job.strict ? 0 : 1;
}

template <bool terminated, bool sfm>
ConversionResult encode_characters(Encoding &job, const UTF16 *stop)
{
    const UTF16 *source = job.source;
    UTF8 *target = job.target;
    ConversionResult result = conversionOK;
    while (source < stop) {
        UTF32 ch = *source;
        size_t units = 1;
        if (is_surrogate(ch)) {
            units = surrogate_code_point<terminated>(job, source, &ch);
            if (units == 0) {
                result = sourceIllegal;
                break;
            }
        } else if (sfm && ch >= sfm_first && ch <= sfm_last) {
            ch = ch < sfm_special ? ch & 0x1F : sfm_U2A[ch & 0xF];
        }
        const size_t length = encode(ch, target, job.target_end);
        if (length == 0) {
            result = targetExhausted;
            break;
        }
        source += units;
        target += length;
    }
    job.source = source;
    job.target = target;
    return result;
}

enum Steps { steps_unknown, steps_narrow, steps_wide };

// Decided at the first conversion; threads that race decide alike.
constinit std::atomic<int> steps{steps_unknown};

bool has_wide_steps()
{
    int known = steps.load(std::memory_order_relaxed);
    if (known == steps_unknown) {
        known = koutil::processor_is_wide() ? steps_wide : steps_narrow;
        steps.store(known, std::memory_order_relaxed);
    }
    return known == steps_wide;
}

constexpr size_t run_size = 16;    // characters that an ASCII step takes
constexpr size_t plain_piece = 48; // elements after which longer steps are tried again

// Takes runs of well-formed characters, which need no rule but room: of any characters by wide
// steps, then of ASCII. Not for the sfm mapping.
void take_runs(Decoding &job)
{
    if (has_wide_steps()) {
        koutil::decode_wide(&job.source, job.left(), &job.target, job.room());
    }
    const __m128i zero = _mm_setzero_si128();
    while (job.left() >= run_size && job.room() >= run_size) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(job.source));
        if (_mm_movemask_epi8(bytes) != 0) {
            return;
        }
        __m128i *const out = reinterpret_cast<__m128i *>(job.target);
        _mm_storeu_si128(out, _mm_unpacklo_epi8(bytes, zero));
        _mm_storeu_si128(out + 1, _mm_unpackhi_epi8(bytes, zero));
        job.source += run_size;
        job.target += run_size;
    }
}

void take_runs(Encoding &job)
{
    if (has_wide_steps()) {
        koutil::encode_wide(&job.source, job.left(), &job.target, job.room());
    }
    const __m128i not_ascii = _mm_set1_epi16(static_cast<short>(0xFF80));
    while (job.left() >= run_size && job.room() >= run_size) {
        const __m128i *const in = reinterpret_cast<const __m128i *>(job.source);
        const __m128i low = _mm_loadu_si128(in);
        const __m128i high = _mm_loadu_si128(in + 1);
        const __m128i rest = _mm_and_si128(_mm_or_si128(low, high), not_ascii);
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(rest, _mm_setzero_si128())) != 0xFFFF) {
            return;
        }
        _mm_storeu_si128(reinterpret_cast<__m128i *>(job.target), _mm_packus_epi16(low, high));
        job.source += run_size;
        job.target += run_size;
    }
}

ConversionResult convert_characters(Decoding &job, const UTF8 *stop, bool terminated, bool sfm)
{
    if (terminated) {
        return sfm ? decode_characters<true, true>(job, stop)
                   : decode_characters<true, false>(job, stop);
    }
    return sfm ? decode_characters<false, true>(job, stop)
               : decode_characters<false, false>(job, stop);
}

ConversionResult convert_characters(Encoding &job, const UTF16 *stop, bool terminated, bool sfm)
{
    if (terminated) {
        return sfm ? encode_characters<true, true>(job, stop)
                   : encode_characters<true, false>(job, stop);
    }
    return sfm ? encode_characters<false, true>(job, stop)
               : encode_characters<false, false>(job, stop);
}

// Converts to the end of the source, terminator included.
template <typename From, typename To>
ConversionResult convert(Conversion<From, To> &job, bool terminated, bool sfm)
{
    while (job.source < job.end) {
        if (!sfm) {
            take_runs(job);
        }
        const From *const stop = job.source + std::min(job.left(), plain_piece);
        const ConversionResult result = convert_characters(job, stop, terminated, sfm);
        if (result != conversionOK) {
            return result;
        }
    }
    if (terminated) {
        if (job.room() == 0) {
            return targetExhausted;
        }
        ++job.source;
        *job.target++ = 0;
    }
    return conversionOK;
}

// The terminator of the source, or a place behind what a target of `room` units can take: no
// character needs more than three bytes for a unit.
const UTF8 *terminator(const UTF8 *source, size_t room)
{
    return source + strnlen(reinterpret_cast<const char *>(source), 3 * room + 4);
}

// The same for UTF-16, of which no unit becomes less than a byte.
const UTF16 *terminator(const UTF16 *source, size_t room)
{
    size_t length = 0;
    while (length < room + 2 && source[length] != 0) {
        ++length;
    }
    return source + length;
}

template <typename From, typename To>
ConversionResult convert(const From **source, const From *source_end, To **target, To *target_end,
                         ConversionFlags flags)
{
    Conversion<From, To> job = {*source, source_end, *source,
                                *target, target_end, (flags & strictConversion) != 0};
    const bool terminated = source_end == nullptr;
    if (terminated) {
        job.end = terminator(job.source, job.room());
    }
    const ConversionResult result = convert(job, terminated, (flags & sfmConversion) != 0);
    *source = job.source;
    *target = job.target;
    return result;
}

} // namespace

void koutil::utf8_allow_wide_steps(bool allowed)
{
    steps.store(allowed ? steps_unknown : steps_narrow, std::memory_order_relaxed);
}

ConversionResult ConvertUTF16toUTF8(const UTF16 **sourceStart, const UTF16 *sourceEnd,
                                    UTF8 **targetStart, UTF8 *targetEnd, ConversionFlags flags)
{
    return convert(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

ConversionResult ConvertUTF8toUTF16(const UTF8 **sourceStart, const UTF8 *sourceEnd,
                                    UTF16 **targetStart, UTF16 *targetEnd, ConversionFlags flags)
{
    return convert(sourceStart, sourceEnd, targetStart, targetEnd, flags);
}

VoBoolean isLegalUTF8Sequence(const UTF8 *source, const UTF8 *sourceEnd)
{
    if (source >= sourceEnd) {
        return 0;
    }
    const size_t length = sequence_length(*source);
    if (length > static_cast<size_t>(sourceEnd - source)) {
        return 0;
    }
    return is_legal(source, length) ? 1 : 0;
}

namespace
{

// The direction of a case conversion.
struct CaseMap {
    const koutil::CaseTable &table;
    const koutil::TwoByteTable &two_bytes;
    char first, last; // the ASCII letters that change
};

constexpr koutil::TwoByteTable lower_two_bytes = koutil::make_two_byte_table(ko_utf8_lower);
constexpr koutil::TwoByteTable upper_two_bytes = koutil::make_two_byte_table(ko_utf8_upper);
constexpr CaseMap to_lower = {ko_utf8_lower, lower_two_bytes, 'A', 'Z'};
constexpr CaseMap to_upper = {ko_utf8_upper, upper_two_bytes, 'a', 'z'};
constexpr UTF8 case_bit = 0x20; // between the cases of an ASCII letter

constexpr UTF8 ascii_lower(UTF8 byte)
{
    return byte >= 'A' && byte <= 'Z' ? static_cast<UTF8>(byte | case_bit) : byte;
}

// The counterpart of a packed sequence of `length` bytes, well-formed or not.
inline UTF32 mapped_sequence(const CaseMap &map, UTF32 key, size_t length)
{
    if (length == 2 && ((key ^ koutil::two_byte_marks) & koutil::two_byte_outside) == 0) {
        return map.two_bytes.mapped[key ^ koutil::two_byte_marks];
    }
    if (length == 3) {
        const UTF32 lead = key >> 16;
        if (lead == 0xE1 || lead == 0xE2 || lead == 0xEF) {
            return koutil::mapped(map.table, key);
        }
    }
    return key; // no other sequence is in the tables
}

// Changes the ASCII letters of sixteen bytes; false, with nothing changed, unless all are ASCII.
bool change_run(const CaseMap &map, UTF8 *at)
{
    __m128i *const place = reinterpret_cast<__m128i *>(at);
    const __m128i bytes = _mm_loadu_si128(place);
    if (_mm_movemask_epi8(bytes) != 0) {
        return false;
    }
    const __m128i letters =
        _mm_and_si128(_mm_cmpgt_epi8(bytes, _mm_set1_epi8(static_cast<char>(map.first - 1))),
                      _mm_cmplt_epi8(bytes, _mm_set1_epi8(static_cast<char>(map.last + 1))));
    const __m128i bits = _mm_and_si128(letters, _mm_set1_epi8(case_bit));
    _mm_storeu_si128(place, _mm_xor_si128(bytes, bits));
    return true;
}

// The two-byte sequence at `at` as a place in a direct table; past the table for any other bytes.
// Reads the second byte, so the first must not be a terminator.
unsigned two_byte_place(const UTF8 *at)
{
    uint16_t bytes;
    memcpy(&bytes, at, sizeof bytes);
    return __builtin_bswap16(bytes) ^ koutil::two_byte_marks;
}

// Changes the sequence of `length` bytes at `at`.
void change_sequence(const CaseMap &map, UTF8 *at, size_t length)
{
    if (length == 2) {
        const unsigned place = two_byte_place(at);
        if ((place & koutil::two_byte_outside) == 0) {
            at[0] = static_cast<UTF8>(map.two_bytes.mapped[place] >> 8);
            at[1] = static_cast<UTF8>(map.two_bytes.mapped[place]);
        }
    } else if (length == 3) {
        const UTF32 key = UTF32{at[0]} << 16 | UTF32{at[1]} << 8 | at[2];
        const UTF32 value = mapped_sequence(map, key, length);
        if (value != key) {
            at[0] = static_cast<UTF8>(value >> 16);
            at[1] = static_cast<UTF8>(value >> 8);
            at[2] = static_cast<UTF8>(value);
        }
    }
}

void change_case(const CaseMap &map, UTF8 *source)
{
    UTF8 *at = source;
    const UTF8 *next_run = source;
    UTF8 *const end = source + strlen(reinterpret_cast<const char *>(source));
    while (at != end) {
        const size_t left = static_cast<size_t>(end - at);
        if (*at < 0x80) {
            if (left >= run_size && at >= next_run) {
                if (change_run(map, at)) {
                    at += run_size;
                    continue;
                }
                next_run = at + run_size; // past what stands in the way
            }
            if (*at >= map.first && *at <= map.last) {
                *at ^= case_bit;
            }
            ++at;
            continue;
        }
        const size_t length = sequence_length(*at);
        if (length > left) {
            return; // the terminator cuts the sequence
        }
        change_sequence(map, at, length);
        at += length;
    }
}

// Comparison.
//
// The rules walk both texts in step, one sequence at a time, as their lead bytes announce it; the
// lengths are equal as long as the texts are. Equal bytes make equal sequences however they fall
// into sequences, so runs of them are skipped sixteen at a time. Where a run ends the walk is taken
// up again at the start of the sequence that holds its end.

// Two texts being compared: where the walk stands, and for utf8ncasecmp how much of them is left.
struct Walk {
    const UTF8 *s1;
    const UTF8 *s2;
    size_t left;

    void step(size_t length)
    {
        s1 += length;
        s2 += length;
        left -= length;
    }
};

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool may_peek = false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer) ||                         \
    __has_feature(memory_sanitizer)
constexpr bool may_peek = false;
#else
constexpr bool may_peek = true;
#endif
#else
constexpr bool may_peek = true;
#endif

unsigned bits_of(__m128i bytes)
{
    return static_cast<unsigned>(_mm_movemask_epi8(bytes));
}

// For the sixteen bytes before `at`: the start of the sequence that holds `at`, or null when they
// are not made of whole well-formed sequences.
//
// A walk that comes from before them has found its step by then: the last sequence that begins
// before them ends within their first five bytes, and from anywhere inside a well-formed sequence
// the walk goes on byte by byte to the next one.
const UTF8 *well_formed_start(const UTF8 *at)
{
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i *>(at - run_size));
    const unsigned high = bits_of(bytes);
    const unsigned multi = high & bits_of(_mm_slli_epi16(bytes, 1));
    const unsigned three = multi & bits_of(_mm_slli_epi16(bytes, 2));
    const unsigned four = three & bits_of(_mm_slli_epi16(bytes, 3));
    const unsigned five = four & bits_of(_mm_slli_epi16(bytes, 4));
    const unsigned tails = high & ~multi;
    const unsigned first =
        static_cast<unsigned>(std::countr_one(tails)); // belong to a start before
    const unsigned expected = multi << 1 | three << 2 | four << 3;
    if (first > 3 || five != 0 || ((tails ^ expected) & 0xFFFF) != (1u << first) - 1) {
        return nullptr;
    }
    if ((expected >> run_size & 1) == 0) {
        return at;
    }
    const int last_lead = static_cast<int>(std::bit_width(multi)) - 1;
    return at - run_size + last_lead;
}

// The start of the sequence that holds `at`, on a walk from `from` over bytes other than 0.
__attribute__((noinline)) const UTF8 *sequence_start(const UTF8 *from, const UTF8 *at)
{
    if (at - from >= static_cast<ptrdiff_t>(run_size)) {
        const UTF8 *const start = well_formed_start(at);
        if (start != nullptr) {
            return start;
        }
    }
    while (from < at && sequence_length(*from) <= static_cast<size_t>(at - from)) {
        from += sequence_length(*from);
    }
    return from;
}

__m128i load_run(const UTF8 *at)
{
    return _mm_loadu_si128(reinterpret_cast<const __m128i *>(at));
}

// Where two runs differ or end.
unsigned run_stops(__m128i a, __m128i b)
{
    return bits_of(_mm_cmpeq_epi8(_mm_and_si128(a, _mm_cmpeq_epi8(a, b)), _mm_setzero_si128()));
}

// Where two runs differ in more than the case of an ASCII letter, end, or are not ASCII.
unsigned ascii_stops(__m128i a, __m128i b)
{
    const __m128i bit = _mm_set1_epi8(case_bit);
    // Moves the letters of `a` to the top of the signed range.
    const __m128i moved = _mm_add_epi8(_mm_or_si128(a, bit), _mm_set1_epi8(0x7F - 'z'));
    const __m128i letters = _mm_cmpgt_epi8(moved, _mm_set1_epi8(0x7F - 26));
    const __m128i differ = _mm_andnot_si128(_mm_and_si128(letters, bit), _mm_xor_si128(a, b));
    const __m128i same = _mm_cmpeq_epi8(differ, _mm_setzero_si128());
    const __m128i ascii = _mm_cmpgt_epi8(a, _mm_setzero_si128());
    return bits_of(_mm_and_si128(same, ascii)) ^ 0xFFFFu;
}

enum Peeking { peeking_unknown, peeking_refused, peeking_allowed };

// Decided at the first comparison; threads that race decide alike.
constinit std::atomic<int> peeking{peeking_unknown};

// Asks valgrind, which takes this sequence of instructions as a question; to a processor they do
// nothing, and the answer stays as it was.
bool runs_under_valgrind()
{
    const volatile uint64_t question[6] = {0x1001, 0, 0, 0, 0, 0};
    uint64_t answer = 0;
    __asm__ volatile("rolq $3, %%rdi; rolq $13, %%rdi; rolq $61, %%rdi; rolq $51, %%rdi\n\t"
                     "xchgq %%rbx, %%rbx"
                     : "+d"(answer)
                     : "a"(question)
                     : "cc", "memory");
    return answer != 0;
}

__attribute__((noinline, cold)) bool decide_peeking()
{
    const bool allowed = !runs_under_valgrind();
    peeking.store(allowed ? peeking_allowed : peeking_refused, std::memory_order_relaxed);
    return allowed;
}

inline bool is_peeking_allowed()
{
    const int known = peeking.load(std::memory_order_relaxed);
    return may_peek && (known == peeking_allowed || (known == peeking_unknown && decide_peeking()));
}

// How many bytes can be loaded from both places although a terminator may stand among them: what
// follows it in the same page can be read without harm, but the sanitizers and valgrind object.
inline size_t can_peek(const UTF8 *s1, const UTF8 *s2)
{
    constexpr uintptr_t page = 4096;
    const uintptr_t place = std::max(reinterpret_cast<uintptr_t>(s1) & (page - 1),
                                     reinterpret_cast<uintptr_t>(s2) & (page - 1));
    return is_peeking_allowed() ? page - place : 0;
}

// Moves the walk over equal bytes, and at first over ASCII letters of either case. True when both
// texts end there. A counted walk stops before a lead byte that ends it, and goes no further than
// its count; the end of a text is left to the rules, which may have to look back.
template <bool counted>
__attribute__((always_inline)) inline bool skip_equal(Walk &walk)
{
    const size_t peek = can_peek(walk.s1, walk.s2);
    const size_t limit = counted ? std::min(peek, walk.left) : peek;
    __m128i seen = _mm_setzero_si128();
    size_t at = 0;
    for (; at + run_size <= limit; at += run_size) {
        const __m128i a = load_run(walk.s1 + at);
        const __m128i b = load_run(walk.s2 + at);
        unsigned stops = run_stops(a, b);
        if (counted) {
            const __m128i too_long = _mm_set1_epi8(static_cast<char>(0xF8));
            stops |= bits_of(_mm_cmpeq_epi8(_mm_max_epu8(a, too_long), a));
        }
        if (stops == 0) {
            seen = _mm_or_si128(seen, a);
            continue;
        }
        size_t place = at + static_cast<size_t>(std::countr_zero(stops));
        if (!counted && (walk.s1[place] | walk.s2[place]) == 0) {
            return true;
        }
        if (bits_of(seen) != 0) {
            at = place;
            break;
        }
        stops = ascii_stops(a, b);
        if (stops != 0) {
            at += static_cast<size_t>(std::countr_zero(stops));
            if (!counted && (walk.s1[at] | walk.s2[at]) == 0) {
                return true;
            }
            break;
        }
    }
    if (bits_of(seen) != 0) {
        at = static_cast<size_t>(sequence_start(walk.s1, walk.s1 + at) - walk.s1);
    }
    walk.step(at);
    return false;
}

// Moves the walk over two-byte sequences of equal characters.
template <bool counted>
__attribute__((always_inline)) inline void skip_two_bytes(Walk &walk)
{
    Walk at = walk;
    while ((!counted || at.left >= 2) && (*at.s1 & *at.s2) >= 0xC0) {
        const unsigned place1 = two_byte_place(at.s1);
        const unsigned place2 = two_byte_place(at.s2);
        if (((place1 | place2) & koutil::two_byte_outside) != 0 ||
            lower_two_bytes.mapped[place1] != lower_two_bytes.mapped[place2]) {
            break;
        }
        at.step(2);
    }
    walk = at;
}

// A sequence, packed, with zeros for the bytes that a terminator cuts; and how many bytes it has,
// the terminator not counted.
struct Sequence {
    UTF32 key;
    size_t taken;
};

Sequence take_sequence(const UTF8 *at, size_t length)
{
    Sequence sequence = {0, 0};
    for (size_t i = 0; i < length; ++i) {
        const UTF8 byte = at[sequence.taken];
        sequence.key = sequence.key << 8 | byte;
        sequence.taken += byte != 0 ? 1 : 0;
    }
    return sequence;
}

// Order of two sequences of `length` bytes.
int compare_keys(UTF32 key1, UTF32 key2, size_t length)
{
    if (key1 == key2) {
        return 0;
    }
    const UTF32 value1 = mapped_sequence(to_lower, key1, length);
    const UTF32 value2 = mapped_sequence(to_lower, key2, length);
    return value1 == value2 ? 0 : value1 > value2 ? 1 : -1;
}

// Compares bare bytes, up to `n` or to the end of both texts.
int compare_bytes(const UTF8 *s1, const UTF8 *s2, size_t n)
{
    for (size_t i = 0; i < n; ++i) {
        if (s1[i] != s2[i]) {
            return s1[i] > s2[i] ? 1 : -1;
        }
        if (s1[i] == 0) {
            break;
        }
    }
    return 0;
}

constexpr unsigned calm = 8; // equal steps after which a longer run is looked for

// Compares the texts `s1` and `s2`, whose first `equal` bytes are the same but for the case of
// ASCII letters, those in no longer sequence.
template <bool counted>
__attribute__((noinline)) int compare_texts(const UTF8 *s1, const UTF8 *s2, size_t n, size_t equal)
{
    Walk walk = {s1, s2, n};
    if (equal != 0) {
        walk.step(static_cast<size_t>(sequence_start(s1, s1 + equal) - s1));
    }
    skip_two_bytes<counted>(walk);
    unsigned steps_to_skip = 0;
    while (!counted || walk.left > 0) {
        if (steps_to_skip-- == 0) {
            if (skip_equal<counted>(walk)) {
                return 0;
            }
            steps_to_skip = calm;
            continue;
        }
        const UTF8 c1 = ascii_lower(*walk.s1);
        const UTF8 c2 = ascii_lower(*walk.s2);
        if ((c1 | c2) < 0x80) {
            if (c1 != c2 || c1 == 0) {
                return c1 - c2;
            }
            walk.step(1);
            continue;
        }
        if (!counted && (c1 == 0 || c2 == 0)) {
            return c1 - c2;
        }
        const size_t length1 = sequence_length(c1);
        const size_t length2 = sequence_length(c2);
        if (length1 != length2) {
            return static_cast<int>(length1) - static_cast<int>(length2);
        }
        if (counted && (length1 > walk.left || length1 > 4)) {
            return compare_bytes(s1, s2, n);
        }
        const Sequence sequence1 = take_sequence(walk.s1, length1);
        const Sequence sequence2 = take_sequence(walk.s2, length1);
        const int order = compare_keys(sequence1.key, sequence2.key, length1);
        if (order != 0) {
            return order;
        }
        walk.s1 += sequence1.taken;
        walk.s2 += sequence2.taken;
        walk.left -= length1;
        skip_two_bytes<counted>(walk);
    }
    return 0;
}

} // namespace

void utf8tolower(UTF8 *source)
{
    change_case(to_lower, source);
}

void utf8toupper(UTF8 *source)
{
    change_case(to_upper, source);
}

int utf8casecmp(const UTF8 *s1, const UTF8 *s2)
{
    const ptrdiff_t last =
        static_cast<ptrdiff_t>(can_peek(s1, s2)) - static_cast<ptrdiff_t>(run_size);
    ptrdiff_t at = 0;
    for (; at <= last; at += run_size) {
        const unsigned stops = run_stops(load_run(s1 + at), load_run(s2 + at));
        if (stops != 0) {
            const ptrdiff_t place = at + __builtin_ctz(stops);
            if ((s1[place] | s2[place]) == 0) {
                return 0;
            }
            break;
        }
    }
    if (at == 0 && (*s1 | *s2) < 0x80) {
        for (; at <= last; at += run_size) {
            const unsigned stops = ascii_stops(load_run(s1 + at), load_run(s2 + at));
            if (stops != 0) {
                at += __builtin_ctz(stops);
                const unsigned both = s1[at] | s2[at];
                if (both == 0) {
                    return 0;
                }
                if (both < 0x80) {
                    return ascii_lower(s1[at]) - ascii_lower(s2[at]);
                }
                break;
            }
        }
    }
    return compare_texts<false>(s1, s2, 0, static_cast<size_t>(at));
}

int utf8ncasecmp(const UTF8 *s1, const UTF8 *s2, int n)
{
    return n > 0 ? compare_texts<true>(s1, s2, static_cast<size_t>(n), 0) : 0;
}
