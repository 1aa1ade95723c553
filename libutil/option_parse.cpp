// option_parse.cpp - the option-string parser.
//
// Texts are looked at through string views on the caller's string; nothing is copied but a string
// value. Each kind of value has its parse function, exported for callers that walk a string on
// their own, and a step of parse_option that adds the message.
#include "koutil/option_parse.h"

#include "internal/literal.h"
#include "koutil/snprintf.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace
{

using std::string_view;

constexpr size_t number_text_size = 21;
constexpr size_t interval_text_size = 24;
constexpr size_t usage_column_size = 80;
constexpr size_t usage_column_width = 30;

struct BoolWord {
    string_view word;
    uint64_t value;
};

// Tried in this order, so a word stands before its own beginning.
constexpr BoolWord Boolstr[] = {{"no", 0},   {"yes", 1}, {"off", 0}, {"on", 1}, {"false", 0},
                                {"true", 1}, {"n", 0},   {"y", 1},   {"0", 0},  {"1", 1}};

constexpr char lower(char c)
{
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c + ('a' - 'A')) : c;
}

bool equal_ignoring_case(string_view a, string_view b)
{
    return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                      [](char x, char y) { return lower(x) == lower(y); });
}

// The part of `text` before the first character of `stops`, or all of it.
string_view up_to(const char *text, const char *stops)
{
    return {text, strcspn(text, stops)};
}

// Length of a text as the precision of "%.*s".
int precision(string_view text)
{
    return static_cast<int>(std::min<size_t>(text.size(), INT_MAX));
}

// One option being parsed: where it came from, where its messages go.
struct Job {
    char **options;
    uint64_t *int_value;
    char *str_value;
    int str_len;
    char *err_msg;
    size_t err_size; // 0 without a message buffer
};

// Writes the message and clears the number; the result of every failure.
KO_PRINTF(2, 3) uint32_t fail(const Job &job, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    VoVsnprintf(job.err_msg, job.err_size, format, args);
    va_end(args);
    *job.int_value = 0;
    return OPTION_ERROR;
}

// A row's m_name taken apart.
struct Syntax {
    explicit Syntax(const Option &row)
        : name(up_to(row.m_name, "="))
        , has_value(row.m_name[name.size()] == '=')
        , value(row.m_name + name.size() + (has_value ? 1 : 0))
    {
    }
    // The name with its "=", as it stands in the input before a value.
    string_view key() const { return {name.data(), name.size() + (has_value ? 1 : 0)}; }
    // The letter of a value syntax "%x"; 0 for any other.
    char letter() const { return value[0] == '%' ? value[1] : '\0'; }

    string_view name;
    bool has_value;
    const char *value;
};

enum class Match { none, flag, value, value_missing };

// Whether `text` begins with `name`, ignoring case.
bool begins_with(const char *text, string_view name)
{
    size_t i = 0;
    while (i < name.size() && lower(text[i]) == lower(name[i])) {
        ++i; // a text that ends differs there, for a name holds no zero
    }
    return i == name.size();
}

// Finds the first row for a name, which the input gives a value or not.
Match find_row(const Option *syntax, string_view name, bool with_value, const Option **found)
{
    for (const Option *row = syntax; row->m_name != nullptr; ++row) {
        const char *const behind = row->m_name + name.size();
        if (!begins_with(row->m_name, name) || (*behind != '\0' && *behind != '=')) {
            continue;
        }
        *found = row;
        const bool takes_value = *behind == '=';
        if (takes_value == with_value) {
            return with_value ? Match::value : Match::flag;
        }
        if (takes_value) {
            return Syntax(*row).letter() == 'b' ? Match::flag : Match::value_missing;
        }
    }
    return Match::none;
}

bool in_range(const Option &row, uint64_t value)
{
    return (row.m_min == 0 || value >= row.m_min) && (row.m_max == 0 || value <= row.m_max);
}

// The steps of parse_option for each kind of value. *job.options stands at the value.

uint32_t take_boolean(const Job &job, const Option &row, string_view name)
{
    if (parse_boolean(job.options, job.int_value) == 0) {
        const string_view value = up_to(*job.options, ",=");
        return fail(job, "Unrecognized boolean value in '%.*s=%.*s'\n", precision(name),
                    name.data(), precision(value), value.data());
    }
    return row.m_option;
}

uint32_t take_string(const Job &job, const Option &row, string_view name)
{
    char *reason = nullptr;
    // Without room for the terminator there is none for a text of any length.
    const int room = std::max(job.str_len, 0) - 1;
    if (parse_string(job.options, job.str_value, room, &reason) == 0) {
        return fail(job, "Parse error in string value (%s) '%.*s=%s\n", reason, precision(name),
                    name.data(), *job.options);
    }
    return row.m_option;
}

