// payload.cpp - hexadecimal dumps; each line is composed in memory and written at once.
#include "koutil/payload.h"

#include <algorithm>

namespace
{

constexpr size_t bytes_per_line = 16;
constexpr char digits[] = "0123456789abcdef";

// Where the lines go, and how they begin.
struct Sheet {
    FILE *fp;
    size_t indent;

    void print(const char *text, size_t length) const
    {
        constexpr char blanks[] = "                                ";
        for (size_t left = indent; left > 0;) {
            const size_t part = std::min(left, sizeof blanks - 1);
            fwrite_unlocked(blanks, 1, part, fp);
            left -= part;
        }
        fwrite_unlocked(text, 1, length, fp);
    }
};

// "%04x:  "; returns the end.
char *put_offset(char *to, uint32_t offset)
{
    int length = 4;
    while (length < 8 && offset >> (4 * length) != 0) {
        length++;
    }
    for (int digit = length - 1; digit >= 0; digit--) {
        *to++ = digits[offset >> (4 * digit) & 15];
    }
    *to++ = ':';
    *to++ = ' ';
    *to++ = ' ';
    return to;
}

void print_line(const Sheet &sheet, uint32_t offset, const unsigned char *bytes, size_t count)
{
    char line[8 + 3 + bytes_per_line * 5 / 2 + 2 + bytes_per_line + 1];
    char *to = put_offset(line, offset);
    for (size_t i = 0; i < count; i++) {
        *to++ = digits[bytes[i] >> 4];
        *to++ = digits[bytes[i] & 15];
        if (i % 2 == 1) {
            *to++ = ' ';
        }
    }
    *to++ = ' ';
    *to++ = '|';
    for (size_t i = 0; i < count; i++) {
        const bool printable = bytes[i] >= 0x20 && bytes[i] <= 0x7e;
        *to++ = printable ? static_cast<char>(bytes[i]) : '.';
    }
    *to++ = '\n';
    sheet.print(line, static_cast<size_t>(to - line));
}

bool all_zero(const unsigned char *bytes, size_t count)
{
    return std::all_of(bytes, bytes + count, [](unsigned char byte) { return byte == 0; });
}

} // namespace

void dump_payload(FILE *fp, int space, int do_skip, const unsigned char *op_data,
                  unsigned int op_len, unsigned int offset)
{
    const auto width = static_cast<unsigned>(space);
    const Sheet sheet = {fp, std::max(space < 0 ? 0U - width : width, 1U)};
    constexpr char marker[] = "       .........\n";
    bool in_run = false; // the line before was a zero line
    bool left_out = false;
    for (size_t at = 0; at < op_len; at += bytes_per_line) {
        const size_t count = std::min(bytes_per_line, op_len - at);
        const bool zero = do_skip != 0 && all_zero(op_data + at, count);
        if (zero && in_run) {
            left_out = true;
            continue;
        }
        flockfile(fp);
        if (left_out) {
            sheet.print(marker, sizeof marker - 1);
        }
        print_line(sheet, static_cast<uint32_t>(at) + offset, op_data + at, count);
        funlockfile(fp);
        in_run = zero;
        left_out = false;
    }
}
