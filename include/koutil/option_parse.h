/* option_parse.h - settings given as one option string, parsed against a table.
 *
 * A daemon or tool describes its options in a table and takes them from a string such as
 * "threads=8,size=4m,interval=1h30m,mode=fast,verbose". Each call of parse_option takes one option
 * off the string, converts its value and tests its range; every failure is told in one line of
 * text. The same table prints the usage listing. For settings in a file see kovacfg.h.
 *
 *     m_name                 value                                        int_value / str_value
 *     "name"                 none: a flag                                 1
 *     "name=%b"              no yes off on false true n y 0 1, or none    0 or 1
 *     "name=%d"              decimal number                               the number
 *     "name=%D"              number, with k, m or g times 1024, ...       the number
 *     "name=%t"              time: 90, 1:30, 1:02:03, 1h30m, 2w           seconds
 *     "name=%s"              text up to the next "," or "in quotes"       the text
 *     "name=|fast,quick|slow"   one of the words, "," between synonyms    position: 0, 0, 1
 *     "name=" and else       left unparsed for the caller
 *
 *     static Option table[] = {{"threads=%d", 1, 1, 64, "worker threads", 0, KOOPT_INVALID, 0},
 *                              {"verbose", 2, 0, 0, "say more", 0, KOOPT_INVALID, 0},
 *                              {NULL, 0, 0, 0, NULL, 0, KOOPT_INVALID, 0}};
 *     while ((code = parse_option(&text, table, &number, word, sizeof word, err, sizeof err))
 *            != OPTION_END) {
 *         if (code == OPTION_ERROR) { fputs(err, stderr); return 2; }
 *         ...
 *     }
 *
 * Names and words are compared without regard to case, in ASCII. The parse functions return 1 for
 * success and 0 for failure, and move *options past what they took; on failure they leave it and
 * set the number to 0. Reasons in *err_str are constant texts, "" for no reason.
 *
 * Memory:         nothing is allocated; the option string is not changed.
 * Thread safety:  no state; any thread may call every function.
 */
#ifndef KOUTIL_OPTION_PARSE_H
#define KOUTIL_OPTION_PARSE_H

#include "koutil/types.h"

KO_BEGIN_DECLS

/* Results of parse_option beside the codes of the table, which must differ from the first two. */
enum {
    OPTION_END = 4096,     /* nothing more to parse */
    OPTION_ERROR = 4097,   /* the message tells why */
    OPTION_UNLISTED = 4098 /* code of a row that parser_usage leaves out; parsed as any other */
};

/* Kind of the field that a caller stores a value in, for the caller's own use. */
typedef enum {
    KOOPT_INVALID = 0,
    KOOPT_SUBTYPE_NBR = 4096,
    KOOPT_INT8 = 4097,
    KOOPT_UINT8 = 4098,
    KOOPT_INT16 = 4099,
    KOOPT_UINT16 = 4100,
    KOOPT_INT32 = 4101,
    KOOPT_UINT32 = 4102,
    KOOPT_INT64 = 4103,
    KOOPT_UINT64 = 4104,
    KOOPT_SUBTYPE_STR = 8192,
    KOOPT_STR_STATIC = 8193,
    KOOPT_STR_DYNAMIC = 8194,
    KOOPT_SUBTYPE_SPECIAL = 12288,
    KOOPT_BOOL = 12289,
    KOOPT_BITMASK = 12291,
    KOOPT_SUBSTRUCT = 12292
} KoOpt_type_e;

/* One option; a table ends with a row whose m_name is null. */
typedef struct Option {
    const char *m_name;        /* name and value syntax, as in the table above */
    uint32_t m_option;         /* the caller's code, which parse_option returns */
    uint64_t m_min;            /* smallest value of "%d", "%D" and "%t"; 0 means no minimum */
    uint64_t m_max;            /* largest value; 0 means no maximum */
    const char *m_usage;       /* one line for the usage listing, or null */
    uint32_t m_silent;         /* other than 0: parser_usage leaves the row out */
    KoOpt_type_e m_snopt_type; /* not read here */
    uint32_t m_field_offset;   /* where the caller stores the value; not read here */
} Option;