uint32_t take_interval(const Job &job, const Option &row, string_view name)
{
    if (parse_interval(job.options, job.int_value, job.err_msg, job.err_size) == 0) {
        const size_t used = job.err_size != 0 ? strlen(job.err_msg) : 0;
        if (used < job.err_size) {
            VoSnprintf(job.err_msg + used, job.err_size - used, "Option: '%.*s=%s'\n",
                       precision(name), name.data(), *job.options);
        }
        return OPTION_ERROR;
    }
    if (!in_range(row, *job.int_value)) {
        return fail(job, "Parameter '%.*s' (%ld) out of range, min %d max %d\n", precision(name),
                    name.data(), static_cast<long>(*job.int_value), static_cast<int>(row.m_min),
                    static_cast<int>(row.m_max));
    }
    return row.m_option;
}

uint32_t take_number(const Job &job, const Option &row, string_view name, bool with_unit)
{
    char *reason = nullptr;
    const bool taken = with_unit ? parse_number(job.options, job.int_value, &reason) != 0
                                 : parse_decimal(job.options, job.int_value) != 0;
    if (!taken) {
        const string_view value = up_to(*job.options, ",=");
        return with_unit ? fail(job, "Unrecognized number (%s) in '%.*s=%.*s'\n", reason,
                                precision(name), name.data(), precision(value), value.data())
                         : fail(job, "Unrecognized decimal value in '%.*s=%.*s'\n", precision(name),
                                name.data(), precision(value), value.data());
    }
    if (!in_range(row, *job.int_value)) {
        return fail(job, "Parameter '%.*s' (%ld) out of range, min %ld max %ld\n", precision(name),
                    name.data(), static_cast<long>(*job.int_value), static_cast<long>(row.m_min),
                    static_cast<long>(row.m_max));
    }
    return row.m_option;
}

uint32_t take_choice(const Job &job, const Option &row, string_view name, const char *choices)
{
    if (parse_choice(job.options, choices, job.int_value) == 0) {
        const string_view value = up_to(*job.options, ",=");
        return fail(job, "Unknown choice enumerated in option '%.*s=%.*s'; Expected: {%s}\n",
                    precision(name), name.data(), precision(value), value.data(), choices + 1);
    }
    return row.m_option;
}

uint32_t take_value(const Job &job, const Option &row)
{
    const Syntax syntax(row);
    if (syntax.value[0] == '|') {
        return take_choice(job, row, syntax.name, syntax.value);
    }
    switch (syntax.letter()) {
    case 'b':
        return take_boolean(job, row, syntax.name);
    case 's':
        return take_string(job, row, syntax.name);
    case 't':
        return take_interval(job, row, syntax.name);
    case 'd':
    case 'D':
        return take_number(job, row, syntax.name, syntax.letter() == 'D');
    default:
        return row.m_option;
    }
}

// Reads a time one token at a time.
//
//     start -digits-> digits -:-> colon -digits-> colon_digits -:-> colon ...
//                     digits -unit-> wdhms -digits-> wdhms_digits -unit-> wdhms ...
//
// The value is complete in digits, colon_digits and wdhms.
class IntervalReader
{
  public:
    // Takes the token at `at` and moves behind it. Returns the reason of a failure, or null.
    const char *step(const char **at)
    {
        const char c = **at;
        if (c >= '0' && c <= '9') {
            return digits(at);
        }
        ++*at;
        switch (c) {
        case ' ':
        case '\t':
            return nullptr;
        case ':':
            return colon();
        case 'w':
            return unit(604800);
        case 'd':
            return unit(86400);
        case 'h':
            return unit(3600);
        case 'm':
            return unit(60);
        case 's':
            return unit(1);
        default:
            return "invalid character";
        }
    }

    bool complete() const
    {
        return state_ == t_digits || state_ == t_colon_digits || state_ == t_wdhms;
    }
    uint64_t result() const { return state_ == t_digits ? number_ : total_; }

  private:
    enum time_state_t {
        t_start = 0,
        t_digits = 1,
        t_colon = 2,
        t_colon_digits = 3,
        t_wdhms = 4,
        t_wdhms_digits = 5
    };

