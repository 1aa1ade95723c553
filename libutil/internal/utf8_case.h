// utf8_case.h - the case tables of utf8, computed at compile time from runs of capitals.
#ifndef KOUTIL_INTERNAL_UTF8_CASE_H
#define KOUTIL_INTERNAL_UTF8_CASE_H

#include "koutil/utf8.h"

#include <cstddef>

namespace koutil
{

// The capitals `first` to `last`, every `step`-th, and the way from each to its small letter.
struct CaseRun {
    int first, last, step, offset;
};

// clang-format off
constexpr CaseRun case_runs[] = {
    {0x00C0, 0x00D6, 1, 32}, {0x00D8, 0x00DE, 1, 32}, {0x0100, 0x012E, 2, 1},
    {0x0132, 0x0136, 2, 1}, {0x0139, 0x0147, 2, 1}, {0x014A, 0x0176, 2, 1},
    {0x0178, 0x0178, 1, -121}, {0x0179, 0x017D, 2, 1}, {0x0181, 0x0181, 1, 210},
    {0x0182, 0x0184, 2, 1}, {0x0186, 0x0186, 1, 206}, {0x0187, 0x0187, 1, 1},
    {0x0189, 0x018A, 1, 205}, {0x018B, 0x018B, 1, 1}, {0x018E, 0x018E, 1, 79},
    {0x018F, 0x018F, 1, 202}, {0x0190, 0x0190, 1, 203}, {0x0191, 0x0191, 1, 1},
    {0x0193, 0x0193, 1, 205}, {0x0194, 0x0194, 1, 207}, {0x0196, 0x0196, 1, 211},
    {0x0197, 0x0197, 1, 209}, {0x0198, 0x0198, 1, 1}, {0x019C, 0x019C, 1, 211},
    {0x019D, 0x019D, 1, 213}, {0x019F, 0x019F, 1, 214}, {0x01A0, 0x01A4, 2, 1},
    {0x01A7, 0x01A7, 1, 1}, {0x01A9, 0x01A9, 1, 218}, {0x01AC, 0x01AC, 1, 1},
    {0x01AE, 0x01AE, 1, 218}, {0x01AF, 0x01AF, 1, 1}, {0x01B1, 0x01B2, 1, 217},
    {0x01B3, 0x01B5, 2, 1}, {0x01B7, 0x01B7, 1, 219}, {0x01B8, 0x01B8, 1, 1},
    {0x01BC, 0x01BC, 1, 1}, {0x01C4, 0x01C4, 1, 2}, {0x01C7, 0x01C7, 1, 2}, {0x01CA, 0x01CA, 1, 2},
    {0x01CD, 0x01DB, 2, 1}, {0x01DE, 0x01EE, 2, 1}, {0x01F1, 0x01F1, 1, 2}, {0x01F4, 0x01F4, 1, 1},
    {0x01FA, 0x0216, 2, 1}, {0x0386, 0x0386, 1, 38}, {0x0388, 0x038A, 1, 37},
    {0x038C, 0x038C, 1, 64}, {0x038E, 0x038F, 1, 63}, {0x0391, 0x03A1, 1, 32},
    {0x03A3, 0x03AB, 1, 32}, {0x03E2, 0x03EE, 2, 1}, {0x0401, 0x040C, 1, 80},
    {0x040E, 0x040F, 1, 80}, {0x0410, 0x042F, 1, 32}, {0x0460, 0x0480, 2, 1},
    {0x0490, 0x04BE, 2, 1}, {0x04C1, 0x04C3, 2, 1}, {0x04C7, 0x04C7, 1, 1}, {0x04CB, 0x04CB, 1, 1},
    {0x04D0, 0x04EA, 2, 1}, {0x04EE, 0x04F4, 2, 1}, {0x04F8, 0x04F8, 1, 1}, {0x0531, 0x0556, 1, 48},
    {0x10A0, 0x10C5, 1, 48}, {0x1E00, 0x1E94, 2, 1}, {0x1EA0, 0x1EF8, 2, 1},
    {0x1F08, 0x1F0F, 1, -8}, {0x1F18, 0x1F1D, 1, -8}, {0x1F28, 0x1F2F, 1, -8},
    {0x1F38, 0x1F3F, 1, -8}, {0x1F48, 0x1F4D, 1, -8}, {0x1F59, 0x1F5F, 2, -8},
    {0x1F68, 0x1F6F, 1, -8}, {0x1FB8, 0x1FB9, 1, -8}, {0x1FBA, 0x1FBB, 1, -74},
    {0x1FC8, 0x1FCB, 1, -86}, {0x1FD8, 0x1FD9, 1, -8}, {0x1FDA, 0x1FDB, 1, -100},
    {0x1FE8, 0x1FE9, 1, -8}, {0x1FEA, 0x1FEB, 1, -112}, {0x1FEC, 0x1FEC, 1, -7},
    {0x1FF8, 0x1FF9, 1, -128}, {0x1FFA, 0x1FFB, 1, -126}, {0x2160, 0x216F, 1, 16},
    {0x24B6, 0x24CF, 1, 26}, {0xFF21, 0xFF3A, 1, 32},
};
// clang-format on

constexpr size_t case_pairs = 647;
constexpr size_t case_probes = 3; // buckets in which a key is found, from its home bucket on

struct CaseTable {
    utf8hashbkt_t buckets[UTF8HASH_BUCKETS];
};

// The sequence of a code point of two or three bytes, as a key.
constexpr UTF32 packed_sequence(int code)
{
    const UTF32 ch = static_cast<UTF32>(code);
    if (ch < 0x800) {
        return (0xC0 | ch >> 6) << 8 | (0x80 | (ch & 0x3F));
    }
    return (0xE0 | ch >> 12) << 16 | (0x80 | (ch >> 6 & 0x3F)) << 8 | (0x80 | (ch & 0x3F));
}

constexpr size_t next_bucket(size_t bucket)
{
    return (bucket + UTF8HASH_STEP) % UTF8HASH_BUCKETS;
}

// The counterpart of a packed sequence; the sequence itself where it has none.
constexpr UTF32 mapped(const CaseTable &table, UTF32 key)
{
    size_t bucket = key % UTF8HASH_BUCKETS;
    for (size_t probe = 0; probe < case_probes; ++probe) {
        const utf8hashbkt_t &entry = table.buckets[bucket];
        if (entry.hkey == key) {
            return entry.hval;
        }
        if (entry.hkey == 0) {
            break;
        }
        bucket = next_bucket(bucket);
    }
    return key;
}

constexpr void insert_pair(CaseTable &table, UTF32 key, UTF32 value)
{
    size_t bucket = key % UTF8HASH_BUCKETS;
    while (table.buckets[bucket].hkey != 0) {
        bucket = next_bucket(bucket);
    }
    table.buckets[bucket] = {key, value};
}

// Pairs go in by ascending capital: in this order no key is displaced by more than two steps.
constexpr CaseTable make_case_table(bool to_lower)
{
    CaseTable table = {};
    for (const CaseRun &run : case_runs) {
        for (int code = run.first; code <= run.last; code += run.step) {
            const UTF32 capital = packed_sequence(code);
            const UTF32 small = packed_sequence(code + run.offset);
            insert_pair(table, to_lower ? capital : small, to_lower ? small : capital);
        }
    }
    return table;
}

// Whether the table holds every pair of the runs within reach, of one length on both sides, and
// nothing else.
constexpr bool is_complete(const CaseTable &table, bool to_lower)
{
    size_t pairs = 0;
    for (const CaseRun &run : case_runs) {
        for (int code = run.first; code <= run.last; code += run.step) {
            const UTF32 capital = packed_sequence(code);
            const UTF32 small = packed_sequence(code + run.offset);
            if (mapped(table, to_lower ? capital : small) != (to_lower ? small : capital) ||
                (capital > 0xFFFF) != (small > 0xFFFF)) {
                return false;
            }
            ++pairs;
        }
    }
    size_t used = 0;
    for (const utf8hashbkt_t &entry : table.buckets) {
        used += entry.hkey != 0 ? 1 : 0;
    }
    return pairs == case_pairs && used == case_pairs;
}

// Two-byte sequences have a direct table beside the hashed one. A place is the packed sequence less
// its marks, 0xC080; three quarters of the places stand for none and stay empty, so that a place is
// found in one step.
constexpr unsigned two_byte_marks = 0xC080;
constexpr unsigned two_byte_outside = 0xE0C0; // bits of a place of other bytes

struct TwoByteTable {
    uint16_t mapped[0x2000];
};

constexpr TwoByteTable make_two_byte_table(const CaseTable &table)
{
    TwoByteTable direct = {};
    for (unsigned lead = 0; lead < 0x20; ++lead) {
        for (unsigned tail = 0; tail < 0x40; ++tail) {
            const unsigned place = lead << 8 | tail;
            direct.mapped[place] = static_cast<uint16_t>(mapped(table, place | two_byte_marks));
        }
    }
    return direct;
}

} // namespace koutil

#endif