/* Take the next option off *options.
 *
 * Leading line feeds and commas are skipped, blanks are not; "#" at the start of an option ends the
 * string. The first row of `syntax` that has the name decides. A number goes to *int_value, a text
 * of at most `str_len` - 1 characters to `str_value`, which holds `str_len` bytes and is written
 * for "%s" alone. A value of another syntax is left in place, *options standing at it.
 *
 * Returns the row's m_option, or OPTION_END, or OPTION_ERROR with one line in `err_msg`, which is
 * optional and cut to `err_len`. After an error *options stands
 *     at the option's first character   when its name is not known;
 *     behind the name                   when its value is missing;
 *     at the value                      when the value cannot be read;
 *     behind the value                  when it is out of range;
 * a caller that wants to go on skips to the next "," itself. */
KO_API uint32_t parse_option(char **options, Option *syntax, uint64_t *int_value, char *str_value,
                             int str_len, char *err_msg, int err_len);

/* Read one of the words no yes off on false true n y 0 1. The first of them, in this order, that
 * begins the text is taken, whatever follows it: "none" is "no" and leaves "ne". */
KO_API int parse_boolean(char **options, uint64_t *int_value);

/* Read a decimal number as strtoull(3) does, whatever follows it.
 *
 * Returns 1, or 0 when there is none. */
KO_API int parse_decimal(char **options, uint64_t *out);

/* Read a number as strtoull(3) does in base 0, so "0x" begins hexadecimal and "0" octal digits,
 * with an optional k, m or g in either case for 2^10, 2^20 and 2^30. Without a unit it must end at
 * a blank, a tab, a comma or the end. The product keeps its low 64 bits. */
KO_API int parse_number(char **options, uint64_t *out, char **err_str);

/* Read a time up to the next ",", "=" or the end as seconds: a number; numbers with ":" between
 * them, each worth 60 of the next; or numbers with the units w, d, h, m, s, in any order. Blanks
 * and tabs are skipped. The sum keeps its low 64 bits.
 *
 * On failure `err_msg`, which is optional, tells the reason and the position. */
KO_API int parse_interval(char **options, uint64_t *out, char *err_msg, size_t err_msg_sz);

/* Copy a text of at most `str_len` characters into `str_value`, which holds one byte more, and
 * terminate it. The text stands in quotation marks, or runs to the first "," of all that is left,
 * or else to the first line feed, or else to the end. On failure `str_value` is untouched. */
KO_API int parse_string(char **options, char *str_value, int str_len, char **err_str);

/* Read a word, up to the next ",", "=" or the end, and find it in `choices`, which begins with "|".
 * On success *int_value is the number of "|" between the list's start and the word. */
KO_API int parse_choice(char **options, const char *choices, uint64_t *int_value);

/* Print one line for each row on standard error: the name and what its value may be on the left,
 * m_usage from column 32 on, below a left side of 30 characters and more. The left side is cut at
 * 79; a value that is left to the caller shows nothing behind its "=". Rows with the code
 * OPTION_UNLISTED or with m_silent are left out. */
KO_API void parser_usage(Option *syntax);

/* Write `num` to `str`, which holds 21 bytes, in the syntax of "%D" with the largest unit of K, M
 * and G that divides it; 0 is "0G". Numbers of 2^63 and more that need no unit are shown negative,
 * which reads back as the same number. */
KO_API void format_number(uint64_t num, char *str);

/* Write `num` seconds to `str`, which holds 24 bytes, in the syntax of "%t": "45s", "2m", "1:30",
 * "2h", "2d", "1:02:03". Every text reads back to the same number. */
KO_API void format_interval(uint64_t num, char *str);

KO_END_DECLS

#endif