    const char *digits(const char **at)
    {
        if (state_ != t_start && state_ != t_colon && state_ != t_wdhms) {
            return "unexpected digit(s)";
        }
        char *end = nullptr;
        number_ = strtoull(*at, &end, 10);
        *at = end;
        if (state_ == t_colon) {
            total_ += number_;
            state_ = t_colon_digits;
        } else {
            state_ = state_ == t_start ? t_digits : t_wdhms_digits;
        }
        return nullptr;
    }

    const char *colon()
    {
        if (state_ == t_colon_digits) {
            total_ *= 60;
        } else if (state_ == t_digits) {
            total_ = number_ * 60;
        } else {
            return "unexpected ':'";
        }
        state_ = t_colon;
        return nullptr;
    }

    const char *unit(uint64_t seconds)
    {
        if (state_ != t_digits && state_ != t_wdhms_digits) {
            return "unexpected w/d/h/m/s specifier";
        }
        total_ += number_ * seconds;
        state_ = t_wdhms;
        return nullptr;
    }

    time_state_t state_ = t_start;
    uint64_t number_ = 0; // read last
    uint64_t total_ = 0;
};

// What the usage listing shows after the "=" of a value; nothing where the value is the caller's.
const char *placeholder(const Syntax &syntax)
{
    if (syntax.value[0] == '|') {
        return syntax.value + 1;
    }
    switch (syntax.letter()) {
    case 'b':
        return "<boolean>";
    case 'd':
        return "<value>";
    case 'D':
        return "<value>[k|m|g]";
    case 's':
        return "<string>";
    case 't':
        return "<interval>";
    default:
        return "";
    }
}

} // namespace

uint32_t parse_option(char **options, Option *syntax, uint64_t *int_value, char *str_value,
                      int str_len, char *err_msg, int err_len)
{
    const size_t err_size = err_msg != nullptr && err_len > 0 ? static_cast<size_t>(err_len) : 0;
    const Job job = {options, int_value, str_value, str_len, err_msg, err_size};
    if (err_size != 0) {
        err_msg[0] = '\0';
    }
    *options += strspn(*options, "\n,");
    const char *const start = *options;
    if (start[0] == '\0' || start[0] == '#') {
        return OPTION_END;
    }
    const string_view name = up_to(start, ",=\r\n");
    const bool with_value = start[name.size()] == '=';
    const size_t taken = name.size() + (with_value ? 1 : 0);

    const Option *row = nullptr;
    const Match match = find_row(syntax, name, with_value, &row);
    if (match == Match::value_missing) {
        *options += taken;
        return fail(job, "Value missing for option '%.*s'\n", precision(up_to(start, ",")), start);
    }
    if (match == Match::none || row->m_option == OPTION_ERROR) {
        return fail(job, "Unrecognized option: '%.*s'\n", precision(up_to(start, ",")), start);
    }
    *options += taken;
    if (match == Match::flag) {
        *int_value = 1;
        return row->m_option;
    }
    return take_value(job, *row);
}

int parse_boolean(char **options, uint64_t *int_value)
{
    for (const BoolWord &known : Boolstr) {
        const string_view input(*options, strnlen(*options, known.word.size()));
        if (equal_ignoring_case(input, known.word)) {
            *int_value = known.value;
            *options += known.word.size();
            return 1;
        }
    }
    *int_value = 0;
    return 0;
}

int parse_decimal(char **options, uint64_t *out)
{
    char *end = nullptr;
    *out = strtoull(*options, &end, 10);
    if (end == *options) {
        return 0;
    }
    *options = end;
    return 1;
}

int parse_number(char **options, uint64_t *out, char **err_str)
{
    *err_str = koutil::literal("");
    *out = 0;
    char *end = nullptr;
    const uint64_t number = strtoull(*options, &end, 0);
    if (end == *options) {
        return 0;
    }
    int shift = 0;
    switch (*end) {
    case '\0':
    case '\t':
    case ' ':
    case ',':
        break;
    case 'k':
    case 'K':
        shift = 10;
        break;
    case 'm':
    case 'M':
        shift = 20;
        break;
    case 'g':
    case 'G':
        shift = 30;
        break;
    default:
        *err_str = koutil::literal("Invalid unit multiplier (k/K/m/M/g/G allowed)");
        return 0;
    }
    *out = number << shift;
    *options = end + (shift != 0 ? 1 : 0);
    return 1;
}

