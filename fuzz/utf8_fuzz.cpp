// utf8_fuzz.cpp - any bytes as UTF-8 and as UTF-16: wide steps give what the plain rules give, what
// strict mode accepts comes back as it was, and the case routines keep lengths and agree.
#include "fuzz.h"
#include "internal/utf8_vectors.h"
#include "koutil/utf8.h"

#include <algorithm>
#include <vector>

namespace
{

template <typename To>
struct Result {
    ConversionResult result;
    size_t consumed;
    std::vector<To> target;
    bool operator==(const Result &) const = default;
};

ConversionResult call(const UTF8 **from, const UTF8 *end, UTF16 **to, UTF16 *to_end, unsigned flags)
{
    return ConvertUTF8toUTF16(from, end, to, to_end, flags);
}
ConversionResult call(const UTF16 **from, const UTF16 *end, UTF8 **to, UTF8 *to_end, unsigned flags)
{
    return ConvertUTF16toUTF8(from, end, to, to_end, flags);
}

template <typename To, typename From>
Result<To> convert(const std::vector<From> &source, size_t room, unsigned flags, bool wide)
{
    koutil::utf8_allow_wide_steps(wide);
    const std::unique_ptr<From[]> exact(new From[source.size()]);
    const std::unique_ptr<To[]> target(new To[room]());
    std::copy(source.begin(), source.end(), exact.get());
    const From *from = exact.get();
    To *to = target.get();
    const ConversionResult result =
        call(&from, exact.get() + source.size(), &to, target.get() + room, flags);
    return {result, static_cast<size_t>(from - exact.get()), {target.get(), target.get() + room}};
}

template <typename To, typename From>
Result<To> convert_both(const std::vector<From> &source, size_t room, unsigned flags)
{
    Result<To> plain = convert<To>(source, room, flags, false);
    require(convert<To>(source, room, flags, true) == plain);
    return plain;
}

int sign(int value)
{
    return (value > 0) - (value < 0);
}

const UTF8 *bytes_of(const Text &text)
{
    return reinterpret_cast<const UTF8 *>(text.get());
}

// Two texts in blocks of their own: each equals itself in small and in capital letters, and their
// order is that of their small letters, whichever stands first.
void check_case(const std::vector<UTF8> &bytes)
{
    const size_t half = bytes.size() / 2;
    const Text a = text_of(bytes.data(), half);
    const Text b = text_of(bytes.data() + half, bytes.size() - half);
    const int order = sign(utf8casecmp(bytes_of(a), bytes_of(b)));
    require(sign(utf8casecmp(bytes_of(b), bytes_of(a))) == -order);
    for (const Text *each : {&a, &b}) {
        const size_t length = strlen(each->get());
        for (const auto change : {utf8tolower, utf8toupper}) {
            const Text other = text_of(each->get(), length);
            change(reinterpret_cast<UTF8 *>(other.get()));
            require(strlen(other.get()) == length);
            require(utf8casecmp(bytes_of(*each), bytes_of(other)) == 0);
            require(sign(utf8casecmp(bytes_of(other), bytes_of(each == &a ? b : a))) ==
                    (each == &a ? order : -order));
        }
        require(utf8ncasecmp(bytes_of(*each), bytes_of(*each), static_cast<int>(length)) == 0);
    }
    // As many bytes as both have, without a terminator behind them.
    const size_t common = std::min(strlen(a.get()), strlen(b.get()));
    const Text bare_a = room_of(common);
    const Text bare_b = room_of(common);
    memcpy(bare_a.get(), a.get(), common);
    memcpy(bare_b.get(), b.get(), common);
    require(utf8ncasecmp(bytes_of(bare_a), bytes_of(bare_b), static_cast<int>(common)) ==
            utf8ncasecmp(bytes_of(a), bytes_of(b), static_cast<int>(common)));
}

// A sequence is legal exactly where a conversion takes it.
void check_legal(const std::vector<UTF8> &bytes)
{
    const Text exact = room_of(bytes.size());
    std::copy(bytes.begin(), bytes.end(), exact.get());
    const UTF8 *const end = bytes_of(exact) + bytes.size();
    for (const UTF8 *at = bytes_of(exact); at != end; at++) {
        UTF16 units[2];
        UTF16 *to = units;
        const UTF8 *from = at;
        ConvertUTF8toUTF16(&from, end, &to, units + 2, 0);
        require((isLegalUTF8Sequence(at, end) != 0) == (from != at));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3) {
        return 0;
    }
    const unsigned flags = data[0] % 8;
    const size_t room = size_t{data[1]} * 2;
    const std::vector<UTF8> bytes(data + 2, data + size);
    std::vector<UTF16> units((size - 2) / 2);
    if (!units.empty()) {
        memcpy(units.data(), data + 2, units.size() * 2);
    }
    convert_both<UTF16>(bytes, room, flags);
    convert_both<UTF8>(units, room, flags);
    const Result<UTF16> whole = convert_both<UTF16>(bytes, bytes.size(), strictConversion);
    if (whole.result == conversionOK) {
        const Result<UTF8> back = convert_both<UTF8>(whole.target, 3 * bytes.size(), 0);
        require(std::equal(bytes.begin(), bytes.end(), back.target.begin()));
    }
    check_case(bytes);
    check_legal(bytes);
    return 0;
}
