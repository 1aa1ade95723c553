// payload_test.cpp - hexadecimal dumps, each held against one made by the platform's formatter.
#include "koutil/payload.h"
#include "support/support.h"

#include <gtest/gtest.h>

#include <cctype>
#include <string>

namespace
{

std::string dump(const std::string &bytes, int space, int do_skip, unsigned offset)
{
    return support::capture(1, [&] {
        dump_payload(stdout, space, do_skip, reinterpret_cast<const unsigned char *>(bytes.data()),
                     static_cast<unsigned>(bytes.size()), offset);
    });
}

template <typename... Args>
std::string format(const char *form, Args... args)
{
    char text[200];
    snprintf(text, sizeof text, form, args...);
    return text;
}

// One line as the format strings describe it.
std::string line(const std::string &bytes, int space, unsigned offset)
{
    std::string text = format("%*s%04x:  ", space, " ", offset);
    std::string characters;
    for (size_t i = 0; i < bytes.size(); i++) {
        const auto byte = static_cast<unsigned char>(bytes[i]);
        text += format(i % 2 == 0 ? "%02x" : "%02x ", byte);
        characters += isprint(byte) != 0 ? bytes[i] : '.';
    }
    return text + format(" |%s\n", characters.c_str());
}

const std::string zeros(16, '\0');
const std::string text16 = "0123456789 ~\x7f\x1f\x80\xff";

} // namespace

TEST(Payload, LaysOutLinesOfEveryLength)
{
    EXPECT_EQ(dump("", 4, 0, 0), "");
    for (size_t length = 1; length <= 16; length++) {
        const std::string bytes = text16.substr(16 - length);
        EXPECT_EQ(dump(bytes, 0, 0, 256), line(bytes, 0, 256));
        EXPECT_EQ(dump(text16 + bytes, 70, 1, 0), line(text16, 70, 0) + line(bytes, 70, 16));
    }
    for (unsigned offset : {0U, 0xffffU, 0x10000U, 0xfffffU, 0xfffffff0U}) {
        EXPECT_EQ(dump(text16 + "abc", -3, 0, offset),
                  line(text16, -3, offset) + line("abc", -3, offset + 16));
    }
}

TEST(Payload, CollapsesRunsOfZeroLines)
{
    const std::string marker = "         .........\n";
    const auto expect = [](const std::string &bytes, const std::string &expected) {
        EXPECT_EQ(dump(bytes, 2, 1, 0), expected);
    };
    const std::string first = line(text16, 2, 0);
    expect(text16 + zeros + text16, first + line(zeros, 2, 16) + line(text16, 2, 32));
    expect(text16 + zeros + zeros + zeros + zeros + text16,
           first + line(zeros, 2, 16) + marker + line(text16, 2, 80));
    expect(zeros + zeros + "x", line(zeros, 2, 0) + marker + line("x", 2, 32));
    expect(text16 + zeros + zeros + std::string(3, '\0'), first + line(zeros, 2, 16));
    expect(text16 + std::string(3, '\0'), first + line(std::string(3, '\0'), 2, 16));
    EXPECT_EQ(dump(zeros + zeros, 2, 0, 0), line(zeros, 2, 0) + line(zeros, 2, 16));
}
