// utf8_fuzz.cpp - any bytes as UTF-8 and as UTF-16: wide steps give what the plain rules give, what
// strict mode accepts comes back as it was, and the case routines keep lengths and agree.
#include "internal/utf8_vectors.h"
#include "koutil/utf8.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace
{

void require(bool condition)
{
    if (!condition) {
        abort();
    }
}

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

void check_case(const std::vector<UTF8> &bytes)
{
    if (bytes.empty()) {
        return;
    }
    // Texts on blocks of their exact size, so that reads behind the terminator show.
    const auto copy = [&] {
        return std::unique_ptr<char, void (*)(void *)>(
            strndup(reinterpret_cast<const char *>(bytes.data()), bytes.size()), free);
    };
    const auto bytes_of = [](const auto &text) { return reinterpret_cast<UTF8 *>(text.get()); };
    const auto text = copy();
    const auto small = copy();
    const size_t length = strlen(text.get());
    utf8tolower(bytes_of(small));
    require(strlen(small.get()) == length);
    require(utf8casecmp(bytes_of(text), bytes_of(small)) == 0);
    require(utf8ncasecmp(bytes_of(text), bytes_of(text), static_cast<int>(length)) == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 3) {
        return 0;
    }
    const unsigned flags = data[0] % 4;
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
    return 0;
}
