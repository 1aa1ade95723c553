// fmt_syserror.cpp - the text of a system error number.
#include "koutil/fmt_syserror.h"

#include "koutil/snprintf.h"

#include <cerrno>
#include <cstring>

char *_FormatSysError(int code, char *buf, size_t buflen)
{
    const int number = code == -1 ? errno : code;
    if (buf == nullptr || buflen == 0) {
        return buf;
    }
    char storage[256] = "";
    const char *text = strerror_r(number, storage, sizeof storage); // the one that returns the text
    buf[0] = '\0';
    VoSnprintf(buf, buflen, "[errno %d]: %s", number, text);
    for (size_t length = strnlen(buf, buflen); length > 0 && buf[length - 1] == ' '; length--) {
        buf[length - 1] = '\0';
    }
    return buf;
}

char *FormatSysError(char *buf, size_t buflen)
{
    return _FormatSysError(-1, buf, buflen);
}
