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

#include <algorithm>
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

constexpr SfmTable make_sfm_table()
{
    SfmTable table = {};
    for (unsigned i = 0; i < 128; ++i) {
        table.unit[i] = static_cast<UTF16>(i < 0x20 ? sfm_first + i : i);
    }
    for (unsigned i = 0; sfm_characters[i] != '\0'; ++i) {
        table.unit[static_cast<unsigned char>(sfm_characters[i])] =
            static_cast<UTF16>(sfm_special + i);
    }
    return table;
}

} // namespace

// The exported arrays are other names of objects that are computed whole.
extern "C" {
extern const koutil::CaseTable ko_utf8_lower;
extern const koutil::CaseTable ko_utf8_upper;
extern const SfmTable ko_utf8_sfm;
constexpr koutil::CaseTable ko_utf8_lower = koutil::make_case_table(true);
constexpr koutil::CaseTable ko_utf8_upper = koutil::make_case_table(false);
constexpr SfmTable ko_utf8_sfm = make_sfm_table();

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

// The code point of a legal sequence.
UTF32 decoded(const UTF8 *source, size_t length)
{
    switch (length) {
    case 1:
        return source[0];
    case 2:
        return UTF32{source[0] & 0x1Fu} << 6 | (source[1] & 0x3Fu);
    case 3:
        return UTF32{source[0] & 0x0Fu} << 12 | UTF32{source[1] & 0x3Fu} << 6 | (source[2] & 0x3Fu);
    default:
        return UTF32{source[0] & 0x07u} << 18 | UTF32{source[1] & 0x3Fu} << 12 |
               UTF32{source[2] & 0x3Fu} << 6 | (source[3] & 0x3Fu);
    }
}

size_t encoded_length(UTF32 ch)
{
    return ch < 0x80 ? 1 : ch < 0x800 ? 2 : ch < halfBase ? 3 : 4;
}

void encode(UTF32 ch, size_t length, UTF8 *target)
{
    constexpr UTF8 firstByteMark[] = {0x00, 0x00, 0xC0, 0xE0, 0xF0};
    for (size_t i = length - 1; i > 0; --i) {
        target[i] = static_cast<UTF8>((ch & 0x3F) | 0x80);
        ch >>= 6;
    }
    target[0] = static_cast<UTF8>(ch | firstByteMark[length]);
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

// The unit for an ASCII character under the sfm mapping. A space or period stays unless it is the
// `last` character of a bounded source.
UTF16 sfm_unit(const Decoding &job, UTF32 ch, bool last)
{
    if (ch != ' ' && ch != '.') {
        return ko_utf8_sfm.unit[ch];
    }
    const ptrdiff_t length = job.end - job.begin;
    const bool dots = job.begin[0] == '.' && (length == 1 || (length == 2 && job.begin[1] == '.'));
    return last && !dots ? ko_utf8_sfm.unit[ch] : static_cast<UTF16>(ch);
}

// Converts one character at a time until the source reaches `stop` or a step fails.
template <bool terminated, bool sfm>
ConversionResult decode_characters(Decoding &job, const UTF8 *stop)
{
    while (job.source < stop) {
        const size_t length = sequence_length(*job.source);
        if (!terminated && length > job.left()) {
            return sourceExhausted;
        }
        if (!is_legal(job.source, length)) {
            return sourceIllegal;
        }
        const UTF32 ch = decoded(job.source, length);
        if (job.room() == 0) {
            return targetExhausted;
        }
        if (ch >= halfBase) {
            if (job.room() < 2) {
                return targetExhausted;
            }
            *job.target++ = static_cast<UTF16>(0xD800 + ((ch - halfBase) >> halfShift));
            *job.target++ = static_cast<UTF16>(0xDC00 + ((ch - halfBase) & halfMask));
        } else if (job.strict && is_surrogate(ch)) {
            return sourceIllegal;
        } else if (sfm && ch < 0x80) {
            *job.target++ = sfm_unit(job, ch, !terminated && job.left() == 1);
        } else {
            *job.target++ = static_cast<UTF16>(ch);
        }
        job.source += length;
    }
    return conversionOK;
}

// The character at the source, and how many units it takes; 0 units for a lone surrogate that
// strict mode refuses. A high surrogate at the end of a bounded source is taken as it is.
template <bool terminated>
size_t next_code_point(const Encoding &job, UTF32 *ch)
{
    *ch = *job.source;
    if (!is_surrogate(*ch)) {
        return 1;
    }
    if (is_low_surrogate(*ch)) {
        return job.strict ? 0 : 1;
    }
    if (!terminated && job.left() == 1) {
        return 1;
    }
    const UTF32 low = job.source[1];
    if (is_low_surrogate(low)) {
        *ch = ((*ch - 0xD800) << halfShift) + (low - 0xDC00) + halfBase;
        return 2;
    }
    return job.strict ? 0 : 1;
}

template <bool terminated, bool sfm>
ConversionResult encode_characters(Encoding &job, const UTF16 *stop)
{
    while (job.source < stop) {
        UTF32 ch = 0;
        const size_t units = next_code_point<terminated>(job, &ch);
        if (units == 0) {
            return sourceIllegal;
        }
        if (sfm && ch >= sfm_first && ch <= sfm_last) {
            ch = ch < sfm_special ? ch & 0x1F : sfm_U2A[ch & 0xF];
        }
        const size_t length = encoded_length(ch);
        if (length > job.room()) {
            return targetExhausted;
        }
        encode(ch, length, job.target);
        job.source += units;
        job.target += length;
    }
    return conversionOK;
}

constexpr size_t run_size = 16; // characters that an ASCII step takes

// Takes whole steps of ASCII, which needs no rule but room. Not for the sfm mapping.
void take_runs(Decoding &job)
{
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
        const From *const stop = job.source + std::min(job.left(), run_size);
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
    if (length == 2 && (key & 0xC0) == 0x80) {
        return map.two_bytes.mapped[(key >> 8 & 0x1F) << 6 | (key & 0x3F)];
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

// Changes the sequence of `length` bytes at `at`.
void change_sequence(const CaseMap &map, UTF8 *at, size_t length)
{
    if (length > 3) {
        return;
    }
    UTF32 key = 0;
    for (size_t i = 0; i < length; ++i) {
        key = key << 8 | at[i];
    }
    UTF32 value = mapped_sequence(map, key, length);
    if (value != key) {
        for (size_t i = length; i-- > 0; value >>= 8) {
            at[i] = static_cast<UTF8>(value);
        }
    }
}

void change_case(const CaseMap &map, UTF8 *source)
{
    UTF8 *at = source;
    UTF8 *const end = source + strlen(reinterpret_cast<const char *>(source));
    while (at != end) {
        const size_t left = static_cast<size_t>(end - at);
        if (*at < 0x80) {
            if (left >= run_size && change_run(map, at)) {
                at += run_size;
                continue;
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

// The sequence at `at`, packed, with zeros for the bytes that a terminator cuts. Moves *at behind
// it, but not past the terminator.
UTF32 take_sequence(const UTF8 **at, size_t length)
{
    UTF32 key = 0;
    for (size_t i = 0; i < length; ++i) {
        key = key << 8 | **at;
        *at += **at != 0 ? 1 : 0;
    }
    return key;
}

// Compares the sequences of `length` bytes at *s1 and *s2 and moves behind both.
int compare_sequences(const UTF8 **s1, const UTF8 **s2, size_t length)
{
    const UTF32 key1 = take_sequence(s1, length);
    const UTF32 key2 = take_sequence(s2, length);
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
    for (;;) {
        const UTF8 c1 = ascii_lower(*s1);
        const UTF8 c2 = ascii_lower(*s2);
        if ((c1 | c2) < 0x80) {
            if (c1 != c2 || c1 == 0) {
                return c1 - c2;
            }
            ++s1;
            ++s2;
            continue;
        }
        if (c1 == 0 || c2 == 0) {
            return c1 - c2;
        }
        const size_t length1 = sequence_length(c1);
        const size_t length2 = sequence_length(c2);
        if (length1 != length2) {
            return static_cast<int>(length1) - static_cast<int>(length2);
        }
        const int order = compare_sequences(&s1, &s2, length1);
        if (order != 0) {
            return order;
        }
    }
}

int utf8ncasecmp(const UTF8 *s1, const UTF8 *s2, int n)
{
    const UTF8 *at1 = s1;
    const UTF8 *at2 = s2;
    size_t left = n > 0 ? static_cast<size_t>(n) : 0;
    while (left > 0) {
        const UTF8 c1 = ascii_lower(*at1);
        const UTF8 c2 = ascii_lower(*at2);
        if ((c1 | c2) < 0x80) {
            if (c1 != c2 || c1 == 0) {
                return c1 - c2;
            }
            ++at1;
            ++at2;
            --left;
            continue;
        }
        const size_t length1 = sequence_length(c1);
        const size_t length2 = sequence_length(c2);
        if (length1 != length2) {
            return static_cast<int>(length1) - static_cast<int>(length2);
        }
        if (length1 > left || length1 > 4) {
            return compare_bytes(s1, s2, static_cast<size_t>(n));
        }
        const int order = compare_sequences(&at1, &at2, length1);
        if (order != 0) {
            return order;
        }
        left -= length1;
    }
    return 0;
}
