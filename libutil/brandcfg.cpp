// brandcfg.cpp - the branding file.
//
// Programs read the texts without a lock, and every call before a file has been read sets the
// defaults anew. So the texts are composed aside, under a lock, and a text is written only where
// its bytes change.
#include "koutil/brandcfg.h"

#include "internal/guards.h"
#include "internal/literal.h"
#include "koutil/getroot.h"
#include "koutil/snprintf.h"

#include <cstring>

namespace
{

constexpr int kValueRoom = 33;
constexpr size_t kLineMax = 255;
constexpr size_t kPathMax = 255;

void copyKeyVal(int, char *keyval, char *buf, int buflen)
{
    if (buf == nullptr || buflen <= 0) {
        return;
    }
    const size_t room = static_cast<size_t>(buflen) - 1;
    const size_t len = strnlen(keyval, room);
    memcpy(buf, keyval, len);
    memset(buf + len, 0, room - len + 1);
}

// One text while it is composed.
struct Staged {
    char *global;
    char text[BRAND_TEXT_SIZE];
};

constexpr size_t kTexts = 6;

void set_defaults(Staged (&staged)[kTexts])
{
    VoSnprintf(staged[0].text, BRAND_TEXT_SIZE, "Kovaline");
    VoSnprintf(staged[1].text, BRAND_TEXT_SIZE, "KOVA");
    VoSnprintf(staged[2].text, BRAND_TEXT_SIZE, "koadmin");
    VoSnprintf(staged[3].text, BRAND_TEXT_SIZE, "Zelkor");
    VoSnprintf(staged[5].text, BRAND_TEXT_SIZE, "%s/icon.ico", GetVornOemDir());
}

char *staged_for(Staged (&staged)[kTexts], char *buf)
{
    for (Staged &each : staged) {
        if (each.global == buf) {
            return each.text;
        }
    }
    return buf;
}

// Splits a line in place at the first blank or tab behind its first word. `value` becomes what
// follows that one separator up to the end of the line, null if that is nothing.
char *split_line(char *line, char *&value)
{
    value = nullptr;
    char *word = line + strspn(line, " \t");
    char *end = word + strcspn(word, " \t");
    if (*end != '\0') {
        *end = '\0';
        char *rest = end + 1;
        rest[strcspn(rest, "\r\n")] = '\0';
        value = *rest != '\0' ? rest : nullptr;
    }
    return word;
}

void apply_line(Staged (&staged)[kTexts], char *line)
{
    char *value;
    const char *word = split_line(line, value);
    for (int i = 0; i < BRAND_KEYWORDS && value != nullptr; i++) {
        const keywordTbl_t &row = keywordTbl[i];
        if (strcmp(word, row.keyword) == 0) {
            row.func(i, value, staged_for(staged, row.buf), row.buflen);
            return;
        }
    }
}

koutil::FilePtr open_oem_file()
{
    char path[kPathMax + 1] = "";
    const int len = VoSnprintf(path, sizeof path, "%s/oem.inf", GetVornOemDir());
    const bool fits = len >= 0 && static_cast<size_t>(len) < sizeof path;
    return koutil::FilePtr(fits ? fopen(path, "re") : nullptr);
}

void publish(const Staged (&staged)[kTexts])
{
    for (const Staged &each : staged) {
        if (memcmp(each.global, each.text, BRAND_TEXT_SIZE) != 0) {
            memcpy(each.global, each.text, BRAND_TEXT_SIZE);
        }
    }
}

thread_mutex_t branding_lock = THREAD_MUTEX_INITIALIZER;
bool ValuesSet; // guarded by branding_lock

} // namespace

char BrandName[BRAND_TEXT_SIZE];
char BrandAbbrv[BRAND_TEXT_SIZE];
char BrandPrompt[BRAND_TEXT_SIZE];
char BrandCompany[BRAND_TEXT_SIZE];
char BrandBitmap[BRAND_TEXT_SIZE];
char BrandIcon[BRAND_TEXT_SIZE];

constinit keywordTbl_t keywordTbl[BRAND_KEYWORDS] = {
    {const_cast<char *>("BrandName"), BrandName, kValueRoom, copyKeyVal},
    {const_cast<char *>("BrandAbbrv"), BrandAbbrv, kValueRoom, copyKeyVal},
    {const_cast<char *>("BrandPrompt"), BrandPrompt, kValueRoom, copyKeyVal},
    {const_cast<char *>("BrandCompanyAbbreviation"), BrandCompany, kValueRoom, copyKeyVal},
};

void configure_branding()
{
    const koutil::LockGuard guard(branding_lock);
    if (ValuesSet) {
        return;
    }
    Staged staged[kTexts] = {{BrandName, ""},    {BrandAbbrv, ""},  {BrandPrompt, ""},
                             {BrandCompany, ""}, {BrandBitmap, ""}, {BrandIcon, ""}};
    set_defaults(staged);
    const koutil::FilePtr file = open_oem_file();
    if (file != nullptr) {
        char line[kLineMax + 1];
        while (fgets(line, sizeof line, file.get()) != nullptr) {
            apply_line(staged, line);
        }
        ValuesSet = true;
    }
    publish(staged);
}