int parse_interval(char **options, uint64_t *out, char *err_msg, size_t err_msg_sz)
{
    const string_view value = up_to(*options, ",=");
    const char *const end = value.data() + value.size();
    IntervalReader reader;
    const char *reason = nullptr;
    const char *at = value.data();
    const char *token = at;
    while (at != end && reason == nullptr) {
        token = at;
        reason = reader.step(&at);
    }
    if (reason == nullptr && !reader.complete()) {
        token = end;
        reason = "incomplete specification";
    }
    if (reason != nullptr) {
        *out = 0;
        const size_t offset = static_cast<size_t>(token - value.data()) + 1;
        const string_view read = value.substr(0, offset);
        VoSnprintf(err_msg, err_msg_sz, "Bad time format: '%.*s' (offset %d): %s\n",
                   precision(read), read.data(), static_cast<int>(offset), reason);
        return 0;
    }
    *out = reader.result();
    *options += value.size();
    return 1;
}

int parse_string(char **options, char *str_value, int str_len, char **err_str)
{
    *err_str = koutil::literal("");
    string_view text;
    size_t taken = 0;
    if (**options == '"') {
        text = up_to(*options + 1, "\"");
        if (text.data()[text.size()] == '\0') {
            *err_str = koutil::literal("Unterminated string");
            return 0;
        }
        taken = text.size() + 2;
    } else {
        text = up_to(*options, ",");
        if (text.data()[text.size()] == '\0') {
            text = up_to(*options, "\n");
        }
        taken = text.size();
    }
    if (str_len < 0 || text.size() > static_cast<size_t>(str_len)) {
        *err_str = koutil::literal("String option too long");
        return 0;
    }
    memcpy(str_value, text.data(), text.size());
    str_value[text.size()] = '\0';
    *options += taken;
    return 1;
}

int parse_choice(char **options, const char *choices, uint64_t *int_value)
{
    const string_view word = up_to(*options, ",=");
    uint64_t position = 0;
    const char *alternative = choices + (*choices == '|' ? 1 : 0);
    for (;;) {
        const string_view candidate = up_to(alternative, "|,");
        if (equal_ignoring_case(candidate, word)) {
            *int_value = position;
            *options += word.size();
            return 1;
        }
        const char separator = alternative[candidate.size()];
        if (separator == '\0') {
            *int_value = 0;
            return 0;
        }
        position += separator == '|' ? 1 : 0;
        alternative += candidate.size() + 1;
    }
}

void parser_usage(Option *syntax)
{
    for (const Option *row = syntax; row->m_name != nullptr; ++row) {
        if (row->m_option == OPTION_UNLISTED || row->m_silent != 0) {
            continue;
        }
        const Syntax parts(*row);
        char column[usage_column_size];
        VoSnprintf(column, sizeof column, "%.*s%s", precision(parts.key()), parts.key().data(),
                   parts.has_value ? placeholder(parts) : "");
        const char *const usage = row->m_usage != nullptr ? row->m_usage : "";
        if (strlen(column) < usage_column_width) {
            fprintf(stderr, "  %-30s%s\n", column, usage);
        } else if (row->m_usage != nullptr) {
            fprintf(stderr, "  %s\n%-32s%s\n", column, "", usage);
        } else {
            fprintf(stderr, "  %s\n", column);
        }
    }
}

void format_number(uint64_t num, char *str)
{
    constexpr uint64_t low_bits = 1023;
    if ((num & low_bits) != 0) {
        VoSnprintf(str, number_text_size, "%ld", static_cast<long>(num));
    } else if ((num >> 10 & low_bits) != 0) {
        VoSnprintf(str, number_text_size, "%ldK", static_cast<long>(num >> 10));
    } else if ((num >> 20 & low_bits) != 0) {
        VoSnprintf(str, number_text_size, "%ldM", static_cast<long>(num >> 20));
    } else {
        VoSnprintf(str, number_text_size, "%ldG", static_cast<long>(num >> 30));
    }
}

void format_interval(uint64_t num, char *str)
{
    const unsigned long long hours = num / 3600;
    const int minutes = static_cast<int>(num / 60 % 60);
    const int seconds = static_cast<int>(num % 60);
    if (hours == 0 && minutes == 0) {
        VoSnprintf(str, interval_text_size, "%ds", seconds);
    } else if (hours == 0 && seconds == 0) {
        VoSnprintf(str, interval_text_size, "%dm", minutes);
    } else if (hours == 0) {
        VoSnprintf(str, interval_text_size, "%d:%02d", minutes, seconds);
    } else if (minutes != 0 || seconds != 0) {
        VoSnprintf(str, interval_text_size, "%llu:%02d:%02d", hours, minutes, seconds);
    } else if (hours % 24 == 0) {
        VoSnprintf(str, interval_text_size, "%llud", hours / 24);
    } else {
        VoSnprintf(str, interval_text_size, "%lluh", hours);
    }
}
